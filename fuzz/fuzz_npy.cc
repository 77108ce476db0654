// .npy bytes through the reader. A read array must hold as many values as its
// shape counts.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "checked_size.h"
#include "npy.h"

namespace kx = kovra::trenkit::kovraexecutor;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  kx::NpyArray array;
  std::string error;
  if (!kx::parse_npy(bytes, "input.npy", array, error)) return 0;
  if (kx::shape_count(array.shape) != static_cast<long long>(array.values.size())) std::abort();
  return 0;
}
