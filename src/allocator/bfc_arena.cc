#include "allocator/bfc_arena.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>

#if defined(__has_include)
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define KOVRA_HAVE_SINGLE_THREADED 1
#endif
#endif

#include "allocator/safe_int.h"
#include "errors.h"

// Internal consistency checks: the arena's own bookkeeping is wrong, so the
// source position is the useful part of the report.
#define ARENA_CHECK(condition)                                                       \
  do {                                                                               \
    if (!(condition)) ::allocator::BFCArena::InternalCheckFailed(__FILE__, __LINE__); \
  } while (0)

namespace allocator {

namespace {

[[noreturn]] void die() {
  std::fflush(stdout);
  std::abort();
}

// Running out of memory is the caller's to handle when it asked for errors
// as exceptions (the arena's state is unchanged); by default the report is
// printed as it stands and the process stops. Broken bookkeeping always stops.
[[noreturn]] void out_of_memory(const std::string& report) {
  if (kovra::trenkit::kovraexecutor::error_policy() == kovra::trenkit::kovraexecutor::ErrorPolicy::kThrow) {
    const size_t end = report.find_last_not_of('\n');
    throw kovra::trenkit::kovraexecutor::Error(report.substr(0, end + 1), std::string(), std::string());
  }
  std::fputs(report.c_str(), stdout);
  die();
}

bool process_is_single_threaded() {
#ifdef KOVRA_HAVE_SINGLE_THREADED
  return __libc_single_threaded != 0;
#else
  return false;
#endif
}

}  // namespace

BFCArena::Lock::Lock(std::mutex& mutex) : mutex_(mutex), locked_(!process_is_single_threaded()) {
  if (locked_) mutex_.lock();
}

BFCArena::Lock::~Lock() {
  if (locked_) mutex_.unlock();
}

BFCArena::AllocationRegion::AllocationRegion(void* ptr, size_t memory_size, int64_t id)
    : ptr_(ptr),
      memory_size_(memory_size),
      end_ptr_(static_cast<char*>(ptr) + memory_size),
      id_(id),
      handles_(memory_size >> kMinAllocationBits, kInvalidChunkHandle) {}

void BFCArena::RegionManager::AddAllocationRegion(void* ptr, size_t memory_size, int64_t id) {
  ARENA_CHECK(memory_size % kMinAllocationSize == 0);
  const void* end_ptr = static_cast<char*>(ptr) + memory_size;
  auto it = std::upper_bound(regions_.begin(), regions_.end(), end_ptr,
                             [](const void* p, const AllocationRegion& r) {
                               return reinterpret_cast<uintptr_t>(p) <
                                      reinterpret_cast<uintptr_t>(r.end_ptr());
                             });
  regions_.insert(it, AllocationRegion(ptr, memory_size, id));
}

void BFCArena::RegionManager::RemoveAllocationRegion(void* ptr) {
  auto it = std::find_if(regions_.begin(), regions_.end(),
                         [ptr](const AllocationRegion& r) { return r.ptr() == ptr; });
  ARENA_CHECK(it != regions_.end());
  regions_.erase(it);
}

const BFCArena::AllocationRegion* BFCArena::RegionManager::RegionFor(const void* p) const {
  const uintptr_t address = reinterpret_cast<uintptr_t>(p);
  auto it = std::upper_bound(regions_.begin(), regions_.end(), address,
                             [](uintptr_t a, const AllocationRegion& r) {
                               return a < reinterpret_cast<uintptr_t>(r.end_ptr());
                             });
  ARENA_CHECK(it != regions_.end() && address >= reinterpret_cast<uintptr_t>(it->ptr()));
  return &*it;
}

BFCArena::BFCArena(std::unique_ptr<IAllocator> resource_allocator, size_t total_memory,
                   ArenaExtendStrategy arena_extend_strategy, int initial_chunk_size_bytes,
                   int max_dead_bytes_per_chunk, int initial_growth_chunk_size_bytes)
    : IAllocator(ArenaInfo(resource_allocator.get())),
      device_allocator_(std::move(resource_allocator)),
      memory_limit_(total_memory),
      arena_extend_strategy_(arena_extend_strategy),
      initial_chunk_size_bytes_(initial_chunk_size_bytes),
      max_dead_bytes_per_chunk_(max_dead_bytes_per_chunk),
      initial_growth_chunk_size_bytes_(initial_growth_chunk_size_bytes),
      shrink_first_region_(arena_extend_strategy == kSameAsRequested) {
  const size_t initial = static_cast<size_t>(std::max(initial_chunk_size_bytes, 0));
  // A first region of 0 bytes could never double into a useful size.
  curr_region_allocation_bytes_ =
      std::max(RoundedBytes(std::min(total_memory, initial)), kMinAllocationSize);
  stats_.bytes_limit = static_cast<int64_t>(total_memory);

  bins_.reserve(kNumBins);
  for (BinNum b = 0; b < kNumBins; ++b) {
    const size_t bin_size = kMinAllocationSize << b;
    bins_.emplace_back(this, bin_size);
    ARENA_CHECK(BinNumForSize(bin_size) == b);
    ARENA_CHECK(BinNumForSize(bin_size + 255) == b);
    ARENA_CHECK(BinNumForSize(bin_size * 2 - 1) == b);
    if (b + 1 < kNumBins) ARENA_CHECK(BinNumForSize(bin_size * 2) != b);
  }
}

BFCArena::~BFCArena() {
  for (const AllocationRegion& region : region_manager_.regions()) {
    device_allocator_->Free(region.ptr());
  }
  for (const auto& reserved : reserved_chunks_) device_allocator_->Free(reserved.first);
}

size_t BFCArena::RoundedBytes(size_t bytes) {
  return checked_add(bytes, kMinAllocationSize - 1) & ~(kMinAllocationSize - 1);
}

BFCArena::BinNum BFCArena::BinNumForSize(size_t bytes) {
  const uint64_t v = std::max<size_t>(bytes, kMinAllocationSize) >> kMinAllocationBits;
  const int b = 63 - __builtin_clzll(v);
  return std::min(kNumBins - 1, b);
}

OrtMemoryInfo BFCArena::ArenaInfo(const IAllocator* device_allocator) {
  ARENA_CHECK(device_allocator != nullptr);
  OrtMemoryInfo info = device_allocator->Info();
  info.alloc_type = OrtArenaAllocator;
  return info;
}

void BFCArena::InternalCheckFailed(const char* file, int line) {
  std::printf("Error: %s +%d\n", file, line);
  die();
}

BFCArena::ChunkHandle BFCArena::AllocateChunk() {
  if (free_chunks_list_ != kInvalidChunkHandle) {
    const ChunkHandle h = free_chunks_list_;
    free_chunks_list_ = chunks_[h].next;
    chunks_[h] = Chunk();
    return h;
  }
  chunks_.emplace_back();
  return chunks_.size() - 1;
}

void BFCArena::DeallocateChunk(ChunkHandle h) {
  Chunk* c = ChunkFromHandle(h);
  *c = Chunk();
  c->next = free_chunks_list_;
  free_chunks_list_ = h;
}

void* BFCArena::Alloc(size_t size) { return AllocateRawInternal(size, false); }

void* BFCArena::AllocateRawInternal(size_t num_bytes, bool dump_log_on_failure) {
  if (num_bytes == 0) return nullptr;
  const size_t rounded_bytes = RoundedBytes(num_bytes);
  const BinNum bin_num = BinNumForSize(rounded_bytes);
  Lock lock(lock_);
  void* ptr = FindChunkPtr(bin_num, rounded_bytes, num_bytes);
  if (ptr != nullptr) return ptr;
  if (!Extend(rounded_bytes)) {
    if (dump_log_on_failure) DumpMemoryLogLocked(rounded_bytes);
    out_of_memory("ERROR AllocateRawInternal\n");
  }
  ptr = FindChunkPtr(bin_num, rounded_bytes, num_bytes);
  if (ptr == nullptr) {
    std::printf("Failed to find a free memory block despite calling Extend. rounded_bytes= %ld\n",
                static_cast<long>(rounded_bytes));
    die();
  }
  return ptr;
}

void* BFCArena::FindChunkPtr(BinNum bin_num, size_t rounded_bytes, size_t num_bytes) {
  for (; bin_num < kNumBins; ++bin_num) {
    Bin::FreeChunkSet& free_chunks = bins_[bin_num].free_chunks;
    for (auto citer = free_chunks.begin(); citer != free_chunks.end(); ++citer) {
      const ChunkHandle h = *citer;
      Chunk* chunk = ChunkFromHandle(h);
      ARENA_CHECK(!chunk->in_use());
      if (chunk->size < rounded_bytes) continue;
      RemoveFreeChunkIterFromBin(&free_chunks, citer);
      // Split off the tail when the slack is large; small slack stays with
      // the chunk rather than becoming a fragment.
      const size_t slack = chunk->size - rounded_bytes;
      const size_t max_dead = max_dead_bytes_per_chunk_ < 0
                                  ? std::numeric_limits<size_t>::max()
                                  : static_cast<size_t>(max_dead_bytes_per_chunk_);
      if (chunk->size / 2 >= rounded_bytes || slack >= max_dead) {
        SplitChunk(h, rounded_bytes);
        chunk = ChunkFromHandle(h);
      }
      chunk->requested_size = num_bytes;
      chunk->allocation_id = next_allocation_id_++;
      stats_.num_allocs += 1;
      stats_.bytes_in_use += static_cast<int64_t>(chunk->size);
      stats_.max_bytes_in_use = std::max(stats_.max_bytes_in_use, stats_.bytes_in_use);
      stats_.max_alloc_size = std::max(stats_.max_alloc_size, static_cast<int64_t>(chunk->size));
      return chunk->ptr;
    }
  }
  return nullptr;
}

void* BFCArena::SafeDeviceAlloc(size_t bytes) {
  try {
    return device_allocator_->Alloc(bytes);
  } catch (const std::bad_alloc&) {
    return nullptr;
  } catch (const allocatorException&) {
    return nullptr;
  }
}

bool BFCArena::Extend(size_t rounded_bytes) {
  const size_t total = static_cast<size_t>(stats_.total_allocated_bytes);
  size_t available = total >= memory_limit_ ? 0 : memory_limit_ - total;
  available = (available / kMinAllocationSize) * kMinAllocationSize;
  if (rounded_bytes > available) {
    out_of_memory("Available memory of " + std::to_string(static_cast<long>(available)) +
                  ", is smaller than requested bytes of " + std::to_string(static_cast<long>(rounded_bytes)) +
                  "\n");
  }

  size_t bytes = 0;
  size_t next_region_bytes = curr_region_allocation_bytes_;
  switch (arena_extend_strategy_) {
    case kSameAsRequested:
      bytes = rounded_bytes;
      break;
    case kNextPowerOfTwo:
      if (rounded_bytes > next_region_bytes) {
        while (next_region_bytes < rounded_bytes) next_region_bytes = checked_mul<size_t>(next_region_bytes, 2);
        bytes = std::min(next_region_bytes, available);
      } else {
        bytes = std::min(available, next_region_bytes);
        next_region_bytes = checked_mul<size_t>(next_region_bytes, 2);
      }
      break;
    default:
      std::printf("Incorrect arena extend strategy. %d", static_cast<int>(arena_extend_strategy_));
      die();
  }
  curr_region_allocation_bytes_ = next_region_bytes;

  void* mem = SafeDeviceAlloc(bytes);
  while (mem == nullptr) {
    // Back off by 10% at a time while the request still fits.
    const float smaller = static_cast<float>(bytes) * 0.9f;
    bytes = RoundedBytes(static_cast<size_t>(smaller));
    if (bytes < rounded_bytes || bytes < 8192) {
      out_of_memory("Failed to allocate memory for requested buffer of size " +
                    std::to_string(static_cast<long>(rounded_bytes)) + "\n");
    }
    mem = SafeDeviceAlloc(bytes);
  }

  stats_.total_allocated_bytes += static_cast<int64_t>(bytes);
  region_manager_.AddAllocationRegion(mem, bytes, stats_.num_arena_extensions);
  stats_.num_arena_extensions += 1;

  const ChunkHandle h = AllocateChunk();
  Chunk* c = ChunkFromHandle(h);
  c->ptr = mem;
  c->size = bytes;
  c->allocation_id = -1;
  c->prev = kInvalidChunkHandle;
  c->next = kInvalidChunkHandle;
  region_manager_.set_handle(c->ptr, h);
  InsertFreeChunkIntoBin(h);
  return true;
}

void BFCArena::SplitChunk(ChunkHandle h, size_t num_bytes) {
  {
    const Chunk* c = ChunkFromHandle(h);
    ARENA_CHECK(!c->in_use() && c->bin_num == kInvalidBinNum);
  }
  // AllocateChunk may grow chunks_, so pointers are taken after it.
  const ChunkHandle h_new = AllocateChunk();
  Chunk* c = ChunkFromHandle(h);
  Chunk* new_chunk = ChunkFromHandle(h_new);
  new_chunk->ptr = static_cast<char*>(c->ptr) + num_bytes;
  new_chunk->size = c->size - num_bytes;
  new_chunk->allocation_id = -1;
  region_manager_.set_handle(new_chunk->ptr, h_new);
  c->size = num_bytes;

  const ChunkHandle h_neighbor = c->next;
  new_chunk->prev = h;
  new_chunk->next = h_neighbor;
  c->next = h_new;
  if (h_neighbor != kInvalidChunkHandle) ChunkFromHandle(h_neighbor)->prev = h_new;
  InsertFreeChunkIntoBin(h_new);
}

void BFCArena::Free(void* p) {
  if (p == nullptr) return;
  Lock lock(lock_);
  auto reserved = reserved_chunks_.find(p);
  if (reserved != reserved_chunks_.end()) {
    device_allocator_->Free(p);
    stats_.bytes_in_use -= static_cast<int64_t>(reserved->second);
    stats_.total_allocated_bytes -= static_cast<int64_t>(reserved->second);
    reserved_chunks_.erase(reserved);
    return;
  }
  DeallocateRawInternal(p);
}

BFCArena::ChunkHandle BFCArena::HandleForAllocatedPtr(const void* ptr) const {
  const ChunkHandle h = region_manager_.get_handle(ptr);
  // A pointer into the middle of a chunk has no handle of its own.
  ARENA_CHECK(h != kInvalidChunkHandle && ChunkFromHandle(h)->ptr == ptr);
  return h;
}

void BFCArena::DeallocateRawInternal(void* ptr) { FreeAndMaybeCoalesce(HandleForAllocatedPtr(ptr)); }

void BFCArena::FreeAndMaybeCoalesce(ChunkHandle h) {
  Chunk* c = ChunkFromHandle(h);
  ARENA_CHECK(c->in_use() && c->bin_num == kInvalidBinNum);
  c->allocation_id = -1;
  stats_.bytes_in_use -= static_cast<int64_t>(c->size);

  const ChunkHandle next = c->next;
  if (next != kInvalidChunkHandle && !ChunkFromHandle(next)->in_use()) {
    RemoveFreeChunkFromBin(next);
    Merge(h, next);
  }
  const ChunkHandle prev = ChunkFromHandle(h)->prev;
  if (prev != kInvalidChunkHandle && !ChunkFromHandle(prev)->in_use()) {
    RemoveFreeChunkFromBin(prev);
    Merge(prev, h);
    InsertFreeChunkIntoBin(prev);
  } else {
    InsertFreeChunkIntoBin(h);
  }
}

void BFCArena::Merge(ChunkHandle h1, ChunkHandle h2) {
  Chunk* c1 = ChunkFromHandle(h1);
  Chunk* c2 = ChunkFromHandle(h2);
  ARENA_CHECK(!c1->in_use() && !c2->in_use());
  ARENA_CHECK(c1->next == h2 && c2->prev == h1);
  const ChunkHandle h3 = c2->next;
  c1->next = h3;
  if (h3 != kInvalidChunkHandle) ChunkFromHandle(h3)->prev = h1;
  c1->size += c2->size;
  DeleteChunk(h2);
}

void BFCArena::DeleteChunk(ChunkHandle h) {
  region_manager_.erase(ChunkFromHandle(h)->ptr);
  DeallocateChunk(h);
}

void BFCArena::InsertFreeChunkIntoBin(ChunkHandle h) {
  Chunk* c = ChunkFromHandle(h);
  ARENA_CHECK(!c->in_use() && c->bin_num == kInvalidBinNum);
  const BinNum bin_num = BinNumForSize(c->size);
  c->bin_num = bin_num;
  bins_[bin_num].free_chunks.insert(h);
}

void BFCArena::RemoveFreeChunkIterFromBin(Bin::FreeChunkSet* free_chunks,
                                          const Bin::FreeChunkSet::iterator& citer) {
  Chunk* c = ChunkFromHandle(*citer);
  ARENA_CHECK(!c->in_use() && c->bin_num != kInvalidBinNum);
  free_chunks->erase(citer);
  c->bin_num = kInvalidBinNum;
}

void BFCArena::RemoveFreeChunkFromBin(ChunkHandle h) {
  Chunk* c = ChunkFromHandle(h);
  ARENA_CHECK(!c->in_use() && c->bin_num != kInvalidBinNum);
  ARENA_CHECK(bins_[c->bin_num].free_chunks.erase(h) > 0);
  c->bin_num = kInvalidBinNum;
}

void* BFCArena::Reserve(size_t size) {
  if (size == 0) return nullptr;
  Lock lock(lock_);
  void* ptr = device_allocator_->Alloc(size);
  if (ptr == nullptr) return nullptr;
  ARENA_CHECK(reserved_chunks_.find(ptr) == reserved_chunks_.end());
  reserved_chunks_.emplace(ptr, size);
  stats_.bytes_in_use += static_cast<int64_t>(size);
  stats_.num_reserves += 1;
  stats_.num_allocs += 1;
  stats_.max_alloc_size = std::max(stats_.max_alloc_size, static_cast<int64_t>(size));
  stats_.max_bytes_in_use = std::max(stats_.max_bytes_in_use, stats_.bytes_in_use);
  stats_.total_allocated_bytes += static_cast<int64_t>(size);
  return ptr;
}

void BFCArena::GetStats(AllocatorStats* stats) {
  Lock lock(lock_);
  *stats = stats_;
}

void BFCArena::Shrink() {
  Lock lock(lock_);
  const std::vector<AllocationRegion>& regions = region_manager_.regions();
  std::vector<std::pair<void*, size_t>> released;
  for (const AllocationRegion& region : regions) {
    // The first region taken (id 0) stays unless the arena grows by request.
    if (region.id() == 0 && !shrink_first_region_) continue;
    const ChunkHandle h = region.get_handle(region.ptr());
    if (h == kInvalidChunkHandle) continue;
    const Chunk* c = ChunkFromHandle(h);
    if (c->in_use() || c->size != region.memory_size()) continue;
    RemoveFreeChunkFromBin(h);
    DeleteChunk(h);
    released.emplace_back(region.ptr(), region.memory_size());
  }
  for (const auto& region : released) {
    device_allocator_->Free(region.first);
    region_manager_.RemoveAllocationRegion(region.first);
    stats_.num_arena_shrinkages += 1;
    stats_.total_allocated_bytes -= static_cast<int64_t>(region.second);
  }
}

size_t BFCArena::RequestedSize(const void* ptr) {
  Lock lock(lock_);
  return ChunkFromHandle(HandleForAllocatedPtr(ptr))->requested_size;
}

size_t BFCArena::AllocatedSize(const void* ptr) {
  Lock lock(lock_);
  return ChunkFromHandle(HandleForAllocatedPtr(ptr))->size;
}

std::array<BFCArena::BinDebugInfo, BFCArena::kNumBins> BFCArena::get_bin_debug_info() {
  Lock lock(lock_);
  return GetBinDebugInfoLocked();
}

std::array<BFCArena::BinDebugInfo, BFCArena::kNumBins> BFCArena::GetBinDebugInfoLocked() {
  std::array<BinDebugInfo, kNumBins> info{};
  for (const AllocationRegion& region : region_manager_.regions()) {
    ChunkHandle h = region.get_handle(region.ptr());
    while (h != kInvalidChunkHandle) {
      const Chunk* c = ChunkFromHandle(h);
      const BinNum bin_num = BinNumForSize(c->size);
      BinDebugInfo& bin_info = info[bin_num];
      bin_info.total_bytes_in_bin += c->size;
      bin_info.total_chunks_in_bin += 1;
      if (c->in_use()) {
        bin_info.total_bytes_in_use += c->size;
        bin_info.total_requested_bytes_in_use += c->requested_size;
        bin_info.total_chunks_in_use += 1;
      } else {
        const Bin& bin = bins_[bin_num];
        ARENA_CHECK(bin.free_chunks.count(h) == 1);
        ARENA_CHECK(c->bin_num == bin_num);
      }
      h = c->next;
    }
  }
  return info;
}

void BFCArena::DumpMemoryLog(size_t num_bytes) {
  Lock lock(lock_);
  DumpMemoryLogLocked(num_bytes);
}

void BFCArena::DumpMemoryLogLocked(size_t num_bytes) {
  const std::array<BinDebugInfo, kNumBins> info = GetBinDebugInfoLocked();
  for (BinNum b = 0; b < kNumBins; ++b) {
    const BinDebugInfo& bi = info[b];
    std::printf(
        "INFO Bin (%zu): \tTotal Chunks: %zu, Chunks in use: %zu. %zu bytes allocated for chunks. "
        "%zu bytes in use in bin. %zu bytes requested in use in bin.\n",
        bins_[b].bin_size, bi.total_chunks_in_bin, bi.total_chunks_in_use, bi.total_bytes_in_bin,
        bi.total_bytes_in_use, bi.total_requested_bytes_in_use);
  }
  const BinNum request_bin = BinNumForSize(num_bytes);
  std::printf("INFO Bin for %zu was %zu, Chunk State: \n", num_bytes, bins_[request_bin].bin_size);
  for (const ChunkHandle h : bins_[request_bin].free_chunks) {
    const Chunk* c = ChunkFromHandle(h);
    std::printf("INFO   Free chunk at %p of size %zu\n", c->ptr, c->size);
  }

  size_t in_use = 0;
  size_t requested = 0;
  for (const AllocationRegion& region : region_manager_.regions()) {
    std::printf("INFO Region %lld: %p, %zu bytes\n", static_cast<long long>(region.id()), region.ptr(),
                region.memory_size());
    for (ChunkHandle h = region.get_handle(region.ptr()); h != kInvalidChunkHandle;) {
      const Chunk* c = ChunkFromHandle(h);
      std::printf("INFO   %s chunk at %p of size %zu\n", c->in_use() ? "InUse" : "Free", c->ptr,
                  c->size);
      if (c->in_use()) {
        in_use += c->size;
        requested += c->requested_size;
      }
      h = c->next;
    }
  }
  std::printf("INFO Sum Total of in-use chunks: %zu\n", in_use);
  std::printf("INFO Diff between in-use and requested bytes is %zu\n", in_use - requested);
  std::printf("INFO Stats: in use %lld, limit %lld, allocated %lld, extensions %lld\n",
              static_cast<long long>(stats_.bytes_in_use), static_cast<long long>(stats_.bytes_limit),
              static_cast<long long>(stats_.total_allocated_bytes),
              static_cast<long long>(stats_.num_arena_extensions));
  std::fflush(stdout);
}

}  // namespace allocator
