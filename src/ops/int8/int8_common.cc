#include "ops/int8/int8_common.h"

#include <algorithm>
#include <cstring>

#include "kvdl.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
std::string shape_text(const std::vector<int>& shape) {
  std::string text = "[";
  for (size_t i = 0; i < shape.size(); ++i) text += (i ? ", " : "") + std::to_string(shape[i]);
  return text + "]";
}
}  // namespace

int channel_count(const Tensor* tensor) {
  const std::vector<int>& shape = tensor->shape();
  return shape.empty() || shape.back() < 1 ? 1 : shape.back();
}

const Tensor* first_input(const std::vector<const Tensor*>& inputs, const char* op) {
  check_input_count(inputs, 1, op);
  check_input_not_scalar(inputs[0], op);
  return inputs[0];
}

void check_rank_3_to_5(const Tensor* input, const char* op) {
  const size_t rank = input->shape().size();
  if (rank < 3 || rank > 5) {
    fatal("\"The shape of input only support 3D ,4D or 5D in " + std::string(op) + "!!!\"");
  }
}

void check_rank_4(const Tensor* input, const char* message) {
  KOVRA_ENSURE_MSG(input->shape().size() == 4, "input_tensor->shape().size() == 4", message);
}

void prepared_shape_failed(const Tensor* input, const std::vector<int>& prepared, const char* op) {
  if (input == nullptr) {
    check_failed_quoted("input->shape() == prepared", std::string(op) + ": an input is missing");
  }
  check_failed_quoted("input->shape() == prepared", std::string(op) + ": " + input->name() + " has shape " +
                                                        shape_text(input->shape()) +
                                                        " but was prepared for " + shape_text(prepared));
}

const Tensor* prepared_input(const std::vector<const Tensor*>& inputs, const std::vector<int>& prepared,
                             const Tensor* output, long long out_count, const char* op) {
  const Tensor* input = first_input(inputs, op);
  check_prepared(input, prepared, op);
  check_float(input, op);
  check_min_size(output, out_count, op);
  return input;
}

long long shape_count(const std::vector<int>& shape) {
  long long n = 1;
  for (int d : shape) n *= d;
  return n;
}

void round_and_clamp(float* y, long long count, float lo, float hi) {
  for (long long i = 0; i < count; ++i) y[i] = clamp_code(kvdl::tensorflow_round_cpu(y[i]), lo, hi);
}

void check_per_channel(const std::vector<float>& values, int channels, const char* key, const char* op) {
  check_attr_size(values.size(), channels, key, op);
}

void make_sum_requant(const std::vector<float>& s0, const std::vector<float>& s1,
                      const std::vector<float>& out_scale, int off0, int off1, int offset, int channels,
                      bool difference, SumRequant& r) {
  r.a.resize(channels);
  r.b.resize(channels);
  r.k.resize(channels);
  for (int c = 0; c < channels; ++c) {
    const float a = out_scale[c] * s0[c];
    const float b_sum = out_scale[c] * s1[c];
    const float b = difference ? -b_sum : b_sum;
    r.a[c] = a;
    r.b[c] = b;
    r.k[c] = static_cast<float>(off0) * a + static_cast<float>(off1) * b + static_cast<float>(offset);
  }
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
  plan.count = shape_count(extent);
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

// The odometer over every axis but the last; the last is one strided run.
// Inlined with the axes in local arrays, so the stores to `out` cannot be
// taken to change them.
inline __attribute__((always_inline)) void gather_rows(const float* in, float* out, long long count,
                                                       long long base, int rank, const int* extent,
                                                       const long long* stride, int* index) {
  for (int a = 0; a < rank; ++a) index[a] = 0;
  const int inner = extent[rank - 1];
  const long long inner_stride = stride[rank - 1];
  long long offset = base;
  for (long long o = 0; o < count; o += inner) {
    const float* src = in + offset;
    if (inner_stride == 1) {
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

}  // namespace

void run_gather(const float* in, float* out, GatherPlan& plan) {
  const int rank = static_cast<int>(plan.extent.size());
  if (plan.count <= 0) return;
  if (rank == 0) {
    out[0] = in[plan.base];
    return;
  }
  constexpr int kLocalAxes = 8;
  if (rank > kLocalAxes) {
    gather_rows(in, out, plan.count, plan.base, rank, plan.extent.data(), plan.stride.data(),
                plan.index.data());
    return;
  }
  int extent[kLocalAxes], index[kLocalAxes];
  long long stride[kLocalAxes];
  for (int a = 0; a < rank; ++a) extent[a] = plan.extent[a], stride[a] = plan.stride[a];
  gather_rows(in, out, plan.count, plan.base, rank, extent, stride, index);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
