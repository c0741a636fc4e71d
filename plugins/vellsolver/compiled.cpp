#include "compiled.h"

#include <algorithm>
#include <limits>

namespace vell {

namespace {

struct Pair {
  std::uint32_t a;
  std::uint32_t b;
  wrap_t c;
};

// Sorts the literals by variable and folds repeats: x*x = x, and x*(1-x) makes the whole
// product 0, reported as false.
bool canonical_product(std::vector<std::uint32_t>& lits) {
  std::sort(lits.begin(), lits.end(), [](std::uint32_t l, std::uint32_t r) {
    return lit_var(l) != lit_var(r) ? lit_var(l) < lit_var(r) : l < r;
  });
  std::size_t out = 0;
  for (std::size_t k = 0; k < lits.size(); ++k) {
    if (out > 0 && lit_var(lits[out - 1]) == lit_var(lits[k])) {
      if (lit_neg(lits[out - 1]) != lit_neg(lits[k])) return false;
      continue;
    }
    lits[out++] = lits[k] & (kNegBit | kIndexMask);
  }
  lits.resize(out);
  return true;
}

unsigned __int128 magnitude(wrap_t v) {
  const std::int64_t s = sgn(v);
  return s < 0 ? static_cast<unsigned __int128>(-(s + 1)) + 1 : static_cast<unsigned __int128>(s);
}

class Builder {
 public:
  explicit Builder(Compiled& c) : c_(c) {}

  void add_product(const std::vector<std::uint32_t>& lits, wrap_t coeff) {
    if (coeff == 0) return;
    switch (lits.size()) {
      case 0:
        c_.constant += coeff;
        return;
      case 1:
        add_linear(lits[0], coeff);
        return;
      case 2:
        add_pair(lits[0], lits[1], coeff);
        return;
      default:
        c_.ht_lit.insert(c_.ht_lit.end(), lits.begin(), lits.end());
        c_.ht_begin.push_back(static_cast<std::uint32_t>(c_.ht_lit.size()));
        c_.ht_coeff.push_back(coeff);
    }
  }

  void finish_pairs() {
    std::sort(pairs_.begin(), pairs_.end(), [](const Pair& l, const Pair& r) { return l.a != r.a ? l.a < r.a : l.b < r.b; });
    std::size_t out = 0;
    for (std::size_t k = 0; k < pairs_.size(); ++k) {
      if (out > 0 && pairs_[out - 1].a == pairs_[k].a && pairs_[out - 1].b == pairs_[k].b) {
        pairs_[out - 1].c += pairs_[k].c;
      } else {
        if (out > 0 && pairs_[out - 1].c == 0) --out;
        pairs_[out++] = pairs_[k];
      }
    }
    if (out > 0 && pairs_[out - 1].c == 0) --out;
    pairs_.resize(out);

    const std::uint32_t n = c_.n;
    c_.row.assign(n + 1, 0);
    for (const Pair& p : pairs_) {
      ++c_.row[p.a + 1];
      ++c_.row[p.b + 1];
    }
    for (std::uint32_t i = 0; i < n; ++i) c_.row[i + 1] += c_.row[i];
    c_.col.resize(c_.row[n]);
    c_.w.resize(c_.row[n]);
    std::vector<std::uint64_t> fill(c_.row.begin(), c_.row.end() - 1);
    for (const Pair& p : pairs_) {
      c_.col[fill[p.a]] = p.b;
      c_.w[fill[p.a]++] = p.c;
      c_.col[fill[p.b]] = p.a;
      c_.w[fill[p.b]++] = p.c;
    }
    pairs_.clear();
    pairs_.shrink_to_fit();
  }

 private:
  void add_linear(std::uint32_t lit, wrap_t coeff) {
    if (lit_neg(lit)) {
      c_.constant += coeff;
      c_.h[lit_var(lit)] -= coeff;
    } else {
      c_.h[lit_var(lit)] += coeff;
    }
  }

  // (1-a)b = b - ab, a(1-b) = a - ab, (1-a)(1-b) = 1 - a - b + ab.
  void add_pair(std::uint32_t la, std::uint32_t lb, wrap_t coeff) {
    const std::uint32_t a = lit_var(la), b = lit_var(lb);
    const bool na = lit_neg(la), nb = lit_neg(lb);
    if (na && nb) {
      c_.constant += coeff;
      c_.h[a] -= coeff;
      c_.h[b] -= coeff;
      pairs_.push_back({a, b, coeff});
    } else if (na || nb) {
      c_.h[na ? b : a] += coeff;
      pairs_.push_back({a, b, wrap_t{0} - coeff});
    } else {
      pairs_.push_back({a, b, coeff});
    }
  }

