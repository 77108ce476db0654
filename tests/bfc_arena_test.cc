#include "allocator/bfc_arena.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "allocator/allocatormgr.h"
#include "allocator/safe_int.h"
#include "mallocator.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using allocator::AllocatorCreationInfo;
using allocator::AllocatorStats;
using allocator::BFCArena;
using allocator::IAllocator;
using allocator::OrtMemoryInfo;

constexpr size_t kMiB = 1024 * 1024;

// A heap allocator that records what the arena asks of it, and can be told to
// fail (null or throw) above a size, or to hand out the same block twice.
class DeviceAllocator : public IAllocator {
 public:
  enum class Failure { kNull, kBadAlloc, kAllocatorException };

  DeviceAllocator() : IAllocator(OrtMemoryInfo("Cpu", allocator::OrtDeviceAllocator)) {}
  ~DeviceAllocator() override { std::free(fixed_); }

  void* Alloc(size_t size) override {
    std::lock_guard<std::mutex> guard(mutex_);
    requests.push_back(size);
    if (size > fail_above) {
      if (failure == Failure::kBadAlloc) throw std::bad_alloc();
      if (failure == Failure::kAllocatorException) throw allocator::allocatorException("no memory");
      return nullptr;
    }
    if (repeat_pointer) {
      if (fixed_ == nullptr) fixed_ = std::malloc(size);
      return fixed_;
    }
    live += 1;
    return std::malloc(size);
  }
  void Free(void* p) override {
    std::lock_guard<std::mutex> guard(mutex_);
    freed += 1;
    live -= 1;
    std::free(p);
  }

  std::vector<size_t> requests;
  size_t fail_above = std::numeric_limits<size_t>::max();
  Failure failure = Failure::kNull;
  bool repeat_pointer = false;
  int live = 0;
  int freed = 0;

 private:
  std::mutex mutex_;
  void* fixed_ = nullptr;
};

struct ArenaUnderTest {
  explicit ArenaUnderTest(allocator::ArenaExtendStrategy strategy = allocator::kNextPowerOfTwo,
                          size_t limit = BFCArena::DEFAULT_MAX_MEM,
                          int max_dead = BFCArena::DEFAULT_MAX_DEAD_BYTES_PER_CHUNK)
      : device(new DeviceAllocator()),
        arena(std::unique_ptr<IAllocator>(device), limit, strategy,
              BFCArena::DEFAULT_INITIAL_CHUNK_SIZE_BYTES, max_dead) {}

  AllocatorStats stats() {
    AllocatorStats s;
    arena.GetStats(&s);
    return s;
  }
  // Free chunks plus chunks in use, over every region.
  size_t chunk_count() {
    size_t n = 0;
    for (const auto& bin : arena.get_bin_debug_info()) n += bin.total_chunks_in_bin;
    return n;
  }

  DeviceAllocator* device;  // owned by the arena
  BFCArena arena;
};

TEST(BFCArenaTest, ZeroSizesAndNull) {
  ArenaUnderTest t;
  EXPECT_EQ(t.arena.Alloc(0), nullptr);
  EXPECT_EQ(t.arena.Reserve(0), nullptr);
  t.arena.Free(nullptr);
  EXPECT_TRUE(t.device->requests.empty());
}

TEST(BFCArenaTest, SmallestChunkIs256Bytes) {
  ArenaUnderTest t;
  void* p = t.arena.Alloc(1);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(t.arena.AllocatedSize(p), 256u);
  EXPECT_EQ(t.arena.RequestedSize(p), 1u);
  void* q = t.arena.Alloc(257);
  EXPECT_EQ(t.arena.AllocatedSize(q), 512u);
  EXPECT_EQ(static_cast<char*>(q) - static_cast<char*>(p), 256);
  t.arena.Free(p);
  t.arena.Free(q);
}

