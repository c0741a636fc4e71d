#include "frame/parallel.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace zorp;

// One counter per index; every loop under test must leave each at exactly 1.
class VisitCounts {
 public:
  explicit VisitCounts(std::uint64_t n) : n_(n), counts_(new std::atomic<std::uint8_t>[n]) {
    for (std::uint64_t i = 0; i < n; ++i) counts_[i].store(0, std::memory_order_relaxed);
  }
  void visit(std::uint64_t i) { counts_[i].fetch_add(1, std::memory_order_relaxed); }
  // The first index not visited exactly once, or n when all were.
  std::uint64_t first_wrong() const {
    for (std::uint64_t i = 0; i < n_; ++i)
      if (counts_[i].load(std::memory_order_relaxed) != 1) return i;
    return n_;
  }

 private:
  std::uint64_t n_;
  std::unique_ptr<std::atomic<std::uint8_t>[]> counts_;
};

// Waits, with a generous bound, until `ready` holds.
template <class Ready>
bool wait_for(Ready ready) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!ready()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(ThreadNumber, ParsesPositiveDecimalsOnly) {
  EXPECT_EQ(parse_thread_number("1", 8), 1u);
  EXPECT_EQ(parse_thread_number("2", 8), 2u);
  EXPECT_EQ(parse_thread_number("100", 8), 100u);
  EXPECT_EQ(parse_thread_number("0", 8), 8u);
  EXPECT_EQ(parse_thread_number("-3", 8), 8u);
  EXPECT_EQ(parse_thread_number("abc", 8), 8u);
  EXPECT_EQ(parse_thread_number("", 8), 8u);
  EXPECT_EQ(parse_thread_number(nullptr, 8), 8u);
  EXPECT_EQ(parse_thread_number(nullptr, 0), 1u);
  EXPECT_EQ(parse_thread_number("abc", 0), 1u);
}

TEST(ThreadNumber, IsTheCachedEnvironmentReading) {
  EXPECT_EQ(thread_number(), parse_thread_number(std::getenv("ZORP_NUM_THREADS"), std::thread::hardware_concurrency()));
  EXPECT_EQ(thread_number(), thread_number());
}

