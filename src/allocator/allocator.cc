#include "allocator/allocator.h"

#include <cstdlib>
#include <sstream>

#include "allocator/safe_int.h"

namespace allocator {

std::string OrtMemoryInfo::ToString() const {
  std::ostringstream out;
  out << "OrtMemoryInfo:[" << "name:" << name << " id:" << id << " OrtMemType:" << mem_type
      << " OrtAllocatorType:" << alloc_type << "Device:[" << "DeviceType:"
      << static_cast<int>(device.device_type) << " MemoryType:" << static_cast<int>(device.memory_type)
      << " DeviceId:" << device.device_id << "]" << "]";
  return out.str();
}

std::ostream& operator<<(std::ostream& out, const OrtMemoryInfo& info) { return out << info.ToString(); }

bool IAllocator::CalcMemSizeForArrayWithAlignment(size_t nmemb, size_t size, size_t alignment,
                                                  size_t* out) noexcept {
  try {
    size_t bytes = checked_mul(nmemb, size);
    if (alignment != 0) bytes = checked_add(bytes, alignment - 1) & ~(alignment - 1);
    *out = bytes;
    return true;
  } catch (const SafeIntException&) {
    return false;
  }
}

void* CPUAllocator::Alloc(size_t size) { return size == 0 ? nullptr : std::malloc(size); }

void CPUAllocator::Free(void* p) { std::free(p); }

}  // namespace allocator
