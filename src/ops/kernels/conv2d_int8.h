#ifndef KOVRAEXECUTOR_OPS_CONV2D_INT8_H_
#define KOVRAEXECUTOR_OPS_CONV2D_INT8_H_

#include <cstdint>
#include <string>
#include <vector>

#include "ops/int8/z40_conv2d_int8_op_executor.h"
#include "ops/kernels/activate_int8.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Matrix kernel of the int8 convolutions: `rows` output rows of
// `out_channels` values. Each row reduces kernel_positions x in_channels
// input values (first-layer inputs are quantized on the way) against the
// weights, in float and in that order, then becomes sum * multiplier + bias.
void gemm_float_int8(float* out, const float* in, const float* weight, const float* bias,
                     const float* mean, const float* scale, bool first_layer, int in_channels,
                     int out_channels, int rows, int kernel_positions,
                     void (*activate)(float*, int, float), float alpha, int multiplier,
                     int input_offset);

// The int8 float-path gemm family: gemm_float_int8 without the first-layer
// step and without activation (codes come quantized): `rows` rows of `in`
// (row stride kernel_positions * in_channels; 8 rows are always readable)
// against the weights in the variant's layout. Every variant multiplies and
// adds separately in reduction order, so all give the plain loop's bits.
typedef void (*Int8FloatGemmFn)(float* out, const float* in, const float* weights, const float* bias,
                                int in_channels, int out_channels, int rows, int kernel_positions,
                                int multiplier);
struct Int8FloatGemmKernels {
  KernelIsa isa;
  const char* name;
  bool packed;  // weights in 32-column blocks (pack_float_weights_8x32), else as stored
  Int8FloatGemmFn gemm;
};
const KernelTable<Int8FloatGemmKernels>& int8_float_gemm_kernels();
void gemm_float_int8_portable(float* out, const float* in, const float* weights, const float* bias,
                              int in_channels, int out_channels, int rows, int kernel_positions,
                              int multiplier);

// Weights as the 32-column kernels stream them: blocks of 32 output
// channels, each depth x 32 floats, the last block padded with zeros; kept per
// operator and keyed by the weight tensor's version.
struct Int8FloatPackedWeights {
  uint64_t version = 0;
  int depth = 0, out_c = 0;
  std::vector<float> packed;
};
const float* pack_float_weights_8x32(const Tensor* weight, int depth, int out_c,
                                     Int8FloatPackedWeights* cache);

// A first-layer input value as the code the convolution uses:
// input_offset + round_half_even((x - mean) * scale), clamped to [0, 255].
float first_layer_code(float x, float mean, float scale, float input_offset);

// Per-call record shared by the tile workers.
struct AVXConvInt8Param : AVXBaseConvParam {
  const Z40Conv2DInt8Param* param = nullptr;
  const float* input_mean = nullptr;
  const float* input_var = nullptr;
  bool first_layer = false;
  int input_offset = 0;
  int multiplier = 1;
  const Int8FloatGemmKernels* gemm = nullptr;
  const float* weights = nullptr;  // in the layout `gemm` reads
  Int8OutputStage stage;
};

// Checks the inputs (data, weights and, when there are three, the bias)
// against the attributes and prepares geometry, path, pads, multiplier and
// the stand-in bias into param->prepared.
void prepare_conv2d_int8(const std::vector<const Tensor*>& inputs, Z40Conv2DInt8Param* param);

// Whole convolutions; inputs are the data, the weights and the bias.
// conv2d_avx_int8 needs groups == 1 and runs tiles on the thread pool, with
// the integer dot-product kernels when they give the same sums.
void conv2d_avx_int8(const std::vector<const Tensor*>& inputs, Tensor* output,
                     Z40Conv2DInt8Param* param);
// Direct loop on the calling thread; honours groups.
void conv2d_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40Conv2DInt8Param* param);

// What both run once the record is prepared for these inputs: no allocation
// and no message unless a check fails. `bias` holds out_c values.
void run_conv2d_int8(const Tensor* input, const Tensor* weight, const float* bias, Tensor* output,
                     Z40Conv2DInt8Param* param, bool tiled);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_CONV2D_INT8_H_
