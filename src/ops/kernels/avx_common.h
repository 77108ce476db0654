#ifndef KOVRAEXECUTOR_OPS_AVX_COMMON_H_
#define KOVRAEXECUTOR_OPS_AVX_COMMON_H_

#include <atomic>
#include <cstddef>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Instruction sets the compute kernels are built for, each a superset of the
// one before: a family takes, of its variants, the widest one that the
// active instruction set covers.
enum class KernelIsa { kPortable = 0, kAvx2 = 1, kAvx512 = 2, kAvx512Vnni = 3 };

// What this processor supports.
bool cpu_supports(KernelIsa isa);
// The instruction set kernels are chosen for: the widest one supported,
// unless a test forced a narrower one.
KernelIsa active_isa();
// Forces every family onto the variants `isa` covers and returns true, or
// returns false and changes nothing when the processor lacks `isa` (a test
// then reports itself skipped instead of running another path).
bool force_isa(KernelIsa isa);
// Back to the widest supported instruction set.
void reset_isa();
const char* isa_name(KernelIsa isa);

// Called with `context` whenever the active instruction set changes.
void on_isa_change(void (*choose)(void*), void* context);

// A kernel family's table of function pointers. `Table` is a struct of
// function pointers with the fields `isa` (what its functions need) and
// `name`; the variants are listed from the portable one up, and the family
// uses the last one the active instruction set covers. The choice is made
// when the library loads and again when a test forces an instruction set, so
// calling through the table costs one load.
template <class Table>
class KernelTable {
 public:
  template <size_t N>
  explicit KernelTable(const Table (&variants)[N]) : variants_(variants), count_(static_cast<int>(N)) {
    _choose(this);
    on_isa_change(&KernelTable::_choose, this);
  }
  const Table& get() const { return *current_.load(std::memory_order_relaxed); }
  const Table* operator->() const { return &get(); }
  // Every variant, portable first, for the tests that run them all.
  const Table* variants() const { return variants_; }
  int variant_count() const { return count_; }

 private:
  static void _choose(void* self) {
    KernelTable* t = static_cast<KernelTable*>(self);
    const KernelIsa active = active_isa();
    const Table* best = &t->variants_[0];
    for (int i = 1; i < t->count_; ++i) {
      if (static_cast<int>(t->variants_[i].isa) <= static_cast<int>(active)) best = &t->variants_[i];
    }
    t->current_.store(best, std::memory_order_relaxed);
  }

  const Table* variants_;
  int count_;
  std::atomic<const Table*> current_{nullptr};
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_AVX_COMMON_H_
