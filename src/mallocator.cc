#include "mallocator.h"

#include "allocator/allocatormgr.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void* cpu_malloc(int bytes) {
  const long long widened = bytes;
  return allocator::CPUAllocatorMgr::GetInstance().GetAllocator()->Alloc(static_cast<size_t>(widened));
}

int cpu_free(void* p) {
  allocator::CPUAllocatorMgr::GetInstance().GetAllocator()->Free(p);
  return 0;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
