#ifndef KOVRAEXECUTOR_OPS_X86_X86_KERNELS_H_
#define KOVRAEXECUTOR_OPS_X86_X86_KERNELS_H_

// Every x86 instruction-set variant of the kernel families, in one place.
// Names give element types, register tile and instruction set. Each is
// defined in kernels/x86/<kernel>_<type>_<isa>.cc, the only files built with
// those instructions, and is called only through its family's table (see
// avx_common.h), which picks it when the processor supports it. Each one's
// contract is that of the family's function type named beside it.

// Only forward declarations: these files are compiled with wider
// instructions, and any inline library code they pulled in could be linked
// in place of the baseline copy.
#include <cstddef>
#include <cstdint>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct ConvGeometry;
struct Int8RequantizeArgs;

// ---- float gemm (gemm_f32.h: GemmTileFn, GemvFn) ----
// Bit-identical to each other: every output is one fused multiply-add chain.
void gemm_f32_8x32_avx512(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int rows,
                          int cols, int kc, bool accumulate, const float* bias);
void gemm_f32_4x16_avx2(const float* a, int lda, const float* b, int ldb, float* c, int ldc, int rows,
                        int cols, int kc, bool accumulate, const float* bias);
void gemv_f32_4x16_avx512(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias);
void gemv_f32_1x64_avx2(const float* a, const float* b, int ldb, float* c, int N, int K, const float* bias);

// ---- float conv tiles (conv2d_cpu.h: ConvIndirectTileFn) ----
void conv_f32_8x32_indirect_avx512(const float* const* taps, int tap_count, int C, const float* b, int ldb,
                                   float* c, int ldc, int rows, int cols, bool accumulate, const float* bias);

// ---- Winograd F(2x2, 3x3) transforms (winograd_f32.h: WinogradInputFn, WinogradOutputFn) ----
// The portable operations on 8 and 16 channels at a time: the same bits.
void winograd_f23_input_f32_x8_avx2(const float* const taps[16], int C, float* v, size_t stride);
void winograd_f23_output_f32_x8_avx2(const float* m, size_t stride, int K, const float* bias,
                                     float* const out[4]);
void winograd_f23_input_f32_x16_avx512(const float* const taps[16], int C, float* v, size_t stride);
void winograd_f23_output_f32_x16_avx512(const float* m, size_t stride, int K, const float* bias,
                                        float* const out[4]);

// ---- depthwise rows (dwconv2d_cpu.h: DwconvRowFn) ----
void dwconv_row_f32_8x16_avx512(const float* image, const float* weight, const float* bias, float* out_row,
                                const ConvGeometry& g, int oy);
void dwconv_row_f32_4x8_avx2(const float* image, const float* weight, const float* bias, float* out_row,
                             const ConvGeometry& g, int oy);

// ---- int8 dot products (int8_dot_path.h: DotU8Fn, DotS16Fn) ----
void dot_u8s8_s32_6x64_avx512vnni(const uint8_t* a, int depth_padded, const int8_t* b, int out_padded,
                                  int rows, int32_t* c);
void dot_s16_s32_4x24_avx2(const int16_t* a, int depth_padded, const int16_t* b, int out_padded, int rows,
                           int32_t* c);

// ---- requantize and code scan (int8_dot_path.h: Int8CodeKernels) ----
void requantize_s32_1x16_avx512(const Int8RequantizeArgs& args, const int32_t* sums, int ld, int rows,
                                float* out);
void scan_codes_f32_1x16_avx512(const float* v, long long count, float* lo, float* hi, bool* integral);
void convert_codes_f32_u8_1x16_avx512(const float* v, long long count, int shift, uint8_t* out);

// ---- int8 float-path gemm (conv2d_int8.h: Int8FloatGemmFn) ----
// Separate multiply and add per step, so equal to the plain loop bit for bit.
void gemm_float_int8_8x32_avx512(float* out, const float* in, const float* packed, const float* bias,
                                 int in_channels, int out_channels, int rows, int kernel_positions,
                                 int multiplier);

// ---- int8 element-wise (int8_eltwise_kernels.h: Int8EltwiseKernels) ----
void quantize_f32_1x16_avx512(const float* x, float* y, int n, int channels, const float* scale, float lo,
                              float hi, float offset);
void dequantize_f32_1x16_avx512(const float* x, float* y, int n, int channels, const float* scale,
                                float offset);
void sum_requant_f32_1x16_avx512(const float* x0, const float* x1, float* y, int n, int channels,
                                 const float* a, const float* b, const float* k, float hi);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_X86_X86_KERNELS_H_