TEST(BFCArenaTest, SameAsRequestedTakesOneRegionPerMiss) {
  ArenaUnderTest t(allocator::kSameAsRequested);
  void* a = t.arena.Alloc(1000);
  void* b = t.arena.Alloc(1000);
  EXPECT_EQ(t.device->requests, (std::vector<size_t>{1024, 1024}));
  EXPECT_EQ(t.stats().num_arena_extensions, 2);
  t.arena.Free(a);
  void* c = t.arena.Alloc(900);  // fits the freed region
  EXPECT_EQ(c, a);
  EXPECT_EQ(t.device->requests.size(), 2u);
  t.arena.Free(b);
  t.arena.Free(c);
}

TEST(BFCArenaTest, NextPowerOfTwoDoublesRegions) {
  ArenaUnderTest t;
  std::vector<void*> blocks;
  for (int i = 0; i < 4; ++i) blocks.push_back(t.arena.Alloc(kMiB));
  // 1 MiB region, then 2 MiB (holding two blocks), then 4 MiB.
  EXPECT_EQ(t.device->requests, (std::vector<size_t>{kMiB, 2 * kMiB, 4 * kMiB}));
  for (void* p : blocks) t.arena.Free(p);

  ArenaUnderTest big;
  big.arena.Alloc(3 * kMiB);  // doubles 1 -> 4 MiB to fit
  big.arena.Alloc(2 * kMiB);  // fits the current size: 4 MiB, next is 8
  big.arena.Alloc(6 * kMiB);
  EXPECT_EQ(big.device->requests, (std::vector<size_t>{4 * kMiB, 4 * kMiB, 8 * kMiB}));
}

TEST(BFCArenaTest, SplitOnlyWhenSlackIsLarge) {
  struct Case {
    size_t request;
    int max_dead;
    size_t allocated;
  };
  const Case cases[] = {
      {600000, BFCArena::DEFAULT_MAX_DEAD_BYTES_PER_CHUNK, kMiB},  // slack < 2x and < max dead
      {300000, BFCArena::DEFAULT_MAX_DEAD_BYTES_PER_CHUNK, 300032},
      {600000, 4096, 600064},                                        // slack above the dead-bytes limit
      {524288, BFCArena::DEFAULT_MAX_DEAD_BYTES_PER_CHUNK, 524288},  // exactly half
  };
  for (const Case& c : cases) {
    ArenaUnderTest t(allocator::kNextPowerOfTwo, BFCArena::DEFAULT_MAX_MEM, c.max_dead);
    void* p = t.arena.Alloc(c.request);
    EXPECT_EQ(t.arena.AllocatedSize(p), c.allocated) << c.request;
    EXPECT_EQ(t.stats().bytes_in_use, static_cast<int64_t>(c.allocated));
    t.arena.Free(p);
  }
}

TEST(BFCArenaTest, BestFitTakesSmallestFreeChunk) {
  ArenaUnderTest t;
  void* a = t.arena.Alloc(4096);
  void* sep1 = t.arena.Alloc(256);
  void* b = t.arena.Alloc(2048);
  void* sep2 = t.arena.Alloc(256);
  t.arena.Free(a);
  t.arena.Free(b);
  EXPECT_EQ(t.arena.Alloc(1500), b);  // 2048 fits better than 4096
  EXPECT_EQ(t.arena.Alloc(1500), a);
  (void)sep1;
  (void)sep2;
}

TEST(BFCArenaTest, NeighboursCoalesceInAnyOrder) {
  std::vector<int> order = {0, 1, 2};
  do {
    ArenaUnderTest t;
    void* blocks[3];
    for (void*& p : blocks) p = t.arena.Alloc(1000);
    ASSERT_EQ(static_cast<char*>(blocks[1]) - static_cast<char*>(blocks[0]), 1024);
    ASSERT_EQ(static_cast<char*>(blocks[2]) - static_cast<char*>(blocks[1]), 1024);
    EXPECT_EQ(t.chunk_count(), 4u);  // three blocks and the rest of the region
    for (int i : order) t.arena.Free(blocks[i]);
    const auto info = t.arena.get_bin_debug_info();
    EXPECT_EQ(t.chunk_count(), 1u);
    EXPECT_EQ(info[12].total_bytes_in_bin, kMiB);  // 1 MiB lives in bin 12
    EXPECT_EQ(t.stats().bytes_in_use, 0);
  } while (std::next_permutation(order.begin(), order.end()));
}

