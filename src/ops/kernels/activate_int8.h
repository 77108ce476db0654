#ifndef KOVRAEXECUTOR_OPS_ACTIVATE_INT8_H_
#define KOVRAEXECUTOR_OPS_ACTIVATE_INT8_H_

#include "ops/int8/int8_conv_param.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The fused activation of the int8 convolution and matrix operators: takes
// the accumulator value `value` of output channel `channel` (after the
// multiplier and bias) and returns the scaled, activated value, still to be
// rounded and clamped by the caller. Instantiated for Z40Conv2DInt8Param,
// Z40DepthwiseConv2dNativeInt8Param and Z40MatMulInt8Param.
template <class Param>
float activate_int8(float value, int channel, int channels, Param* param);

// The same for any of the records; the template forwards here.
float activate_int8_value(float value, int channel, int channels, const Int8OutputParam& param);

// Per-call constants of the output stage that follows every accumulation:
// a = sum * 2^m + bias[c]; v = activation(a); then either the float output of
// "output_bitwidth" 32 or offset + clamp(round_half_even(v), minValue, maxValue).
struct Int8OutputStage {
  const Int8OutputParam* param = nullptr;
  const float* bias = nullptr;
  float multiplier = 1.0f;
  int channels = 0;
  float lo = 0.0f, hi = 0.0f, offset = 0.0f;
  bool float_output = false;
};

// `bias` holds `channels` values; the scale lists must already be checked.
Int8OutputStage make_int8_output_stage(const Int8OutputParam& param, const float* bias,
                                       int multiplier, int channels);

// Turns `rows` rows of `channels` accumulated sums into output values.
// `acc` and `out` may be the same buffer.
void int8_output_rows(const Int8OutputStage& stage, const float* acc, float* out, int rows);
// The same for rows that already hold sum * 2^m + bias (from gemm_float_int8).
void int8_output_scaled_rows(const Int8OutputStage& stage, const float* acc, float* out, int rows);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_ACTIVATE_INT8_H_
