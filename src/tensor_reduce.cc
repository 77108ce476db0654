#include "tensor_reduce.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "common.h"
#include "tensor_operators.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Accumulation rules. Sum starts from 0 and takes every element; min and max
// start from the first element. Both comparisons keep the accumulator when a
// NaN is involved, the same as the packed min/max instructions, so the loops
// vectorise without changing a result.
struct SumAcc {
  static constexpr bool kSeedWithFirst = false;
  static float apply(float acc, float v) { return acc + v; }
};
struct MinAcc {
  static constexpr bool kSeedWithFirst = true;
  static float apply(float acc, float v) { return v < acc ? v : acc; }
};
struct MaxAcc {
  static constexpr bool kSeedWithFirst = true;
  static float apply(float acc, float v) { return v > acc ? v : acc; }
};

// Every output is folded in axis order, so results do not depend on how the
// loops are arranged: across `inner` the outputs are independent and the
// innermost loop vectorises; with inner == 1 four rows are folded side by side
// to overlap their dependency chains.
template <class Acc>
void reduce_along(const float* in, float* __restrict out, int outer, int axis_len, int inner) {
  const int first = Acc::kSeedWithFirst ? 1 : 0;
  if (inner == 1) {
    int o = 0;
    for (; o + 4 <= outer; o += 4) {
      const float* r0 = in + static_cast<long long>(o) * axis_len;
      const float* r1 = r0 + axis_len;
      const float* r2 = r1 + axis_len;
      const float* r3 = r2 + axis_len;
      float s0 = first ? r0[0] : 0.0f;
      float s1 = first ? r1[0] : 0.0f;
      float s2 = first ? r2[0] : 0.0f;
      float s3 = first ? r3[0] : 0.0f;
      for (int a = first; a < axis_len; ++a) {
        s0 = Acc::apply(s0, r0[a]);
        s1 = Acc::apply(s1, r1[a]);
        s2 = Acc::apply(s2, r2[a]);
        s3 = Acc::apply(s3, r3[a]);
      }
      out[o] = s0;
      out[o + 1] = s1;
      out[o + 2] = s2;
      out[o + 3] = s3;
    }
    for (; o < outer; ++o) {
      const float* row = in + static_cast<long long>(o) * axis_len;
      float s = first ? row[0] : 0.0f;
      for (int a = first; a < axis_len; ++a) s = Acc::apply(s, row[a]);
      out[o] = s;
    }
    return;
  }
  for (int o = 0; o < outer; ++o) {
    const float* src = in + static_cast<long long>(o) * axis_len * inner;
    float* __restrict dst = out + static_cast<long long>(o) * inner;
    if (first) {
      std::copy(src, src + inner, dst);
    } else {
      std::fill(dst, dst + inner, 0.0f);
    }
    for (int a = first; a < axis_len; ++a) {
      const float* row = src + static_cast<long long>(a) * inner;
      for (int i = 0; i < inner; ++i) dst[i] = Acc::apply(dst[i], row[i]);
    }
  }
}

void shape_split(const std::vector<int>& shape, int axis, int* outer, int* axis_len, int* inner) {
  *outer = 1;
  *inner = 1;
  for (int d = 0; d < axis; ++d) *outer *= shape[d];
  *axis_len = shape[axis];
  for (size_t d = axis + 1; d < shape.size(); ++d) *inner *= shape[d];
}

int normalised_axis(const Tensor& t, int axis) {
  const int rank = t.dims();
  if (axis < -rank || axis >= rank) fatal("reduce axis error");
  return axis < 0 ? axis + rank : axis;
}

float* input_data(const Tensor& t) {
  // The kernels take a mutable pointer but never write through it.
  return const_cast<float*>(static_cast<const float*>(t.get_ptr()));
}

float reduce_whole(const Tensor& t, ReduceFn fn) {
  check_float_elements(t);
  float result = 0.0f;
  fn(input_data(t), &result, 1, t.size(), 1);
  return result;
}

}  // namespace

void reduce_min_func(float* in, float* out, int outer, int axis_len, int inner) {
  reduce_along<MinAcc>(in, out, outer, axis_len, inner);
}

void reduce_max_func(float* in, float* out, int outer, int axis_len, int inner) {
  reduce_along<MaxAcc>(in, out, outer, axis_len, inner);
}

