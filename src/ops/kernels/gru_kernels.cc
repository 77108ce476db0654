#include "ops/kernels/gru_kernels.h"

#include <algorithm>
#include <cmath>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

inline float sigmoid(float v) { return 1.0f / (1.0f + std::exp(-v)); }

// out[j] = bias[j] + sum_k v[k] * m[j, k] for j < rows.
void matvec_add(const float* m, const float* v, const float* bias, int rows, int cols, float* out) {
  for (int j = 0; j < rows; ++j) {
    const float* row = m + static_cast<long long>(j) * cols;
    float acc = 0.0f;
    for (int k = 0; k < cols; ++k) acc += row[k] * v[k];
    out[j] = acc + bias[j];
  }
}

}  // namespace

// ONNX GRU (f = sigmoid, g = tanh, zero initial state):
//   z = f(x W_z^T + h R_z^T + Wb_z + Rb_z), r = f(x W_r^T + h R_r^T + Wb_r + Rb_r)
//   c = g(x W_h^T + (r * h) R_h^T + Rb_h + Wb_h)        linear_before_reset = 0
//   c = g(x W_h^T + r * (h R_h^T + Rb_h) + Wb_h)        linear_before_reset != 0
//   h' = (1 - z) * c + z * h
void gru_f32(const GruShape& s, const float* x, const float* w, const float* r, const float* bias,
             const int* seq_lens, float* y, float* y_h, float* const* middle, float* scratch) {
  const int T = s.seq_len, B = s.batch, I = s.input_size, H = s.hidden, D = s.directions;
  const long long step = static_cast<long long>(B) * H;
  std::fill(y, y + static_cast<long long>(T) * D * step, 0.0f);
  for (int m = 0; m < D * kGruMiddlePerDirection; ++m) std::fill(middle[m], middle[m] + T * step, 0.0f);
  float* h_prev = scratch;
  float* gated = scratch + H;
  float* rec_z = scratch + 2 * H;
  float* rec_r = scratch + 3 * H;
  float* rec_h = scratch + 4 * H;
  for (int d = 0; d < D; ++d) {
    const bool reverse = D == 2 ? d == 1 : s.reverse;
    const float* wd = w + static_cast<long long>(d) * 3 * H * I;
    const float* rd = r + static_cast<long long>(d) * 3 * H * H;
    const float* wb = bias + static_cast<long long>(d) * 6 * H;
    const float* rb = wb + 3 * H;
    float* const* mid = middle + d * kGruMiddlePerDirection;
    for (int b = 0; b < B; ++b) {
      const int len = seq_lens != nullptr ? seq_lens[b] : T;
      std::fill(h_prev, h_prev + H, 0.0f);
      for (int i = 0; i < len; ++i) {
        const int t = reverse ? len - 1 - i : i;
        const long long at = t * step + static_cast<long long>(b) * H;
        const float* xt = x + (static_cast<long long>(t) * B + b) * I;
        float* in_z = mid[kGruInputZ] + at;
        float* in_r = mid[kGruInputR] + at;
        float* in_h = mid[kGruInputH] + at;
        matvec_add(wd, xt, wb, H, I, in_z);
        matvec_add(wd + H * I, xt, wb + H, H, I, in_r);
        matvec_add(wd + 2 * H * I, xt, wb + 2 * H, H, I, in_h);
        matvec_add(rd, h_prev, rb, H, H, rec_z);
        matvec_add(rd + H * H, h_prev, rb + H, H, H, rec_r);
        float* z = mid[kGruGateZ] + at;
        float* g = mid[kGruGateR] + at;
        for (int j = 0; j < H; ++j) {
          z[j] = sigmoid(in_z[j] + rec_z[j]);
          g[j] = sigmoid(in_r[j] + rec_r[j]);
        }
        float* rec = mid[kGruRecurrentH] + at;
        if (s.linear_before_reset) {
          matvec_add(rd + 2 * H * H, h_prev, rb + 2 * H, H, H, rec_h);
          for (int j = 0; j < H; ++j) rec[j] = g[j] * rec_h[j];
        } else {
          for (int j = 0; j < H; ++j) gated[j] = g[j] * h_prev[j];
          matvec_add(rd + 2 * H * H, gated, rb + 2 * H, H, H, rec);
        }
        float* cand = mid[kGruCandidate] + at;
        float* hidden = mid[kGruHidden] + at;
        for (int j = 0; j < H; ++j) {
          cand[j] = std::tanh(in_h[j] + rec[j]);
          hidden[j] = (1.0f - z[j]) * cand[j] + z[j] * h_prev[j];
          h_prev[j] = hidden[j];
        }
        std::copy(hidden, hidden + H,
                  y + (static_cast<long long>(t) * D + d) * step + static_cast<long long>(b) * H);
      }
      std::copy(h_prev, h_prev + H, y_h + static_cast<long long>(d) * step + static_cast<long long>(b) * H);
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
