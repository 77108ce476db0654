#include "ops/kernels/winograd_f32.h"

#include <algorithm>
#include <cstring>

#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Floats of transformed input (and as many of products) one block may hold:
// the two together stay within the second-level cache.
constexpr int kBlockFloats = 1 << 16;
// The largest block, in tiles.
constexpr int kMaxBlock = 256;

// One 4x4 input patch of a tile: 16 pointers to in_c values each, pixels of
// the image or the padding run.
void patch_pointers(const WinogradPlan& plan, const float* input, int tile, const float* taps[16]) {
  const ConvGeometry& g = plan.g;
  const int n = tile / plan.tiles;
  const int t = tile % plan.tiles;
  const int y0 = (t / plan.tiles_w) * 2 - g.pad_top;
  const int x0 = (t % plan.tiles_w) * 2 - g.pad_left;
  const float* image = input + static_cast<size_t>(n) * g.in_h * g.in_w * g.in_c;
  for (int i = 0; i < 4; ++i) {
    const int y = y0 + i;
    for (int j = 0; j < 4; ++j) {
      const int x = x0 + j;
      const bool inside = y >= 0 && y < g.in_h && x >= 0 && x < g.in_w;
      taps[i * 4 + j] = inside ? image + (static_cast<size_t>(y) * g.in_w + x) * g.in_c : plan.pad_run.data();
    }
  }
}

// Four channels at a time in the compiler's portable vectors (SSE on any
// x86-64), one at a time for the rest: the transforms are a few additions per
// value and must not cost more than the products between them.
typedef float F4 __attribute__((vector_size(16)));

inline F4 load4(const float* p) {
  F4 v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void store4(float* p, F4 v) { std::memcpy(p, &v, sizeof v); }

// V = B^T d B, B^T = [1 0 -1 0; 0 1 1 0; 0 -1 1 0; 0 1 0 -1], on values of
// type V (F4 or float) loaded and stored by the given functions.
template <typename V, typename Load, typename Store>
inline void input_tile(Load load, Store store) {
  V d[16], t[16];
  for (int p = 0; p < 16; ++p) d[p] = load(p);
  for (int j = 0; j < 4; ++j) {
    t[0 + j] = d[0 + j] - d[8 + j];
    t[4 + j] = d[4 + j] + d[8 + j];
    t[8 + j] = d[8 + j] - d[4 + j];
    t[12 + j] = d[4 + j] - d[12 + j];
  }
  for (int i = 0; i < 4; ++i) {
    const V* r = t + i * 4;
    store(i * 4 + 0, r[0] - r[2]);
    store(i * 4 + 1, r[1] + r[2]);
    store(i * 4 + 2, r[2] - r[1]);
    store(i * 4 + 3, r[1] - r[3]);
  }
}

// Every channel of a tile; position p of the result goes to v + p * stride.
void transform_input(const float* const taps[16], int C, float* v, size_t stride) {
  int c = 0;
  for (; c + 4 <= C; c += 4) {
    input_tile<F4>([&](int p) { return load4(taps[p] + c); },
                   [&](int p, F4 x) { store4(v + p * stride + c, x); });
  }
  for (; c < C; ++c) {
    input_tile<float>([&](int p) { return taps[p][c]; }, [&](int p, float x) { v[p * stride + c] = x; });
  }
}

// Y = A^T m A + bias with A^T = [1 1 1 0; 0 1 -1 -1]; y0 and y1 are the rows.
template <typename V, typename Load>
inline void output_tile(Load load, V bias, V y[4]) {
  V s[8];
  for (int j = 0; j < 4; ++j) {
    const V m0 = load(0 + j), m1 = load(4 + j), m2 = load(8 + j), m3 = load(12 + j);
    s[j] = m0 + m1 + m2;
    s[4 + j] = m1 - m2 - m3;
  }
  for (int i = 0; i < 2; ++i) {
    const V* r = s + i * 4;
    y[i * 2 + 0] = r[0] + r[1] + r[2] + bias;
    y[i * 2 + 1] = r[1] - r[2] - r[3] + bias;
  }
}

// One tile's outputs that lie inside the image, each then activated.
void transform_output(const WinogradPlan& plan, const float* m, size_t stride, int tile, const float* bias,
                      float* output) {
  const ConvGeometry& g = plan.g;
  const int K = g.out_c;
  const int n = tile / plan.tiles;
  const int t = tile % plan.tiles;
  const int oy = (t / plan.tiles_w) * 2;
  const int ox = (t % plan.tiles_w) * 2;
  const int rows = std::min(2, g.out_h - oy);
  const int cols = std::min(2, g.out_w - ox);
  float* out[4] = {nullptr, nullptr, nullptr, nullptr};
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < cols; ++j) {
      out[i * 2 + j] = output + ((static_cast<size_t>(n) * g.out_h + oy + i) * g.out_w + ox + j) * K;
    }
  }
  int k = 0;
  for (; k + 4 <= K; k += 4) {
    F4 y[4];
    output_tile<F4>([&](int p) { return load4(m + p * stride + k); }, load4(bias + k), y);
    for (int q = 0; q < 4; ++q) {
      if (out[q] != nullptr) store4(out[q] + k, y[q]);
    }
  }
  for (; k < K; ++k) {
    float y[4];
    output_tile<float>([&](int p) { return m[p * stride + k]; }, bias[k], y);
    for (int q = 0; q < 4; ++q) {
      if (out[q] != nullptr) out[q][k] = y[q];
    }
  }
  if (g.activate == activation_null) return;
  for (float* o : out) {
    if (o != nullptr) g.activate(o, K, g.alpha);
  }
}

}  // namespace

