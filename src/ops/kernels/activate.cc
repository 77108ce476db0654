#include "ops/kernels/activate.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void activation_relu(float* values, int count, float) {
  for (int i = 0; i < count; ++i) values[i] = values[i] > 0.0f ? values[i] : 0.0f;
}

void activation_relu6(float* values, int count, float) {
  for (int i = 0; i < count; ++i) {
    const float x = values[i];
    values[i] = x > 0.0f ? (x < 6.0f ? x : 6.0f) : 0.0f;
  }
}

void activation_leaky(float* values, int count, float alpha) {
  for (int i = 0; i < count; ++i) {
    const float x = values[i];
    values[i] = x > 0.0f ? x : x * alpha;
  }
}

void activation_Hsigmoid(float* values, int count, float) {
  for (int i = 0; i < count; ++i) {
    const float x = values[i];
    values[i] = x > 1.0f ? 1.0f : (x > 0.0f ? x : 0.0f);
  }
}

void activation_null(float*, int, float) {}

ActivationFn select_activation(const std::string& action_type) {
  if (action_type == "Relu") return activation_relu;
  if (action_type == "Relu6") return activation_relu6;
  if (action_type == "LeakyRelu") return activation_leaky;
  if (action_type == "Hsigmoid") return activation_Hsigmoid;
  return activation_null;
}

ActivationFn select_relu_activation(const std::string& action_type) {
  if (action_type == "Relu") return activation_relu;
  if (action_type == "Relu6") return activation_relu6;
  return activation_null;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
