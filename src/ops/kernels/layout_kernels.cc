#include "ops/kernels/layout_kernels.h"

#include <algorithm>
#include <cstring>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

long long product(const std::vector<int>& dims, size_t from, size_t to) {
  long long p = 1;
  for (size_t i = from; i < to; ++i) p *= dims[i];
  return p;
}

}  // namespace

// ShuffleNet order: view C as [groups, C/groups], swap the two, flatten, so
// output channel j*groups + g holds input channel g*(C/groups) + j.
void channel_shuffle_f32(const float* in, float* out, const std::vector<int>& shape, int groups) {
  const long long pixels = product(shape, 0, shape.size() - 1);
  const int channels = shape.back();
  const int per_group = channels / groups;
  for (long long p = 0; p < pixels; ++p) {
    const float* src = in + p * channels;
    float* dst = out + p * channels;
    for (int j = 0; j < per_group; ++j) {
      for (int g = 0; g < groups; ++g) dst[j * groups + g] = src[g * per_group + j];
    }
  }
}

// Channel block k = 2*dx + dy holds rows dy::2 and columns dx::2, i.e. the
// sub-images (0,0), (1,0), (0,1), (1,1) in (row, column) parity, as the
// YOLOv5 focus layer concatenates them.
void focus_f32(const float* in, float* out, const std::vector<int>& shape) {
  const int n = shape[0], h = shape[1], w = shape[2], c = shape[3];
  const int oh = h >> 1, ow = w >> 1;
  for (int b = 0; b < n; ++b) {
    for (int y = 0; y < oh; ++y) {
      for (int x = 0; x < ow; ++x) {
        float* dst = out + ((static_cast<long long>(b) * oh + y) * ow + x) * 4 * c;
        for (int k = 0; k < 4; ++k) {
          const int dy = k & 1, dx = k >> 1;
          const float* src = in + ((static_cast<long long>(b) * h + 2 * y + dy) * w + 2 * x + dx) * c;
          std::memcpy(dst + k * c, src, sizeof(float) * c);
        }
      }
    }
  }
}

// TensorFlow depth order: out[n, y, x, (dy*block + dx)*C + c] = in[n, y*block + dy, x*block + dx, c].
void space_to_depth_f32(const float* in, float* out, const std::vector<int>& shape, int block) {
  const int n = shape[0], h = shape[1], w = shape[2], c = shape[3];
  const int oh = h / block, ow = w / block;
  float* dst = out;
  for (int b = 0; b < n; ++b) {
    for (int y = 0; y < oh; ++y) {
      for (int x = 0; x < ow; ++x) {
        for (int dy = 0; dy < block; ++dy) {
          for (int dx = 0; dx < block; ++dx) {
            const float* src =
                in + ((static_cast<long long>(b) * h + y * block + dy) * w + x * block + dx) * c;
            std::memcpy(dst, src, sizeof(float) * c);
            dst += c;
          }
        }
      }
    }
  }
}

ConcatPlan plan_concat(const std::vector<int>& axis_sizes, const std::vector<int>& out_shape, int axis) {
  ConcatPlan plan;
  plan.outer = product(out_shape, 0, axis);
  const long long inner = product(out_shape, axis + 1, out_shape.size());
  plan.chunks.resize(axis_sizes.size());
  for (size_t i = 0; i < axis_sizes.size(); ++i) plan.chunks[i] = axis_sizes[i] * inner;
  return plan;
}

void concat_f32(const float* const* ins, const ConcatPlan& plan, float* out) {
  const size_t parts = plan.chunks.size();
  const long long* chunk = plan.chunks.data();
  float* dst = out;
  for (long long o = 0; o < plan.outer; ++o) {
    for (size_t i = 0; i < parts; ++i) {
      std::memcpy(dst, ins[i] + o * chunk[i], sizeof(float) * chunk[i]);
      dst += chunk[i];
    }
  }
}

void concat_f32(const std::vector<const float*>& ins, const std::vector<int>& axis_sizes, float* out,
                const std::vector<int>& out_shape, int axis) {
  concat_f32(ins.data(), plan_concat(axis_sizes, out_shape, axis), out);
}

