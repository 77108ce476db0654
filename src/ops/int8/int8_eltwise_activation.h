#ifndef KOVRAEXECUTOR_OPS_INT8_ELTWISE_ACTIVATION_H_
#define KOVRAEXECUTOR_OPS_INT8_ELTWISE_ACTIVATION_H_

#include <string>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Activations fused into the int8 element-wise sum. "None", "Relu" and
// "Relu6" need no formula (the output clamp does their work) and keep the
// sum on its direct requantization; every other name, known or not, takes
// the real-valued path, where an unknown name leaves the value unchanged.
enum class EltwiseActivation {
  kLinear,
  kTanh,
  kSigmoid,
  kHsigmoid,
  kSwish,
  kElu,
  kSelu,
  kSoftplus,
  kSoftsign,
  kLeakyRelu,
  kHardSwish,
  kMish,
  kIdentity,
};

struct EltwiseActivationConstants {
  float hsigmoid_alpha = 0.2f;
  float hsigmoid_beta = 0.5f;
  float swish_beta = 1.0f;
  float elu_alpha = 1.0f;
  float prelu_leakyrelu_slope = 0.0f;
  float hswish_add_scalar_value = 3.0f;
  float hswish_mul_scalar_value = 1.0f / 6.0f;
};

EltwiseActivation select_eltwise_activation(const std::string& name);

// f(y) of the real-valued path; exp and log are the C library's, in double,
// and the result is narrowed to float before it is scaled to the output.
float apply_eltwise_activation(EltwiseActivation act, float y, const EltwiseActivationConstants& k);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_ELTWISE_ACTIVATION_H_
