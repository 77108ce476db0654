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

TransposePlan plan_transpose(const std::vector<int>& in_shape, const std::vector<int>& perm) {
  const int rank = static_cast<int>(in_shape.size());
  TransposePlan plan;
  plan.count = 1;
  for (int d : in_shape) plan.count *= d;
  // Input strides read in output-axis order.
  std::vector<long long> in_stride(rank, 1);
  for (int i = rank - 2; i >= 0; --i) in_stride[i] = in_stride[i + 1] * in_shape[i + 1];
  plan.out_shape.resize(rank);
  plan.stride.resize(rank);
  for (int i = 0; i < rank; ++i) {
    plan.out_shape[i] = in_shape[perm[i]];
    plan.stride[i] = in_stride[perm[i]];
  }
  return plan;
}

void transpose(const float* in, float* out, const TransposePlan& plan, int* index) {
  const long long count = plan.count;
  if (count <= 0) return;
  const int rank = static_cast<int>(plan.out_shape.size());
  if (rank == 0) {
    out[0] = in[0];
    return;
  }
  const std::vector<int>& out_shape = plan.out_shape;
  const std::vector<long long>& stride = plan.stride;
  // Walk the output in order with an odometer; the innermost axis is a strided copy.
  for (int axis = 0; axis < rank; ++axis) index[axis] = 0;
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

void transpose(const float* in, float* out, const std::vector<int>& in_shape, const std::vector<int>& perm) {
  const TransposePlan plan = plan_transpose(in_shape, perm);
  std::vector<int> index(in_shape.size());
  transpose(in, out, plan, index.data());
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
