#include "ops/kernels/float_eltwise_kernels.h"

#include <algorithm>
#include <cmath>

#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// out[i] = f(a[i], b[i mod nb]). The inner loop runs over whole runs of b
// without a modulo, so it vectorises; nb == 1 gets its own broadcast loop.
template <typename F>
inline void binary_cyclic_range(const float* a, int n, const float* b, int nb, float* out, F f) {
  if (nb == 1) {
    const float b0 = b[0];
    for (int i = 0; i < n; ++i) out[i] = f(a[i], b0);
    return;
  }
  for (int start = 0; start < n; start += nb) {
    const int len = std::min(nb, n - start);
    const float* pa = a + start;
    float* po = out + start;
    for (int k = 0; k < len; ++k) po[k] = f(pa[k], b[k]);
  }
}

// Large arrays go to the pool in chunks that start where b starts over, so
// each chunk is the same loop on its own part: the bits never depend on the
// number of threads.
template <typename F>
inline void binary_cyclic(const float* a, int n, const float* b, int nb, float* out, F f) {
  constexpr int kChunk = 1 << 15;
  // Below this, waking a worker costs about what it saves.
  if (n < 8 * kChunk) {
    binary_cyclic_range(a, n, b, nb, out, f);
    return;
  }
  const bool whole = nb == 1 || nb >= n;  // b a scalar, or as long as a
  const int chunk = whole ? kChunk : std::max(nb, kChunk / nb * nb);
  const int chunks = (n + chunk - 1) / chunk;
  parallel_for(chunks, n, [&](int i) {
    const int start = i * chunk;
    const int len = std::min(chunk, n - start);
    const float* pb = nb == 1 ? b : (whole ? b + start : b);
    binary_cyclic_range(a + start, len, pb, whole ? (nb == 1 ? 1 : len) : nb, out + start, f);
  });
}

// Two selects in this order keep NaN -> 0 and map to packed max/min.
template <FusedRelu kAct>
inline float fused(float y) {
  if constexpr (kAct != FusedRelu::kNone) y = y > 0.0f ? y : 0.0f;
  if constexpr (kAct == FusedRelu::kRelu6) y = y < 6.0f ? y : 6.0f;
  return y;
}

template <FusedRelu kAct>
struct PlusThen {
  float operator()(float x, float y) const { return fused<kAct>(x + y); }
};

void add_fused(const float* a, int n, const float* b, int nb, float* out, FusedRelu act) {
  switch (act) {
    case FusedRelu::kNone:
      binary_cyclic(a, n, b, nb, out, PlusThen<FusedRelu::kNone>());
      break;
    case FusedRelu::kRelu:
      binary_cyclic(a, n, b, nb, out, PlusThen<FusedRelu::kRelu>());
      break;
    case FusedRelu::kRelu6:
      binary_cyclic(a, n, b, nb, out, PlusThen<FusedRelu::kRelu6>());
      break;
  }
}

template <FusedRelu kAct>
void batch_norm_scale_rows(const float* x, int n, const float* scale, const float* bias, int channels,
                           float* out) {
  for (int start = 0; start < n; start += channels) {
    const int len = std::min(channels, n - start);
    const float* px = x + start;
    float* po = out + start;
    for (int c = 0; c < len; ++c) po[c] = fused<kAct>(px[c] * scale[c] + bias[c]);
  }
}

struct Minus {
  float operator()(float x, float y) const { return x - y; }
};
struct Times {
  float operator()(float x, float y) const { return x * y; }
};
struct Divide {
  float operator()(float x, float y) const { return x / y; }
};
struct Maximum {
  float operator()(float x, float y) const { return std::max(x, y); }
};
struct Power {
  float operator()(float x, float y) const {
    return static_cast<float>(std::pow(static_cast<double>(x), static_cast<double>(y)));
  }
};

}  // namespace

FusedRelu fused_relu_kind(const std::string& action_type) {
  if (action_type == "Relu") return FusedRelu::kRelu;
  if (action_type == "Relu6") return FusedRelu::kRelu6;
  return FusedRelu::kNone;
}

void add_cpu(const float* a, int n, const float* b, int nb, float* out, FusedRelu act) {
  add_fused(a, n, b, nb, out, act);
}

void eltwise_add_cpu(const float* a, int n, const float* b, int nb, float* out, FusedRelu act) {
  // b is a scalar or as long as a; the cyclic loop covers both.
  add_fused(a, n, b, nb, out, act);
}

void eltwise_sub_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Minus());
}

void eltwise_div_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Divide());
}

void mul_cyclic_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Times());
}

void div_cyclic_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Divide());
}

void pow_cyclic_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Power());
}

void mul_broadcast_f32(const float* a, const float* b, float* out, const BroadcastPlan& p) {
  for (int k = 0; k < p.lead; ++k) {
    const float* pa = a + static_cast<long long>(k) * p.step_a;
    const float* pb = b + static_cast<long long>(k) * p.step_b;
    float* po = out + static_cast<long long>(k) * p.block;
    // Runs over which neither operand index wraps, each one plain loop.
    int j = 0;
    while (j < p.block) {
      const int ia = j % p.block_a, ib = j % p.block_b;
      int len = p.block - j;
      if (p.block_a > 1) len = std::min(len, p.block_a - ia);
      if (p.block_b > 1) len = std::min(len, p.block_b - ib);
      const float* x = pa + ia;
      const float* y = pb + ib;
      float* r = po + j;
      if (p.block_a == 1 && p.block_b > 1) {
        const float s = x[0];
        for (int i = 0; i < len; ++i) r[i] = s * y[i];
      } else if (p.block_b == 1 && p.block_a > 1) {
        const float s = y[0];
        for (int i = 0; i < len; ++i) r[i] = x[i] * s;
      } else {
        for (int i = 0; i < len; ++i) r[i] = x[i] * y[i];
      }
      j += len;
    }
  }
}

void max_f32(const float* a, int n, const float* b, float* out) {
  if (n > 0) binary_cyclic(a, n, b, n, out, Maximum());
}

void batch_norm_scale_f32(const float* x, int n, const float* scale, const float* bias, int channels,
                          float* out, FusedRelu act) {
  switch (act) {
    case FusedRelu::kNone:
      batch_norm_scale_rows<FusedRelu::kNone>(x, n, scale, bias, channels, out);
      break;
    case FusedRelu::kRelu:
      batch_norm_scale_rows<FusedRelu::kRelu>(x, n, scale, bias, channels, out);
      break;
    case FusedRelu::kRelu6:
      batch_norm_scale_rows<FusedRelu::kRelu6>(x, n, scale, bias, channels, out);
      break;
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
