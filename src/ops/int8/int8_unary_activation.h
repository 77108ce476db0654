#ifndef KOVRAEXECUTOR_OPS_INT8_UNARY_ACTIVATION_H_
#define KOVRAEXECUTOR_OPS_INT8_UNARY_ACTIVATION_H_

#include <string>
#include <vector>

#include "op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Attributes of the stand-alone int8 sigmoid and tanh.
struct Int8UnaryActivationParam : BaseParam {
  std::vector<float> input_scale, output_scale;
  int max_value = 0;
  int min_value = 0;
  int input_offset = 0;
  int offset = 0;
  // Prepared: the input shape and its channel count.
  std::vector<int> input_shape;
  int channels = 1;
};

void parse_unary_activation(const NodeDef& node, const char* op, Int8UnaryActivationParam& param);

// inference_shape's part: checks the input and the per-channel scales and
// records the shape; returns the output shape (the input's).
const std::vector<int>& prepare_unary_activation(const std::vector<const Tensor*>& inputs, const char* op,
                                                 Int8UnaryActivationParam& param);

// y = (input_offset + x) * INPUTSCALE[c]; s = f(y) in double, narrowed to
// float; q = clamp(round(s * OUTPUTSCALE[c]), minValue, maxValue); output
// offset + q.
void run_unary_activation(const std::vector<const Tensor*>& inputs, Tensor* output, const char* op,
                          const Int8UnaryActivationParam& param, double (*f)(double));

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_UNARY_ACTIVATION_H_
