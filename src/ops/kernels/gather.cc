#include "ops/kernels/gather.h"

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

std::vector<long long> row_major_strides(const std::vector<int>& shape) {
  std::vector<long long> stride(shape.size(), 1);
  for (int a = static_cast<int>(shape.size()) - 2; a >= 0; --a) stride[a] = stride[a + 1] * shape[a + 1];
  return stride;
}

void plan_gather(const std::vector<int>& extent, const std::vector<long long>& stride, long long base,
                 GatherPlan& plan) {
  plan.extent.clear();
  plan.stride.clear();
  for (size_t a = 0; a < extent.size(); ++a) {
    if (extent[a] == 1) continue;
    plan.extent.push_back(extent[a]);
    plan.stride.push_back(stride[a]);
  }
  // Merge from the innermost axis outwards: outer axis a continues inner axis
  // b when stride[a] == stride[b] * extent[b].
  for (int a = static_cast<int>(plan.extent.size()) - 2; a >= 0; --a) {
    if (plan.stride[a] != plan.stride[a + 1] * plan.extent[a + 1]) continue;
    plan.extent[a + 1] *= plan.extent[a];
    plan.extent.erase(plan.extent.begin() + a);
    plan.stride.erase(plan.stride.begin() + a);
  }
  plan.base = base;
  plan.count = 1;
  for (int e : extent) plan.count *= e;
  plan.index.assign(plan.extent.size(), 0);
}

void plan_transpose(const std::vector<int>& in_shape, const std::vector<int>& perm, GatherPlan& plan) {
  const std::vector<long long> in_stride = row_major_strides(in_shape);
  std::vector<int> extent(in_shape.size());
  std::vector<long long> stride(in_shape.size());
  for (size_t i = 0; i < in_shape.size(); ++i) {
    extent[i] = in_shape[perm[i]];
    stride[i] = in_stride[perm[i]];
  }
  plan_gather(extent, stride, 0, plan);
}

namespace {

// The odometer over every axis but the last; the last is one run, contiguous
// or strided. Inlined with the axes in local arrays, so the stores to `out`
// cannot be taken to change them.
template <bool kContiguous>
inline __attribute__((always_inline)) void gather_rows(const float* in, float* out, long long count,
                                                       long long base, int rank, const int* extent,
                                                       const long long* stride, int* index) {
  for (int a = 0; a < rank; ++a) index[a] = 0;
  const int inner = extent[rank - 1];
  const long long inner_stride = stride[rank - 1];
  long long offset = base;
  for (long long o = 0; o < count; o += inner) {
    const float* src = in + offset;
    if (kContiguous) {
      std::memcpy(out + o, src, sizeof(float) * inner);
    } else {
      for (int j = 0; j < inner; ++j) out[o + j] = src[j * inner_stride];
    }
    for (int a = rank - 2; a >= 0; --a) {
      offset += stride[a];
      if (++index[a] < extent[a]) break;
      offset -= stride[a] * extent[a];
      index[a] = 0;
    }
  }
}

template <bool kContiguous>
void gather(const float* in, float* out, GatherPlan& plan) {
  const int rank = static_cast<int>(plan.extent.size());
  constexpr int kLocalAxes = 8;
  if (rank > kLocalAxes) {
    gather_rows<kContiguous>(in, out, plan.count, plan.base, rank, plan.extent.data(), plan.stride.data(),
                             plan.index.data());
    return;
  }
  int extent[kLocalAxes] = {}, index[kLocalAxes];
  long long stride[kLocalAxes] = {};
  for (int a = 0; a < rank; ++a) extent[a] = plan.extent[a], stride[a] = plan.stride[a];
  gather_rows<kContiguous>(in, out, plan.count, plan.base, rank, extent, stride, index);
}

}  // namespace

void run_gather(const float* in, float* out, GatherPlan& plan) {
  if (plan.count <= 0) return;
  if (plan.extent.empty()) {
    out[0] = in[plan.base];
  } else if (plan.stride.back() == 1) {
    gather<true>(in, out, plan);
  } else {
    gather<false>(in, out, plan);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
