// Parallel loops: the size-scaled thread count, the sleeping WorkerPool behind
// par_for, and thread teams started for one call.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace zorp {

// Every internal loop stays on the calling thread up to this many items.
inline constexpr std::uint64_t kSerialThreshold = 9999;

// Cached reading of ZORP_NUM_THREADS (a positive base-10 number), else the processor count.
unsigned thread_number();

// Parses a ZORP_NUM_THREADS value as thread_number() does; null means unset.
unsigned parse_thread_number(const char* value, unsigned hardware_threads);

// Threads a loop of n items deserves: the thread number capped by a size class, so that
// wide machines spend all their processors only on very large loops.
unsigned size_scaled_thread_count(std::uint64_t n, unsigned threads);
inline unsigned size_scaled_thread_count(std::uint64_t n) { return size_scaled_thread_count(n, thread_number()); }

// The split of n items into chunks fetched from one atomic counter: min(4T, n) chunks of
// ceil(n / chunks) items, the last one shorter. Rounding up can leave trailing chunks empty
// (9,999 items in 256 chunks of 40 fill only 250), so begin is clamped like end and the
// chunk loops skip empty chunks: a range body never sees begin > end.
struct ChunkPlan {
  std::uint64_t n = 0;
  std::uint64_t chunks = 0;
  std::uint64_t chunk_size = 0;
  std::uint64_t begin(std::uint64_t chunk) const {
    const std::uint64_t b = chunk * chunk_size;
    return b < n ? b : n;
  }
  std::uint64_t end(std::uint64_t chunk) const {
    std::uint64_t e = (chunk + 1) * chunk_size;
    return e < n ? e : n;
  }
};
ChunkPlan plan_chunks(std::uint64_t n, unsigned threads);
ChunkPlan plan_chunks_exact(std::uint64_t n, std::uint64_t chunks);

// Sleeping threads woken for each dispatch; one dispatch runs at a time.
class WorkerPool {
 public:
  static WorkerPool& instance();

  explicit WorkerPool(unsigned thread_number);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  unsigned worker_count() const { return worker_count_; }
  std::uint64_t generation() const;

  // Runs `chunk_loop` on every worker and on the caller, and returns when all are done.
  // Exceptions from the caller's run pass after the workers have finished.
  void dispatch(const std::function<void()>& chunk_loop);

 private:
  void worker_main();

  unsigned worker_count_;
  std::vector<std::thread> threads_;
  std::mutex dispatch_lock_;
  mutable std::mutex state_lock_;
  std::condition_variable work_ready_;
  std::condition_variable work_done_;
  std::function<void()> task_;
  std::atomic<std::uint32_t> pending_{0};
  std::uint64_t generation_ = 0;
  bool stopping_ = false;
};

namespace detail {

using RangeBody = std::function<void(std::uint64_t begin, std::uint64_t end)>;

// Runs `body` over [0, plan.n) in the plan's chunks on the pool with `threads` threads in all
// (pool workers plus extra threads when the pool is too small). Nested calls run serially.
void run_chunks_on_pool(const ChunkPlan& plan, unsigned threads, const RangeBody& body);

// The general parallel loop over [start, end), calling body(begin, end) per chunk.
void par_for_impl(std::uint64_t start, std::uint64_t end, const RangeBody& body);

// True on pool workers, extra threads and a caller inside its own dispatch.
bool inside_parallel_loop();

}  // namespace detail

// body(i) for each i of [start, end), in parallel above kSerialThreshold items.
template <class Body>
void parallel_for(std::uint64_t start, std::uint64_t end, Body&& body) {
  if (end - start <= kSerialThreshold) {
    for (std::uint64_t i = start; i < end; ++i) body(i);
    return;
  }
  detail::par_for_impl(start, end, [&](std::uint64_t b, std::uint64_t e) {
    for (std::uint64_t i = b; i < e; ++i) body(i);
  });
}

// body(begin, end) over chunks of [start, end), in parallel above kSerialThreshold items.
template <class Body>
void parallel_for_ranges(std::uint64_t start, std::uint64_t end, Body&& body) {
  if (end - start <= kSerialThreshold) {
    if (end > start) body(start, end);
    return;
  }
  detail::par_for_impl(start, end, std::ref(body));
}

// Thread team: `count` fresh threads run body(thread_index); the caller waits. Exceptions on
// a team thread end the process.
template <class Body>
void run_thread_team(unsigned count, Body&& body) {
  std::vector<std::thread> team;
  team.reserve(count);
  for (unsigned t = 0; t < count; ++t) team.emplace_back([&body, t] { body(t); });
  for (auto& thread : team) thread.join();
}

// Thread team over n items in the usual chunks: body(thread_index, begin, end) per chunk.
template <class Body>
void team_for_ranges(unsigned count, std::uint64_t n, Body&& body) {
  const ChunkPlan plan = plan_chunks(n, count);
  std::atomic<std::uint64_t> next{0};
  run_thread_team(count, [&](unsigned thread_index) {
    for (;;) {
      const std::uint64_t chunk = next.fetch_add(1, std::memory_order_relaxed);
      if (chunk >= plan.chunks || plan.begin(chunk) == plan.n) break;
      body(thread_index, plan.begin(chunk), plan.end(chunk));
    }
  });
}

}  // namespace zorp
