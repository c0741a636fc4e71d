// Exported functions of the constraint family: classic records, declared constraints and
// the queries on constraint tags.
#include <memory>
#include <string>

#include "algebra/handles.h"
#include "constraint/constraint_sets.h"
#include "constraint/reachable_bounds.h"
#include "frame/fatal.h"
#include "zorp/cons.h"
#include "zorp/expr.h"

using namespace zorp;

namespace {

ExprImpl plain_copy(const ExprImpl& e) {
  ExprImpl copy(e);
  copy.ext = kNoTag;
  return copy;
}

// A new declared sum holding one constraint on a copy of `body`; returns the zero
// expression carrying it.
zorp_expr* declare_single(const ExprImpl& body, std::int64_t lower, std::int64_t upper,
                          std::unique_ptr<ExprExprRecord> record = std::make_unique<ExprExprRecord>()) {
  record->body = plain_copy(body);
  record->has_bounds = 1;
  record->lower = lower;
  record->upper = upper;
  const std::uint32_t index = add_expr_expr(std::move(record)) & kTagIndexMask;
  auto sum = std::make_unique<ConstraintSumRecord>();
  sum->items.push_back({index, 1});
  sum->declared = 1;
  auto result = std::make_unique<ExprImpl>();
  result->ext = add_constraint_sum(std::move(sum));
  return handle(result.release());
}

zorp_expr* objective_shape(const zorp_expr* body, std::int64_t k, const char* name, bool relu) {
  if (is_declared_tag(impl(body)->ext)) fatal_declared_refusal("abs/relu body carrying declared constraints");
  if (k != 1 && k != 2) fatal("zorp::", name, ": the exponent k must be 1 or 2 (got ", k, ")");
  auto record = std::make_unique<ExprExprRecord>();
  record->penalty_exponent = static_cast<std::uint8_t>(k);
  record->penalty_shape = 1;
  // relu counts only body > 0: a lower end at the reachable minimum never violates.
  const std::int64_t lower = relu ? std::min<std::int64_t>(0, reachable_bounds(*impl(body)).first) : 0;
  return declare_single(*impl(body), lower, 0, std::move(record));
}

ExprExprRecord& classic_record(const zorp_expr* e, const char* not_classic_message, std::string_view bad_index) {
  const std::uint32_t tag = impl(e)->ext;
  if (!is_expr_expr_tag(tag)) fatal(not_classic_message);
  return expr_expr_at(tag, bad_index);
}

}  // namespace

