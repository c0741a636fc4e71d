// Search state of the general path: quadratic couplings, products of three or four literals
// and constraint penalties, with every variable's gain kept exact after each flip. A product
// is tracked by its number of false literals; a constraint by its body value and, per member,
// the body change and the penalty change that flipping that member would cause.
#pragma once

#include <cstdint>
#include <vector>

#include "common.h"
#include "compiled.h"

namespace vell {

class GeneralState {
 public:
  GeneralState(const Compiled& c, Rng& rng);

  std::uint32_t size() const { return n_; }
  wrap_t energy() const { return energy_; }
  const std::uint8_t* x() const { return x_.data(); }
  bool constraints_met() const { return violated_ == 0; }
  std::int64_t delta(std::uint32_t i) const { return sgn(delta_[i]); }
  std::int64_t free_delta(std::uint32_t i) const { return sgn(delta_[i]); }
  bool tabu(std::uint32_t i) const { return tabu_[i] != 0; }
  void set_tabu(std::uint32_t i) { tabu_[i] = 1; }
  void clear_tabu(std::uint32_t i) { tabu_[i] = 0; }
  std::uint64_t flip_cost(std::uint32_t i) const { return cost_[i]; }

  void load(const std::uint8_t* x);
  void flip(std::uint32_t i);
  // The free and the tabu variable of least gain among [from, from + count); size() stands
  // for none.
  void best_moves(std::uint32_t from, std::uint32_t count, std::uint32_t& free_var, std::int64_t& free_gain,
                  std::uint32_t& tabu_var, std::int64_t& tabu_gain);

 private:
  void flip_constraint_slot(std::uint32_t s, std::uint8_t xi);

  const Compiled& c_;
  Rng& rng_;
  std::uint32_t n_;
  wrap_t energy_ = 0;
  std::vector<wrap_t> delta_;
  std::vector<std::uint8_t> x_;
  std::vector<std::uint8_t> tabu_;
  std::vector<std::uint64_t> cost_;
  std::vector<std::uint32_t> ht_false_;
  std::vector<wrap_t> body_;
  std::vector<std::uint8_t> violated_flag_;
  std::uint64_t violated_ = 0;
  std::vector<wrap_t> slot_nl_;   // body change from the products when the slot's variable flips
  std::vector<wrap_t> slot_pen_;  // penalty change when the slot's variable flips
  std::vector<std::uint32_t> nl_false_;
};

}  // namespace vell