TEST(BFCArenaTest, ReserveBypassesRegions) {
  ArenaUnderTest t;
  void* p = t.arena.Reserve(1000);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(t.device->requests, (std::vector<size_t>{1000}));  // not rounded
  AllocatorStats s = t.stats();
  EXPECT_EQ(s.num_reserves, 1);
  EXPECT_EQ(s.num_allocs, 1);
  EXPECT_EQ(s.bytes_in_use, 1000);
  EXPECT_EQ(s.total_allocated_bytes, 1000);
  EXPECT_EQ(s.max_alloc_size, 1000);
  t.arena.Free(p);
  s = t.stats();
  EXPECT_EQ(s.bytes_in_use, 0);
  EXPECT_EQ(s.total_allocated_bytes, 0);
  EXPECT_EQ(s.max_bytes_in_use, 1000);
  EXPECT_EQ(t.device->freed, 1);
}

TEST(BFCArenaTest, ShrinkReleasesWhollyFreeRegions) {
  ArenaUnderTest same(allocator::kSameAsRequested);
  void* a = same.arena.Alloc(1000);
  void* b = same.arena.Alloc(5000);
  same.arena.Free(a);
  same.arena.Shrink();
  AllocatorStats s = same.stats();
  EXPECT_EQ(s.num_arena_shrinkages, 1);
  EXPECT_EQ(s.total_allocated_bytes, 5120);
  EXPECT_EQ(same.device->live, 1);
  same.arena.Free(b);
  same.arena.Shrink();  // the first region goes too under this strategy
  EXPECT_EQ(same.device->live, 0);
  EXPECT_EQ(same.stats().total_allocated_bytes, 0);

  ArenaUnderTest doubling;
  void* c = doubling.arena.Alloc(kMiB);
  void* d = doubling.arena.Alloc(kMiB);
  doubling.arena.Free(c);
  doubling.arena.Free(d);
  doubling.arena.Shrink();
  EXPECT_EQ(doubling.stats().num_arena_shrinkages, 1);  // the first region stays
  EXPECT_EQ(doubling.device->live, 1);
  EXPECT_EQ(doubling.stats().total_allocated_bytes, static_cast<int64_t>(kMiB));
}

TEST(BFCArenaTest, BinDebugInfoAndMemoryLog) {
  ArenaUnderTest t;
  void* p = t.arena.Alloc(1);
  void* q = t.arena.Alloc(3000);
  const auto info = t.arena.get_bin_debug_info();
  EXPECT_EQ(info[0].total_chunks_in_use, 1u);
  EXPECT_EQ(info[0].total_requested_bytes_in_use, 1u);
  EXPECT_EQ(info[3].total_bytes_in_use, 3072u);  // 3072 >> 8 = 12 -> bin 3
  size_t in_bins = 0;
  for (const auto& bin : info) in_bins += bin.total_bytes_in_bin;
  EXPECT_EQ(in_bins, kMiB);

  ::testing::internal::CaptureStdout();
  t.arena.DumpMemoryLog(4096);
  const std::string log = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(log.find("INFO"), std::string::npos);
  // (256 - 1) + (3072 - 3000) bytes of slack in use.
  EXPECT_NE(log.find("Diff between in-use and requested bytes is 327\n"), std::string::npos) << log;
  t.arena.Free(p);
  t.arena.Free(q);
}

TEST(BFCArenaTest, MemoryInfoPrinting) {
  ArenaUnderTest t;
  std::ostringstream out;
  out << t.arena.Info();
  EXPECT_EQ(out.str(),
            "OrtMemoryInfo:[name:Cpu id:0 OrtMemType:0 OrtAllocatorType:1Device:[DeviceType:0 "
            "MemoryType:0 DeviceId:0]]");
  EXPECT_EQ(t.device->Info().alloc_type, allocator::OrtDeviceAllocator);
}

