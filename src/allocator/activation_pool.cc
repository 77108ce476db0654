#include "allocator/activation_pool.h"

#include <cstdlib>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

ActivationPool::~ActivationPool() {
  for (Block& block : blocks_) std::free(block.ptr);
}

void* ActivationPool::take(size_t bytes, size_t* capacity) {
  Block* best = nullptr;
  for (Block& block : blocks_) {
    if (!block.in_use && block.bytes >= bytes && (best == nullptr || block.bytes < best->bytes)) best = &block;
  }
  if (best == nullptr) {
    void* ptr = std::malloc(bytes);
    if (ptr == nullptr) fatal("Out of memory for an intermediate tensor of " + std::to_string(bytes) + " bytes");
    blocks_.push_back({ptr, bytes, false});
    best = &blocks_.back();
  }
  best->in_use = true;
  *capacity = best->bytes;
  return best->ptr;
}

void ActivationPool::give(void* block) {
  for (Block& b : blocks_) {
    if (b.ptr == block) {
      b.in_use = false;
      return;
    }
  }
}

void ActivationPool::trim() {
  size_t kept = 0;
  for (Block& block : blocks_) {
    if (block.in_use) {
      blocks_[kept++] = block;
    } else {
      std::free(block.ptr);
    }
  }
  blocks_.resize(kept);
}

size_t ActivationPool::bytes_held() const {
  size_t total = 0;
  for (const Block& block : blocks_) total += block.bytes;
  return total;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
