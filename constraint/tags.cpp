// How constraint tags follow an expression through arithmetic: merging the tags of a sum,
// scaling by an integer, and freezing a record once two expressions share it.
#include "constraint/tags.h"

#include <memory>

#include "constraint/constraint_sets.h"
#include "frame/fatal.h"

namespace zorp {

namespace {

void add_to_remainder(ConstraintSumRecord& record, const ExprImpl& polynomial) {
  if (record.remainder) {
    *record.remainder += polynomial;
  } else {
    record.remainder = std::make_unique<ExprImpl>(polynomial);
  }
  record.remainder->ext = kNoTag;
}

// The items and remainder a constraint tag contributes to a sum; an ExprExpr is one item of
// weight 1.
void append_constraint(ConstraintSumRecord& into, std::uint32_t tag) {
  if (is_expr_expr_tag(tag)) {
    into.items.push_back({tag & kTagIndexMask, 1});
    return;
  }
  const ConstraintSumRecord& from = constraint_sum_at(tag);
  // `from` is `into` itself for e += e, so the items are appended by index after one reserve
  // rather than by a range insert from the vector being grown.
  const std::size_t n = from.items.size();
  into.items.reserve(into.items.size() + n);
  for (std::size_t i = 0; i < n; ++i) into.items.push_back(from.items[i]);
  if (from.remainder) add_to_remainder(into, *from.remainder);
}

bool can_grow_in_place(std::uint32_t tag) { return is_constraint_sum_tag(tag) && !constraint_sum_at(tag).frozen.load(); }

}  // namespace

bool is_declared_tag(std::uint32_t ext) { return is_constraint_sum_tag(ext) && constraint_sum_at(ext).declared != 0; }

void freeze_on_copy(std::uint32_t ext) {
  if (is_constraint_sum_tag(ext)) constraint_sum_at(ext).frozen.store(true);
}

bool tag_all_objective_only(std::uint32_t ext) {
  if (!is_declared_tag(ext)) return false;
  const ConstraintSumRecord& record = constraint_sum_at(ext);
  if (record.remainder || record.items.empty()) return false;
  for (const ConstraintItem& item : record.items)
    if (expr_expr_at(item.index, "ExprExprSet: meta bad index").penalty_shape != 1) return false;
  return true;
}

std::uint32_t merge_tags(std::uint32_t a, const ExprImpl* left, std::uint32_t b, const ExprImpl* right, bool in_place) {
  const bool a_constraint = is_constraint_tag(a), b_constraint = is_constraint_tag(b);
  if (!a_constraint && !b_constraint) return kNoTag;
  const bool a_declared = is_declared_tag(a), b_declared = is_declared_tag(b);
  const bool declared = a_declared || b_declared;
  if (declared && ((a_constraint && !a_declared) || (b_constraint && !b_declared)))
    fatal(
        "zorp::cons: cannot mix declared constraints with classic penalty-style constraints in one expression; wrap "
        "the classic part with zorp::cons(...) as well");
  // A plain polynomial beside declared constraints is objective; beside classic ones it is
  // part of the penalty and joins the remainder.
  const bool plain_sides_join = !declared;
  if (in_place && can_grow_in_place(a)) {
    ConstraintSumRecord& record = constraint_sum_at(a);
    if (b_constraint) append_constraint(record, b);
    if (plain_sides_join && !b_constraint && right != nullptr) add_to_remainder(record, *right);
    return a;
  }
  auto record = std::make_unique<ConstraintSumRecord>();
  record->declared = declared ? 1 : 0;
  if (a_constraint) {
    append_constraint(*record, a);
  } else if (plain_sides_join && left != nullptr) {
    add_to_remainder(*record, *left);
  }
  if (b_constraint) {
    append_constraint(*record, b);
  } else if (plain_sides_join && right != nullptr) {
    add_to_remainder(*record, *right);
  }
  return add_constraint_sum(std::move(record));
}

std::uint32_t scale_tag(std::uint32_t ext, std::int64_t factor) {
  if (!is_constraint_tag(ext)) return kNoTag;
  const bool declared = is_declared_tag(ext);
  if (declared && factor == 0) {
    if (tag_all_objective_only(ext)) return kNoTag;
    fatal("zorp::cons: multiplying declared constraints by 0 would silently drop them");
  }
  // A classic penalty scaled below 1 no longer measures its constraints.
  if (!declared && factor < 1) return kNoTag;
  auto record = std::make_unique<ConstraintSumRecord>();
  record->declared = declared ? 1 : 0;
  if (is_expr_expr_tag(ext)) {
    record->items.push_back({ext & kTagIndexMask, factor});
  } else {
    const ConstraintSumRecord& old = constraint_sum_at(ext);
    record->items.reserve(old.items.size());
    for (const ConstraintItem& item : old.items) record->items.push_back({item.index, wrapping_mul(item.weight, factor)});
    if (old.remainder) {
      record->remainder = std::make_unique<ExprImpl>(*old.remainder);
      record->remainder->imul_int(factor);
    }
  }
  return add_constraint_sum(std::move(record));
}

}  // namespace zorp
