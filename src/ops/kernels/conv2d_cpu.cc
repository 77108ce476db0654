#include "ops/kernels/conv2d_cpu.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "ops/kernels/avx_common.h"
#include "ops/kernels/gemm_f32.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

constexpr int kTilePixels = 8;
constexpr int kMaxWorkers = 16;

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
  const int stride_h = g.stride_h, stride_w = g.stride_w, dilation_h = g.dilation_h, dilation_w = g.dilation_w;
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
void activate_rows(float* out, int rows, int N, const ConvGeometry& g) {
  for (int r = 0; r < rows; ++r) g.activate(out + static_cast<size_t>(r) * N, N, g.alpha);
}

// A 1x1 kernel with unit strides and no padding reads each pixel's channels
// as its patch, straight from the input.
bool patches_are_input_rows(const ConvGeometry& g) {
  return g.kernel_h == 1 && g.kernel_w == 1 && g.stride_h == 1 && g.stride_w == 1 &&
         g.pad_top == 0 && g.pad_left == 0 && g.out_h == g.in_h && g.out_w == g.in_w;
}

// One pool task of the vector path. Logical worker t owns tiles t, t + T, ...
// of every image; a task runs the workers t = task, task + tasks, ... and
// multiplies their tiles a group at a time, so each slice of the weights is
// loaded once per group while it sits in cache. Every output is computed the
// same way whichever task or group holds it.
void conv_task_vector(const AVXFloatConvParam& p, int task, int tasks, int T, KernelIsa isa) {
  const ConvGeometry& g = p.geometry;
  const int pixels = g.out_h * g.out_w;
  const int tiles = (pixels + kTilePixels - 1) / kTilePixels;
  const int K = g.kernel_h * g.kernel_w * g.in_c;
  const int N = g.out_c;
  const bool direct_rows = patches_are_input_rows(g);
  // AVX-512 reads patches in place through pointers instead of gathering.
  const bool indirect = !direct_rows && isa == KernelIsa::kAvx512;
  // Up to 32 tiles, within about 4 MiB of gathered patches.
  const int group = std::max(1, std::min(32, static_cast<int>((4 << 20) / (sizeof(float) * kTilePixels * K))));
  std::vector<int> own_tiles;
  for (int t = task; t < T; t += tasks)
    for (int tile = t; tile < tiles; tile += T) own_tiles.push_back(tile);
  const int taps_per_pixel = g.kernel_h * g.kernel_w;
  float* patches = direct_rows || indirect
                       ? nullptr
                       : scratch_floats(ScratchSlot::kPatches,
                                        std::min<size_t>(group, own_tiles.size()) * kTilePixels * K);
  thread_local std::vector<const float*> tap_pointers;
  thread_local std::vector<float> pad_run;
  std::vector<ptrdiff_t> tap_offsets;
  for (int ky = 0; ky < g.kernel_h; ++ky)
    for (int kx = 0; kx < g.kernel_w; ++kx)
      tap_offsets.push_back((static_cast<ptrdiff_t>(ky) * g.dilation_h * g.in_w + static_cast<ptrdiff_t>(kx) * g.dilation_w) *
                            g.in_c);
  std::vector<IndirectRowBlock> indirect_blocks;
  if (indirect) {
    tap_pointers.resize(static_cast<size_t>(group) * kTilePixels * taps_per_pixel);
    pad_run.assign(g.in_c, g.pad_value);
  }
  std::vector<GemmRowBlock> blocks;
  for (int b = 0; b < g.batch; ++b) {
    const float* image = p.input + static_cast<size_t>(b) * g.in_h * g.in_w * g.in_c;
    float* out_image = p.output + static_cast<size_t>(b) * pixels * N;
    for (size_t i = 0; i < own_tiles.size() && indirect;) {
      indirect_blocks.clear();
      for (; i < own_tiles.size() && static_cast<int>(indirect_blocks.size()) < group; ++i) {
        const int first = own_tiles[i] * kTilePixels;
        const int rows = std::min(kTilePixels, pixels - first);
        const float** taps = tap_pointers.data() + indirect_blocks.size() * kTilePixels * taps_per_pixel;
        point_taps(image, g, first, rows, pad_run.data(), tap_offsets.data(), taps);
        indirect_blocks.push_back({taps, out_image + static_cast<size_t>(first) * N, rows});
      }
      gemm_f32_indirect(indirect_blocks.data(), static_cast<int>(indirect_blocks.size()), taps_per_pixel, g.in_c, N,
                        p.weight, N, p.bias);
      if (g.activate != activation_null) {
        for (const IndirectRowBlock& blk : indirect_blocks) activate_rows(blk.c, blk.rows, N, g);
      }
    }
    for (size_t i = 0; i < own_tiles.size() && !indirect;) {
      blocks.clear();
      for (; i < own_tiles.size() && static_cast<int>(blocks.size()) < group; ++i) {
        const int first = own_tiles[i] * kTilePixels;
        const int rows = std::min(kTilePixels, pixels - first);
        const float* a;
        if (direct_rows) {
          a = image + static_cast<size_t>(first) * g.in_c;
        } else {
          float* slot = patches + blocks.size() * kTilePixels * static_cast<size_t>(K);
          gather_patches(image, g, first, rows, slot);
          a = slot;
        }
        blocks.push_back({a, out_image + static_cast<size_t>(first) * N, rows});
      }
      gemm_f32_blocks(blocks.data(), static_cast<int>(blocks.size()), K, N, p.weight, N, N, K, p.bias, isa);
      if (g.activate != activation_null) {
        for (const GemmRowBlock& blk : blocks) activate_rows(blk.c, blk.rows, N, g);
      }
    }
  }
}

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
              const float* w = weight + (static_cast<size_t>(ky * g.kernel_w + kx) * in_per_group) * g.out_c + o;
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

