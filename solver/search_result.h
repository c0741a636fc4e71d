// SearchResult: the one record every solver front end returns, with its pool of
// further solutions and the text facts about the run.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "model/model_impl.h"
#include "model/sol.h"
#include "zorp/sol.h"

namespace zorp {

// Bit words in a malloc block with the layout of zorp_sol_words, so that
// stealing them is a plain exchange with the caller's list.
class WordBlock {
 public:
  WordBlock() = default;
  // `count` zeroed words.
  explicit WordBlock(std::size_t count);
  // Takes ownership of a malloc block.
  WordBlock(std::uint64_t* words, std::size_t count) : block_{words, count} {}
  WordBlock(WordBlock&& other) noexcept : block_(other.block_) { other.block_ = {nullptr, 0}; }
  WordBlock& operator=(WordBlock&& other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  WordBlock(const WordBlock&) = delete;
  WordBlock& operator=(const WordBlock&) = delete;
  ~WordBlock() { std::free(block_.words); }

  std::uint64_t* data() const { return block_.words; }
  std::size_t size() const { return block_.count; }
  std::vector<std::uint64_t> to_vector() const { return {block_.words, block_.words + block_.count}; }
  void exchange(zorp_sol_words& list) noexcept { std::swap(block_, list); }

 private:
  zorp_sol_words block_{nullptr, 0};
};

struct SearchResultEntry {
  std::int64_t energy = 0;
  double tts = 0.0;
  WordBlock bits;
  std::vector<std::int64_t> int_vals;
};

struct SearchResult {
  std::int64_t energy = 0;
  double tts = 0.0;
  double scale = 1.0;
  WordBlock bits;
  std::vector<std::int64_t> int_vals;
  std::vector<SearchResultEntry> topk;  // best first
  std::vector<std::pair<std::string, std::string>> info;

  void add_info(std::string key, std::string value) { info.emplace_back(std::move(key), std::move(value)); }
};

// "run_time" in the "%f" form that starts every result's facts.
void add_run_time(SearchResult& result, double seconds);
// The host facts that end every result: "os", "cpu", "gpu", "ram".
void add_host_info(SearchResult& result);

// A Sol of `model` holding a copy of the best (or of pool entry `index`) as it
// stands.
std::unique_ptr<Sol> result_to_sol(const SearchResult& result, Model model);
std::unique_ptr<Sol> result_entry_to_sol(const SearchResultEntry& entry, Model model);

}  // namespace zorp
