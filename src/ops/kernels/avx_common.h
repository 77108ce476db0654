#ifndef KOVRAEXECUTOR_OPS_AVX_COMMON_H_
#define KOVRAEXECUTOR_OPS_AVX_COMMON_H_

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Instruction sets the compute kernels are built for; the best one the
// processor supports is chosen at run time.
enum class KernelIsa { kPortable = 0, kAvx2 = 1, kAvx512 = 2 };

// What this processor supports.
bool cpu_supports(KernelIsa isa);
bool cpu_supports_avx512_vnni();
// The instruction set kernels use now: the best supported one, unless a
// narrower one was forced (tests compare the paths this way).
KernelIsa active_isa();
// Forces kernels onto `isa` (clamped to what the processor supports).
void force_isa(KernelIsa isa);
// Back to the best supported instruction set.
void reset_isa();
const char* isa_name(KernelIsa isa);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_AVX_COMMON_H_
