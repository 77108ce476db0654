#include "ops/kernels/conv2d_cpu.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/x86/x86_kernels.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

constexpr int kTilePixels = 8;
constexpr int kMaxWorkers = 16;
// Tiles per thread below which threads share a map's output channels rather
// than its tiles.
constexpr int kColumnSplitTiles = 4;

// Copies n floats; patches are often a few channels wide, where a library
// call would cost more than the copy.
inline void copy_floats(float* dst, const float* src, int n) {
  if (n >= 16) {
    std::memcpy(dst, src, sizeof(float) * n);
    return;
  }
  for (int i = 0; i < n; ++i) dst[i] = src[i];
}

// Gathers the patches of output pixels [first, first + rows) of one image into
// rows of kernel_h * kernel_w * in_c values; taps outside the image read
// pad_value, as the direct path does, so both paths agree on the border.
void gather_patches(const float* image, const ConvGeometry& g, int first, int rows, float* patches) {
  const int c = g.in_c;
  const int row_taps = g.kernel_w * c;
  for (int r = 0; r < rows; ++r) {
    const int pixel = first + r;
    const int oy = pixel / g.out_w, ox = pixel % g.out_w;
    float* dst = patches + static_cast<size_t>(r) * g.kernel_h * row_taps;
    const int ix0 = ox * g.stride_w - g.pad_left;
    // With unit dilation a kernel row inside the image is one contiguous run.
    const bool row_contiguous = g.dilation_w == 1 && ix0 >= 0 && ix0 + g.kernel_w <= g.in_w;
    for (int ky = 0; ky < g.kernel_h; ++ky, dst += row_taps) {
      const int iy = oy * g.stride_h + ky * g.dilation_h - g.pad_top;
      if (iy < 0 || iy >= g.in_h) {
        std::fill(dst, dst + row_taps, g.pad_value);
        continue;
      }
      const float* src_row = image + static_cast<size_t>(iy) * g.in_w * c;
      if (row_contiguous) {
        copy_floats(dst, src_row + static_cast<size_t>(ix0) * c, row_taps);
        continue;
      }
      for (int kx = 0; kx < g.kernel_w; ++kx) {
        const int ix = ix0 + kx * g.dilation_w;
        if (ix >= 0 && ix < g.in_w) {
          copy_floats(dst + kx * c, src_row + static_cast<size_t>(ix) * c, c);
        } else {
          std::fill(dst + kx * c, dst + (kx + 1) * c, g.pad_value);
        }
      }
    }
  }
}

// Points each tap of output pixels [first, first + rows) at its input pixel,
// or at `pad` (in_c copies of pad_value) outside the image: taps[t * 8 + r].
// tap_offsets[t] is kernel position t's distance in floats from the window's
// first pixel, used for windows that lie wholly inside the image.
void point_taps(const float* image, const ConvGeometry& g, int first, int rows, const float* pad,
                const ptrdiff_t* tap_offsets, const float** taps) {
  // Locals, so that the pointer stores do not force the geometry to be re-read.
  const int out_w = g.out_w, in_h = g.in_h, in_w = g.in_w, in_c = g.in_c;
  const int kernel_h = g.kernel_h, kernel_w = g.kernel_w;
  const int stride_h = g.stride_h, stride_w = g.stride_w, dilation_h = g.dilation_h,
            dilation_w = g.dilation_w;
  const size_t row_floats = static_cast<size_t>(in_w) * in_c;
  for (int r = 0; r < rows; ++r) {
    const int pixel = first + r;
    const int oy = pixel / out_w, ox = pixel - (pixel / out_w) * out_w;
    const int iy0 = oy * stride_h - g.pad_top, ix0 = ox * stride_w - g.pad_left;
    const float** out = taps + r;
    if (iy0 >= 0 && iy0 + (kernel_h - 1) * dilation_h < in_h && ix0 >= 0 &&
        ix0 + (kernel_w - 1) * dilation_w < in_w) {
      const float* base = image + iy0 * row_floats + static_cast<size_t>(ix0) * in_c;
      for (int t = 0; t < kernel_h * kernel_w; ++t) out[t * 8] = base + tap_offsets[t];
      continue;
    }
    for (int ky = 0; ky < kernel_h; ++ky) {
      const int iy = iy0 + ky * dilation_h;
      if (iy < 0 || iy >= in_h) {
        for (int kx = 0; kx < kernel_w; ++kx, out += 8) *out = pad;
        continue;
      }
      const float* row = image + iy * row_floats;
      for (int kx = 0, ix = ix0; kx < kernel_w; ++kx, ix += dilation_w, out += 8) {
        *out = ix >= 0 && ix < in_w ? row + static_cast<size_t>(ix) * in_c : pad;
      }
    }
  }
}

