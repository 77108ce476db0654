#ifndef KOVRAEXECUTOR_ALLOCATOR_BFC_ARENA_H_
#define KOVRAEXECUTOR_ALLOCATOR_BFC_ARENA_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <vector>

#include "allocator/allocator.h"
#include "export.h"

namespace allocator {

// Best-fit-with-coalescing arena. Large regions are taken from a device
// allocator and carved into chunks that are multiples of 256 bytes; free
// chunks wait in 21 size-class bins and merge with free neighbours when freed.
// Every public operation holds one mutex.
class KOVRA_API BFCArena : public IAllocator {
 public:
  static constexpr ArenaExtendStrategy DEFAULT_ARENA_EXTEND_STRATEGY = kNextPowerOfTwo;
  static constexpr int DEFAULT_INITIAL_CHUNK_SIZE_BYTES = 1 * 1024 * 1024;
  static constexpr int DEFAULT_MAX_DEAD_BYTES_PER_CHUNK = 128 * 1024 * 1024;
  static constexpr int DEFAULT_INITIAL_GROWTH_CHUNK_SIZE_BYTES = 2 * 1024 * 1024;
  static constexpr size_t DEFAULT_MAX_MEM = std::numeric_limits<size_t>::max();

  static constexpr int kNumBins = 21;
  static constexpr int kMinAllocationBits = 8;
  static constexpr size_t kMinAllocationSize = size_t{1} << kMinAllocationBits;

  using ChunkHandle = size_t;
  static constexpr ChunkHandle kInvalidChunkHandle = std::numeric_limits<size_t>::max();
  using BinNum = int;
  static constexpr BinNum kInvalidBinNum = -1;

  BFCArena(std::unique_ptr<IAllocator> resource_allocator, size_t total_memory,
           ArenaExtendStrategy arena_extend_strategy = DEFAULT_ARENA_EXTEND_STRATEGY,
           int initial_chunk_size_bytes = DEFAULT_INITIAL_CHUNK_SIZE_BYTES,
           int max_dead_bytes_per_chunk = DEFAULT_MAX_DEAD_BYTES_PER_CHUNK,
           int initial_growth_chunk_size_bytes = DEFAULT_INITIAL_GROWTH_CHUNK_SIZE_BYTES);
  ~BFCArena() override;

  void* Alloc(size_t size) override;
  void Free(void* p) override;
  // Taken straight from the device allocator (not carved from a region) and
  // returned to it by Free.
  void* Reserve(size_t size) override;
  void GetStats(AllocatorStats* stats) override;
  FencePtr CreateFence(const SessionState* /*session_state*/) override { return nullptr; }

  // Gives back every region that is one single free chunk; the first region
  // ever taken is kept unless the arena was made with kSameAsRequested.
  void Shrink();

  // What the caller asked for, and what the chunk holds, for a pointer from Alloc.
  size_t RequestedSize(const void* ptr);
  size_t AllocatedSize(const void* ptr);

  struct BinDebugInfo {
    size_t total_bytes_in_use = 0;
    size_t total_bytes_in_bin = 0;
    size_t total_requested_bytes_in_use = 0;
    size_t total_chunks_in_use = 0;
    size_t total_chunks_in_bin = 0;
  };
  // Every chunk of every region counted under its size class.
  std::array<BinDebugInfo, kNumBins> get_bin_debug_info();
  // Report of how the arena's memory is spread over the bins, written to
  // standard output.
  void DumpMemoryLog(size_t num_bytes);

  ArenaExtendStrategy GetArenaExtendStrategy() const { return arena_extend_strategy_; }

 private:
  struct Chunk {
    size_t size = 0;            // a multiple of 256
    size_t requested_size = 0;  // what the caller asked for
    int64_t allocation_id = -1;  // -1 while free
    void* ptr = nullptr;
    ChunkHandle prev = kInvalidChunkHandle;  // address neighbours in the region
    ChunkHandle next = kInvalidChunkHandle;
    BinNum bin_num = kInvalidBinNum;  // -1 while in no bin
    bool in_use() const { return allocation_id != -1; }
  };

  struct Bin {
    // Free chunks by (size, address), so the first fit is also the best fit.
    class ChunkComparator {
     public:
      explicit ChunkComparator(BFCArena* arena) : arena_(arena) {}
      bool operator()(ChunkHandle ha, ChunkHandle hb) const {
        const Chunk* a = arena_->ChunkFromHandle(ha);
        const Chunk* b = arena_->ChunkFromHandle(hb);
        if (a->size != b->size) return a->size < b->size;
        return reinterpret_cast<uintptr_t>(a->ptr) < reinterpret_cast<uintptr_t>(b->ptr);
      }

     private:
      BFCArena* arena_;
    };
    using FreeChunkSet = std::set<ChunkHandle, ChunkComparator>;

    Bin(BFCArena* arena, size_t size) : bin_size(size), free_chunks(ChunkComparator(arena)) {}

    size_t bin_size;
    FreeChunkSet free_chunks;
  };

