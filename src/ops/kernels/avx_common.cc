#include "ops/kernels/avx_common.h"

#include <atomic>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

KernelIsa best_isa() {
  if (cpu_supports(KernelIsa::kAvx512)) return KernelIsa::kAvx512;
  if (cpu_supports(KernelIsa::kAvx2)) return KernelIsa::kAvx2;
  return KernelIsa::kPortable;
}

std::atomic<int>& forced_isa() {
  static std::atomic<int> forced{-1};
  return forced;
}

}  // namespace

bool cpu_supports(KernelIsa isa) {
  __builtin_cpu_init();
  switch (isa) {
    case KernelIsa::kPortable:
      return true;
    case KernelIsa::kAvx2:
      return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    case KernelIsa::kAvx512:
      return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
             __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
             __builtin_cpu_supports("fma");
  }
  return false;
}

bool cpu_supports_avx512_vnni() {
  __builtin_cpu_init();
  return cpu_supports(KernelIsa::kAvx512) && __builtin_cpu_supports("avx512vnni");
}

KernelIsa active_isa() {
  const int forced = forced_isa().load();
  return forced < 0 ? best_isa() : static_cast<KernelIsa>(forced);
}

void force_isa(KernelIsa isa) {
  while (!cpu_supports(isa)) isa = static_cast<KernelIsa>(static_cast<int>(isa) - 1);
  forced_isa().store(static_cast<int>(isa));
}

void reset_isa() { forced_isa().store(-1); }

const char* isa_name(KernelIsa isa) {
  switch (isa) {
    case KernelIsa::kPortable: return "portable";
    case KernelIsa::kAvx2: return "avx2";
    case KernelIsa::kAvx512: return "avx512";
  }
  return "unknown";
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