// The activation over rows of N outputs (the product kernel added the bias;
// the multiplier of this path is 1, which changes no value).
void activate_rows(float* out, int rows, int ld, int cols, const ConvGeometry& g) {
  for (int r = 0; r < rows; ++r) g.activate(out + static_cast<size_t>(r) * ld, cols, g.alpha);
}

// A 1x1 kernel with unit strides and no padding reads each pixel's channels
// as its patch, straight from the input.
bool patches_are_input_rows(const ConvGeometry& g) {
  return g.kernel_h == 1 && g.kernel_w == 1 && g.stride_h == 1 && g.stride_w == 1 && g.pad_top == 0 &&
         g.pad_left == 0 && g.out_h == g.in_h && g.out_w == g.in_w;
}

constexpr int kMaxGroup = 32;

// Walks the tiles of one pool task: logical workers t = task, task + tasks,
// ... below T, each taking tiles t, t + T, ... Every output is computed the
// same way whichever task or group holds it.
struct TileCursor {
  int t, tile, tasks, T, tiles;
  TileCursor(int task, int task_count, int workers, int tile_count)
      : t(task), tile(task), tasks(task_count), T(workers), tiles(tile_count) {
    _settle();
  }
  bool done() const { return t >= T; }
  void next() {
    tile += T;
    _settle();
  }
  void _settle() {
    while (t < T && tile >= tiles) {
      t += tasks;
      tile = t;
    }
  }
};

int tiles_of_task(int task, int tasks, int T, int tiles) {
  int n = 0;
  for (int t = task; t < T; t += tasks) n += (tiles - t + T - 1) / T;
  return n;
}

// Rows given through tap pointers instead of a gathered matrix.
struct IndirectRowBlock {
  const float* const* taps;
  float* c;
  int rows;
};

// The indirect product over blocks of tap pointers: whole kernel positions
// per pass, about kGemmReductionBlock reduction steps, against B's panels.
void gemm_f32_indirect(ConvIndirectTileFn tile, const IndirectRowBlock* blocks, int block_count,
                       int tap_count, int C, int ldc, const float* B, int ldb, int N, const float* bias,
                       const float* packed) {
  if (block_count <= 0 || N <= 0 || tap_count <= 0 || C <= 0) return;
  const int K = tap_count * C;
  const int panels = (N + kGemmPanelWidth - 1) / kGemmPanelWidth;
  const int taps_per_pass = std::max(1, kGemmReductionBlock / C);
  float* scratch = packed == nullptr
                       ? scratch_floats(ScratchSlot::kWeightPanel,
                                        static_cast<size_t>(taps_per_pass) * C * kGemmPanelWidth * panels)
                       : nullptr;
  for (int t0 = 0; t0 < tap_count; t0 += taps_per_pass) {
    const int taps = std::min(taps_per_pass, tap_count - t0);
    const int k0 = t0 * C, kc = taps * C;
    const bool accumulate = t0 > 0;
    const bool last = t0 + taps == tap_count;
    if (packed == nullptr) {
      for (int k = 0; k < kc; ++k) {
        const float* row = B + static_cast<long long>(k0 + k) * ldb;
        for (int p = 0; p < panels; ++p) {
          const int cols = std::min(kGemmPanelWidth, N - p * kGemmPanelWidth);
          std::memcpy(scratch + (static_cast<size_t>(p) * kc + k) * kGemmPanelWidth,
                      row + p * kGemmPanelWidth, sizeof(float) * cols);
        }
      }
    }
    for (int p = 0; p < panels; ++p) {
      const int n0 = p * kGemmPanelWidth;
      const int cols = std::min(kGemmPanelWidth, N - n0);
      const float* b = packed != nullptr ? packed + (static_cast<size_t>(p) * K + k0) * kGemmPanelWidth
                                         : scratch + static_cast<size_t>(p) * kc * kGemmPanelWidth;
      for (int i = 0; i < block_count; ++i) {
        tile(blocks[i].taps + static_cast<size_t>(t0) * 8, taps, C, b, kGemmPanelWidth, blocks[i].c + n0, ldc,
             blocks[i].rows, cols, accumulate, last && bias ? bias + n0 : nullptr);
      }
    }
  }
}