void gemm_float(float* C, const float* A, const float* B, const float* bias, int inner, int N,
                int M, int outer, ActivationFn activate, float alpha, int multiplier) {
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

void* computeConv_tiled(void* arg) {
  const ConvThreadArg* thread = static_cast<const ConvThreadArg*>(arg);
  const AVXFloatConvParam& p = *thread->shared;
  const ConvGeometry& g = p.geometry;
  const int pixels = g.out_h * g.out_w;
  const int tiles = (pixels + kTilePixels - 1) / kTilePixels;
  const int K = g.kernel_h * g.kernel_w * g.in_c;
  float* patches = p.patches + static_cast<size_t>(thread->index) * kTilePixels * K;
  for (int b = 0; b < g.batch; ++b) {
    const float* image = p.input + static_cast<size_t>(b) * g.in_h * g.in_w * g.in_c;
    float* out_image = p.output + static_cast<size_t>(b) * pixels * g.out_c;
    for (int tile = thread->index; tile < tiles; tile += thread->count) {
      const int first = tile * kTilePixels;
      const int rows = std::min(kTilePixels, pixels - first);
      gather_patches(image, g, first, rows, patches);
      gemm_float(out_image + static_cast<size_t>(first) * g.out_c, patches, p.weight, p.bias, g.in_c,
                 g.out_c, rows, g.kernel_h * g.kernel_w, g.activate, g.alpha, 1);
    }
  }
  return nullptr;
}

void conv2d_avx_cpu(const float* input, const float* weight, const float* bias, float* output,
                    const ConvGeometry& g) {
  const int pixels = g.out_h * g.out_w;
  if (pixels <= 0 || g.batch <= 0) return;
  const int tiles = (pixels + kTilePixels - 1) / kTilePixels;
  const int workers = std::min(kMaxWorkers, tiles);
  AVXFloatConvParam shared;
  shared.geometry = g;
  shared.input = input;
  shared.weight = weight;
  shared.bias = bias;
  shared.output = output;
  const KernelIsa isa = active_isa();
  if (isa != KernelIsa::kPortable) {
    const int tasks = std::min(workers, ThreadPool::instance().num_threads());
    ThreadPool::instance().run(tasks, [&](int task) { conv_task_vector(shared, task, tasks, workers, isa); });
    return;
  }
  // Room for the patches of 16 tiles of 8 pixels, one slice per worker.
  std::vector<float> patches(static_cast<size_t>(kMaxWorkers) * kTilePixels * g.kernel_h * g.kernel_w *
                             g.in_c);
  shared.patches = patches.data();
  std::vector<ConvThreadArg> args(workers);
  for (int t = 0; t < workers; ++t) args[t] = {t, workers, &shared};
  ThreadPool::instance().run(workers, [&](int t) { computeConv_tiled(&args[t]); });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
