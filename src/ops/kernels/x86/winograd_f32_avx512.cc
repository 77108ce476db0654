#include <cstddef>

#include "ops/kernels/winograd_f32_impl.h"
#include "ops/kernels/x86/x86_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
typedef float V __attribute__((vector_size(16 * sizeof(float))));
}  // namespace

void winograd_f23_input_f32_x16_avx512(const float* const taps[16], int C, float* v, size_t stride) {
  winograd_detail::input_channels<V>(taps, C, v, stride);
}

void winograd_f23_output_f32_x16_avx512(const float* m, size_t stride, int K, const float* bias,
                                        float* const out[4]) {
  winograd_detail::output_channels<V>(m, stride, K, bias, out);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