void reduce_sum_func(float* in, float* out, int outer, int axis_len, int inner) {
  reduce_along<SumAcc>(in, out, outer, axis_len, inner);
}

void reduce_mean_func(float* in, float* out, int outer, int axis_len, int inner) {
  reduce_along<SumAcc>(in, out, outer, axis_len, inner);
  const float count = static_cast<float>(axis_len);
  const long long n = static_cast<long long>(outer) * inner;
  for (long long k = 0; k < n; ++k) out[k] /= count;
}

void reduce_std_func(float* in, float* out, int outer, int axis_len, int inner) {
  reduce_mean_func(in, out, outer, axis_len, inner);
  const long long n = static_cast<long long>(outer) * inner;
  std::vector<float> squares(static_cast<size_t>(n), 0.0f);
  for (int o = 0; o < outer; ++o) {
    const float* mean = out + static_cast<long long>(o) * inner;
    float* __restrict acc = squares.data() + static_cast<long long>(o) * inner;
    for (int a = 0; a < axis_len; ++a) {
      const float* row = in + (static_cast<long long>(o) * axis_len + a) * inner;
      for (int i = 0; i < inner; ++i) {
        const float d = row[i] - mean[i];
        acc[i] += d * d;
      }
    }
  }
  const float count = static_cast<float>(axis_len);
  for (long long k = 0; k < n; ++k) out[k] = powf(squares[k] / count, 0.5f);
}

Tensor get_reduce_tensor(const Tensor& t, int axis, bool keep_dims) {
  const int a = normalised_axis(t, axis);
  std::vector<int> shape = t.shape();
  if (keep_dims) {
    shape[a] = 1;
  } else {
    shape.erase(shape.begin() + a);
    if (shape.empty()) shape.push_back(1);
  }
  return Tensor(shape, Tensor::DT_FLOAT, nullptr, device_word(t));
}

Tensor reduce_cpu(const Tensor& t, int axis, bool keep_dims, ReduceFn fn) {
  Tensor r = get_reduce_tensor(t, axis, keep_dims);
  check_float_elements(t);
  int outer, axis_len, inner;
  shape_split(t.shape(), normalised_axis(t, axis), &outer, &axis_len, &inner);
  fn(input_data(t), r.mutable_data<float>(), outer, axis_len, inner);
  return r;
}

#define KOVRA_REDUCE_WRAPPERS(op)                                                \
  Tensor tensor_reduce_##op##_cpu(const Tensor& t, int axis, bool keep_dims) {   \
    return reduce_cpu(t, axis, keep_dims, reduce_##op##_func);                   \
  }                                                                              \
  Tensor Tensor::reduce_##op(int axis, bool keep_dims) const {                   \
    return tensor_reduce_##op##_cpu(*this, axis, keep_dims);                     \
  }                                                                              \
  float Tensor::reduce_##op() const { return tensor_reduce_##op##_cpu(*this); }
KOVRA_REDUCE_WRAPPERS(min)
KOVRA_REDUCE_WRAPPERS(max)
KOVRA_REDUCE_WRAPPERS(sum)
KOVRA_REDUCE_WRAPPERS(mean)
KOVRA_REDUCE_WRAPPERS(std)
#undef KOVRA_REDUCE_WRAPPERS

float tensor_reduce_min_cpu(const Tensor& t) { return reduce_whole(t, reduce_min_func); }
float tensor_reduce_max_cpu(const Tensor& t) { return reduce_whole(t, reduce_max_func); }
float tensor_reduce_sum_cpu(const Tensor& t) { return reduce_whole(t, reduce_sum_func); }
float tensor_reduce_mean_cpu(const Tensor& t) { return reduce_whole(t, reduce_mean_func); }

float tensor_reduce_std_cpu(const Tensor& t) {
  check_float_elements(t);
  const float* data = static_cast<const float*>(t.get_ptr());
  const int n = t.size();
  double sum = 0.0;
  for (int i = 0; i < n; ++i) sum += data[i];
  const double mean = sum / n;
  double squares = 0.0;
  for (int i = 0; i < n; ++i) {
    const float d = static_cast<float>(data[i] - mean);
    squares += d * d;
  }
  return powf(static_cast<float>(squares / n), 0.5f);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
