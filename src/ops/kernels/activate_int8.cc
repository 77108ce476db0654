#include "ops/kernels/activate_int8.h"

#include <cmath>

#include "kvdl.h"
#include "ops/int8/z40_conv2d_int8_op_executor.h"
#include "ops/int8/z40_depthwise_conv2d_native_int8_op_executor.h"
#include "ops/int8/z40_mat_mul_int8_op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

float activate_int8_value(float a, int c, int channels, const Int8OutputParam& p) {
  const float* os = p.OUTPUTSCALE.data();
  switch (p.action) {
    case Int8Activation::kScale:
      return a * os[c];
    case Int8Activation::kLeakyRelu:
      return a < 0 ? a * os[channels + c] : a * os[c];
    default:
      break;
  }
  const float o = p.QSCALE[c];
  const float t = p.SUMSCALE[c] * a;
  // Which exponential each activation uses (the firmware's series or the C
  // library's) decides the last bit of the results.
  switch (p.action) {
    case Int8Activation::kSwish:
      return o * static_cast<float>(t / (kvdl::Exp(-t) + 1));
    case Int8Activation::kSigmoid:
      return o * static_cast<float>(1 / (kvdl::Exp(-t) + 1));
    case Int8Activation::kSelu: {
      const float u = t > 0 ? t : static_cast<float>((std::exp(static_cast<double>(t)) - 1) *
                                                     1.6732632423543772);
      return o * static_cast<float>(u * 1.0507009873554805);
    }
    case Int8Activation::kTanh:
      return static_cast<float>(o * kvdl::rational_tanh(t));
    case Int8Activation::kElu: {
      const double u = t >= 0 ? static_cast<double>(t)
                              : (std::exp(static_cast<double>(t)) - 1) * p.elu_alpha;
      return static_cast<float>(o * u);
    }
    case Int8Activation::kHardSwish: {
      const float r = t + p.hswish_add_scalar_value;
      const float g = r < 0 ? 0.0f : (r < 6.0f ? r : 6.0f);
      return o * (t * g * p.hswish_mul_scalar_value);
    }
    case Int8Activation::kMish: {
      const float softplus = static_cast<float>(std::log(std::exp(static_cast<double>(t)) + 1));
      return static_cast<float>(t * kvdl::rational_tanh(softplus) * o);
    }
    case Int8Activation::kSoftplus:
      return o * static_cast<float>(std::log(std::exp(static_cast<double>(t)) + 1));
    case Int8Activation::kSoftsign:
      return o * (t / (std::fabs(t) + 1));
    default:
      return a * os[c];
  }
}

template <class Param>
float activate_int8(float value, int channel, int channels, Param* param) {
  return activate_int8_value(value, channel, channels, *param);
}

template float activate_int8<Z40Conv2DInt8Param>(float, int, int, Z40Conv2DInt8Param*);
template float activate_int8<Z40DepthwiseConv2dNativeInt8Param>(float, int, int,
                                                                Z40DepthwiseConv2dNativeInt8Param*);
template float activate_int8<Z40MatMulInt8Param>(float, int, int, Z40MatMulInt8Param*);

Int8OutputStage make_int8_output_stage(const Int8OutputParam& param, const float* bias,
                                       int multiplier, int channels) {
  Int8OutputStage stage;
  stage.param = &param;
  stage.bias = bias;
  stage.multiplier = static_cast<float>(multiplier);
  stage.channels = channels;
  stage.lo = static_cast<float>(param.minValue);
  stage.hi = static_cast<float>(param.maxValue);
  stage.offset = static_cast<float>(param.offset);
  stage.float_output = param.output_bitwidth == 32;
  return stage;
}

namespace {

// Round half to even, clamp, add the offset. Below 2^23 adding and removing
// 2^23 rounds to the nearest integer with ties to even; larger magnitudes are
// integers already. A zero may come out negative, which the offset addition
// turns into +0, so the result equals the step-by-step definition bit for bit.
inline float requantize(float v, float lo, float hi, float offset) {
  const float magnitude = std::fabs(v);
  float q = magnitude < 8388608.0f ? std::copysign((magnitude + 8388608.0f) - 8388608.0f, v) : v;
  q = q < lo ? lo : q;
  q = hi < q ? hi : q;
  return offset + q;
}

// The 32-bit output path: no rounding; "Relu6" has no lower bound on purpose.
inline float float_output(Int8FloatOutputAction action, float v, float alpha) {
  switch (action) {
    case Int8FloatOutputAction::kRelu:
      return v > 0 ? v : 0.0f;
    case Int8FloatOutputAction::kRelu6:
      return v < 6.0f ? v : 6.0f;
    case Int8FloatOutputAction::kLeakyRelu:
      return v <= 0 ? v * alpha : v;
    case Int8FloatOutputAction::kNone:
      break;
  }
  return v;
}

template <bool kScaled>
void output_rows(const Int8OutputStage& s, const float* acc, float* out, int rows) {
  const Int8OutputParam& p = *s.param;
  const int channels = s.channels;
  const float* bias = s.bias;
  const float* os = p.OUTPUTSCALE.data();
  const float mult = s.multiplier, lo = s.lo, hi = s.hi, offset = s.offset;
  for (int r = 0; r < rows; ++r) {
    const float* in = acc + static_cast<long long>(r) * channels;
    float* dst = out + static_cast<long long>(r) * channels;
    if (!s.float_output && p.action == Int8Activation::kScale) {
      for (int c = 0; c < channels; ++c) {
        const float a = kScaled ? in[c] : in[c] * mult + bias[c];
        dst[c] = requantize(a * os[c], lo, hi, offset);
      }
    } else if (!s.float_output && p.action == Int8Activation::kLeakyRelu) {
      const float* neg = os + channels;
      for (int c = 0; c < channels; ++c) {
        const float a = kScaled ? in[c] : in[c] * mult + bias[c];
        const float v = a < 0 ? a * neg[c] : a * os[c];
        dst[c] = requantize(v, lo, hi, offset);
      }
    } else {
      for (int c = 0; c < channels; ++c) {
        const float a = kScaled ? in[c] : in[c] * mult + bias[c];
        const float v = activate_int8_value(a, c, channels, p);
        dst[c] = s.float_output ? float_output(p.float_action, v, p.alpha) : requantize(v, lo, hi, offset);
      }
    }
  }
}

}  // namespace

void int8_output_rows(const Int8OutputStage& stage, const float* acc, float* out, int rows) {
  output_rows<false>(stage, acc, out, rows);
}

void int8_output_scaled_rows(const Int8OutputStage& stage, const float* acc, float* out, int rows) {
  output_rows<true>(stage, acc, out, rows);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