void plan_slice(const std::vector<int>& in_shape, const SliceWindow& window, GatherPlan& plan) {
  const std::vector<long long> stride = row_major_strides(in_shape);
  std::vector<long long> step(in_shape.size());
  long long base = 0;
  for (size_t a = 0; a < in_shape.size(); ++a) {
    base += window.starts[a] * stride[a];
    step[a] = static_cast<long long>(window.steps[a]) * stride[a];
  }
  plan_gather(window.out_shape, step, base, plan);
}

void pad_constant_f32(const float* in, const std::vector<int>& in_shape, const std::vector<int>& before,
                      float value, float* out, const std::vector<int>& out_shape) {
  const int rank = static_cast<int>(in_shape.size());
  const long long out_count = product(out_shape, 0, out_shape.size());
  std::fill(out, out + out_count, value);
  const long long in_count = product(in_shape, 0, in_shape.size());
  if (in_count <= 0) return;
  // Fixed arrays: the operators call this on every run and allocate nothing there.
  long long out_stride[kMaxPadRank];
  int index[kMaxPadRank] = {};
  out_stride[rank - 1] = 1;
  for (int a = rank - 2; a >= 0; --a) out_stride[a] = out_stride[a + 1] * out_shape[a + 1];
  long long offset = 0;
  for (int a = 0; a < rank; ++a) offset += before[a] * out_stride[a];
  const int inner = in_shape[rank - 1];
  for (long long i = 0; i < in_count; i += inner) {
    std::memcpy(out + offset, in + i, sizeof(float) * inner);
    for (int a = rank - 2; a >= 0; --a) {
      offset += out_stride[a];
      if (++index[a] < in_shape[a]) break;
      offset -= out_stride[a] * in_shape[a];
      index[a] = 0;
    }
  }
}

std::vector<int> to_channels_first_perm(int rank) {
  std::vector<int> perm(rank);
  for (int a = 0; a < rank; ++a) perm[a] = a;
  if (rank < 3) return perm;
  // [N, D1, ..., Dk, C] -> [N, C, D1, ..., Dk]
  perm[1] = rank - 1;
  for (int a = 2; a < rank; ++a) perm[a] = a - 1;
  return perm;
}

std::vector<int> to_channels_last_perm(int rank) {
  std::vector<int> perm(rank);
  for (int a = 0; a < rank; ++a) perm[a] = a;
  if (rank < 3) return perm;
  // [N, C, D1, ..., Dk] -> [N, D1, ..., Dk, C]
  for (int a = 1; a < rank - 1; ++a) perm[a] = a + 1;
  perm[rank - 1] = 1;
  return perm;
}

// ONNX reshapes see NCHW data: read the input channels-first, reinterpret the
// flat buffer under the new shape (channels-first too), store channels-last.
void plan_onnx_reshape(const std::vector<int>& in_shape, const std::vector<int>& out_shape,
                       OnnxReshapePlan& plan) {
  plan_transpose(in_shape, to_channels_first_perm(static_cast<int>(in_shape.size())), plan.to_first);
  const int out_rank = static_cast<int>(out_shape.size());
  plan.flat = out_rank < 3;
  if (plan.flat) return;
  // The reshaped data are channels-first: [N, C, D1, ..., Dk] under out_shape's
  // channels-last dimensions [N, D1, ..., Dk, C].
  std::vector<int> first_shape(out_rank);
  const std::vector<int> to_first = to_channels_first_perm(out_rank);
  for (int a = 0; a < out_rank; ++a) first_shape[a] = out_shape[to_first[a]];
  plan_transpose(first_shape, to_channels_last_perm(out_rank), plan.to_last);
}

void onnx_reshape_reorder(const float* in, float* out, OnnxReshapePlan& plan, float* scratch) {
  if (plan.flat) {
    run_gather(in, out, plan.to_first);
    return;
  }
  run_gather(in, scratch, plan.to_first);
  run_gather(scratch, out, plan.to_last);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
