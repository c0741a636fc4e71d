// The process-wide registry of native integer atoms: blocks with bounds and names, and the
// cached binary encoding of each atom that was binarized.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "frame/variant.h"

namespace zorp {

struct IntVarBlock {
  std::uint32_t first = 0;  // first atom index, without bit 30
  std::uint64_t count = 0;
  std::string name;
  std::vector<std::uint64_t> extents;  // empty for a single atom
  std::int64_t lo = 0;
  std::int64_t hi = 0;
};

// One bit of an atom's encoding: the atom is lo + sum of coefficient * variable.
using EncodingBit = std::pair<coeff_t, std::uint32_t>;

class IntVarRegistry {
 public:
  static IntVarRegistry& instance();

  // Appends a block of prod(dims) atoms (one for no dims); returns the first atom literal.
  // Aborts unless lo < hi, or when the index space is full.
  std::uint32_t add_block(std::string name, const std::uint64_t* dims, std::size_t ndims, std::int64_t lo,
                          std::int64_t hi);

  // The block holding an atom (bit 30 set or not), or null. Reads without the lock: callers
  // do not create integers while others look them up.
  const IntVarBlock* find(std::uint32_t literal) const;

  // "name" or "name[i][j]" of an atom; "?" when unknown. Valid until the next call on this thread.
  const char* name(std::uint32_t literal) const;

  // The atom's encoding, made on first request under the lock and cached after.
  std::vector<EncodingBit> encoding(std::uint32_t literal);

  std::uint32_t count() const { return static_cast<std::uint32_t>(next_index_); }
  std::int64_t bit_total() const { return bit_total_; }

  void clear();

 private:
  std::vector<IntVarBlock> blocks_;  // ascending `first`: blocks are only appended
  std::uint64_t next_index_ = 0;
  std::map<std::uint32_t, std::vector<EncodingBit>> encodings_;
  mutable std::mutex lock_;
  std::int64_t bit_total_ = 0;
};

// Number of significant bits of hi - lo, at least 1.
unsigned int_var_bit_width(std::int64_t lo, std::int64_t hi);

// Powers of two and a closing remainder that sum to exactly `range`.
std::vector<std::uint64_t> encoding_coefficients(std::uint64_t range);

}  // namespace zorp
