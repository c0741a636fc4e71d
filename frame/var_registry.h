// The process-wide registry of binary variables: indices, names and array blocks.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace zorp {

// An array of variables: one contiguous run of indices with one name for all of them.
struct VarBlock {
  std::uint32_t base = 0;
  std::uint64_t count = 0;
  std::string name;  // "~" + the array's name
  std::vector<std::uint64_t> dims;
};

// A group of bits of one encoded integer; its creators fill it in.
struct VarGroup {
  std::string name;
  std::uint32_t base = 0;
  std::uint32_t count = 0;
};

class VarRegistry {
 public:
  static VarRegistry& instance();

  // Adds one variable and returns its index; no check for duplicate names.
  std::uint32_t add_var(std::string_view name);
  // Adds prod(dims) variables (1 for no dims) under one name; returns the first index.
  std::uint32_t add_block(std::string_view name, const std::uint64_t* dims, std::size_t ndims);
  void add_group(VarGroup group);

  // Read without the lock, so an atomic copy of the size: the limit checks of concurrent
  // creators read it while another thread adds.
  std::uint32_t count() const { return count_.load(std::memory_order_acquire); }

  // Name of a binary literal (bit 30 clear), or "?" when the index is unknown. The text
  // lives in the registry (scalars) or in thread-local scratch (array elements).
  const char* binary_name(std::uint32_t literal) const;

  void clear();

 private:
  // "~" + name; empty for array elements. A deque, because zorp_var_str hands out pointers
  // into these strings until reset: growing a vector would move short (inline) strings.
  std::deque<std::string> names_;
  std::atomic<std::uint32_t> count_{0};
  std::vector<VarBlock> blocks_;
  std::vector<VarGroup> groups_;
  std::mutex lock_;
};

// Appends "[i][j]..." of row-major `offset` in an array of extents `dims`.
void append_element_suffix(std::string& out, std::uint64_t offset, const std::vector<std::uint64_t>& dims);

// Name text of any literal, integer atoms included; "?" when unknown.
const char* literal_name(std::uint32_t literal);

// The next automatic name "{n}" from the global counter.
std::string next_auto_var_name();

}  // namespace zorp
