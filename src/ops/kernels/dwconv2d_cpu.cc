#include "ops/kernels/dwconv2d_cpu.h"

#include <cstddef>

#include "ops/kernels/x86/x86_kernels.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
const DwconvF32Kernels kVariants[] = {
    {KernelIsa::kPortable, "dwconv_row_f32_portable", dwconv_row_f32_portable},
    {KernelIsa::kAvx2, "dwconv_row_f32_4x8_avx2", dwconv_row_f32_4x8_avx2},
    {KernelIsa::kAvx512, "dwconv_row_f32_8x16_avx512", dwconv_row_f32_8x16_avx512},
};
}  // namespace

const KernelTable<DwconvF32Kernels>& dwconv_f32_row_kernels() {
  static const KernelTable<DwconvF32Kernels> table(kVariants);
  return table;
}

void dwconv_row_f32_portable(const float* image, const float* weight, const float* bias, float* out,
                             const ConvGeometry& g, int oy) {
  const int multiplier = g.out_c / g.in_c;
  for (int ox = 0; ox < g.out_w; ++ox, out += g.out_c) {
    for (int oc = 0; oc < g.out_c; ++oc) {
      const int c = oc / multiplier;
      float sum = 0.0f;
      for (int ky = 0; ky < g.kernel_h; ++ky) {
        const int iy = oy * g.stride_h + ky * g.dilation_h - g.pad_top;
        for (int kx = 0; kx < g.kernel_w; ++kx) {
          const int ix = ox * g.stride_w + kx * g.dilation_w - g.pad_left;
          const bool inside = iy >= 0 && iy < g.in_h && ix >= 0 && ix < g.in_w;
          const float value = inside ? image[(static_cast<size_t>(iy) * g.in_w + ix) * g.in_c + c] : g.pad_value;
          sum += value * weight[static_cast<size_t>(ky * g.kernel_w + kx) * g.out_c + oc];
        }
      }
      out[oc] = sum + bias[oc];
    }
  }
}

void dwconv_activate(float* row, int count, const ConvGeometry& g) {
  if (!g.clip) {
    g.activate(row, count, g.alpha);
    return;
  }
  for (int i = 0; i < count; ++i) {
    const float upper = row[i] < g.clip_max ? row[i] : g.clip_max;
    row[i] = upper > g.clip_min ? upper : g.clip_min;
  }
}

void dwconv2d_cpu(const float* input, const float* weight, const float* bias, float* output,
                  const ConvGeometry& g) {
  // The vector rows take one filter per channel; other multipliers run the portable row.
  const DwconvRowFn row = g.out_c == g.in_c ? dwconv_f32_row_kernels()->row : dwconv_row_f32_portable;
  const size_t row_size = static_cast<size_t>(g.out_w) * g.out_c;
  const int rows = g.batch * g.out_h;
  // Output rows are independent tasks.
  parallel_for(rows, static_cast<long long>(rows) * row_size * g.kernel_h * g.kernel_w, [&](int r) {
    const int b = r / g.out_h, oy = r % g.out_h;
    const float* image = input + static_cast<size_t>(b) * g.in_h * g.in_w * g.in_c;
    float* out = output + static_cast<size_t>(r) * row_size;
    row(image, weight, bias, out, g, oy);
    // Element-wise, so one call covers the whole row.
    dwconv_activate(out, static_cast<int>(row_size), g);
  });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
