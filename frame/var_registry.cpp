#include "frame/var_registry.h"

#include "constraint/int_var_registry.h"
#include "frame/literal.h"

#include <atomic>

namespace zorp {

namespace {

// Read and written as two steps on purpose: two threads naming at once may share a name,
// which is harmless since names are not keys. It survives zorp_var_reset.
std::atomic<std::uint64_t> auto_name_counter{0};

std::string& element_name_scratch() {
  thread_local std::string scratch;
  return scratch;
}

}  // namespace

VarRegistry& VarRegistry::instance() {
  static VarRegistry registry;
  return registry;
}

std::uint32_t VarRegistry::add_var(std::string_view name) {
  std::lock_guard<std::mutex> guard(lock_);
  const auto index = static_cast<std::uint32_t>(names_.size());
  std::string stored;
  stored.reserve(name.size() + 1);
  stored += '~';
  stored += name;
  names_.push_back(std::move(stored));
  count_.store(static_cast<std::uint32_t>(names_.size()), std::memory_order_release);
  return index;
}

std::uint32_t VarRegistry::add_block(std::string_view name, const std::uint64_t* dims, std::size_t ndims) {
  VarBlock block;
  block.name.reserve(name.size() + 1);
  block.name += '~';
  block.name += name;
  block.dims.assign(dims, dims + ndims);
  block.count = 1;
  for (std::size_t i = 0; i < ndims; ++i) block.count *= dims[i];
  std::lock_guard<std::mutex> guard(lock_);
  block.base = static_cast<std::uint32_t>(names_.size());
  names_.resize(names_.size() + block.count);
  count_.store(static_cast<std::uint32_t>(names_.size()), std::memory_order_release);
  const std::uint32_t base = block.base;
  blocks_.push_back(std::move(block));
  return base;
}

void VarRegistry::add_group(VarGroup group) {
  std::lock_guard<std::mutex> guard(lock_);
  groups_.push_back(std::move(group));
}

void append_element_suffix(std::string& out, std::uint64_t offset, const std::vector<std::uint64_t>& dims) {
  for (std::size_t axis = 0; axis < dims.size(); ++axis) {
    std::uint64_t inner = 1;
    for (std::size_t k = axis + 1; k < dims.size(); ++k) inner *= dims[k];
    const std::uint64_t q = inner == 0 ? 0 : offset / inner;
    out += '[';
    out += std::to_string(q);
    out += ']';
    offset -= q * inner;
  }
}

const char* VarRegistry::binary_name(std::uint32_t literal) const {
  const std::uint32_t index = positive_literal(literal);
  if (index >= names_.size()) return "?";
  // Linear in the number of blocks: names are for output only.
  for (const VarBlock& block : blocks_) {
    if (block.base <= index && index - block.base < block.count) {
      std::string& scratch = element_name_scratch();
      scratch.clear();
      scratch.append(block.name, is_negated(literal) ? 0 : 1);
      append_element_suffix(scratch, index - block.base, block.dims);
      return scratch.c_str();
    }
  }
  const std::string& stored = names_[index];
  if (stored.empty()) return "?";
  return stored.c_str() + (is_negated(literal) ? 0 : 1);
}

void VarRegistry::clear() {
  std::lock_guard<std::mutex> guard(lock_);
  names_.clear();
  count_.store(0, std::memory_order_release);
  blocks_.clear();
  groups_.clear();
}

const char* literal_name(std::uint32_t literal) {
  if (is_int_atom(literal) && !is_negated(literal)) return IntVarRegistry::instance().name(literal);
  return VarRegistry::instance().binary_name(literal);
}

std::string next_auto_var_name() {
  const std::uint64_t n = auto_name_counter.load(std::memory_order_relaxed);
  auto_name_counter.store(n + 1, std::memory_order_relaxed);
  std::string name(1, '{');
  name.append(std::to_string(n));
  name.push_back('}');
  return name;
}

}  // namespace zorp