  class AllocationRegion {
   public:
    AllocationRegion(void* ptr, size_t memory_size, int64_t id);
    void* ptr() const { return ptr_; }
    void* end_ptr() const { return end_ptr_; }
    size_t memory_size() const { return memory_size_; }
    int64_t id() const { return id_; }
    ChunkHandle get_handle(const void* p) const { return handles_[IndexFor(p)]; }
    void set_handle(const void* p, ChunkHandle h) { handles_[IndexFor(p)] = h; }
    void erase(const void* p) { set_handle(p, kInvalidChunkHandle); }

   private:
    size_t IndexFor(const void* p) const {
      return static_cast<size_t>(static_cast<const char*>(p) - static_cast<const char*>(ptr_)) >>
             kMinAllocationBits;
    }

    void* ptr_;
    size_t memory_size_;
    void* end_ptr_;
    int64_t id_;
    std::vector<ChunkHandle> handles_;  // one per 256-byte slot
  };

  // Regions sorted by end address, so the region of a pointer is one binary search away.
  class RegionManager {
   public:
    void AddAllocationRegion(void* ptr, size_t memory_size, int64_t id);
    void RemoveAllocationRegion(void* ptr);
    ChunkHandle get_handle(const void* p) const { return RegionFor(p)->get_handle(p); }
    void set_handle(const void* p, ChunkHandle h) { MutableRegionFor(p)->set_handle(p, h); }
    void erase(const void* p) { MutableRegionFor(p)->erase(p); }
    const std::vector<AllocationRegion>& regions() const { return regions_; }

   private:
    const AllocationRegion* RegionFor(const void* p) const;
    AllocationRegion* MutableRegionFor(const void* p) {
      return const_cast<AllocationRegion*>(RegionFor(p));
    }

    std::vector<AllocationRegion> regions_;
  };

  // The device allocator's description, marked as an arena.
  static OrtMemoryInfo ArenaInfo(const IAllocator* device_allocator);
  static size_t RoundedBytes(size_t bytes);
  static BinNum BinNumForSize(size_t bytes);

  void* AllocateRawInternal(size_t num_bytes, bool dump_log_on_failure);
  void* FindChunkPtr(BinNum bin_num, size_t rounded_bytes, size_t num_bytes);
  bool Extend(size_t rounded_bytes);
  void* SafeDeviceAlloc(size_t bytes);
  void SplitChunk(ChunkHandle h, size_t num_bytes);
  void Merge(ChunkHandle h1, ChunkHandle h2);
  void DeallocateRawInternal(void* ptr);
  void FreeAndMaybeCoalesce(ChunkHandle h);
  void InsertFreeChunkIntoBin(ChunkHandle h);
  void RemoveFreeChunkIterFromBin(Bin::FreeChunkSet* free_chunks,
                                  const Bin::FreeChunkSet::iterator& citer);
  void RemoveFreeChunkFromBin(ChunkHandle h);
  void DeleteChunk(ChunkHandle h);
  ChunkHandle AllocateChunk();
  void DeallocateChunk(ChunkHandle h);
  // Inline: every bin comparison goes through here.
  Chunk* ChunkFromHandle(ChunkHandle h) {
    if (h >= chunks_.size()) InternalCheckFailed(__FILE__, __LINE__);
    return &chunks_[h];
  }
  const Chunk* ChunkFromHandle(ChunkHandle h) const {
    if (h >= chunks_.size()) InternalCheckFailed(__FILE__, __LINE__);
    return &chunks_[h];
  }
  // Prints "Error: <file> +<line>" and aborts: the arena's bookkeeping is broken.
  [[noreturn]] static void InternalCheckFailed(const char* file, int line);
  ChunkHandle HandleForAllocatedPtr(const void* ptr) const;
  std::array<BinDebugInfo, kNumBins> GetBinDebugInfoLocked();
  void DumpMemoryLogLocked(size_t num_bytes);

  // Skips the mutex while the process has never started a second thread.
  class Lock {
   public:
    explicit Lock(std::mutex& mutex);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    std::mutex& mutex_;
    bool locked_;
  };

  std::unique_ptr<IAllocator> device_allocator_;
  size_t memory_limit_ = 0;
  ArenaExtendStrategy arena_extend_strategy_;
  std::vector<Bin> bins_;
  size_t curr_region_allocation_bytes_ = 0;
  std::vector<Chunk> chunks_;
  ChunkHandle free_chunks_list_ = kInvalidChunkHandle;
  RegionManager region_manager_;
  int64_t next_allocation_id_ = 1;
  AllocatorStats stats_;
  std::unordered_map<void*, size_t> reserved_chunks_;
  int initial_chunk_size_bytes_;
  int max_dead_bytes_per_chunk_;
  int initial_growth_chunk_size_bytes_;
  bool shrink_first_region_;
  std::mutex lock_;
};

}  // namespace allocator

#endif  // KOVRAEXECUTOR_ALLOCATOR_BFC_ARENA_H_
