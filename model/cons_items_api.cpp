// Exported readers of an expression's constraint items and their violations under a Sol.
#include <algorithm>
#include <string_view>

#include "algebra/handles.h"
#include "constraint/constraint_sets.h"
#include "frame/fatal.h"
#include "model/sol.h"
#include "zorp/cons_item.h"

using namespace zorp;

namespace {

const Sol& sol_of(const zorp_sol* s) { return *reinterpret_cast<const Sol*>(s); }

// One item of an expression: a constraint record with its weight, or a polynomial held at 0
// (the free-form part of a sum, or an expression that carries no constraint at all).
struct Item {
  const ExprExprRecord* record = nullptr;
  std::int64_t weight = 1;
  const ExprImpl* polynomial = nullptr;
};

// Items numbered as reports see them: a sum's constraints in order, then its free-form part.
Item resolve_item(const ExprImpl& e, std::uint64_t i, std::string_view bad_item, std::string_view bad_record) {
  const std::uint32_t tag = e.ext;
  if (is_expr_expr_tag(tag)) return {&expr_expr_at(tag, bad_record), 1, nullptr};
  if (is_constraint_sum_tag(tag)) {
    const ConstraintSumRecord& sum = constraint_sum_at(tag);
    if (i < sum.items.size()) return {&expr_expr_at(sum.items[i].index, bad_record), sum.items[i].weight, nullptr};
    if (i == sum.items.size() && sum.remainder) return {nullptr, 1, sum.remainder.get()};
    fatal(bad_item);
  }
  if (i != 0) fatal(bad_item);
  return {nullptr, 1, &e};
}

// The record of item i when it is a constraint, else null; out-of-range indices are no error.
const ExprExprRecord* record_or_null(const ExprImpl& e, std::uint64_t i, bool lone_needs_zero,
                                     std::string_view bad_record) {
  const std::uint32_t tag = e.ext;
  if (is_expr_expr_tag(tag)) return lone_needs_zero && i != 0 ? nullptr : &expr_expr_at(tag, bad_record);
  if (!is_constraint_sum_tag(tag)) return nullptr;
  const ConstraintSumRecord& sum = constraint_sum_at(tag);
  return i < sum.items.size() ? &expr_expr_at(sum.items[i].index, bad_record) : nullptr;
}

// A copy with no tag, made without the copy constructor: that one would freeze a constraint
// sum as if a second expression now held it.
ExprImpl tag_free_copy(const ExprImpl& e) {
  ExprImpl copy(e.constant);
  copy.first_term = e.first_term;
  copy.reserve_rest(e.rest_size);
  for (std::uint64_t k = 0; k < e.rest_size; ++k) copy.push_rest(e.rest[k]);
  return copy;
}

template <class T>
void put(T* out, T value) {
  if (out != nullptr) *out = value;
}

bool violated(const ExprExprRecord& record, const Sol& sol) {
  return record.has_bounds != 0 && record.penalty_shape == 0 &&
         record_violation(record, sol_eval_polynomial(sol, record.body)) != 0;
}

}  // namespace

extern "C" {

uint64_t zorp_cons_item_count(const zorp_expr* e) {
  const std::uint32_t tag = impl(e)->ext;
  if (!is_constraint_sum_tag(tag)) return 1;
  const ConstraintSumRecord& sum = constraint_sum_at(tag);
  return sum.items.size() + (sum.remainder ? 1 : 0);
}

int zorp_cons_item_info(const zorp_expr* e, uint64_t i, zorp_expr** body, int64_t* weight, int64_t* lower,
                        int64_t* upper) {
  const ExprImpl& expr = *impl(e);
  const Item item = resolve_item(expr, i, "zorp_cons_item_info: bad item index", "ExprExprSet: get_bounds bad index");
  const bool bounded = item.record != nullptr && item.record->has_bounds != 0;
  if (body != nullptr) {
    // An unbounded record reports the whole expression, not its own body.
    const ExprImpl& source = bounded ? item.record->body : item.polynomial != nullptr ? *item.polynomial : expr;
    *body = handle(new ExprImpl(tag_free_copy(source)));
  }
  put(weight, bounded ? item.weight : std::int64_t{1});
  put(lower, bounded ? item.record->lower : std::int64_t{0});
  put(upper, bounded ? item.record->upper : std::int64_t{0});
  return bounded ? 1 : 0;
}

uint64_t zorp_cons_item_allowed(const zorp_expr* e, uint64_t i, int64_t* los, int64_t* his, uint64_t capacity) {
  const ExprExprRecord* record = record_or_null(*impl(e), i, false, "ExprExprSet: get_allowed bad index");
  if (record == nullptr) return 0;
  const std::uint64_t n = record->allowed.size();
  for (std::uint64_t k = 0; k < std::min(n, capacity); ++k) {
    los[k] = record->allowed[k].first;
    his[k] = record->allowed[k].second;
  }
  return n;
}

int zorp_cons_item_shape(const zorp_expr* e, uint64_t i, int* k, int* shape) {
  put(k, 2);
  put(shape, 0);
  const ExprExprRecord* record = record_or_null(*impl(e), i, true, "ExprExprSet: meta bad index");
  if (record == nullptr || record->has_bounds == 0) return 0;
  put(k, static_cast<int>(record->penalty_exponent));
  put(shape, static_cast<int>(record->penalty_shape));
  return 1;
}

int zorp_cons_item_eval(const zorp_expr* e, uint64_t i, const zorp_sol* sol, int64_t* value, int64_t* lower,
                        int64_t* upper, int64_t* violation, int64_t* weight) {
  const Sol& s = sol_of(sol);
  const Item item =
      resolve_item(*impl(e), i, "zorp_cons_item_eval: bad item index", "ExprExprSet: get_bounds bad index");
  if (item.record == nullptr) {
    const auto v = static_cast<std::int64_t>(sol_eval_polynomial(s, *item.polynomial));
    put(value, v);
    put(lower, std::int64_t{0});
    put(upper, std::int64_t{0});
    put(violation, v);
    put(weight, std::int64_t{1});
    return 1;
  }
  const ExprExprRecord& record = *item.record;
  if (record.has_bounds == 0) fatal("violations: constraint has no recorded bounds");
  const energy_t v = sol_eval_polynomial(s, record.body);
  put(value, static_cast<std::int64_t>(v));
  put(lower, record.lower);
  put(upper, record.upper);
  put(violation, static_cast<std::int64_t>(record_violation(record, v)));
  put(weight, item.weight);
  return 1;
}

uint64_t zorp_cons_violation_count(const zorp_expr* e, const zorp_sol* sol) {
  const Sol& s = sol_of(sol);
  const std::uint32_t tag = impl(e)->ext;
  if (is_expr_expr_tag(tag)) return violated(expr_expr_at(tag, "ExprExprSet: get_bounds bad index"), s) ? 1 : 0;
  if (!is_constraint_sum_tag(tag)) fatal("cons(sol): expression carries no constraints");
  const ConstraintSumRecord& sum = constraint_sum_at(tag);
  std::uint64_t count = 0;
  for (const ConstraintItem& item : sum.items)
    count += violated(expr_expr_at(item.index, "ExprExprSet: get_bounds bad index"), s) ? 1 : 0;
  if (sum.remainder && sol_eval_polynomial(s, *sum.remainder) != 0) ++count;
  return count;
}

}  // extern "C"
