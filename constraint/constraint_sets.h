// ExprExprSet and ConstraintSumSet: the append-only process-wide records behind the
// constraint tags of expressions.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

#include "algebra/expr.h"

namespace zorp {

// One constraint: a body and what the body must satisfy.
struct ExprExprRecord {
  ExprImpl body;  // tag none
  std::uint8_t has_bounds = 0;
  std::int64_t lower = 0;  // inclusive; there is no infinity
  std::int64_t upper = 0;
  std::vector<std::pair<std::int64_t, std::int64_t>> allowed;  // allowed intervals, as given
  std::uint8_t penalty_exponent = 2;
  std::uint8_t penalty_shape = 0;  // 0 ordinary, 1 abs/relu objective term
};

struct ConstraintItem {
  std::uint32_t index;  // into ExprExprSet
  std::int64_t weight;
};

// A sum of constraints, declared (enforced by the search) or classic (penalty already in the
// polynomial), with an optional free-form part held at 0.
struct ConstraintSumRecord {
  std::vector<ConstraintItem> items;
  std::unique_ptr<ExprImpl> remainder;
  std::uint8_t declared = 0;
  // Set once two expressions hold the tag: from then on nobody merges into it in place.
  std::atomic<bool> frozen{false};
};

// Records are never freed before exit, so their addresses stay valid; appends take the
// set's mutex, and so does the index lookup, which keeps concurrent declaration safe.
template <class Record>
class RecordSet {
 public:
  // Appends and returns the new index. Aborts with "<set name>: index overflow" when full.
  std::uint32_t append(std::unique_ptr<Record> record, std::string_view overflow_message);
  // The record at `index`, or null past the end.
  Record* find(std::uint32_t index) const;
  std::uint32_t size() const;

 private:
  mutable std::mutex lock_;
  std::vector<std::unique_ptr<Record>> records_;
};

using ExprExprSet = RecordSet<ExprExprRecord>;
using ConstraintSumSet = RecordSet<ConstraintSumRecord>;

ExprExprSet& expr_expr_set();
ConstraintSumSet& constraint_sum_set();

inline constexpr std::uint32_t kExprExprKind = 0x80000000u;
inline constexpr std::uint32_t kConstraintSumKind = 0xC0000000u;
inline constexpr std::uint32_t kTagIndexMask = 0x3FFFFFFFu;

std::uint32_t add_expr_expr(std::unique_ptr<ExprExprRecord> record);        // returns the tag
std::uint32_t add_constraint_sum(std::unique_ptr<ConstraintSumRecord> record);  // returns the tag

// Lookups by tag; a bad index aborts with `bad_index_message`.
ExprExprRecord& expr_expr_at(std::uint32_t tag, std::string_view bad_index_message);
ConstraintSumRecord& constraint_sum_at(std::uint32_t tag);

// The record's body for violation reports and simplification: a stale index aborts with the
// "no longer an ExprExpr" line.
ExprExprRecord& expr_expr_body_record(std::uint32_t index);

// A constraint tag rebuilt with every body (and the remainder) passed through `transform`:
// new ExprExpr records take over bounds, allowed sets and shapes; a sum keeps its weights
// and `declared` flag. Any other tag is returned unchanged.
std::uint32_t transform_constraint_tag(std::uint32_t ext, ExprImpl (*transform)(const ExprImpl&));

}  // namespace zorp
