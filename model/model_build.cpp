// The model build pipeline: classify declared constraints, count and validate the terms,
// allocate and fill the per-degree flat arrays, then renumber everything densely.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <numeric>
#include <sstream>

#include <sys/mman.h>

#include "algebra/merge.h"
#include "constraint/int_var_registry.h"
#include "frame/fatal.h"
#include "frame/literal.h"
#include "frame/parallel.h"
#include "frame/var_registry.h"
#include "model/model_impl.h"

namespace zorp {

namespace {

constexpr const char* kUnsortedVars =
    "Model: expression not simplified as binary (unsorted/duplicate vars). Call simplify_as_binary() first.";
constexpr const char* kNegatedLowDegree =
    "Model: expression not simplified as binary (negated literal in degree 1-2 term). Call simplify_as_binary() "
    "first.";
constexpr const char* kUnknownAtom = "Model: unknown integer variable index.";
// Not a state a registry-built expression can reach, but an index past the registry would
// otherwise write outside the flag table.
constexpr const char* kUnknownVar = "Model: unknown variable index.";
constexpr const char* kBodyUnsortedVars =
    "Model: constraint body not simplified as binary (unsorted/duplicate vars). Call simplify_as_binary() on the "
    "model expression first.";
constexpr const char* kBodyNegatedLowDegree =
    "Model: constraint body not simplified as binary (negated literal in degree 1-2 term). Call "
    "simplify_as_binary() on the model expression first.";
constexpr const char* kBodyDuplicateAcrossTerms =
    "Model: constraint body not simplified as binary (duplicate variable across terms). Call simplify_as_binary() "
    "on the model expression first.";
constexpr const char* kLinearBodyRequired = "Model: native constraints require a linear body (degree >= 2 term found)";
constexpr const char* kNegatedInBody = "Model: unexpected negated literal in constraint body";

// Seconds between checkpoints on the standard error stream while ZORP_MODEL_PROFILE is set.
// The variable is read at every checkpoint so that a long-lived process can switch it.
class PhaseClock {
 public:
  void checkpoint(const char* label) {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - last_).count();
    last_ = now;
    if (std::getenv("ZORP_MODEL_PROFILE") == nullptr) return;
    std::ostringstream line;
    line << "  [Model] " << label << ": " << seconds << "s\n";
    std::cerr << line.str() << std::flush;
  }

 private:
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

// The first failing thread wins the flag; the others keep going without reporting, so the
// message printed is one failure, never a mixture.
class FirstError {
 public:
  void raise(const char* message) {
    bool expected = false;
    if (!raised_.compare_exchange_strong(expected, true)) return;
    std::lock_guard<std::mutex> guard(lock_);
    message_ = message;
  }
  void abort_if_raised() {
    if (!raised_.load()) return;
    std::lock_guard<std::mutex> guard(lock_);
    fatal(message_);
  }