const ConvF32TileKernels kTileVariants[] = {
    {KernelIsa::kPortable, "gather_patches", nullptr},
    {KernelIsa::kAvx512, "conv_f32_8x32_indirect_avx512", conv_f32_8x32_indirect_avx512},
};

}  // namespace

void conv2d_cpu(const float* input, const float* weight, const float* bias, float* output,
                const ConvGeometry& g) {
  const int out_per_group = g.out_c / g.groups;
  const int in_per_group = g.in_c / g.groups;
  for (int b = 0; b < g.batch; ++b) {
    const float* image = input + static_cast<size_t>(b) * g.in_h * g.in_w * g.in_c;
    for (int oy = 0; oy < g.out_h; ++oy) {
      for (int ox = 0; ox < g.out_w; ++ox) {
        float* out = output + ((static_cast<size_t>(b) * g.out_h + oy) * g.out_w + ox) * g.out_c;
        for (int o = 0; o < g.out_c; ++o) {
          const int group = o / out_per_group;
          float sum = 0.0f;
          for (int ky = 0; ky < g.kernel_h; ++ky) {
            const int iy = oy * g.stride_h + ky * g.dilation_h - g.pad_top;
            for (int kx = 0; kx < g.kernel_w; ++kx) {
              const int ix = ox * g.stride_w + kx * g.dilation_w - g.pad_left;
              const bool inside = iy >= 0 && iy < g.in_h && ix >= 0 && ix < g.in_w;
              const float* pixel =
                  inside ? image + (static_cast<size_t>(iy) * g.in_w + ix) * g.in_c + group * in_per_group
                         : nullptr;
              const float* w =
                  weight + (static_cast<size_t>(ky * g.kernel_w + kx) * in_per_group) * g.out_c + o;
              for (int c = 0; c < in_per_group; ++c) {
                const float value = inside ? pixel[c] : g.pad_value;
                sum += value * w[static_cast<size_t>(c) * g.out_c];
              }
            }
          }
          out[o] = sum + bias[o];
        }
        g.activate(out, g.out_c, g.alpha);
      }
    }
  }
}

void gemm_float(float* C, const float* A, const float* B, const float* bias, int inner, int N, int M,
                int outer, ActivationFn activate, float alpha, int multiplier) {
  const int K = outer * inner;
  const int vector_end = N - N % 8;
  for (int r = 0; r < M; ++r) {
    float* row = C + static_cast<size_t>(r) * N;
    const float* a_row = A + static_cast<size_t>(r) * K;
    std::fill(row, row + N, 0.0f);
    for (int o = 0; o < outer; ++o) {
      for (int i = 0; i < inner; ++i) {
        const int k = o * inner + i;
        const float a = a_row[k];
        const float* b = B + static_cast<size_t>(k) * N;
        for (int n = 0; n < vector_end; n += 8) {
          for (int j = 0; j < 8; ++j) row[n + j] += a * b[n + j];
        }
        for (int n = vector_end; n < N; ++n) row[n] += a * b[n];
      }
    }
    for (int n = 0; n < N; ++n) row[n] = row[n] * static_cast<float>(multiplier) + bias[n];
    if (activate != nullptr) activate(row, N, alpha);
  }
}

