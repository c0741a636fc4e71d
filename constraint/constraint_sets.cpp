#include "constraint/constraint_sets.h"

#include "frame/fatal.h"

namespace zorp {

template <class Record>
std::uint32_t RecordSet<Record>::append(std::unique_ptr<Record> record, std::string_view overflow_message) {
  std::lock_guard<std::mutex> guard(lock_);
  if (records_.size() >= kTagIndexMask) fatal(overflow_message);
  records_.push_back(std::move(record));
  return static_cast<std::uint32_t>(records_.size() - 1);
}

template <class Record>
Record* RecordSet<Record>::find(std::uint32_t index) const {
  std::lock_guard<std::mutex> guard(lock_);
  return index < records_.size() ? records_[index].get() : nullptr;
}

template <class Record>
std::uint32_t RecordSet<Record>::size() const {
  std::lock_guard<std::mutex> guard(lock_);
  return static_cast<std::uint32_t>(records_.size());
}

template class RecordSet<ExprExprRecord>;
template class RecordSet<ConstraintSumRecord>;

ExprExprSet& expr_expr_set() {
  static ExprExprSet set;
  return set;
}

ConstraintSumSet& constraint_sum_set() {
  static ConstraintSumSet set;
  return set;
}

std::uint32_t add_expr_expr(std::unique_ptr<ExprExprRecord> record) {
  return kExprExprKind | expr_expr_set().append(std::move(record), "ExprExprSet: index overflow");
}

std::uint32_t add_constraint_sum(std::unique_ptr<ConstraintSumRecord> record) {
  return kConstraintSumKind | constraint_sum_set().append(std::move(record), "ConstraintSumSet: index overflow");
}

ExprExprRecord& expr_expr_at(std::uint32_t tag, std::string_view bad_index_message) {
  ExprExprRecord* record = expr_expr_set().find(tag & kTagIndexMask);
  if (record == nullptr) fatal(bad_index_message);
  return *record;
}

ConstraintSumRecord& constraint_sum_at(std::uint32_t tag) {
  ConstraintSumRecord* record = constraint_sum_set().find(tag & kTagIndexMask);
  if (record == nullptr) fatal("ConstraintSumSet: bad index");
  return *record;
}

ExprExprRecord& expr_expr_body_record(std::uint32_t index) {
  ExprExprRecord* record = expr_expr_set().find(index & kTagIndexMask);
  if (record == nullptr)
    fatal_whole_line("zorp: ExprExpr body access on a value that is no longer an ExprExpr (e.g. after ee += 1, ee.sqr()).");
  return *record;
}

namespace {

std::uint32_t transformed_record(std::uint32_t index, ExprImpl (*transform)(const ExprImpl&)) {
  const ExprExprRecord& old = expr_expr_body_record(index);
  auto fresh = std::make_unique<ExprExprRecord>();
  ExprImpl body(old.body);
  body.ext = kNoTag;
  fresh->body = transform(body);
  fresh->has_bounds = old.has_bounds;
  fresh->lower = old.lower;
  fresh->upper = old.upper;
  fresh->allowed = old.allowed;
  fresh->penalty_exponent = old.penalty_exponent;
  fresh->penalty_shape = old.penalty_shape;
  return add_expr_expr(std::move(fresh));
}

}  // namespace

std::uint32_t transform_constraint_tag(std::uint32_t ext, ExprImpl (*transform)(const ExprImpl&)) {
  if (is_expr_expr_tag(ext)) return transformed_record(ext, transform);
  if (!is_constraint_sum_tag(ext)) return ext;
  const ConstraintSumRecord& old = constraint_sum_at(ext);
  auto fresh = std::make_unique<ConstraintSumRecord>();
  fresh->items.reserve(old.items.size());
  for (const ConstraintItem& item : old.items)
    fresh->items.push_back({transformed_record(item.index, transform) & kTagIndexMask, item.weight});
  if (old.remainder) {
    ExprImpl remainder(*old.remainder);
    remainder.ext = kNoTag;
    fresh->remainder = std::make_unique<ExprImpl>(transform(remainder));
  }
  fresh->declared = old.declared;
  return add_constraint_sum(std::move(fresh));
}

}  // namespace zorp