TEST(BFCArenaTest, ArraySizeWithAlignment) {
  const size_t kMax = std::numeric_limits<size_t>::max();
  struct Case {
    size_t nmemb, size, alignment;
    bool ok;
    size_t out;
  };
  const Case cases[] = {
      {10, 4, 0, true, 40},         {10, 4, 64, true, 64},
      {3, 100, 256, true, 512},     {64, 1, 64, true, 64},
      {0, 8, 16, true, 0},          {kMax, 2, 0, false, 0},
      {kMax - 10, 1, 64, false, 0}, {kMax / 2 + 1, 2, 0, false, 0},
  };
  for (const Case& c : cases) {
    size_t out = 12345;
    EXPECT_EQ(IAllocator::CalcMemSizeForArrayWithAlignment(c.nmemb, c.size, c.alignment, &out), c.ok);
    if (c.ok) {
      EXPECT_EQ(out, c.out) << c.nmemb << "x" << c.size;
    }
  }
}

TEST(BFCArenaTest, SizesThatOverflowThrow) {
  ArenaUnderTest t;
  EXPECT_THROW(t.arena.Alloc(std::numeric_limits<size_t>::max()), allocator::SafeIntException);
  // Doubling the region size from 2^63 overflows.
  EXPECT_THROW(t.arena.Alloc((size_t{1} << 63) + 1), allocator::SafeIntException);
  void* p = t.arena.Alloc(100);  // still usable
  EXPECT_EQ(t.device->requests, (std::vector<size_t>{kMiB}));
  t.arena.Free(p);
}

TEST(BFCArenaTest, FailedRegionsBackOffByTenPercent) {
  // The sizes tried, worked out with the same float factor.
  std::vector<size_t> expected = {kMiB};
  for (size_t bytes = kMiB; bytes > 600000;) {
    bytes = (static_cast<size_t>(static_cast<float>(bytes) * 0.9f) + 255) & ~size_t{255};
    expected.push_back(bytes);
  }
  EXPECT_EQ(expected.back(), 557824u);
  for (auto failure : {DeviceAllocator::Failure::kNull, DeviceAllocator::Failure::kBadAlloc,
                       DeviceAllocator::Failure::kAllocatorException}) {
    ArenaUnderTest t;
    t.device->fail_above = 600000;
    t.device->failure = failure;
    void* p = t.arena.Alloc(10000);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(t.device->requests, expected);
    EXPECT_EQ(t.stats().total_allocated_bytes, 557824);
    t.arena.Free(p);
  }
}

TEST(AllocatorFactoryTest, CreateAllocatorSettings) {
  auto factory = [](int16_t) { return std::unique_ptr<IAllocator>(new DeviceAllocator()); };
  std::shared_ptr<IAllocator> plain = allocator::CreateAllocator(AllocatorCreationInfo(factory, 0, false));
  EXPECT_NE(dynamic_cast<DeviceAllocator*>(plain.get()), nullptr);

  allocator::OrtArenaCfg cfg;
  cfg.arena_extend_strategy = 2;
  EXPECT_EQ(allocator::CreateAllocator(AllocatorCreationInfo(factory, 0, true, cfg)), nullptr);

  for (int strategy : {-1, 0, 1}) {
    cfg.arena_extend_strategy = strategy;
    cfg.max_mem = 8 * kMiB;
    auto made = allocator::CreateAllocator(AllocatorCreationInfo(factory, 0, true, cfg));
    auto* arena = dynamic_cast<BFCArena*>(made.get());
    ASSERT_NE(arena, nullptr);
    EXPECT_EQ(arena->GetArenaExtendStrategy(),
              strategy == 1 ? allocator::kSameAsRequested : allocator::kNextPowerOfTwo);
    AllocatorStats s;
    void* p = arena->Alloc(10);
    arena->GetStats(&s);
    EXPECT_EQ(s.bytes_limit, static_cast<int64_t>(8 * kMiB));
    EXPECT_EQ(s.total_allocated_bytes, strategy == 1 ? 256 : static_cast<int64_t>(kMiB));
    arena->Free(p);
  }
}