const KernelTable<ConvF32TileKernels>& conv_f32_tile_kernels() {
  static const KernelTable<ConvF32TileKernels> table(kTileVariants);
  return table;
}

// Output pixels from which a resident copy of the packed weights pays: below,
// the per-call packing costs about as much as reading panels from memory.
constexpr int kMinPixelsForPanels = 64;

void prepare_conv_tiles(const ConvGeometry& g, ConvTilePlan* plan) {
  plan->g = g;
  plan->pixels = g.out_h * g.out_w;
  plan->tiles = (plan->pixels + kTilePixels - 1) / kTilePixels;
  plan->workers = std::min(kMaxWorkers, plan->tiles);
  plan->K = g.kernel_h * g.kernel_w * g.in_c;
  // Up to 32 tiles, within about 4 MiB of gathered patches.
  plan->group = std::max(1, std::min(kMaxGroup, static_cast<int>((4 << 20) / (sizeof(float) * kTilePixels *
                                                                              std::max(plan->K, 1)))));
  plan->direct_rows = patches_are_input_rows(g);
  plan->keep_panels = plan->pixels >= kMinPixelsForPanels;
  plan->tap_offsets.clear();
  for (int ky = 0; ky < g.kernel_h; ++ky)
    for (int kx = 0; kx < g.kernel_w; ++kx)
      plan->tap_offsets.push_back(
          (static_cast<ptrdiff_t>(ky) * g.dilation_h * g.in_w + static_cast<ptrdiff_t>(kx) * g.dilation_w) *
          g.in_c);
  plan->pad_run.assign(g.in_c, g.pad_value);
}

void* computeConv_tiled(void* arg) {
  const ConvThreadArg& thread = *static_cast<const ConvThreadArg*>(arg);
  const AVXFloatConvParam& p = *thread.shared;
  const ConvTilePlan& plan = *p.plan;
  const ConvGeometry& g = plan.g;
  const int pixels = plan.pixels, K = plan.K, N = g.out_c;
  // The columns this task computes; panels start at multiples of 32.
  const int n0 = thread.n0, cols = (thread.n1 > 0 ? thread.n1 : N) - n0;
  const float* packed = p.packed != nullptr ? p.packed + static_cast<size_t>(n0) * K : nullptr;
  const float* bias = p.bias != nullptr ? p.bias + n0 : nullptr;
  const int taps_per_pixel = g.kernel_h * g.kernel_w;
  const ConvIndirectTileFn indirect = plan.direct_rows ? nullptr : conv_f32_tile_kernels()->indirect;
  const int own = tiles_of_task(thread.index, thread.count, plan.workers, plan.tiles);
  const int group = std::min(plan.group, std::max(own, 1));
  float* patches = plan.direct_rows || indirect != nullptr
                       ? nullptr
                       : scratch_floats(ScratchSlot::kPatches, static_cast<size_t>(group) * kTilePixels * K);
  const float** tap_pointers =
      indirect != nullptr ? static_cast<const float**>(scratch_bytes(
                                ScratchSlot::kTaps, sizeof(const float*) * static_cast<size_t>(group) *
                                                        kTilePixels * taps_per_pixel))
                          : nullptr;
  GemmRowBlock blocks[kMaxGroup];
  IndirectRowBlock indirect_blocks[kMaxGroup];
  for (int b = 0; b < g.batch; ++b) {
    const float* image = p.input + static_cast<size_t>(b) * g.in_h * g.in_w * g.in_c;
    float* out_image = p.output + static_cast<size_t>(b) * pixels * N;
    TileCursor cursor(thread.index, thread.count, plan.workers, plan.tiles);
    while (!cursor.done()) {
      int n = 0;
      for (; n < group && !cursor.done(); ++n, cursor.next()) {
        const int first = cursor.tile * kTilePixels;
        const int rows = std::min(kTilePixels, pixels - first);
        float* c = out_image + static_cast<size_t>(first) * N + n0;
        if (indirect != nullptr) {
          const float** taps = tap_pointers + static_cast<size_t>(n) * kTilePixels * taps_per_pixel;
          point_taps(image, g, first, rows, plan.pad_run.data(), plan.tap_offsets.data(), taps);
          indirect_blocks[n] = {taps, c, rows};
        } else if (plan.direct_rows) {
          blocks[n] = {image + static_cast<size_t>(first) * g.in_c, c, rows};
        } else {
          float* slot = patches + static_cast<size_t>(n) * kTilePixels * K;
          gather_patches(image, g, first, rows, slot);
          blocks[n] = {slot, c, rows};
        }
      }
      if (indirect != nullptr) {
        gemm_f32_indirect(indirect, indirect_blocks, n, taps_per_pixel, g.in_c, N, p.weight + n0, N, cols,
                          bias, packed);
      } else {
        gemm_f32_blocks(blocks, n, K, N, p.weight + n0, N, cols, K, bias, packed);
      }
      if (g.activate != activation_null) {
        for (int i = 0; i < n; ++i) {
          activate_rows(indirect != nullptr ? indirect_blocks[i].c : blocks[i].c,
                        indirect != nullptr ? indirect_blocks[i].rows : blocks[i].rows, N, cols, g);
        }
      }
    }
  }
  return nullptr;
}

