#include "allocator/allocatormgr.h"

#include <limits>

#include "allocator/bfc_arena.h"

namespace allocator {

namespace {

int or_default(int value, int fallback) { return value == -1 ? fallback : value; }

}  // namespace

std::shared_ptr<IAllocator> CreateAllocator(const AllocatorCreationInfo& info) {
  std::unique_ptr<IAllocator> device_allocator = info.device_alloc_factory(info.device_id);
  if (!info.use_arena) return std::shared_ptr<IAllocator>(std::move(device_allocator));

  const OrtArenaCfg& cfg = info.arena_cfg;
  const size_t max_mem = cfg.max_mem == 0 ? std::numeric_limits<size_t>::max() : cfg.max_mem;
  ArenaExtendStrategy strategy;
  if (cfg.arena_extend_strategy == 1) {
    strategy = kSameAsRequested;
  } else if (cfg.arena_extend_strategy == -1 || cfg.arena_extend_strategy == 0) {
    strategy = kNextPowerOfTwo;
  } else {
    return nullptr;
  }
  return std::make_shared<BFCArena>(
      std::move(device_allocator), max_mem, strategy,
      or_default(cfg.initial_chunk_size_bytes, BFCArena::DEFAULT_INITIAL_CHUNK_SIZE_BYTES),
      or_default(cfg.max_dead_bytes_per_chunk, BFCArena::DEFAULT_MAX_DEAD_BYTES_PER_CHUNK),
      or_default(cfg.initial_growth_chunk_size_bytes,
                 BFCArena::DEFAULT_INITIAL_GROWTH_CHUNK_SIZE_BYTES));
}

CPUAllocatorMgr& CPUAllocatorMgr::GetInstance() {
  static CPUAllocatorMgr instance;
  return instance;
}

CPUAllocatorMgr::CPUAllocatorMgr() {
  OrtArenaCfg cfg;
  cfg.arena_extend_strategy = kSameAsRequested;
  AllocatorCreationInfo info([](int16_t) { return std::unique_ptr<IAllocator>(new CPUAllocator()); },
                             0, true, cfg);
  cpu_allocator_ = CreateAllocator(info);
}

}  // namespace allocator
