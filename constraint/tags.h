// The extension tag of an expression and the rules that carry it through arithmetic.
#pragma once

#include <cstdint>

namespace zorp {

struct ExprImpl;

inline constexpr std::uint32_t kNoTag = 0xFFFFFFFFu;

// Top two bits: 00/01 an encoded integer, 10 one constraint with a body, 11 a sum of
// constraints; all ones is no tag.
inline constexpr bool is_expr_expr_tag(std::uint32_t ext) { return (ext >> 30) == 2u; }
inline constexpr bool is_constraint_sum_tag(std::uint32_t ext) { return ext != kNoTag && (ext >> 30) == 3u; }
inline constexpr bool is_constraint_tag(std::uint32_t ext) { return is_expr_expr_tag(ext) || is_constraint_sum_tag(ext); }

// A constraint sum whose record carries the `declared` flag.
bool is_declared_tag(std::uint32_t ext);

// Declared, without a free-form part, with at least one item, every item an abs/relu
// objective shape.
bool tag_all_objective_only(std::uint32_t ext);

// Copying an expression that holds a constraint sum freezes that record, so that no later
// in-place merge changes what the copy sees.
void freeze_on_copy(std::uint32_t ext);

// Tag of `left + right`; `left` or `right` is null when that side joins as a polynomial-free
// tag. `in_place` allows appending to left's record.
std::uint32_t merge_tags(std::uint32_t a, const ExprImpl* left, std::uint32_t b, const ExprImpl* right, bool in_place);

// Tag of a tagged value times `factor`; refuses what it must.
std::uint32_t scale_tag(std::uint32_t ext, std::int64_t factor);

}  // namespace zorp
