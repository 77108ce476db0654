#include "ops/kernels/transpose.h"

#include <cstring>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

bool is_permutation_of_rank(const std::vector<int>& perm, int rank) {
  if (static_cast<int>(perm.size()) != rank) return false;
  std::vector<bool> seen(rank, false);
  for (int axis : perm) {
    if (axis < 0 || axis >= rank || seen[axis]) return false;
    seen[axis] = true;
  }
  return true;
}

void transpose(const float* in, float* out, const std::vector<int>& in_shape,
               const std::vector<int>& perm) {
  const int rank = static_cast<int>(in_shape.size());
  long long count = 1;
  for (int d : in_shape) count *= d;
  if (count <= 0) return;
  // Input strides read in output-axis order.
  std::vector<long long> in_stride(rank, 1);
  for (int i = rank - 2; i >= 0; --i) in_stride[i] = in_stride[i + 1] * in_shape[i + 1];
  std::vector<int> out_shape(rank);
  std::vector<long long> stride(rank);
  for (int i = 0; i < rank; ++i) {
    out_shape[i] = in_shape[perm[i]];
    stride[i] = in_stride[perm[i]];
  }
  if (rank == 0) {
    out[0] = in[0];
    return;
  }
  // Walk the output in order with an odometer; the innermost axis is a strided copy.
  std::vector<int> index(rank, 0);
  const int inner = out_shape[rank - 1];
  const long long inner_stride = stride[rank - 1];
  long long offset = 0;
  for (long long o = 0; o < count; o += inner) {
    const float* src = in + offset;
    if (inner_stride == 1) {
      std::memcpy(out + o, src, sizeof(float) * inner);
    } else {
      for (int j = 0; j < inner; ++j) out[o + j] = src[j * inner_stride];
    }
    for (int axis = rank - 2; axis >= 0; --axis) {
      offset += stride[axis];
      if (++index[axis] < out_shape[axis]) break;
      offset -= stride[axis] * out_shape[axis];
      index[axis] = 0;
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