 private:
  std::atomic<bool> raised_{false};
  std::mutex lock_;
  const char* message_ = nullptr;
};

// Every writer stores the same 1, so the order does not matter; the atomic store only
// makes that explicit to the race detector and compiles to a plain byte store.
inline void set_flag(std::uint8_t& flag) { std::atomic_ref<std::uint8_t>(flag).store(1, std::memory_order_relaxed); }

// chunk(c) for every c below `chunks`, fetched dynamically by `workers` threads when
// `parallel`, else in order on the caller.
template <class Chunk>
void for_each_chunk(std::uint64_t chunks, unsigned workers, bool parallel, Chunk&& chunk) {
  if (!parallel) {
    for (std::uint64_t c = 0; c < chunks; ++c) chunk(c);
    return;
  }
  detail::run_chunks_on_pool(plan_chunks_exact(chunks, chunks), workers, [&](std::uint64_t begin, std::uint64_t end) {
    for (std::uint64_t c = begin; c < end; ++c) chunk(c);
  });
}

// body(begin, end) over [0, n), on the pool when n is above the serial threshold.
template <class Body>
void for_ranges(std::uint64_t n, unsigned threads, Body&& body) {
  const unsigned team = size_scaled_thread_count(n, threads);
  if (n <= kSerialThreshold || team < 2) {
    if (n > 0) body(std::uint64_t{0}, n);
    return;
  }
  detail::run_chunks_on_pool(plan_chunks(n, team), team, body);
}

// Maps the pages of a large fresh array in one call per piece instead of one fault per page
// during the fill: on hosts where a fault is expensive (virtual machines) this is most of the
// fill's cost. Kernels without the request refuse it, and the pages then fault as usual.
// Blocks this large come straight from mmap, so the pages are known to be fresh; smaller
// ones may be reused heap pages, for which the request would only walk the page tables.
void prefault(void* data, std::size_t bytes, unsigned threads) {
#ifdef MADV_POPULATE_WRITE
  constexpr std::uintptr_t kPage = 4096;
  constexpr std::size_t kWorthIt = std::size_t{64} << 20;
  if (bytes < kWorthIt) return;
  const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(data) + kPage - 1) & ~(kPage - 1);
  const std::uintptr_t last = (reinterpret_cast<std::uintptr_t>(data) + bytes) & ~(kPage - 1);
  for_ranges((last - first) / kPage, threads, [&](std::uint64_t begin, std::uint64_t end) {
    madvise(reinterpret_cast<void*>(first + begin * kPage), (end - begin) * kPage, MADV_POPULATE_WRITE);
  });
#else
  (void)data;
  (void)bytes;
  (void)threads;
#endif
}

template <class F>
void for_each_used_term(const ExprImpl& e, F&& f) {
  if (e.has_first()) f(e.first_term);
  for (std::uint64_t i = 0; i < e.rest_size; ++i) f(e.rest[i]);
}

// The flag tables of the variables in use, taken by value into each scan: flag stores are
// byte stores, which may alias anything, so pointers and bounds held in locals are what
// keeps the compiler from reloading them after every store.
struct FlagView {
  std::uint8_t* vars;
  std::uint64_t var_count;
  std::uint8_t* atoms;
  std::uint64_t atom_count;

