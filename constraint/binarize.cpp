#include "constraint/binarize.h"

#include "constraint/int_var_registry.h"
#include "frame/fatal.h"

namespace zorp {

bool expr_has_int_atom(const ExprImpl& e) {
  bool found = false;
  e.for_each_term([&](const TermImpl& t) {
    for (unsigned k = 0; k < MAXDEG && t.vars.slot[k] != kNoVar; ++k) found |= is_int_atom(t.vars.slot[k]);
  });
  return found;
}

namespace {

ExprImpl atom_factor(std::uint32_t literal) {
  IntVarRegistry& registry = IntVarRegistry::instance();
  const IntVarBlock* block = registry.find(literal);
  if (block == nullptr) fatal("binarize: unknown integer variable");
  ExprImpl factor(static_cast<energy_t>(block->lo));
  for (const EncodingBit& bit : registry.encoding(literal)) {
    TermImpl t = make_term(bit.first);
    t.vars.slot[0] = bit.second;
    factor.add_term(t);
  }
  return factor;
}

void binarize_term(ExprImpl& result, const TermImpl& t) {
  if (t.coefficient == 0) return;
  bool has_atom = false;
  for (unsigned k = 0; k < MAXDEG && t.vars.slot[k] != kNoVar; ++k) has_atom |= is_int_atom(t.vars.slot[k]);
  if (!has_atom) {
    result.add_term(t);
    return;
  }
  ExprImpl product(static_cast<energy_t>(t.coefficient));
  for (unsigned k = 0; k < MAXDEG && t.vars.slot[k] != kNoVar; ++k) {
    const std::uint32_t literal = t.vars.slot[k];
    if (is_int_atom(literal)) {
      product = product.mul(atom_factor(literal));
    } else {
      TermImpl single = make_term(1);
      single.vars.slot[0] = literal;
      ExprImpl factor;
      factor.add_term(single);
      product = product.mul(factor);
    }
  }
  result += product;
}

}  // namespace

ExprImpl expr_binarize(const ExprImpl& e) {
  if (is_constraint_tag(e.ext))
    fatal("binarize: constraint expressions are not supported \xE2\x80\x94 call expand_cons() first, then binarize the plain penalty form.");
  if (!expr_has_int_atom(e)) {
    ExprImpl copy(e);
    copy.ext = kNoTag;
    return copy;
  }
  ExprImpl result(e.constant);
  e.for_each_term([&](const TermImpl& t) { binarize_term(result, t); });
  return result;
}

}  // namespace zorp
