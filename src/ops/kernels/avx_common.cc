#include "ops/kernels/avx_common.h"

#include <mutex>
#include <utility>
#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

KernelIsa best_isa() {
  for (KernelIsa isa : {KernelIsa::kAvx512Vnni, KernelIsa::kAvx512, KernelIsa::kAvx2}) {
    if (cpu_supports(isa)) return isa;
  }
  return KernelIsa::kPortable;
}

std::atomic<int>& forced_isa() {
  static std::atomic<int> forced{-1};
  return forced;
}

// The families to tell when the instruction set changes. Filled while the
// library loads (from static initialisers, in any order), read by tests.
struct Listeners {
  std::mutex mutex;
  std::vector<std::pair<void (*)(void*), void*>> entries;
};
Listeners& listeners() {
  static Listeners* l = new Listeners;  // never destroyed: tables outlive static destruction order
  return *l;
}

void choose_all() {
  Listeners& l = listeners();
  std::lock_guard<std::mutex> lock(l.mutex);
  for (const auto& e : l.entries) e.first(e.second);
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
    case KernelIsa::kAvx512Vnni:
      return cpu_supports(KernelIsa::kAvx512) && __builtin_cpu_supports("avx512vnni");
  }
  return false;
}

KernelIsa active_isa() {
  const int forced = forced_isa().load();
  return forced < 0 ? best_isa() : static_cast<KernelIsa>(forced);
}

bool force_isa(KernelIsa isa) {
  if (!cpu_supports(isa)) return false;
  forced_isa().store(static_cast<int>(isa));
  choose_all();
  return true;
}

void reset_isa() {
  forced_isa().store(-1);
  choose_all();
}

void on_isa_change(void (*choose)(void*), void* context) {
  Listeners& l = listeners();
  std::lock_guard<std::mutex> lock(l.mutex);
  l.entries.emplace_back(choose, context);
}

const char* isa_name(KernelIsa isa) {
  switch (isa) {
    case KernelIsa::kPortable: return "portable";
    case KernelIsa::kAvx2: return "avx2";
    case KernelIsa::kAvx512: return "avx512";
    case KernelIsa::kAvx512Vnni:
      return "avx512vnni";
  }
  return "unknown";
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