void conv2d_avx_cpu(const ConvTilePlan& plan, const float* input, const float* weight, const float* packed,
                    const float* bias, float* output) {
  if (plan.pixels <= 0 || plan.g.batch <= 0) return;
  AVXFloatConvParam shared;
  shared.geometry = plan.g;
  shared.plan = &plan;
  shared.input = input;
  shared.weight = weight;
  shared.packed = packed;
  shared.bias = bias;
  shared.output = output;
  ThreadPool& pool = ThreadPool::instance();
  const int threads = pool.num_threads();
  const int panels = (plan.g.out_c + kGemmPanelWidth - 1) / kGemmPanelWidth;
  // A map of few tiles would leave threads idle or make each read every
  // weight: its threads share the output channels instead, a run of whole
  // panels each, so each reads only its part of the weights.
  const bool by_columns = threads > 1 && plan.tiles < 2 * threads * kColumnSplitTiles && panels >= threads;
  const int tasks = by_columns ? threads : plan.workers <= 1 ? 1 : std::min(plan.workers, threads);
  if (tasks <= 1) {
    ConvThreadArg arg{0, 1, &shared};
    computeConv_tiled(&arg);
    return;
  }
  struct Job {
    const AVXFloatConvParam* shared;
    int tasks, panels;
    bool by_columns;
  } job{&shared, tasks, panels, by_columns};
  // One pointer captured: the task fits std::function's own storage.
  const Job* j = &job;
  pool.run(tasks, [j](int task) {
    ConvThreadArg arg{task, j->tasks, j->shared};
    if (j->by_columns) {
      arg.index = 0, arg.count = 1;
      arg.n0 = j->panels * task / j->tasks * kGemmPanelWidth;
      arg.n1 = std::min(j->shared->geometry.out_c, j->panels * (task + 1) / j->tasks * kGemmPanelWidth);
    }
    computeConv_tiled(&arg);
  });
}

void conv2d_avx_cpu(const float* input, const float* weight, const float* bias, float* output,
                    const ConvGeometry& g) {
  ConvTilePlan plan;
  prepare_conv_tiles(g, &plan);
  conv2d_avx_cpu(plan, input, weight, nullptr, bias, output);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