TEST(SizeScaledThreadCount, GrowsWithTheSizeClass) {
  EXPECT_EQ(size_scaled_thread_count(1'000'000'000'000ull, 1), 1u);
  EXPECT_EQ(size_scaled_thread_count(10'000, 16), 8u);
  EXPECT_EQ(size_scaled_thread_count(99'999'999, 64), 8u);
  EXPECT_EQ(size_scaled_thread_count(100'000'000, 64), 16u);
  EXPECT_EQ(size_scaled_thread_count(999'999'999, 64), 16u);
  EXPECT_EQ(size_scaled_thread_count(1'000'000'000, 64), 32u);
  EXPECT_EQ(size_scaled_thread_count(9'999'999'999ull, 64), 32u);
  EXPECT_EQ(size_scaled_thread_count(10'000'000'000ull, 64), 64u);
  EXPECT_EQ(size_scaled_thread_count(10'000'000'000ull, 100), 64u);
  EXPECT_EQ(size_scaled_thread_count(10'000'000'000ull, 4), 4u);
  EXPECT_EQ(size_scaled_thread_count(1'000'000'000, 32), 32u);
  EXPECT_EQ(size_scaled_thread_count(50, 2), 2u);
}

TEST(ChunkPlan, FourChunksPerThreadRoundedUp) {
  const ChunkPlan plan = plan_chunks(10'000, size_scaled_thread_count(10'000, 16));
  EXPECT_EQ(plan.chunks, 32u);
  EXPECT_EQ(plan.chunk_size, 313u);
  EXPECT_EQ(plan.begin(31), 9'703u);
  EXPECT_EQ(plan.end(31), 10'000u);
  EXPECT_EQ(plan.end(30) - plan.begin(30), 313u);

  const ChunkPlan big = plan_chunks(1'000'000'000, size_scaled_thread_count(1'000'000'000, 32));
  EXPECT_EQ(big.chunks, 128u);
  EXPECT_EQ(big.chunk_size, 7'812'500u);
  EXPECT_EQ(big.end(127), 1'000'000'000u);
}

TEST(ChunkPlan, NeverMoreChunksThanItems) {
  const ChunkPlan tiny = plan_chunks(3, 8);
  EXPECT_EQ(tiny.chunks, 3u);
  EXPECT_EQ(tiny.chunk_size, 1u);
  const ChunkPlan none = plan_chunks(0, 8);
  EXPECT_EQ(none.chunks, 0u);
}

TEST(ChunkPlan, ChunksTileTheRange) {
  for (std::uint64_t n : {1ull, 7ull, 9'999ull, 10'000ull, 10'001ull, 123'457ull}) {
    for (unsigned threads : {1u, 2u, 3u, 8u, 64u}) {
      const ChunkPlan plan = plan_chunks(n, threads);
      std::uint64_t expected_begin = 0;
      for (std::uint64_t c = 0; c < plan.chunks; ++c) {
        ASSERT_EQ(plan.begin(c), expected_begin) << n << " items, " << threads << " threads";
        // Rounding the size up may leave trailing chunks empty, never inverted.
        ASSERT_LE(plan.begin(c), plan.end(c));
        ASSERT_TRUE(plan.begin(c) < plan.end(c) || plan.end(c) == n);
        expected_begin = plan.end(c);
      }
      EXPECT_EQ(expected_begin, n);
    }
  }
}

TEST(WorkerPool, WorkerCountIsThreadNumberLessOneCappedAtSeven) {
  EXPECT_EQ(WorkerPool(1).worker_count(), 0u);
  EXPECT_EQ(WorkerPool(2).worker_count(), 1u);
  EXPECT_EQ(WorkerPool(8).worker_count(), 7u);
  EXPECT_EQ(WorkerPool(100).worker_count(), 7u);
  const unsigned expected = thread_number() <= 1 ? 0 : std::min(thread_number() - 1, 7u);
  EXPECT_EQ(WorkerPool::instance().worker_count(), expected);
}

TEST(WorkerPool, EveryWorkerAndTheCallerRunEachDispatch) {
  WorkerPool pool(4);
  EXPECT_EQ(pool.generation(), 0u);
  for (std::uint64_t round = 1; round <= 3; ++round) {
    std::atomic<unsigned> runs{0};
    std::mutex lock;
    std::set<std::thread::id> threads;
    pool.dispatch([&] {
      runs.fetch_add(1);
      std::lock_guard<std::mutex> guard(lock);
      threads.insert(std::this_thread::get_id());
    });
    EXPECT_EQ(runs.load(), 4u);
    EXPECT_EQ(threads.size(), 4u);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 1u);
    EXPECT_EQ(pool.generation(), round);
  }
}

TEST(WorkerPool, PoolWithoutWorkersRunsOnTheCaller) {
  WorkerPool pool(1);
  unsigned runs = 0;
  pool.dispatch([&] { ++runs; });
  EXPECT_EQ(runs, 1u);
  EXPECT_EQ(pool.generation(), 1u);
}

TEST(WorkerPool, SharedPoolGetsANewGenerationPerParallelLoop) {
  if (thread_number() < 2) GTEST_SKIP() << "no pool loops with one thread";
  std::atomic<std::uint64_t> sum{0};
  parallel_for(0, 20'000, [&](std::uint64_t i) { sum.fetch_add(i, std::memory_order_relaxed); });
  const std::uint64_t before = WorkerPool::instance().generation();
  parallel_for(0, 20'000, [&](std::uint64_t i) { sum.fetch_add(i, std::memory_order_relaxed); });
  EXPECT_EQ(WorkerPool::instance().generation(), before + 1);
  EXPECT_EQ(sum.load(), 2 * (20'000ull * 19'999ull / 2));
}

class ParallelFor : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(ParallelFor, VisitsEveryIndexExactlyOnce) {
  const std::uint64_t n = GetParam();
  VisitCounts counts(n);
  parallel_for(0, n, [&](std::uint64_t i) { counts.visit(i); });
  EXPECT_EQ(counts.first_wrong(), n);
}

TEST_P(ParallelFor, RangesAreDisjointAndOffsetByTheStart) {
  const std::uint64_t n = GetParam();
  const std::uint64_t start = 1'000'003;
  VisitCounts counts(n);
  parallel_for_ranges(start, start + n, [&](std::uint64_t b, std::uint64_t e) {
    ASSERT_LE(start, b);
    ASSERT_LT(b, e);
    ASSERT_LE(e, start + n);
    for (std::uint64_t i = b; i < e; ++i) counts.visit(i - start);
  });
  EXPECT_EQ(counts.first_wrong(), n);
}

INSTANTIATE_TEST_SUITE_P(AroundTheSerialThreshold, ParallelFor,
                         ::testing::Values(0, 1, 9'998, 9'999, 10'000, 10'001, 40'000, 1'000'003, 4'194'304));

TEST(ParallelForShape, UpToTheThresholdOneRangeOnTheCaller) {
  std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
  std::thread::id where;
  parallel_for_ranges(0, 9'999, [&](std::uint64_t b, std::uint64_t e) {
    ranges.emplace_back(b, e);
    where = std::this_thread::get_id();
  });
  ASSERT_EQ(ranges.size(), 1u);
  EXPECT_EQ(ranges[0], std::make_pair(std::uint64_t{0}, std::uint64_t{9'999}));
  EXPECT_EQ(where, std::this_thread::get_id());
}

TEST(ParallelForShape, AboveTheThresholdPlannedChunks) {
  std::mutex lock;
  std::set<std::pair<std::uint64_t, std::uint64_t>> ranges;
  parallel_for_ranges(0, 10'000, [&](std::uint64_t b, std::uint64_t e) {
    std::lock_guard<std::mutex> guard(lock);
    ranges.emplace(b, e);
  });
  if (thread_number() < 2) {
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(*ranges.begin(), std::make_pair(std::uint64_t{0}, std::uint64_t{10'000}));
    return;
  }
  const ChunkPlan plan = plan_chunks(10'000, size_scaled_thread_count(10'000));
  ASSERT_EQ(ranges.size(), plan.chunks);
  std::uint64_t c = 0;
  for (const auto& [b, e] : ranges) {
    EXPECT_EQ(b, plan.begin(c));
    EXPECT_EQ(e, plan.end(c));
    ++c;
  }
}

TEST(ParallelForShape, ThirtyTwoThreadLoopRunsOnThirtyTwoThreads) {
  // Whatever the pool size, the extra threads make up the difference to the requested count:
  // a thousand million items at thread number 32 use the 7 workers, the caller and 24 more.
  // Each thread's first chunk waits until all have arrived, so every thread takes one.
  constexpr unsigned kThreads = 32;
  const ChunkPlan plan = plan_chunks(kThreads * 4 * 16, kThreads);
  std::mutex lock;
  std::set<std::thread::id> threads;
  std::atomic<std::uint64_t> items{0};
  detail::run_chunks_on_pool(plan, kThreads, [&](std::uint64_t b, std::uint64_t e) {
    std::size_t arrived;
    {
      std::lock_guard<std::mutex> guard(lock);
      threads.insert(std::this_thread::get_id());
      arrived = threads.size();
    }
    if (arrived < kThreads) {
      wait_for([&] {
        std::lock_guard<std::mutex> guard(lock);
        return threads.size() >= kThreads;
      });
    }
    items.fetch_add(e - b);
  });
  EXPECT_EQ(threads.size(), kThreads);
  EXPECT_EQ(items.load(), plan.n);
}

TEST(ParallelForNesting, InnerLoopsRunSeriallyWithoutDeadlock) {
  constexpr std::uint64_t kOuter = 20'000, kInner = 12'000;
  std::atomic<std::uint64_t> inner_items{0}, inner_loops{0};
  VisitCounts outer(kOuter);
  parallel_for_ranges(0, kOuter, [&](std::uint64_t b, std::uint64_t e) {
    for (std::uint64_t i = b; i < e; ++i) outer.visit(i);
    std::uint64_t local = 0;
    parallel_for(0, kInner, [&](std::uint64_t) { ++local; });
    inner_items.fetch_add(local);
    inner_loops.fetch_add(1);
  });
  EXPECT_EQ(outer.first_wrong(), kOuter);
  EXPECT_EQ(inner_items.load(), inner_loops.load() * kInner);
}

TEST(ParallelForFailure, CallerExceptionPropagatesAndThePoolStaysUsable) {
  const std::thread::id caller = std::this_thread::get_id();
  std::atomic<bool> caller_threw{false};
  auto body = [&](std::uint64_t) {
    if (std::this_thread::get_id() == caller) {
      caller_threw.store(true);
      throw std::runtime_error("from the caller");
    }
    // Other threads hold their first item until the caller has thrown, so the caller is
    // sure to take a chunk of its own.
    wait_for([&] { return caller_threw.load(); });
  };
  EXPECT_THROW(parallel_for(0, 50'000, body), std::runtime_error);
  EXPECT_TRUE(caller_threw.load());

  VisitCounts counts(50'000);
  parallel_for(0, 50'000, [&](std::uint64_t i) { counts.visit(i); });
  EXPECT_EQ(counts.first_wrong(), 50'000u);
}

TEST(ThreadTeam, EachThreadIndexRunsOnce) {
  std::vector<std::atomic<unsigned>> runs(5);
  run_thread_team(5, [&](unsigned t) { runs[t].fetch_add(1); });
  for (auto& r : runs) EXPECT_EQ(r.load(), 1u);
}

TEST(ThreadTeam, RangesCoverEveryIndexOnceWithPerThreadState) {
  // 100 items for 8 threads make 32 chunks of 4, of which only 25 hold items.
  for (unsigned team : {3u, 8u}) {
    for (std::uint64_t n : {0ull, 5ull, 100ull, 10'000ull, 100'003ull}) {
      VisitCounts counts(n);
      std::vector<std::uint64_t> per_thread(team, 0);
      team_for_ranges(team, n, [&](unsigned t, std::uint64_t b, std::uint64_t e) {
        ASSERT_LT(t, team);
        ASSERT_LT(b, e);
        for (std::uint64_t i = b; i < e; ++i) counts.visit(i);
        per_thread[t] += e - b;
      });
      EXPECT_EQ(counts.first_wrong(), n);
      std::uint64_t total = 0;
      for (std::uint64_t items : per_thread) total += items;
      EXPECT_EQ(total, n) << team << " threads";
    }
  }
}

TEST(ParallelForShape, PoolRangesAreNeverEmpty) {
  // A plan whose last chunks hold nothing, run on the pool as the merge loops do.
  const ChunkPlan plan = plan_chunks(9'999, 64);
  ASSERT_EQ(plan.end(plan.chunks - 1), plan.begin(plan.chunks - 1));
  VisitCounts counts(plan.n);
  detail::run_chunks_on_pool(plan, 2, [&](std::uint64_t b, std::uint64_t e) {
    ASSERT_LT(b, e);
    for (std::uint64_t i = b; i < e; ++i) counts.visit(i);
  });
  EXPECT_EQ(counts.first_wrong(), plan.n);
}

}  // namespace
