#include "ops/kernels/winograd_f32.h"

#include <algorithm>

#include "ops/kernels/winograd_f32_impl.h"
#include "ops/kernels/x86/x86_kernels.h"
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

// One tile's outputs that lie inside the image, each then activated.
void transform_output(const WinogradF32Kernels& kernels, const WinogradPlan& plan, const float* m,
                      size_t stride, int tile, const float* bias, float* output) {
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
  kernels.output(m, stride, K, bias, out);
  if (g.activate == activation_null) return;
  for (float* o : out) {
    if (o != nullptr) g.activate(o, K, g.alpha);
  }
}

const WinogradF32Kernels kVariants[] = {
    {KernelIsa::kPortable, "winograd_f23_f32_x4_portable", winograd_f23_input_f32_x4_portable,
     winograd_f23_output_f32_x4_portable},
    {KernelIsa::kAvx2, "winograd_f23_f32_x8_avx2", winograd_f23_input_f32_x8_avx2,
     winograd_f23_output_f32_x8_avx2},
    {KernelIsa::kAvx512, "winograd_f23_f32_x16_avx512", winograd_f23_input_f32_x16_avx512,
     winograd_f23_output_f32_x16_avx512},
};

}  // namespace

const KernelTable<WinogradF32Kernels>& winograd_f32_kernels() {
  static const KernelTable<WinogradF32Kernels> table(kVariants);
  return table;
}

// Four channels at a time in the compiler's portable vectors (SSE on any
// x86-64); the wider variants do the same operations on more channels.
namespace {
typedef float F4 __attribute__((vector_size(16)));
}  // namespace

void winograd_f23_input_f32_x4_portable(const float* const taps[16], int C, float* v, size_t stride) {
  winograd_detail::input_channels<F4>(taps, C, v, stride);
}

void winograd_f23_output_f32_x4_portable(const float* m, size_t stride, int K, const float* bias,
                                         float* const out[4]) {
  winograd_detail::output_channels<F4>(m, stride, K, bias, out);
}

bool winograd_f23_applies(const ConvGeometry& g) {
  if (g.kernel_h != 3 || g.kernel_w != 3 || g.stride_h != 1 || g.stride_w != 1 || g.dilation_h != 1 ||
      g.dilation_w != 1 || g.groups != 1) {
    return false;
  }
  // Few channels leave the products too short to pay for the transforms;
  // few output blocks read more transformed weights than they save.
  const long long blocks = static_cast<long long>(g.batch) * ((g.out_h + 1) / 2) * ((g.out_w + 1) / 2);
  return g.in_c >= 32 && g.out_c >= 32 && blocks >= 32;
}

void prepare_winograd_f23(const ConvGeometry& g, WinogradPlan* plan) {
  plan->g = g;
  plan->tiles_h = (g.out_h + 1) / 2;
  plan->tiles_w = (g.out_w + 1) / 2;
  plan->tiles = plan->tiles_h * plan->tiles_w;
  const int widest = std::max(g.in_c, g.out_c);
  plan->block = std::max(8, std::min(kMaxBlock, kBlockFloats / (16 * widest) / 8 * 8));
  plan->pad_run.assign(g.in_c, g.pad_value);
}

void transform_winograd_weights(const float* weight, int in_c, int out_c, uint64_t version,
                                WinogradWeights* cache) {
  if (cache->version == version && version != 0) return;
  const size_t plane = static_cast<size_t>(in_c) * out_c;
  // One transform position at a time, so that besides the panels only one
  // in_c x out_c matrix is ever held.
  std::vector<float> u(plane);
  for (int p = 0; p < 16; ++p) {
    const int i = p / 4, q = p % 4;
    for (size_t ck = 0; ck < plane; ++ck) {
      // Row i of G g, G = [1 0 0; 1/2 1/2 1/2; 1/2 -1/2 1/2; 0 0 1], then
      // column q of (G g) G^T.
      float r[3];
      for (int j = 0; j < 3; ++j) {
        const float w0 = weight[j * plane + ck], w1 = weight[(3 + j) * plane + ck],
                    w2 = weight[(6 + j) * plane + ck];
        r[j] = i == 0 ? w0 : i == 1 ? 0.5f * (w0 + w1 + w2) : i == 2 ? 0.5f * (w0 - w1 + w2) : w2;
      }
      u[ck] = q == 0   ? r[0]
              : q == 1 ? 0.5f * (r[0] + r[1] + r[2])
              : q == 2 ? 0.5f * (r[0] - r[1] + r[2])
                       : r[2];
    }
    cache->panels[p].version = 0;
    pack_panels_f32(u.data(), in_c, out_c, version, &cache->panels[p]);
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
  // Each thread takes an equal run of tiles (cut at multiples of 8, the
  // product's row block) and works through it a block at a time.
  const int tasks = std::max(1, std::min(ThreadPool::instance().num_threads(), total / 8));
  const long long work = 16LL * total * C * K;
  const WinogradF32Kernels& kernels = winograd_f32_kernels().get();
  parallel_for(tasks, work, [&](int task) {
    float* v = scratch_floats(ScratchSlot::kTransformIn, static_cast<size_t>(16) * T * C);
    float* m = scratch_floats(ScratchSlot::kTransformOut, static_cast<size_t>(16) * T * K);
    GemmRowBlock rows[kMaxBlock / 8];
    const auto cut = [&](int i) {
      return i == tasks ? total : static_cast<int>(8LL * (total / 8) * i / tasks) / 8 * 8;
    };
    const int end = cut(task + 1);
    for (int first = cut(task); first < end; first += T) {
      const int count = std::min(T, end - first);
      for (int i = 0; i < count; ++i) {
        const float* taps[16];
        patch_pointers(plan, input, first + i, taps);
        kernels.input(taps, C, v + static_cast<size_t>(i) * C, static_cast<size_t>(T) * C);
      }
      for (int p = 0; p < 16; ++p) {
        int n = 0;
        for (int r = 0; r < count; r += 8, ++n) {
          rows[n].a = v + (static_cast<size_t>(p) * T + r) * C;
          rows[n].c = m + (static_cast<size_t>(p) * T + r) * K;
          rows[n].rows = std::min(8, count - r);
        }
        gemm_f32_blocks(rows, n, C, K, nullptr, K, K, C, nullptr, weights.panels[p].data.data());
      }
      for (int i = 0; i < count; ++i) {
        transform_output(kernels, plan, m + static_cast<size_t>(i) * K, static_cast<size_t>(T) * K, first + i,
                         bias, output);
      }
    }
  });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