  const char* mark(std::uint32_t literal) const {
    if (is_int_atom(literal)) {
      const std::uint32_t idx = literal & kIndexMask;
      if (idx >= atom_count) return kUnknownAtom;
      set_flag(atoms[idx]);
      return nullptr;
    }
    const std::uint32_t masked = positive_literal(literal);
    if (masked >= var_count) return kUnknownVar;
    set_flag(vars[masked]);
    return nullptr;
  }
};

// The degree without the branches of a sentinel scan: slots are packed, so counting the
// used ones gives the same number.
inline unsigned packed_degree(const VarArray& v) {
  unsigned d = 0;
  for (unsigned i = 0; i < MAXDEG; ++i) d += v.slot[i] != kNoVar;
  return d;
}

// Phase 1a checks for one term of degree d >= 1, in the documented order: atom range, then
// negation, then order. A repeated atom is a power and allowed; a repeated binary is not.
inline const char* check_and_mark(const TermImpl& t, unsigned d, const FlagView flags) {
  // Plain binary literals in strictly ascending order, the shape of nearly every term, pass
  // one combined test; anything else goes through the checks in order for the exact message.
  std::uint32_t flag_bits = 0;
  bool ascending = true;
  for (unsigned i = 0; i < d; ++i) {
    flag_bits |= t.vars.slot[i];
    if (i > 0) ascending &= t.vars.slot[i - 1] < t.vars.slot[i];
  }
  if ((flag_bits & (kNegatedBit | kIntAtomBit)) == 0 && ascending && t.vars.slot[d - 1] < flags.var_count) {
    for (unsigned i = 0; i < d; ++i) set_flag(flags.vars[t.vars.slot[i]]);
    return nullptr;
  }
  std::uint32_t prev = 0;
  for (unsigned i = 0; i < d; ++i) {
    const std::uint32_t literal = t.vars.slot[i];
    const std::uint32_t masked = positive_literal(literal);
    const bool atom = is_int_atom(literal);
    if (atom && (literal & kIndexMask) >= flags.atom_count) return kUnknownAtom;
    if (is_negated(literal) && d < 3) return kNegatedLowDegree;
    if (i > 0 && (masked < prev || (masked == prev && !atom))) return kUnsortedVars;
    if (const char* failure = flags.mark(literal)) return failure;
    prev = masked;
  }
  return nullptr;
}

// Body validation of classification, with the body wording of the same checks.
void validate_body(const ExprImpl& body) {
  for_each_used_term(body, [](const TermImpl& t) {
    const unsigned d = t.vars.degree();
    std::uint32_t prev = 0;
    for (unsigned i = 0; i < d; ++i) {
      const std::uint32_t literal = t.vars.slot[i];
      const std::uint32_t masked = positive_literal(literal);
      if (is_negated(literal) && d <= 2) fatal(kBodyNegatedLowDegree);
      if (i > 0 && (prev > masked || (prev == masked && !is_int_atom(literal)))) fatal(kBodyUnsortedVars);
      prev = masked;
    }
  });
}

bool is_nonlinear(const ExprImpl& body) {
  bool nonlinear = false;
  for_each_used_term(body, [&](const TermImpl& t) { nonlinear = nonlinear || t.vars.degree() >= 2; });
  return nonlinear;
}

struct WorkingItem {
  const ExprExprRecord* record;
  std::int64_t weight;
};

NativeConstraint constraint_head(const WorkingItem& item) {
  NativeConstraint c;
  c.weight = item.weight;
  c.lower = item.record->lower;
  c.upper = item.record->upper;
  c.body_constant = static_cast<std::int64_t>(item.record->body.constant);
  return c;
}

NativeConstraint linear_constraint(const WorkingItem& item) {
  NativeConstraint c = constraint_head(item);
  c.allowed = item.record->allowed;
  c.penalty_exponent = item.record->penalty_exponent;
  c.penalty_shape = item.record->penalty_shape;
  std::vector<std::pair<std::uint32_t, coeff_t>> terms;
  for_each_used_term(item.record->body, [&](const TermImpl& t) {
    if (t.vars.degree() != 1) fatal(kLinearBodyRequired);
    if (is_negated(t.vars.slot[0])) fatal(kNegatedInBody);
    terms.emplace_back(t.vars.slot[0], t.coefficient);
  });
  // Coefficients travel with their literals; an unsimplified body (x + x) shows up here.
  std::stable_sort(terms.begin(), terms.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  for (std::size_t i = 1; i < terms.size(); ++i)
    if (terms[i].first == terms[i - 1].first) fatal(kBodyDuplicateAcrossTerms);
  c.vars.reserve(terms.size());
  c.coeffs.reserve(terms.size());
  for (const auto& [literal, coefficient] : terms) {
    c.vars.push_back(literal);
    c.coeffs.push_back(coefficient);
  }
  return c;
}

// Nonlinear bodies keep only their hull: the allowed set and abs/relu shapes are a linear
// privilege, deliberately.
NativeConstraint nonlinear_constraint(const WorkingItem& item) {
  NativeConstraint c = constraint_head(item);
  c.penalty_exponent = 2;
  c.penalty_shape = 0;
  c.nl_head.push_back(0);
  for_each_used_term(item.record->body, [&](const TermImpl& t) {
    const unsigned d = t.vars.degree();
    if (d == 1) {
      c.vars.push_back(t.vars.slot[0]);
      c.coeffs.push_back(t.coefficient);
    } else if (d >= 2) {
      for (unsigned i = 0; i < d; ++i) {
        if (is_negated(t.vars.slot[i])) fatal(kNegatedInBody);
        c.nl_vars.push_back(t.vars.slot[i]);
      }
      c.nl_coeffs.push_back(t.coefficient);
      c.nl_head.push_back(c.nl_vars.size());
    }
  });
  return c;
}

}  // namespace

ModelImpl::ModelImpl(const ExprImpl& e, double scale, const ConstraintListImpl* constraints)
    : ModelImpl(e, scale, constraints, thread_number()) {}

ModelImpl::ModelImpl(const ExprImpl& e, double /*scale: every model has 1.0*/, const ConstraintListImpl* constraints,
                     unsigned threads) {
  scale = 1.0;

  // Classification, before the clock: which items are linear, and refusal of bodies that
  // cannot be flattened.
  std::vector<WorkingItem> linear_items, nonlinear_items;
  if (constraints != nullptr) {
    for (const ConstraintItem& item : constraints->items) {
      const ExprExprRecord& record = expr_expr_at(item.index, "ExprExprSet: get_bounds bad index");
      if (record.has_bounds == 0) fatal("Model: constraint carries no bounds");
      validate_body(record.body);
      if (is_nonlinear(record.body)) {
        if (record.penalty_shape != 0) fatal("zorp::abs/relu: nonlinear bodies are not supported yet (the body must be linear)");
        nonlinear_items.push_back({&record, item.weight});
      } else {
        linear_items.push_back({&record, item.weight});
      }
    }
  }

  // The free-form penalty is flattened together with the objective (merged with equal
  // terms), and kept apart, simplified on its own, for the remainder arrays.
  const bool with_remainder = constraints != nullptr && constraints->has_remainder != 0;
  ExprImpl merged, remainder;
  if (with_remainder) {
    // Built by addition rather than copying, so that the objective's constraint record is
    // not marked frozen by the build.
    ExprImpl sum;
    sum += e;
    sum += constraints->remainder;
    merged = expr_simplify_as_binary(sum, threads);
    remainder = expr_simplify_as_binary(constraints->remainder, threads);
  }
  const ExprImpl& poly = with_remainder ? merged : e;

  PhaseClock clock;
  constant = poly.constant;

  std::vector<NativeConstraint> working;
  working.reserve(linear_items.size() + nonlinear_items.size());
  for (const WorkingItem& item : linear_items) working.push_back(linear_constraint(item));
  for (const WorkingItem& item : nonlinear_items) working.push_back(nonlinear_constraint(item));

  std::vector<std::uint8_t> var_flags(VarRegistry::instance().count(), 0);
  std::vector<std::uint8_t> int_flags(IntVarRegistry::instance().count(), 0);
  const FlagView flags{var_flags.data(), var_flags.size(), int_flags.data(), int_flags.size()};

  // Simplified expressions hold terms in ascending degree, so the last term has the highest.
  const std::uint64_t n_rest = poly.rest_size;
  max_degree = n_rest > 0 ? poly.rest[n_rest - 1].vars.degree() : poly.first_term.vars.degree();
  const std::uint32_t D = max_degree;

  // Slot 0 is first_term, slot c + 1 is chunk c of rest. The chunk split depends on the
  // thread count, but per-slot tables merged in slot order make the result independent of it.
  const unsigned workers = std::max(1u, size_scaled_thread_count(n_rest, threads));
  const bool parallel = n_rest > kSerialThreshold && workers >= 2;
  const ChunkPlan plan = plan_chunks(n_rest, workers);
  const std::uint64_t slots = plan.chunks + 1;
  std::vector<std::uint64_t> counts(slots * D, 0);
  FirstError error;

  auto count_terms = [&](const TermImpl* first, const TermImpl* last, std::uint64_t* row) {
    const FlagView view = flags;
    const std::uint32_t columns = D;
    std::uint64_t local[MAXDEG] = {};
    for (const TermImpl* t = first; t != last; ++t) {
      const unsigned d = packed_degree(t->vars);
      if (d == 0) continue;
      // Only a term out of degree order gets here; its column does not exist.
      if (d > columns) {
        error.raise(kUnsortedVars);
        continue;
      }
      ++local[d - 1];
      if (const char* failure = check_and_mark(*t, d, view)) error.raise(failure);
    }
    std::copy(local, local + columns, row);
  };
  if (poly.has_first()) count_terms(&poly.first_term, &poly.first_term + 1, counts.data());
  for_each_chunk(plan.chunks, workers, parallel, [&](std::uint64_t c) {
    count_terms(poly.rest + plan.begin(c), poly.rest + plan.end(c), counts.data() + (c + 1) * D);
  });
  error.abort_if_raised();

  for (const NativeConstraint& c : working) {
    for (const std::uint32_t literal : c.vars)
      if (const char* failure = flags.mark(literal)) fatal(failure);
    for (const std::uint32_t literal : c.nl_vars)
      if (const char* failure = flags.mark(literal)) fatal(failure);
  }
  if (with_remainder) {
    for_each_used_term(remainder, [&](const TermImpl& t) {
      const unsigned d = t.vars.degree();
      for (unsigned i = 0; i < d; ++i) {
        if (is_int_atom(t.vars.slot[i]))
          fatal("Model: native integer variables (int_var) in a free-form penalty remainder are not supported yet.");
        if (const char* failure = flags.mark(t.vars.slot[i])) fatal(failure);
      }
    });
  }
  clock.checkpoint("Phase 1a (parallel count + validate + var_flags)");

  term_counts.assign(D, 0);
  std::vector<std::uint64_t> offsets(slots * D);
  for (std::uint64_t s = 0; s < slots; ++s) {
    for (std::uint32_t d = 0; d < D; ++d) {
      offsets[s * D + d] = term_counts[d];
      term_counts[d] += counts[s * D + d];
    }
  }
  term_vars.resize(D);
  term_coeffs.resize(D);
  for (std::uint32_t d = 0; d < D; ++d) {
    term_vars[d].resize(term_counts[d] * (d + 1));
    term_coeffs[d].resize(term_counts[d]);
    prefault(term_vars[d].data(), term_vars[d].size() * sizeof(std::uint32_t), threads);
    prefault(term_coeffs[d].data(), term_coeffs[d].size() * sizeof(coeff_t), threads);
  }
  clock.checkpoint("Phase 1b (merge counts + allocate flat arrays)");

  if (D == 0 && working.empty()) return;

  std::uint32_t* var_base[MAXDEG] = {};
  coeff_t* coeff_base[MAXDEG] = {};
  for (std::uint32_t d = 0; d < D; ++d) {
    var_base[d] = term_vars[d].data();
    coeff_base[d] = term_coeffs[d].data();
  }
  auto fill_terms = [&](const TermImpl* first, const TermImpl* last, const std::uint64_t* row) {
    std::uint64_t next[MAXDEG] = {};
    std::copy(row, row + D, next);
    for (const TermImpl* t = first; t != last; ++t) {
      const unsigned d = packed_degree(t->vars);
      if (d == 0) continue;
      const std::uint64_t position = next[d - 1]++;
      coeff_base[d - 1][position] = t->coefficient;
      // A memcpy of a variable length would be a call per term.
      std::uint32_t* to = var_base[d - 1] + position * d;
      switch (d) {
        case 4: to[3] = t->vars.slot[3]; [[fallthrough]];
        case 3: to[2] = t->vars.slot[2]; [[fallthrough]];
        case 2: to[1] = t->vars.slot[1]; [[fallthrough]];
        default: to[0] = t->vars.slot[0];
      }
      if constexpr (MAXDEG > 4) {
        for (unsigned i = 4; i < d; ++i) to[i] = t->vars.slot[i];
      }
    }
  };
  if (poly.has_first()) fill_terms(&poly.first_term, &poly.first_term + 1, offsets.data());
  for_each_chunk(plan.chunks, workers, parallel, [&](std::uint64_t c) {
    fill_terms(poly.rest + plan.begin(c), poly.rest + plan.end(c), offsets.data() + (c + 1) * D);
  });
  clock.checkpoint("Phase 1c (parallel fill flat arrays)");

  // Dense order is ascending registry order whatever the block split: each block writes the
  // run of dense indices that the prefix sum assigns to it.
  const std::uint64_t F = var_flags.size();
  index_map.assign(F, kNoVar);
  const std::uint64_t blocks = F == 0 ? 1 : std::min<std::uint64_t>(4ull * workers, F);
  const std::uint64_t block_size = F == 0 ? 0 : (F + blocks - 1) / blocks;
  const bool parallel_blocks = F > kSerialThreshold && workers >= 2;
  auto block_begin = [&](std::uint64_t b) { return std::min(F, b * block_size); };
  auto block_end = [&](std::uint64_t b) { return std::min(F, (b + 1) * block_size); };
  std::vector<std::uint64_t> block_start(blocks + 1, 0);
  for_each_chunk(blocks, workers, parallel_blocks, [&](std::uint64_t b) {
    std::uint64_t set = 0;
    for (std::uint64_t i = block_begin(b); i < block_end(b); ++i) set += var_flags[i];
    block_start[b + 1] = set;
  });
  std::partial_sum(block_start.begin(), block_start.end(), block_start.begin());
  vars.resize(block_start[blocks]);
  for_each_chunk(blocks, workers, parallel_blocks, [&](std::uint64_t b) {
    std::uint64_t k = block_start[b];
    for (std::uint64_t i = block_begin(b); i < block_end(b); ++i) {
      if (var_flags[i] == 0) continue;
      index_map[i] = static_cast<std::uint32_t>(k);
      vars[k] = static_cast<std::uint32_t>(i);
      ++k;
    }
  });
  clock.checkpoint("Phase 2 (parallel prefix-sum var_flags scan + dense index_map)");

  if (!int_flags.empty()) {
    int_index_map.assign(int_flags.size(), kNoVar);
    for (std::uint32_t a = 0; a < int_flags.size(); ++a) {
      if (int_flags[a] == 0) continue;
      int_index_map[a] = static_cast<std::uint32_t>(int_atoms.size());
      int_atoms.push_back(a);
    }
    int_lower.resize(int_atoms.size());
    int_upper.resize(int_atoms.size());
    const IntVarRegistry& registry = IntVarRegistry::instance();
    for (std::size_t k = 0; k < int_atoms.size(); ++k) {
      const IntVarBlock* block = registry.find(int_atoms[k]);
      if (block == nullptr) fatal("Model: integer variable bounds lookup failed.");
      int_lower[k] = block->lo;
      int_upper[k] = block->hi;
    }
    if (!int_atoms.empty()) clock.checkpoint("Phase 2i (integer-atom mapping)");
  }

  // Constraint bodies hold no negated literal by now, so bit 31 is not carried.
  auto body_literal = [&](std::uint32_t literal) {
    if (is_int_atom(literal)) return int_index_map[literal & kIndexMask] | kIntAtomBit;
    return index_map[positive_literal(literal)];
  };
  if (!working.empty()) {
    native_cons = std::move(working);
    for (NativeConstraint& c : native_cons) {
      for (std::uint32_t& literal : c.vars) literal = body_literal(literal);
      for (std::uint32_t& literal : c.nl_vars) literal = body_literal(literal);
    }
    clock.checkpoint("Native constraints (remap)");
  }

  if (with_remainder) {
    has_remainder = 1;
    remainder_constant = remainder.constant;
    remainder_head.push_back(0);
    auto add_remainder_term = [&](const TermImpl& t) {
      const unsigned d = t.vars.degree();
      for (unsigned i = 0; i < d; ++i) {
        const std::uint32_t literal = t.vars.slot[i];
        remainder_vars.push_back(index_map[positive_literal(literal)] | (literal & kNegatedBit));
      }
      remainder_coeffs.push_back(t.coefficient);
      remainder_head.push_back(remainder_vars.size());
    };
    if (remainder.has_first()) add_remainder_term(remainder.first_term);
    for (std::uint64_t i = 0; i < remainder.rest_size; ++i)
      if (remainder.rest[i].coefficient != 0) add_remainder_term(remainder.rest[i]);
    clock.checkpoint("Remainder (remap)");
  }

  // The renumbering is monotonic, so literals stay sorted within each term.
  const std::uint32_t* dense = index_map.data();
  const std::uint32_t* dense_int = int_index_map.data();
  for (std::uint32_t d = 0; d < D; ++d) {
    std::uint32_t* literals = term_vars[d].data();
    for_ranges(term_vars[d].size(), threads, [&](std::uint64_t begin, std::uint64_t end) {
      if (int_atoms.empty()) {
        // Without atoms the remap has no branch.
        for (std::uint64_t i = begin; i < end; ++i)
          literals[i] = dense[positive_literal(literals[i])] | (literals[i] & kNegatedBit);
        return;
      }
      for (std::uint64_t i = begin; i < end; ++i) {
        const std::uint32_t literal = literals[i];
        literals[i] = is_int_atom(literal) ? (dense_int[literal & kIndexMask] | kIntAtomBit)
                                           : (dense[positive_literal(literal)] | (literal & kNegatedBit));
      }
    });
  }
  clock.checkpoint("Phase 3 (parallel remap)");
}

}  // namespace zorp
