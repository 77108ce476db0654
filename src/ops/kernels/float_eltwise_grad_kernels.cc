#include "ops/kernels/float_eltwise_grad_kernels.h"

#include <algorithm>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// grad_a[i] = g[i] masked by the activation's derivative; grad_b[i mod nb]
// accumulates the same value.
void add_like_backward(const float* out, const float* grad_out, int n, int nb, FusedRelu act,
                       float* grad_a, float* grad_b) {
  if (grad_b != nullptr) std::fill(grad_b, grad_b + nb, 0.0f);
  for (int i = 0; i < n; ++i) {
    const float y = out[i];
    bool pass = true;
    if (act == FusedRelu::kRelu) pass = y > 0.0f;
    if (act == FusedRelu::kRelu6) pass = y > 0.0f && y < 6.0f;
    const float g = pass ? grad_out[i] : 0.0f;
    if (grad_a != nullptr) grad_a[i] = g;
    if (grad_b != nullptr) grad_b[nb == 1 ? 0 : i % nb] += g;
  }
}

}  // namespace

void add_backward_cpu(const float* out, const float* grad_out, int n, int nb, FusedRelu act,
                      float* grad_a, float* grad_b) {
  add_like_backward(out, grad_out, n, nb, act, grad_a, grad_b);
}

void eltwise_add_backward_cpu(const float* out, const float* grad_out, int n, int nb,
                              FusedRelu act, float* grad_a, float* grad_b) {
  // b is a scalar or as long as a; the cyclic rule covers both.
  add_like_backward(out, grad_out, n, nb, act, grad_a, grad_b);
}

void max_backward_cpu(const float* a, const float* b, const float* grad_out, int n, int nb,
                      float* grad_a, float* grad_b) {
  if (grad_b != nullptr) std::fill(grad_b, grad_b + nb, 0.0f);
  for (int i = 0; i < n; ++i) {
    const bool b_wins = a[i] < b[i];
    if (grad_a != nullptr) grad_a[i] = b_wins ? 0.0f : grad_out[i];
    if (grad_b != nullptr) grad_b[i] = b_wins ? grad_out[i] : 0.0f;
  }
}

void prelu_backward_cpu(const float* x, const float* slope, const float* grad_out, int n,
                        int channels, float* grad_x, float* grad_slope, int nslope) {
  if (grad_slope != nullptr) std::fill(grad_slope, grad_slope + nslope, 0.0f);
  for (int i = 0; i < n; ++i) {
    const int c = i % channels;
    const bool positive = x[i] >= 0.0f;
    if (grad_x != nullptr) grad_x[i] = positive ? grad_out[i] : grad_out[i] * slope[c];
    if (grad_slope != nullptr && !positive) grad_slope[c] += grad_out[i] * x[i];
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
