#ifndef KOVRAEXECUTOR_MALLOCATOR_H_
#define KOVRAEXECUTOR_MALLOCATOR_H_

#include "export.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Host memory from the process-wide arena, for callers outside the library.
// `bytes` is widened with its sign; 0 gives null.
KOVRA_API void* cpu_malloc(int bytes);
// Returns memory from cpu_malloc to the arena; always 0.
KOVRA_API int cpu_free(void* p);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_MALLOCATOR_H_
