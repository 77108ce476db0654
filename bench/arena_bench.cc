#include <cstdlib>
#include <memory>
#include <algorithm>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocator/bfc_arena.h"

namespace {

using allocator::BFCArena;
using allocator::CPUAllocator;
using allocator::IAllocator;

std::unique_ptr<BFCArena> make_arena() {
  return std::make_unique<BFCArena>(std::unique_ptr<IAllocator>(new CPUAllocator()),
                                    BFCArena::DEFAULT_MAX_MEM);
}

void BM_ArenaAllocFree(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  auto arena = make_arena();
  arena->Free(arena->Alloc(size));  // the region is taken once, outside the loop
  for (auto _ : state) {
    void* p = arena->Alloc(size);
    benchmark::DoNotOptimize(p);
    arena->Free(p);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ArenaAllocFree)->Arg(64)->Arg(4096)->Arg(256 << 10);

void BM_MallocFree(benchmark::State& state) {
  const size_t size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    void* p = std::malloc(size);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MallocFree)->Arg(64)->Arg(4096)->Arg(256 << 10);

// 64 live blocks of mixed sizes, freed in a shuffled order: splitting and
// coalescing both get exercised.
std::vector<size_t> mixed_sizes() {
  std::mt19937 gen(3);
  std::vector<size_t> sizes(64);
  for (size_t& s : sizes) s = 16 + gen() % 16384;
  return sizes;
}

std::vector<int> free_order() {
  std::vector<int> order(64);
  for (int i = 0; i < 64; ++i) order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(4));
  return order;
}

template <class AllocFn, class FreeFn>
void mixed_cycle(benchmark::State& state, AllocFn alloc, FreeFn release) {
  const std::vector<size_t> sizes = mixed_sizes();
  const std::vector<int> order = free_order();
  std::vector<void*> blocks(64);
  for (auto _ : state) {
    for (int i = 0; i < 64; ++i) blocks[i] = alloc(sizes[i]);
    benchmark::DoNotOptimize(blocks.data());
    for (int i : order) release(blocks[i]);
  }
  state.SetItemsProcessed(state.iterations() * 64);
}

void BM_ArenaMixed(benchmark::State& state) {
  auto arena = make_arena();
  mixed_cycle(state, [&](size_t n) { return arena->Alloc(n); }, [&](void* p) { arena->Free(p); });
}
BENCHMARK(BM_ArenaMixed);

void BM_MallocMixed(benchmark::State& state) {
  mixed_cycle(state, [](size_t n) { return std::malloc(n); }, [](void* p) { std::free(p); });
}
BENCHMARK(BM_MallocMixed);

}  // namespace
