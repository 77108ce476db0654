#include "ops/int8/int8_unary_activation.h"

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void parse_unary_activation(const NodeDef& node, const char* op, Int8UnaryActivationParam& p) {
  require_float_list(node, "INPUTSCALE", p.input_scale, missing_message("INPUTSCALE", op));
  require_float_list(node, "OUTPUTSCALE", p.output_scale, missing_message("OUTPUTSCALE", op));
  require_int(node, "maxValue", p.max_value, missing_message("maxValue", op));
  require_int(node, "minValue", p.min_value, missing_message("minValue", op));
  require_int(node, "input_offset", p.input_offset, missing_message("input_offset", op));
  require_int(node, "offset", p.offset, missing_message("offset", op));
}

const std::vector<int>& prepare_unary_activation(const std::vector<const Tensor*>& inputs, const char* op,
                                                 Int8UnaryActivationParam& p) {
  const Tensor* input = first_input(inputs, op);
  const int channels = channel_count(input);
  check_per_channel(p.input_scale, channels, "INPUTSCALE", op);
  check_per_channel(p.output_scale, channels, "OUTPUTSCALE", op);
  p.input_shape = input->shape();
  p.channels = channels;
  return p.input_shape;
}

void run_unary_activation(const std::vector<const Tensor*>& inputs, Tensor* output, const char* op,
                          const Int8UnaryActivationParam& p, double (*f)(double)) {
  const Tensor* input = prepared_input(inputs, p.input_shape, output, shape_count(p.input_shape), op);
  const int channels = p.channels;
  const float in_off = static_cast<float>(p.input_offset);
  const float lo = static_cast<float>(p.min_value);
  const float hi = static_cast<float>(p.max_value);
  const float offset = static_cast<float>(p.offset);
  const float* in_scale = p.input_scale.data();
  const float* out_scale = p.output_scale.data();
  const float* x = input->data<float>();
  float* y = output->mutable_data<float>();
  for (int base = 0, n = input->size(); base < n; base += channels) {
    for (int c = 0; c < channels; ++c) {
      const float v = (in_off + x[base + c]) * in_scale[c];
      const float s = static_cast<float>(f(v));
      y[base + c] = clamp_then_offset(kvdl::tensorflow_round_cpu(s * out_scale[c]), lo, hi, offset);
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
