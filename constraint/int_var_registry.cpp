#include "constraint/int_var_registry.h"

#include <algorithm>
#include <limits>

#include "frame/fatal.h"
#include "frame/literal.h"
#include "frame/var_registry.h"

namespace zorp {

IntVarRegistry& IntVarRegistry::instance() {
  static IntVarRegistry registry;
  return registry;
}

unsigned int_var_bit_width(std::int64_t lo, std::int64_t hi) {
  std::uint64_t range = static_cast<std::uint64_t>(hi) - static_cast<std::uint64_t>(lo);
  unsigned width = 0;
  while (range != 0) {
    range >>= 1;
    ++width;
  }
  return width == 0 ? 1 : width;
}

std::vector<std::uint64_t> encoding_coefficients(std::uint64_t range) {
  std::vector<std::uint64_t> coefficients;
  // Comparing with half before doubling keeps c from overflowing.
  const std::uint64_t half = range >> 1;
  std::uint64_t c = 1, sum = 0;
  for (;;) {
    coefficients.push_back(c);
    sum += c;
    if (c > half) break;
    c *= 2;
    if (c + sum > range) break;
  }
  if (range > sum) coefficients.push_back(range - sum);
  return coefficients;
}

std::uint32_t IntVarRegistry::add_block(std::string name, const std::uint64_t* dims, std::size_t ndims,
                                        std::int64_t lo, std::int64_t hi) {
  if (lo >= hi) fatal("int_var: bounds must satisfy lo < hi (got lo = ", lo, ", hi = ", hi, ")");
  IntVarBlock block;
  // Saturates past the index space, so that the limit test below cannot be fooled by a wrap.
  unsigned __int128 count = 1;
  for (std::size_t i = 0; i < ndims; ++i) count = std::min<unsigned __int128>(count * dims[i], 0x80000000u);
  block.count = static_cast<std::uint64_t>(count);
  block.extents.assign(dims, dims + ndims);
  if (name.empty()) name = next_auto_var_name();
  block.name = std::move(name);
  block.lo = lo;
  block.hi = hi;
  const unsigned width = int_var_bit_width(lo, hi);
  std::lock_guard<std::mutex> guard(lock_);
  if (next_index_ + block.count >= 0x40000000u) fatal("int_var: integer variable index space exhausted");
  block.first = static_cast<std::uint32_t>(next_index_);
  next_index_ += block.count;
  bit_total_ += static_cast<std::int64_t>(width) * static_cast<std::int64_t>(block.count);
  const std::uint32_t first = block.first;
  blocks_.push_back(std::move(block));
  return first | kIntAtomBit;
}

const IntVarBlock* IntVarRegistry::find(std::uint32_t literal) const {
  const std::uint32_t n = literal & kIndexMask;
  if (blocks_.empty() || n >= next_index_) return nullptr;
  // The last block whose first index is not above n.
  auto it = std::upper_bound(blocks_.begin(), blocks_.end(), n,
                             [](std::uint32_t value, const IntVarBlock& block) { return value < block.first; });
  if (it == blocks_.begin()) return nullptr;
  const IntVarBlock& block = *(it - 1);
  return n - block.first < block.count ? &block : nullptr;
}

const char* IntVarRegistry::name(std::uint32_t literal) const {
  const IntVarBlock* block = find(literal);
  if (block == nullptr) return "?";
  if (block->extents.empty()) return block->name.c_str();
  thread_local std::string scratch;
  scratch.assign(block->name);
  append_element_suffix(scratch, (literal & kIndexMask) - block->first, block->extents);
  return scratch.c_str();
}

std::vector<EncodingBit> IntVarRegistry::encoding(std::uint32_t literal) {
  // Held for the whole encoding, bit creation included: this registry's lock is always
  // taken before the binary registry's.
  std::lock_guard<std::mutex> guard(lock_);
  const IntVarBlock* block = is_int_atom(literal) ? find(literal) : nullptr;
  if (block == nullptr) fatal("binarize: not an integer variable index");
  const std::uint32_t n = literal & kIndexMask;
  std::vector<EncodingBit>& bits = encodings_[n];
  if (!bits.empty()) return bits;
  const std::string atom_name = name(literal);
  const std::uint64_t range = static_cast<std::uint64_t>(block->hi) - static_cast<std::uint64_t>(block->lo);
  const std::vector<std::uint64_t> coefficients = encoding_coefficients(range);
  for (std::size_t k = 0; k < coefficients.size(); ++k) {
    const std::uint64_t c = coefficients[k];
    if (c > static_cast<std::uint64_t>(std::numeric_limits<coeff_t>::max()))
      fatal("binarize: encoding coefficient ", c, " overflows coeff_t \xE2\x80\x94 use a wider coefficient variant.");
    std::string bit_name = atom_name;
    bit_name += '#';
    bit_name += std::to_string(k);
    if (VarRegistry::instance().count() >= 0x3FFFFFFFu) fatal("Binary variable index space exhausted (2^30 - 1 variables).");
    bits.emplace_back(static_cast<coeff_t>(c), VarRegistry::instance().add_var(bit_name));
  }
  return bits;
}

void IntVarRegistry::clear() {
  std::lock_guard<std::mutex> guard(lock_);
  blocks_.clear();
  encodings_.clear();
  next_index_ = 0;
  bit_total_ = 0;
}

}  // namespace zorp
