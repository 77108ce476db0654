#ifndef KOVRAEXECUTOR_ALLOCATOR_ALLOCATORMGR_H_
#define KOVRAEXECUTOR_ALLOCATOR_ALLOCATORMGR_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "allocator/allocator.h"
#include "export.h"

namespace allocator {

// Arena settings; -1 (or 0 for max_mem) means "the default".
struct OrtArenaCfg {
  size_t max_mem = 0;
  int arena_extend_strategy = -1;
  int initial_chunk_size_bytes = -1;
  int max_dead_bytes_per_chunk = -1;
  int initial_growth_chunk_size_bytes = -1;
};

struct AllocatorCreationInfo {
  using DeviceAllocatorFactory = std::function<std::unique_ptr<IAllocator>(int16_t)>;

  AllocatorCreationInfo(DeviceAllocatorFactory factory, int16_t device_id_in = 0,
                        bool use_arena_in = true, OrtArenaCfg arena_cfg_in = OrtArenaCfg())
      : device_alloc_factory(std::move(factory)),
        device_id(device_id_in),
        use_arena(use_arena_in),
        arena_cfg(arena_cfg_in) {}

  DeviceAllocatorFactory device_alloc_factory;
  int16_t device_id;
  bool use_arena;
  OrtArenaCfg arena_cfg;
};

// The device allocator itself, or a BFCArena over it. An unknown extend
// strategy gives an empty pointer.
KOVRA_API std::shared_ptr<IAllocator> CreateAllocator(const AllocatorCreationInfo& info);

// Owns the process's host allocator: an arena over the C heap that grows by
// exactly what is asked for.
class KOVRA_API CPUAllocatorMgr {
 public:
  static CPUAllocatorMgr& GetInstance();
  const std::shared_ptr<IAllocator>& GetAllocator() const { return cpu_allocator_; }

  CPUAllocatorMgr(const CPUAllocatorMgr&) = delete;
  CPUAllocatorMgr& operator=(const CPUAllocatorMgr&) = delete;

 private:
  CPUAllocatorMgr();

  std::shared_ptr<IAllocator> cpu_allocator_;
};

}  // namespace allocator

#endif  // KOVRAEXECUTOR_ALLOCATOR_ALLOCATORMGR_H_
