#include "frame/parallel.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <exception>

namespace zorp {

namespace {

// Marks threads already running a pool loop, so that a nested loop runs serially instead
// of waiting forever on the dispatch lock its own caller holds.
thread_local bool tls_inside_parallel_loop = false;

struct ParallelMark {
  bool saved = tls_inside_parallel_loop;
  ParallelMark() { tls_inside_parallel_loop = true; }
  ~ParallelMark() { tls_inside_parallel_loop = saved; }
};

constexpr unsigned kMaxPoolWorkers = 7;

}  // namespace

unsigned parse_thread_number(const char* value, unsigned hardware_threads) {
  if (value != nullptr) {
    char* end = nullptr;
    errno = 0;
    const long parsed = std::strtol(value, &end, 10);
    if (end != value && parsed > 0) return static_cast<unsigned>(parsed);
  }
  return hardware_threads == 0 ? 1 : hardware_threads;
}

unsigned thread_number() {
  static const unsigned cached = parse_thread_number(std::getenv("ZORP_NUM_THREADS"), std::thread::hardware_concurrency());
  return cached;
}

unsigned size_scaled_thread_count(std::uint64_t n, unsigned threads) {
  if (threads < 2) return 1;
  unsigned cap = 64;
  if (n <= 99'999'999ull) {
    cap = 8;
  } else if (n <= 999'999'999ull) {
    cap = 16;
  } else if (n <= 9'999'999'999ull) {
    cap = 32;
  }
  return std::min(threads, cap);
}

ChunkPlan plan_chunks_exact(std::uint64_t n, std::uint64_t chunks) {
  ChunkPlan plan;
  plan.n = n;
  plan.chunks = std::min<std::uint64_t>(chunks, n);
  plan.chunk_size = plan.chunks == 0 ? 0 : (n + plan.chunks - 1) / plan.chunks;
  return plan;
}

ChunkPlan plan_chunks(std::uint64_t n, unsigned threads) { return plan_chunks_exact(n, 4ull * threads); }

WorkerPool& WorkerPool::instance() {
  static WorkerPool pool(thread_number());
  return pool;
}

WorkerPool::WorkerPool(unsigned thread_number)
    : worker_count_(thread_number <= 1 ? 0 : std::min(thread_number - 1, kMaxPoolWorkers)) {
  threads_.reserve(worker_count_);
  for (unsigned i = 0; i < worker_count_; ++i) threads_.emplace_back([this] { worker_main(); });
}

WorkerPool::~WorkerPool() {
  {
    std::lock_guard<std::mutex> state(state_lock_);
    stopping_ = true;
  }
  work_ready_.notify_all();
  for (auto& thread : threads_) thread.join();
}

std::uint64_t WorkerPool::generation() const {
  std::lock_guard<std::mutex> state(state_lock_);
  return generation_;
}

void WorkerPool::worker_main() {
  ParallelMark mark;
  std::uint64_t served = 0;
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock<std::mutex> state(state_lock_);
      if (stopping_) return;
      while (generation_ == served) {
        work_ready_.wait(state);
        if (stopping_) return;
      }
      task = task_;
      served = generation_;
    }
    task();
    std::lock_guard<std::mutex> state(state_lock_);
    if (pending_.fetch_sub(1) == 1) work_done_.notify_one();
    task = nullptr;
  }
}

void WorkerPool::dispatch(const std::function<void()>& chunk_loop) {
  std::lock_guard<std::mutex> dispatch(dispatch_lock_);
  {
    std::lock_guard<std::mutex> state(state_lock_);
    task_ = chunk_loop;
    pending_.store(worker_count_);
    ++generation_;
  }
  work_ready_.notify_all();
  std::exception_ptr failure;
  try {
    ParallelMark mark;
    chunk_loop();
  } catch (...) {
    failure = std::current_exception();
  }
  {
    // The workers read the caller's stack through the task, so they must be done
    // before an exception may leave.
    std::unique_lock<std::mutex> state(state_lock_);
    work_done_.wait(state, [this] { return pending_.load() == 0; });
    task_ = nullptr;
  }
  if (failure) std::rethrow_exception(failure);
}

namespace detail {

bool inside_parallel_loop() { return tls_inside_parallel_loop; }

void run_chunks_on_pool(const ChunkPlan& plan, unsigned threads, const RangeBody& body) {
  if (plan.chunks == 0) return;
  if (threads < 2 || tls_inside_parallel_loop) {
    body(0, plan.n);
    return;
  }
  WorkerPool& pool = WorkerPool::instance();
  const unsigned extra = threads > pool.worker_count() + 1 ? threads - (pool.worker_count() + 1) : 0;
  std::atomic<std::uint64_t> next{0};
  const std::function<void()> chunk_loop = [&] {
    for (;;) {
      const std::uint64_t chunk = next.fetch_add(1, std::memory_order_relaxed);
      if (chunk >= plan.chunks || plan.begin(chunk) == plan.n) return;
      body(plan.begin(chunk), plan.end(chunk));
    }
  };
  std::vector<std::thread> extras;
  extras.reserve(extra);
  struct JoinExtras {
    std::vector<std::thread>& threads;
    ~JoinExtras() {
      for (auto& thread : threads) thread.join();
    }
  } join_extras{extras};
  for (unsigned i = 0; i < extra; ++i) {
    extras.emplace_back([&chunk_loop] {
      ParallelMark mark;
      chunk_loop();
    });
  }
  pool.dispatch(chunk_loop);
}

void par_for_impl(std::uint64_t start, std::uint64_t end, const RangeBody& body) {
  const std::uint64_t n = end - start;
  const unsigned threads = size_scaled_thread_count(n);
  if (n <= kSerialThreshold || threads < 2 || tls_inside_parallel_loop) {
    if (n > 0) body(start, end);
    return;
  }
  const ChunkPlan plan = plan_chunks(n, threads);
  run_chunks_on_pool(plan, threads, [&](std::uint64_t b, std::uint64_t e) { body(start + b, start + e); });
}

}  // namespace detail

}  // namespace zorp
