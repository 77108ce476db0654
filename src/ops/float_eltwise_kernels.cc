#include "ops/float_eltwise_kernels.h"

#include <algorithm>
#include <cmath>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Elements per tile: the fused activation runs on a tile while it is still in
// the first-level cache.
constexpr int kTile = 4096;

// out[i] = f(a[i], b[i mod nb]) tile by tile. The inner loops run over runs of
// b without a modulo, so they vectorise; nb == 1 gets its own scalar loop.
template <typename F>
inline void binary_cyclic(const float* a, int n, const float* b, int nb, float* out, F f,
                          ActivationFn act) {
  for (int start = 0; start < n; start += kTile) {
    const int len = std::min(kTile, n - start);
    const float* pa = a + start;
    float* po = out + start;
    if (nb == 1) {
      const float b0 = b[0];
      for (int i = 0; i < len; ++i) po[i] = f(pa[i], b0);
    } else {
      int j = start % nb;
      for (int i = 0; i < len;) {
        const int run = std::min(nb - j, len - i);
        const float* pb = b + j;
        for (int k = 0; k < run; ++k) po[i + k] = f(pa[i + k], pb[k]);
        i += run;
        j = 0;
      }
    }
    if (act != nullptr) act(po, len, 0.0f);
  }
}

struct Plus {
  float operator()(float x, float y) const { return x + y; }
};
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

ActivationFn fused_or_none(ActivationFn act) { return act == activation_null ? nullptr : act; }

}  // namespace

void add_cpu(const float* a, int n, const float* b, int nb, float* out, ActivationFn act) {
  binary_cyclic(a, n, b, nb, out, Plus(), fused_or_none(act));
}

void eltwise_add_cpu(const float* a, int n, const float* b, int nb, float* out, ActivationFn act) {
  binary_cyclic(a, n, b, nb, out, Plus(), fused_or_none(act));
}

void eltwise_sub_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Minus(), nullptr);
}

void eltwise_div_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Divide(), nullptr);
}

void mul_cyclic_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Times(), nullptr);
}

void div_cyclic_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Divide(), nullptr);
}

void pow_cyclic_f32(const float* a, int n, const float* b, int nb, float* out) {
  binary_cyclic(a, n, b, nb, out, Power(), nullptr);
}

void max_f32(const float* a, int n, const float* b, float* out) {
  binary_cyclic(a, n, b, std::max(n, 1), out, Maximum(), nullptr);
}

void batch_norm_scale_f32(const float* x, int n, const float* scale, const float* bias,
                          int channels, float* out, ActivationFn act) {
  for (int start = 0; start < n; start += channels) {
    const int len = std::min(channels, n - start);
    const float* px = x + start;
    float* po = out + start;
    for (int c = 0; c < len; ++c) po[c] = px[c] * scale[c] + bias[c];
  }
  if (act != activation_null) act(out, n, 0.0f);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
