#ifndef KOVRAEXECUTOR_OPS_CONV2D_INT8_H_
#define KOVRAEXECUTOR_OPS_CONV2D_INT8_H_

#include <memory>
#include <string>
#include <vector>

#include "ops/kernels/activate_int8.h"
#include "ops/int8/z40_conv2d_int8_op_executor.h"
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

// Weights as the AVX-512 float kernel streams them: blocks of 32 output
// channels, each depth x 32 floats, the last block padded with zeros.
struct Int8FloatPackedWeights {
  const void* source = nullptr;
  int size = 0;
  std::vector<float> packed;
};
const Int8FloatPackedWeights& pack_float_weights_8x32(const Tensor* weight, int depth, int out_c,
                                                      std::shared_ptr<Int8FloatPackedWeights>* cache);

// gemm_float_int8 without the first-layer step, 8 rows x 32 columns per
// tile on AVX-512, same results; `packed` comes from pack_float_weights_8x32.
// `in` always holds 8 rows; rows past `rows` are read and ignored.
void gemm_float_int8_8x32_avx512(float* out, const float* in, const float* packed,
                                 const float* bias, int in_channels, int out_channels, int rows,
                                 int kernel_positions, void (*activate)(float*, int, float),
                                 float alpha, int multiplier);

// A first-layer input value as the code the convolution uses:
// input_offset + round_half_even((x - mean) * scale), clamped to [0, 255].
float first_layer_code(float x, float mean, float scale, float input_offset);

// Per-call record shared by the tile workers.
struct AVXConvInt8Param : AVXBaseConvParam {
  std::string ActionType;
  const float* input_mean = nullptr;
  const float* input_var = nullptr;
  bool first_layer = false;
  int input_offset = 0;
  int multiplier = 1;
  const float* packed_weights = nullptr;  // for the AVX-512 kernel, else null
  Int8OutputStage stage;
};

// Whole convolutions; inputs are the data, the weights and the bias.
// conv2d_avx_int8 needs groups == 1 and runs tiles on the thread pool, with
// the integer dot-product kernels when they give the same sums.
void conv2d_avx_int8(const std::vector<const Tensor*>& inputs, Tensor* output,
                     Z40Conv2DInt8Param* param);
// Direct loop on the calling thread; honours groups.
void conv2d_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40Conv2DInt8Param* param);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_CONV2D_INT8_H_
