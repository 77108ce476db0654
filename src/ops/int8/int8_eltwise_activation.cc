#include "ops/int8/int8_eltwise_activation.h"

#include <cmath>

#include "kvdl.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

EltwiseActivation select_eltwise_activation(const std::string& name) {
  if (name == "None" || name == "Relu" || name == "Relu6") return EltwiseActivation::kLinear;
  if (name == "Tanh") return EltwiseActivation::kTanh;
  if (name == "Sigmoid") return EltwiseActivation::kSigmoid;
  if (name == "Hsigmoid") return EltwiseActivation::kHsigmoid;
  if (name == "Swish") return EltwiseActivation::kSwish;
  if (name == "Elu") return EltwiseActivation::kElu;
  if (name == "Selu") return EltwiseActivation::kSelu;
  if (name == "Softplus") return EltwiseActivation::kSoftplus;
  if (name == "Softsign") return EltwiseActivation::kSoftsign;
  if (name == "LeakyRelu" || name == "PRelu") return EltwiseActivation::kLeakyRelu;
  if (name == "HardSwish") return EltwiseActivation::kHardSwish;
  if (name == "Mish") return EltwiseActivation::kMish;
  return EltwiseActivation::kIdentity;
}

float apply_eltwise_activation(EltwiseActivation act, float y, const EltwiseActivationConstants& k) {
  const double yd = y;
  switch (act) {
    case EltwiseActivation::kTanh:
      return static_cast<float>(kvdl::rational_tanh(yd));
    case EltwiseActivation::kSigmoid:
      return static_cast<float>(1.0 / (std::exp(-yd) + 1.0));
    case EltwiseActivation::kHsigmoid: {
      float h = y * k.hsigmoid_alpha + k.hsigmoid_beta;
      if (h > 1.0f) h = 1.0f;
      if (h < 0.0f) h = 0.0f;
      return h;
    }
    case EltwiseActivation::kSwish: {
      const float by = y * k.swish_beta;
      return static_cast<float>(yd / (std::exp(-static_cast<double>(by)) + 1.0));
    }
    case EltwiseActivation::kElu:
      return y < 0.0f ? static_cast<float>((std::exp(yd) - 1.0) * k.elu_alpha) : y;
    case EltwiseActivation::kSelu:
      if (y <= 0.0f) {
        const float t = static_cast<float>((std::exp(yd) - 1.0) * 1.6732632423543772);
        return static_cast<float>(t * 1.0507009873554805);
      }
      return static_cast<float>(yd * 1.0507009873554805);
    case EltwiseActivation::kSoftplus:
      return static_cast<float>(std::log(std::exp(yd) + 1.0));
    case EltwiseActivation::kSoftsign:
      return y / (std::fabs(y) + 1.0f);
    case EltwiseActivation::kLeakyRelu:
      return y < 0.0f ? y * k.prelu_leakyrelu_slope : y;
    case EltwiseActivation::kHardSwish: {
      const float r = y + k.hswish_add_scalar_value;
      const float g = r < 0.0f ? 0.0f : (r < 6.0f ? r : 6.0f);
      return y * (g * k.hswish_mul_scalar_value);
    }
    case EltwiseActivation::kMish: {
      const double s = std::log(std::exp(yd) + 1.0);
      return static_cast<float>(yd * kvdl::rational_tanh(s));
    }
    case EltwiseActivation::kLinear:
    case EltwiseActivation::kIdentity:
      break;
  }
  return y;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