TEST(AllocatorFactoryTest, CpuMallocGoesThroughTheManager) {
  auto& manager = allocator::CPUAllocatorMgr::GetInstance();
  EXPECT_EQ(&manager, &allocator::CPUAllocatorMgr::GetInstance());
  AllocatorStats before, during;
  manager.GetAllocator()->GetStats(&before);
  namespace kx = kovra::trenkit::kovraexecutor;
  char* p = static_cast<char*>(kx::cpu_malloc(1000));
  ASSERT_NE(p, nullptr);
  std::memset(p, 7, 1000);
  manager.GetAllocator()->GetStats(&during);
  EXPECT_EQ(during.bytes_in_use - before.bytes_in_use, 1024);
  EXPECT_EQ(kx::cpu_free(p), 0);
  EXPECT_EQ(kx::cpu_malloc(0), nullptr);
  EXPECT_EQ(manager.GetAllocator()->Info().alloc_type, allocator::OrtArenaAllocator);
}

// ---- two threads hammering one arena ----

struct Block {
  unsigned char* ptr;
  size_t size;
  unsigned char tag;
};

size_t random_size(std::mt19937& gen) {
  const unsigned kind = gen() % 100;
  if (kind < 70) return 1 + gen() % 2048;
  if (kind < 95) return 2048 + gen() % 63488;
  return 65536 + gen() % (3 * kMiB / 2);
}

void hammer(BFCArena* arena, unsigned seed, int steps, std::vector<Block>* live, std::atomic<int>* errors,
            std::atomic<int64_t>* allocs) {
  std::mt19937 gen(seed);
  unsigned char next_tag = static_cast<unsigned char>(seed * 37);
  for (int step = 0; step < steps; ++step) {
    if (live->empty() || gen() % 100 < 50) {
      const size_t size = random_size(gen);
      auto* p = static_cast<unsigned char*>(arena->Alloc(size));
      ++*allocs;
      const unsigned char tag = ++next_tag;
      std::memset(p, tag, size);
      live->push_back({p, size, tag});
    } else {
      const size_t k = gen() % live->size();
      const Block b = (*live)[k];
      // Any overlap with another live block would have overwritten the tag.
      if (std::count(b.ptr, b.ptr + b.size, b.tag) != static_cast<long>(b.size)) ++*errors;
      arena->Free(b.ptr);
      (*live)[k] = live->back();
      live->pop_back();
    }
  }
}

TEST(BFCArenaStressTest, TwoThreadsKeepBlocksApartAndStatsExact) {
  ArenaUnderTest t;
  std::vector<Block> live[2];
  std::atomic<int> errors{0};
  std::atomic<int64_t> allocs{0};
  std::thread first(hammer, &t.arena, 1u, 20000, &live[0], &errors, &allocs);
  std::thread second(hammer, &t.arena, 2u, 20000, &live[1], &errors, &allocs);
  first.join();
  second.join();
  EXPECT_EQ(errors.load(), 0);

  std::vector<Block> all(live[0]);
  all.insert(all.end(), live[1].begin(), live[1].end());
  ASSERT_FALSE(all.empty());
  std::sort(all.begin(), all.end(), [](const Block& a, const Block& b) { return a.ptr < b.ptr; });
  int64_t in_use = 0;
  for (size_t k = 0; k < all.size(); ++k) {
    const size_t allocated = t.arena.AllocatedSize(all[k].ptr);
    EXPECT_GE(allocated, all[k].size);
    EXPECT_EQ(t.arena.RequestedSize(all[k].ptr), all[k].size);
    if (k + 1 < all.size()) {
      EXPECT_LE(all[k].ptr + allocated, all[k + 1].ptr);
    }
    EXPECT_EQ(std::count(all[k].ptr, all[k].ptr + all[k].size, all[k].tag), static_cast<long>(all[k].size));
    in_use += static_cast<int64_t>(allocated);
  }
  AllocatorStats s = t.stats();
  EXPECT_EQ(s.bytes_in_use, in_use);
  size_t debug_in_use = 0;
  for (const auto& bin : t.arena.get_bin_debug_info()) debug_in_use += bin.total_bytes_in_use;
  EXPECT_EQ(static_cast<int64_t>(debug_in_use), in_use);
  EXPECT_EQ(s.num_allocs, allocs.load());

  for (const Block& b : all) t.arena.Free(b.ptr);
  s = t.stats();
  EXPECT_EQ(s.bytes_in_use, 0);
  // Every region is back to one free chunk.
  EXPECT_EQ(t.chunk_count(), static_cast<size_t>(s.num_arena_extensions));
  EXPECT_EQ(static_cast<int64_t>(t.device->requests.size()), s.num_arena_extensions);
}

