#ifndef KOVRAEXECUTOR_ALLOCATOR_ALLOCATOR_H_
#define KOVRAEXECUTOR_ALLOCATOR_ALLOCATOR_H_

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <ostream>
#include <string>

#include "export.h"

namespace allocator {

// Where an allocator's memory lives.
struct OrtDevice {
  using DeviceType = int8_t;
  using MemoryType = int8_t;
  using DeviceId = int16_t;
  static constexpr DeviceType CPU = 0;
  static constexpr MemoryType DEFAULT = 0;

  OrtDevice() = default;
  OrtDevice(DeviceType type, MemoryType mem_type, DeviceId id)
      : device_type(type), memory_type(mem_type), device_id(id) {}

  DeviceType device_type = CPU;
  MemoryType memory_type = DEFAULT;
  DeviceId device_id = 0;
};

using OrtMemType = int;
constexpr OrtMemType OrtMemTypeDefault = 0;

using OrtAllocatorType = int;
constexpr OrtAllocatorType OrtDeviceAllocator = 0;
constexpr OrtAllocatorType OrtArenaAllocator = 1;

struct KOVRA_API OrtMemoryInfo {
  OrtMemoryInfo() = default;
  OrtMemoryInfo(const char* name_in, OrtAllocatorType alloc_type_in, OrtDevice device_in = OrtDevice(),
                int id_in = 0, OrtMemType mem_type_in = OrtMemTypeDefault)
      : name(name_in), id(id_in), mem_type(mem_type_in), alloc_type(alloc_type_in), device(device_in) {}

  // "OrtMemoryInfo:[name:Cpu id:0 OrtMemType:0 OrtAllocatorType:1Device:[DeviceType:0 MemoryType:0 DeviceId:0]]"
  std::string ToString() const;

  const char* name = "Cpu";
  int id = 0;
  OrtMemType mem_type = OrtMemTypeDefault;
  OrtAllocatorType alloc_type = OrtDeviceAllocator;
  OrtDevice device;
};

KOVRA_API std::ostream& operator<<(std::ostream& out, const OrtMemoryInfo& info);

enum ArenaExtendStrategy : int32_t {
  kNextPowerOfTwo = 0,
  kSameAsRequested = 1,
};

struct AllocatorStats {
  int64_t num_allocs = 0;
  int64_t num_reserves = 0;
  int64_t num_arena_extensions = 0;
  int64_t num_arena_shrinkages = 0;
  int64_t bytes_in_use = 0;
  int64_t total_allocated_bytes = 0;
  int64_t max_bytes_in_use = 0;
  int64_t max_alloc_size = 0;
  int64_t bytes_limit = 0;
};

// Allocator failures of this namespace; a device allocator may throw it when
// it has no memory, and the arena treats that like a null result.
class KOVRA_API allocatorException : public std::exception {
 public:
  explicit allocatorException(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

class SessionState;  // opaque here; only fences would need it
class Fence;
using FencePtr = std::shared_ptr<Fence>;

class KOVRA_API IAllocator {
 public:
  explicit IAllocator(const OrtMemoryInfo& info) : memory_info_(info) {}
  virtual ~IAllocator() = default;
  IAllocator(const IAllocator&) = delete;
  IAllocator& operator=(const IAllocator&) = delete;

  virtual void* Alloc(size_t size) = 0;
  virtual void Free(void* p) = 0;
  // Memory set aside for the caller rather than carved from a pool.
  virtual void* Reserve(size_t size) { return Alloc(size); }
  virtual void GetStats(AllocatorStats* /*stats*/) {}
  virtual FencePtr CreateFence(const SessionState* /*session_state*/) { return nullptr; }

  const OrtMemoryInfo& Info() const { return memory_info_; }

  // *out = nmemb * size, rounded up to `alignment` (a power of two) when it is
  // not 0. Returns false instead of overflowing.
  static bool CalcMemSizeForArrayWithAlignment(size_t nmemb, size_t size, size_t alignment,
                                               size_t* out) noexcept;

 private:
  OrtMemoryInfo memory_info_;
};

// The C heap, with no extra alignment; stateless, so no lock.
class KOVRA_API CPUAllocator : public IAllocator {
 public:
  explicit CPUAllocator(const OrtMemoryInfo& info = OrtMemoryInfo("Cpu", OrtDeviceAllocator))
      : IAllocator(info) {}
  void* Alloc(size_t size) override;
  void Free(void* p) override;
};

}  // namespace allocator

#endif  // KOVRAEXECUTOR_ALLOCATOR_ALLOCATOR_H_