extern "C" {

zorp_expr* zorp_exprexprelem_create(const zorp_expr* penalty, const zorp_expr* body) {
  if (is_declared_tag(impl(penalty)->ext) || is_declared_tag(impl(body)->ext))
    fatal_declared_refusal("== / <= (comparing declared constraints)");
  auto record = std::make_unique<ExprExprRecord>();
  record->body = plain_copy(*impl(body));
  auto result = std::make_unique<ExprImpl>(plain_copy(*impl(penalty)));
  result->ext = add_expr_expr(std::move(record));
  return handle(result.release());
}

void zorp_exprexpr_set_bounds(zorp_expr* e, int64_t lower, int64_t upper) {
  ExprExprRecord& record =
      classic_record(e, "zorp_exprexpr_set_bounds: not an ExprExpr", "ExprExprSet: set_bounds bad index");
  record.lower = lower;
  record.upper = upper;
  record.has_bounds = 1;
}

int zorp_exprexpr_get_bounds(const zorp_expr* e, int64_t* lower, int64_t* upper) {
  const std::uint32_t tag = impl(e)->ext;
  if (!is_expr_expr_tag(tag)) return 0;
  const ExprExprRecord& record = expr_expr_at(tag, "ExprExprSet: get_bounds bad index");
  if (record.has_bounds == 0) return 0;
  *lower = record.lower;
  *upper = record.upper;
  return 1;
}

void zorp_exprexpr_set_allowed(zorp_expr* e, const int64_t* los, const int64_t* his, size_t n) {
  ExprExprRecord& record =
      classic_record(e, "zorp_exprexpr_set_allowed: not an ExprExpr", "ExprExprSet: set_allowed bad index");
  if (n == 0) fatal("ExprExprSet: set_allowed empty set");
  record.allowed.clear();
  record.lower = los[0];
  record.upper = his[0];
  for (size_t i = 0; i < n; ++i) {
    record.allowed.emplace_back(los[i], his[i]);
    record.lower = std::min(record.lower, los[i]);
    record.upper = std::max(record.upper, his[i]);
  }
  record.has_bounds = 1;
}

const zorp_expr* zorp_exprexprelem_get_body(const zorp_expr* e) {
  const std::uint32_t tag = impl(e)->ext;
  if (is_expr_expr_tag(tag)) return handle(&expr_expr_body_record(tag).body);
  if (!is_constraint_sum_tag(tag))
    fatal_whole_line("zorp: ExprExpr body access on a value that is not an ExprExpr (plain Expr, VarInt or constraint sum).");
  const ConstraintSumRecord& sum = constraint_sum_at(tag);
  if (sum.items.size() != 1 || sum.remainder) {
    fatal("body() requires exactly one constraint, but this value holds ", sum.items.size(), " constraint(s)",
          sum.remainder ? " and a free-form penalty" : "", "; use violations(sol) instead.");
  }
  return handle(&expr_expr_body_record(sum.items[0].index).body);
}

zorp_expr* zorp_exprexprelem_clone(const zorp_expr* e) { return zorp_expr_clone(e); }

void zorp_exprexprelem_destroy(zorp_expr* e) { zorp_expr_destroy(e); }

zorp_expr* zorp_cons_between(const zorp_expr* body, int64_t lower, int64_t upper) {
  if (is_declared_tag(impl(body)->ext)) fatal_declared_refusal("cons(body, ...) on declared constraints");
  return declare_single(*impl(body), lower, upper);
}

zorp_expr* zorp_cons_equal(const zorp_expr* body, const int64_t* los, const int64_t* his, size_t n) {
  if (is_declared_tag(impl(body)->ext)) fatal_declared_refusal("cons(body, equal=...) on declared constraints");
  if (n == 0) fatal("zorp_cons_equal: empty allowed-value set");
  auto record = std::make_unique<ExprExprRecord>();
  std::int64_t lower = los[0], upper = his[0];
  for (size_t i = 0; i < n; ++i) {
    record->allowed.emplace_back(los[i], his[i]);
    lower = std::min(lower, los[i]);
    upper = std::max(upper, his[i]);
  }
  return declare_single(*impl(body), lower, upper, std::move(record));
}

zorp_expr* zorp_abs_term(const zorp_expr* body, int64_t k) { return objective_shape(body, k, "abs", false); }

zorp_expr* zorp_relu_term(const zorp_expr* body, int64_t k) { return objective_shape(body, k, "relu", true); }

zorp_expr* zorp_cons_mark(const zorp_expr* e) {
  const std::uint32_t tag = impl(e)->ext;
  auto result = std::make_unique<ExprImpl>();
  if (is_declared_tag(tag)) {
    // The zero expression now shares the record with `e`.
    freeze_on_copy(tag);
    result->ext = tag;
    return handle(result.release());
  }
  auto sum = std::make_unique<ConstraintSumRecord>();
  sum->declared = 1;
  if (is_expr_expr_tag(tag)) {
    sum->items.push_back({tag & kTagIndexMask, 1});
  } else if (is_constraint_sum_tag(tag)) {
    const ConstraintSumRecord& classic = constraint_sum_at(tag);
    for (const ConstraintItem& item : classic.items) sum->items.push_back({item.index, 1});
    if (classic.remainder) sum->remainder = std::make_unique<ExprImpl>(*classic.remainder);
  } else {
    sum->remainder = std::make_unique<ExprImpl>(plain_copy(*impl(e)));
  }
  result->ext = add_constraint_sum(std::move(sum));
  return handle(result.release());
}

int zorp_expr_is_declared(const zorp_expr* e) { return is_declared_tag(impl(e)->ext) ? 1 : 0; }

int zorp_expr_has_body(const zorp_expr* e) {
  const std::uint32_t tag = impl(e)->ext;
  if (is_expr_expr_tag(tag)) return 1;
  if (!is_constraint_sum_tag(tag)) return 0;
  const ConstraintSumRecord& sum = constraint_sum_at(tag);
  return sum.items.size() == 1 && !sum.remainder ? 1 : 0;
}

int zorp_expr_all_objective_only(const zorp_expr* e) { return tag_all_objective_only(impl(e)->ext) ? 1 : 0; }

int64_t zorp_expr_neg_sum(const zorp_expr* e) { return reachable_bounds(*impl(e)).first; }

int64_t zorp_expr_pos_sum(const zorp_expr* e) { return reachable_bounds(*impl(e)).second; }

}  // extern "C"
