#ifndef KOVRAEXECUTOR_OPS_WINOGRAD_F32_IMPL_H_
#define KOVRAEXECUTOR_OPS_WINOGRAD_F32_IMPL_H_

// The F(2x2, 3x3) transforms, written once over a compiler vector type V of
// floats. Included by the portable file and each instruction-set file, each
// with a V of its own width, so every build does the same operations per
// value: a channel vector at a time, then one channel at a time. Everything
// here has internal linkage, so no file's build of it (the scalar tail
// included) can stand in for another's at link time.

#include <cstddef>
#include <cstring>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {
namespace winograd_detail {
namespace {

template <typename V>
inline V load(const float* p) {
  V v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <typename V>
inline void store(float* p, V v) {
  std::memcpy(p, &v, sizeof v);
}

// V = B^T d B, B^T = [1 0 -1 0; 0 1 1 0; 0 -1 1 0; 0 1 0 -1].
template <typename T>
inline void input_tile(const T d[16], T v[16]) {
  T t[16];
  for (int j = 0; j < 4; ++j) {
    t[0 + j] = d[0 + j] - d[8 + j];
    t[4 + j] = d[4 + j] + d[8 + j];
    t[8 + j] = d[8 + j] - d[4 + j];
    t[12 + j] = d[4 + j] - d[12 + j];
  }
  for (int i = 0; i < 4; ++i) {
    const T* r = t + i * 4;
    v[i * 4 + 0] = r[0] - r[2];
    v[i * 4 + 1] = r[1] + r[2];
    v[i * 4 + 2] = r[2] - r[1];
    v[i * 4 + 3] = r[1] - r[3];
  }
}

// Y = A^T m A + bias, A^T = [1 1 1 0; 0 1 -1 -1]; y[i * 2 + j].
template <typename T>
inline void output_tile(const T m[16], T bias, T y[4]) {
  T s[8];
  for (int j = 0; j < 4; ++j) {
    s[j] = m[0 + j] + m[4 + j] + m[8 + j];
    s[4 + j] = m[4 + j] - m[8 + j] - m[12 + j];
  }
  for (int i = 0; i < 2; ++i) {
    const T* r = s + i * 4;
    y[i * 2 + 0] = r[0] + r[1] + r[2] + bias;
    y[i * 2 + 1] = r[1] - r[2] - r[3] + bias;
  }
}

template <typename V>
inline void input_channels(const float* const taps[16], int C, float* v, size_t stride) {
  constexpr int kLanes = sizeof(V) / sizeof(float);
  int c = 0;
  for (; c + kLanes <= C; c += kLanes) {
    V d[16], r[16];
    for (int p = 0; p < 16; ++p) d[p] = load<V>(taps[p] + c);
    input_tile(d, r);
    for (int p = 0; p < 16; ++p) store(v + p * stride + c, r[p]);
  }
  for (; c < C; ++c) {
    float d[16], r[16];
    for (int p = 0; p < 16; ++p) d[p] = taps[p][c];
    input_tile(d, r);
    for (int p = 0; p < 16; ++p) v[p * stride + c] = r[p];
  }
}

template <typename V>
inline void output_channels(const float* m, size_t stride, int K, const float* bias, float* const out[4]) {
  constexpr int kLanes = sizeof(V) / sizeof(float);
  int k = 0;
  for (; k + kLanes <= K; k += kLanes) {
    V x[16], y[4];
    for (int p = 0; p < 16; ++p) x[p] = load<V>(m + p * stride + k);
    output_tile(x, load<V>(bias + k), y);
    for (int q = 0; q < 4; ++q) {
      if (out[q] != nullptr) store(out[q] + k, y[q]);
    }
  }
  for (; k < K; ++k) {
    float x[16], y[4];
    for (int p = 0; p < 16; ++p) x[p] = m[p * stride + k];
    output_tile(x, bias[k], y);
    for (int q = 0; q < 4; ++q) {
      if (out[q] != nullptr) out[q][k] = y[q];
    }
  }
}

}  // namespace
}  // namespace winograd_detail
}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_WINOGRAD_F32_IMPL_H_