// ---- fatal paths ----

// Running out of memory raises Error under the throwing policy and leaves the
// arena usable.
TEST(BFCArenaTest, OutOfMemoryThrowsWhenAsked) {
  ArenaUnderTest over(allocator::kNextPowerOfTwo, 4096);
  EXPECT_EQ(kovra_test::error_text([&] { over.arena.Alloc(8000); }),
            "Available memory of 4096, is smaller than requested bytes of 8192");
  void* p = over.arena.Alloc(1000);
  EXPECT_NE(p, nullptr);
  over.arena.Free(p);
  ArenaUnderTest refused(allocator::kNextPowerOfTwo, BFCArena::DEFAULT_MAX_MEM);
  refused.device->fail_above = 0;
  EXPECT_EQ(kovra_test::error_text([&] { refused.arena.Alloc(10000); }),
            "Failed to allocate memory for requested buffer of size 10240");
  EXPECT_EQ(refused.stats().bytes_in_use, 0);
}

// The arena stops the process on these whatever the error policy.
TEST(BFCArenaDeathTest, ExhaustionAndBadPointersAbort) {
  const std::string internal_check = "Error: [^\n]*bfc_arena\\.(cc|h) \\+[0-9]+\n$";
  const struct {
    const char* name;
    std::function<void(ArenaUnderTest&)> run;
    std::string pattern;
    allocator::ArenaExtendStrategy strategy = allocator::kNextPowerOfTwo;
    size_t limit = BFCArena::DEFAULT_MAX_MEM;
  } rows[] = {
      {"over_the_limit", [](ArenaUnderTest& t) { t.arena.Alloc(8000); },
       "Available memory of 4096, is smaller than requested bytes of 8192\n$", allocator::kNextPowerOfTwo,
       4096},
      {"device_refuses",
       [](ArenaUnderTest& t) {
         t.device->fail_above = 0;
         t.arena.Alloc(10000);
       },
       "Failed to allocate memory for requested buffer of size 10240\n$"},
      {"unknown_strategy", [](ArenaUnderTest& t) { t.arena.Alloc(10); },
       "Incorrect arena extend strategy\\. 7$", static_cast<allocator::ArenaExtendStrategy>(7), kMiB},
      {"outside_every_region",
       [](ArenaUnderTest& t) {
         int on_stack = 0;
         t.arena.Free(&on_stack);
       },
       internal_check},
      // Inside a chunk: no handle of its own.
      {"inside_a_chunk",
       [](ArenaUnderTest& t) { t.arena.Free(static_cast<char*>(t.arena.Alloc(4096)) + 256); },
       internal_check},
      {"unaligned", [](ArenaUnderTest& t) { t.arena.Free(static_cast<char*>(t.arena.Alloc(4096)) + 3); },
       internal_check},
      // A free chunk is not in use.
      {"freed_twice",
       [](ArenaUnderTest& t) {
         void* p = t.arena.Alloc(4096);
         t.arena.Free(p);
         t.arena.Free(p);
       },
       internal_check, allocator::kSameAsRequested},
      {"same_block_reserved_twice",
       [](ArenaUnderTest& t) {
         t.device->repeat_pointer = true;
         t.arena.Reserve(64);
         t.arena.Reserve(64);
       },
       internal_check},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_DEATH(
        {
          ArenaUnderTest t(row.strategy, row.limit);
          row.run(t);
        },
        row.pattern);
  }
}

}  // namespace
}  // namespace kovra_test
