#include "ops/int8/int8_binary_requant.h"

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/int8_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

void parse_binary_requant(const NodeDef& node, const char* op, bool with_activation,
                          Int8BinaryRequantParam& p) {
  require_float_list(node, "INPUT0SCALE", p.input0_scale, missing_message("INPUT0SCALE", op));
  require_int(node, "input0_offset", p.input0_offset, missing_message("input0_offset", op));
  require_float_list(node, "INPUT1SCALE", p.input1_scale, missing_message("INPUT1SCALE", op));
  require_int(node, "input1_offset", p.input1_offset, missing_message("input1_offset", op));
  require_int(node, "maxValue", p.max_value, missing_message("maxValue", op));
  require_int(node, "minValue", p.min_value, missing_message("minValue", op));
  require_float_list(node, "OUTPUTSCALE", p.output_scale, missing_message("OUTPUTSCALE", op));
  read_int(node, "offset", p.offset);
  read_int(node, "output_bitwidth", p.output_bitwidth);
  if (!with_activation) return;
  read_string(node, "ActionType", p.action_type);
  p.activation = select_eltwise_activation(p.action_type);
  EltwiseActivationConstants& k = p.constants;
  read_float(node, "hsigmoid_alpha", k.hsigmoid_alpha);
  read_float(node, "hsigmoid_beta", k.hsigmoid_beta);
  read_float(node, "swish_beta", k.swish_beta);
  read_float(node, "elu_alpha", k.elu_alpha);
  read_float(node, "prelu_leakyrelu_slope", k.prelu_leakyrelu_slope);
  read_float(node, "hswish_add_scalar_value", k.hswish_add_scalar_value);
  read_float(node, "hswish_mul_scalar_value", k.hswish_mul_scalar_value);
}

void prepare_binary_requant(const std::vector<const Tensor*>& inputs, const char* op, bool difference,
                            bool scalar_allowed, Int8BinaryRequantParam& p) {
  check_input_count(inputs, 2, op);
  check_input_not_scalar(inputs[0], op);
  const int channels = channel_count(inputs[0]);
  check_per_channel(p.input0_scale, channels, "INPUT0SCALE", op);
  check_per_channel(p.input1_scale, channels, "INPUT1SCALE", op);
  check_per_channel(p.output_scale, channels, "OUTPUTSCALE", op);
  if (!scalar_allowed || inputs[1]->size() != 1) check_min_size(inputs[1], inputs[0]->size(), op);
  p.input0_shape = inputs[0]->shape();
  p.input1_shape = inputs[1]->shape();
  p.channels = channels;
  make_sum_requant(p.input0_scale, p.input1_scale, p.output_scale, p.input0_offset, p.input1_offset, p.offset,
                   channels, difference, p.requant);
}

void check_binary_prepared(const std::vector<const Tensor*>& inputs, const Tensor* output, const char* op,
                           const Int8BinaryRequantParam& p) {
  check_input_count(inputs, 2, op);
  check_input_not_scalar(inputs[0], op);
  check_prepared(inputs[0], p.input0_shape, op);
  check_prepared(inputs[1], p.input1_shape, op);
  check_float(inputs[0], op);
  check_float(inputs[1], op);
  check_min_size(output, inputs[0]->size(), op);
}

void run_int8_sum(const std::vector<const Tensor*>& inputs, Tensor* output, const char* op,
                  const Int8BinaryRequantParam& p, bool difference) {
  check_binary_prepared(inputs, output, op, p);
  const int channels = p.channels;
  const Tensor* in0 = inputs[0];
  const Tensor* in1 = inputs[1];
  const int n = in0->size();
  const float* x0 = in0->data<float>();
  const float* x1 = in1->data<float>();
  float* y = output->mutable_data<float>();
  const float hi = static_cast<float>(static_cast<long long>(p.max_value) + p.offset);
  const float* o = p.output_scale.data();

  if (in1->size() == 1) {
    // A scalar second operand: its code is added as it stands, and this path
    // clamps below at minValue, unlike the general one.
    const float lo = static_cast<float>(p.min_value);
    const float v1 = difference ? -x1[0] : x1[0];
    for (int base = 0; base < n; base += channels) {
      for (int c = 0; c < channels; ++c) {
        y[base + c] = clamp_code(kvdl::tensorflow_round_cpu(o[c] * x0[base + c] + v1), lo, hi);
      }
    }
    return;
  }

  if (p.activation == EltwiseActivation::kLinear) {
    const SumRequant& r = p.requant;
    sum_requant_f32(x0, x1, y, n, channels, r.a.data(), r.b.data(), r.k.data(), hi);
    return;
  }

  // With an activation (only the sum has one) the sum is formed in real
  // values, activated, and only then scaled to the output.
  const float off0 = static_cast<float>(p.input0_offset);
  const float off1 = static_cast<float>(p.input1_offset);
  const float offset = static_cast<float>(p.offset);
  const float* s0 = p.input0_scale.data();
  const float* s1 = p.input1_scale.data();
  for (int base = 0; base < n; base += channels) {
    for (int c = 0; c < channels; ++c) {
      const int i = base + c;
      const float v = (off0 + x0[i]) * s0[c] + (off1 + x1[i]) * s1[c];
      const float f = apply_eltwise_activation(p.activation, v, p.constants);
      y[i] = clamp_code(kvdl::tensorflow_round_cpu(f * o[c] + offset), 0.0f, hi);
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
