#ifndef KOVRAEXECUTOR_MALLOCATOR_H_
#define KOVRAEXECUTOR_MALLOCATOR_H_

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Host memory from the process-wide arena, for callers outside the library.
// `bytes` is widened with its sign; 0 gives null.
void* cpu_malloc(int bytes);
// Returns memory from cpu_malloc to the arena; always 0.
int cpu_free(void* p);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_MALLOCATOR_H_