  Compiled& c_;
  std::vector<Pair> pairs_;
};

// For each owner (a variable, or a slot for body products), the products it appears in.
void build_occurrences(std::uint32_t n, const std::vector<std::uint32_t>& lits, const std::vector<std::uint32_t>& begin,
                       std::vector<std::uint64_t>& head, std::vector<std::uint32_t>& occ) {
  head.assign(static_cast<std::size_t>(n) + 1, 0);
  auto owner = [](std::uint32_t lit) { return lit & kIndexMask; };
  for (std::uint32_t lit : lits) ++head[owner(lit) + 1];
  for (std::uint32_t i = 0; i < n; ++i) head[i + 1] += head[i];
  occ.resize(lits.size());
  std::vector<std::uint64_t> fill(head.begin(), head.end() - 1);
  const std::size_t terms = begin.size() - 1;
  for (std::size_t t = 0; t < terms; ++t)
    for (std::uint32_t k = begin[t]; k < begin[t + 1]; ++k) occ[fill[owner(lits[k])]++] = static_cast<std::uint32_t>(t);
}

void compile_constraints(const Problem& p, Compiled& c) {
  const std::uint32_t n = c.n;
  std::vector<std::uint32_t> slot_of(n, std::numeric_limits<std::uint32_t>::max());
  std::vector<std::uint32_t> lits;
  c.nl_begin.assign(1, 0);
  for (const ConstraintDef& d : p.constraints()) {
    CompiledConstraint k;
    k.weight = wrap(d.weight);
    k.lower = d.lower;
    k.upper = d.upper;
    k.constant = wrap(d.constant);
    k.squared = d.exponent == 2;
    k.feasibility = d.counts_for_feasibility();
    k.allowed_begin = static_cast<std::uint32_t>(c.allowed.size());
    c.allowed.insert(c.allowed.end(), d.allowed.begin(), d.allowed.end());
    k.allowed_end = static_cast<std::uint32_t>(c.allowed.size());
    k.slot_begin = static_cast<std::uint32_t>(c.slot_var.size());
    k.nl_begin = static_cast<std::uint32_t>(c.nl_coeff.size());
    const auto cons_index = static_cast<std::uint32_t>(c.cons.size());
    auto slot = [&](std::uint32_t var) {
      if (slot_of[var] == std::numeric_limits<std::uint32_t>::max()) {
        slot_of[var] = static_cast<std::uint32_t>(c.slot_var.size());
        c.slot_var.push_back(var);
        c.slot_cons.push_back(cons_index);
        c.slot_lin.push_back(0);
      }
      return slot_of[var];
    };
    auto linear = [&](std::uint32_t lit, wrap_t coeff) {
      const std::uint32_t s = slot(lit_var(lit));
      if (lit_neg(lit)) {
        k.constant += coeff;
        c.slot_lin[s] -= coeff;
      } else {
        c.slot_lin[s] += coeff;
      }
    };
    for (std::size_t j = 0; j < d.vars.size(); ++j) linear(d.vars[j], wrap(d.coeffs[j]));
    for (std::size_t t = 0; t < d.nl_coeffs.size(); ++t) {
      lits.assign(d.nl_vars.begin() + static_cast<std::ptrdiff_t>(d.nl_head[t]),
                  d.nl_vars.begin() + static_cast<std::ptrdiff_t>(d.nl_head[t + 1]));
      const wrap_t coeff = wrap(d.nl_coeffs[t]);
      if (coeff == 0 || !canonical_product(lits)) continue;
      if (lits.empty()) {
        k.constant += coeff;
      } else if (lits.size() == 1) {
        linear(lits[0], coeff);
      } else {
        for (std::uint32_t lit : lits) c.nl_lit.push_back(slot(lit_var(lit)) | (lit & kNegBit));
        c.nl_begin.push_back(static_cast<std::uint32_t>(c.nl_lit.size()));
        c.nl_coeff.push_back(coeff);
      }
    }
    k.slot_end = static_cast<std::uint32_t>(c.slot_var.size());
    k.nl_end = static_cast<std::uint32_t>(c.nl_coeff.size());
    for (std::uint32_t s = k.slot_begin; s < k.slot_end; ++s) slot_of[c.slot_var[s]] = std::numeric_limits<std::uint32_t>::max();
    c.cons.push_back(k);
  }

  c.var_slot_head.assign(static_cast<std::size_t>(n) + 1, 0);
  for (std::uint32_t v : c.slot_var) ++c.var_slot_head[v + 1];
  for (std::uint32_t i = 0; i < n; ++i) c.var_slot_head[i + 1] += c.var_slot_head[i];
  c.var_slot.resize(c.slot_var.size());
  std::vector<std::uint64_t> fill(c.var_slot_head.begin(), c.var_slot_head.end() - 1);
  for (std::size_t s = 0; s < c.slot_var.size(); ++s) c.var_slot[fill[c.slot_var[s]]++] = static_cast<std::uint32_t>(s);

  build_occurrences(static_cast<std::uint32_t>(c.slot_var.size()), c.nl_lit, c.nl_begin, c.slot_nl_head, c.slot_nl);
}

}  // namespace

Compiled compile(const Problem& p) {
  Compiled c;
  c.n = p.var_count();
  c.constant = wrap(p.constant());
  c.h.assign(c.n, 0);
  c.ht_begin.assign(1, 0);
  Builder builder(c);
  std::vector<std::uint32_t> lits;
  for (std::uint32_t d = 1; d <= p.max_degree(); ++d) {
    const std::uint64_t count = p.term_count(d);
    const std::uint32_t* vars = p.term_vars(d);
    const std::int32_t* coeffs = p.term_coeffs(d);
    for (std::uint64_t t = 0; t < count; ++t) {
      lits.assign(vars + t * d, vars + (t + 1) * d);
      if (canonical_product(lits)) builder.add_product(lits, wrap(coeffs[t]));
    }
  }
  builder.finish_pairs();
  build_occurrences(c.n, c.ht_lit, c.ht_begin, c.hocc_head, c.hocc);
  compile_constraints(p, c);

  // E(x) = E(1-x) for every x exactly when each linear coefficient is minus half its row sum
  // (max-cut and Ising-like models); restarts then compare states up to complement.
  c.complement_symmetric = c.cons.empty() && c.ht_coeff.empty() && c.n > 0;
  for (std::uint32_t i = 0; i < c.n && c.complement_symmetric; ++i) {
    wrap_t sum = 2 * c.h[i];
    for (std::uint64_t k = c.row[i]; k < c.row[i + 1]; ++k) sum += c.w[k];
    c.complement_symmetric = sum == 0;
  }
  if (c.cons.empty() && c.ht_coeff.empty()) {
    unsigned bits = 1;
    while (bits < 31 && (std::uint64_t{1} << bits) < c.n) ++bits;
    unsigned __int128 bound = 0;
    for (std::uint32_t i = 0; i < c.n; ++i) {
      unsigned __int128 b = magnitude(c.h[i]);
      for (std::uint64_t k = c.row[i]; k < c.row[i + 1]; ++k) b += magnitude(c.w[k]);
      bound = std::max(bound, b);
    }
    c.gain_bound = bound;
    c.label_bits = bits;
    // A gain shifted over the index bits must stay below 2^61 so that the tabu offset of
    // 64-bit keys fits too; beyond that the general path takes the model.
    c.quadratic_only = bound < (static_cast<unsigned __int128>(1) << (61 - bits));
  }
  return c;
}

wrap_t compiled_violation(const Compiled& c, const CompiledConstraint& k, wrap_t body) {
  if (k.allowed_end > k.allowed_begin)
    return set_violation(c.allowed.data() + k.allowed_begin, k.allowed_end - k.allowed_begin, body);
  return bounds_violation(k.lower, k.upper, body);
}

wrap_t compiled_penalty(const Compiled& c, const CompiledConstraint& k, wrap_t body) {
  return penalty_of(k.weight, k.squared, compiled_violation(c, k, body));
}

bool compiled_violated(const Compiled& c, const CompiledConstraint& k, wrap_t body) {
  return compiled_violation(c, k, body) != 0;
}

}  // namespace vell