bool winograd_f23_applies(const ConvGeometry& g) {
  if (g.kernel_h != 3 || g.kernel_w != 3 || g.stride_h != 1 || g.stride_w != 1 || g.dilation_h != 1 ||
      g.dilation_w != 1 || g.groups != 1) {
    return false;
  }
  // Few channels leave the products too short to pay for the transforms;
  // few output blocks read more transformed weights than they save.
  const long long blocks = static_cast<long long>(g.batch) * ((g.out_h + 1) / 2) * ((g.out_w + 1) / 2);
  return g.in_c >= 32 && g.out_c >= 32 && blocks >= 16;
}

void prepare_winograd_f23(const ConvGeometry& g, WinogradPlan* plan) {
  plan->g = g;
  plan->tiles_h = (g.out_h + 1) / 2;
  plan->tiles_w = (g.out_w + 1) / 2;
  plan->tiles = plan->tiles_h * plan->tiles_w;
  const int widest = std::max(g.in_c, g.out_c);
  int block = kBlockFloats / (16 * widest) / 8 * 8;
  block = std::max(8, std::min(kMaxBlock, block));
  // No block longer than the work of one thread.
  const int per_thread = (g.batch * plan->tiles + 1) / 2;
  plan->block = std::max(8, std::min(block, (per_thread + 7) / 8 * 8));
  plan->pad_run.assign(g.in_c, g.pad_value);
}

void transform_winograd_weights(const float* weight, int in_c, int out_c, uint64_t version,
                                WinogradWeights* cache) {
  if (cache->version == version && version != 0) return;
  const size_t plane = static_cast<size_t>(in_c) * out_c;
  cache->transformed.resize(16 * plane);
  float* u = cache->transformed.data();
  for (size_t ck = 0; ck < plane; ++ck) {
    float w[9], t[12];
    for (int p = 0; p < 9; ++p) w[p] = weight[p * plane + ck];
    // G g with G = [1 0 0; 1/2 1/2 1/2; 1/2 -1/2 1/2; 0 0 1], then (G g) G^T.
    for (int j = 0; j < 3; ++j) {
      t[0 + j] = w[j];
      t[3 + j] = 0.5f * (w[j] + w[3 + j] + w[6 + j]);
      t[6 + j] = 0.5f * (w[j] - w[3 + j] + w[6 + j]);
      t[9 + j] = w[6 + j];
    }
    for (int i = 0; i < 4; ++i) {
      const float* r = t + i * 3;
      u[(i * 4 + 0) * plane + ck] = r[0];
      u[(i * 4 + 1) * plane + ck] = 0.5f * (r[0] + r[1] + r[2]);
      u[(i * 4 + 2) * plane + ck] = 0.5f * (r[0] - r[1] + r[2]);
      u[(i * 4 + 3) * plane + ck] = r[2];
    }
  }
  for (int p = 0; p < 16; ++p) {
    cache->panels[p].version = 0;
    pack_panels_f32(u + p * plane, in_c, out_c, version, &cache->panels[p]);
  }
  cache->version = version;
}

void conv2d_winograd_f23(const WinogradPlan& plan, const float* input, const WinogradWeights& weights,
                         const float* bias, float* output) {
  const ConvGeometry& g = plan.g;
  const int C = g.in_c, K = g.out_c;
  const int total = g.batch * plan.tiles;
  if (total <= 0) return;
  const int T = plan.block;
  const int block_count = (total + T - 1) / T;
  const int tasks = std::min(block_count, ThreadPool::instance().num_threads());
  const size_t plane = static_cast<size_t>(C) * K;
  const long long work = 16LL * total * C * K;
  parallel_for(tasks, work, [&](int task) {
    float* v = scratch_floats(ScratchSlot::kTransformIn, static_cast<size_t>(16) * T * C);
    float* m = scratch_floats(ScratchSlot::kTransformOut, static_cast<size_t>(16) * T * K);
    GemmRowBlock rows[kMaxBlock / 8];
    for (int b = task; b < block_count; b += tasks) {
      const int first = b * T;
      const int count = std::min(T, total - first);
      for (int i = 0; i < count; ++i) {
        const float* taps[16];
        patch_pointers(plan, input, first + i, taps);
        transform_input(taps, C, v + static_cast<size_t>(i) * C, static_cast<size_t>(T) * C);
      }
      for (int p = 0; p < 16; ++p) {
        int n = 0;
        for (int r = 0; r < count; r += 8, ++n) {
          rows[n].a = v + (static_cast<size_t>(p) * T + r) * C;
          rows[n].c = m + (static_cast<size_t>(p) * T + r) * K;
          rows[n].rows = std::min(8, count - r);
        }
        gemm_f32_blocks(rows, n, C, K, weights.transformed.data() + p * plane, K, K, C, nullptr,
                        weights.panels[p].data.data());
      }
      for (int i = 0; i < count; ++i) {
        transform_output(plan, m + static_cast<size_t>(i) * K, static_cast<size_t>(T) * K, first + i, bias,
                         output);
      }
    }
  });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
