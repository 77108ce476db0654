#ifndef KOVRAEXECUTOR_OPS_ACTIVATE_H_
#define KOVRAEXECUTOR_OPS_ACTIVATE_H_

#include <string>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// In-place fused activations of the float operators: (values, count, alpha).
typedef void (*ActivationFn)(float* values, int count, float alpha);

void activation_relu(float* values, int count, float alpha);
void activation_relu6(float* values, int count, float alpha);
void activation_leaky(float* values, int count, float alpha);
// A plain clamp to [0, 1]: the fused form has no affine step, unlike Z40Hsigmoid.
void activation_Hsigmoid(float* values, int count, float alpha);
void activation_null(float* values, int count, float alpha);

// The fused activation named by "ActionType": "Relu", "Relu6", "LeakyRelu",
// "Hsigmoid"; anything else (absent included) selects activation_null.
ActivationFn select_activation(const std::string& action_type);
// As select_activation but only "Relu" and "Relu6" are recognised, as in the
// add kernels and the batch-norm scale.
ActivationFn select_relu_activation(const std::string& action_type);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_ACTIVATE_H_
