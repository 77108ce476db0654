#ifndef KOVRAEXECUTOR_ALLOCATOR_ACTIVATION_POOL_H_
#define KOVRAEXECUTOR_ALLOCATOR_ACTIVATION_POOL_H_

#include <cstddef>
#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The buffers of intermediate tensors in a run that frees each one after its
// last reader: a released buffer goes back here and the next output takes
// the smallest free one that fits. With a fixed schedule and fixed shapes,
// every run after the first takes the same buffers and allocates nothing,
// and the run holds about as much memory as its largest set of live tensors.
class ActivationPool {
 public:
  ActivationPool() = default;
  ~ActivationPool();
  ActivationPool(const ActivationPool&) = delete;
  ActivationPool& operator=(const ActivationPool&) = delete;

  // A buffer of at least `bytes` bytes (more than zero); `capacity` receives its size.
  void* take(size_t bytes, size_t* capacity);
  // Returns a buffer that take() handed out; any other pointer is ignored.
  void give(void* block);
  // Frees the buffers nobody holds, for example after the shapes changed.
  void trim();

  size_t blocks() const { return blocks_.size(); }
  size_t bytes_held() const;

 private:
  struct Block {
    void* ptr;
    size_t bytes;
    bool in_use;
  };
  std::vector<Block> blocks_;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_ALLOCATOR_ACTIVATION_POOL_H_
