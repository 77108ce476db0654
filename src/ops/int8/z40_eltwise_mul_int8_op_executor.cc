#include <string>
#include <vector>

#include "common.h"
#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40EltwiseMulInt8Param : BaseParam {
  std::vector<float> output_scale;
  int input0_offset = 0;
  int input1_offset = 0;
  int offset = 0;
  int max_value = 0;
  int min_value = 0;
  int output_bitwidth = 8;
  // Prepared: the input shapes and the channel count.
  std::vector<int> input0_shape, input1_shape;
  int channels = 1;
};

// Product of two int8 tensors: q = round((off1 + x1) * (off0 + x0) * O[c] + offset),
// clamped with both bounds shifted by the offset. The second input repeats
// cyclically, so a per-channel vector scales each channel.
class Z40EltwiseMulInt8OpExecutor : public ParamOpExecutor<Z40EltwiseMulInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    Z40EltwiseMulInt8Param& p = op_param_;
    require_int(node, "input0_offset", p.input0_offset, missing_message("input0_offset", kName));
    require_int(node, "input1_offset", p.input1_offset, missing_message("input1_offset", kName));
    require_int(node, "maxValue", p.max_value, missing_message("maxValue", kName));
    require_int(node, "minValue", p.min_value, missing_message("minValue", kName));
    require_float_list(node, "OUTPUTSCALE", p.output_scale, missing_message("OUTPUTSCALE", kName));
    read_int(node, "offset", p.offset);
    read_int(node, "output_bitwidth", p.output_bitwidth);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    check_inputs(inputs);
    const int channels = channel_count(inputs[0]);
    check_per_channel(op_param_.output_scale, channels, "OUTPUTSCALE", kName);
    op_param_.input0_shape = inputs[0]->shape();
    op_param_.input1_shape = inputs[1]->shape();
    op_param_.channels = channels;
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    check_inputs(inputs);
    const Tensor* in0 = inputs[0];
    const Tensor* in1 = inputs[1];
    check_prepared(in0, op_param_.input0_shape, kName);
    check_prepared(in1, op_param_.input1_shape, kName);
    check_float(in0, kName);
    check_float(in1, kName);
    check_min_size(in1, 1, kName);  // it repeats, so one value is enough
    check_min_size(output, in0->size(), kName);
    const int channels = op_param_.channels;
    const float off0 = static_cast<float>(op_param_.input0_offset);
    const float off1 = static_cast<float>(op_param_.input1_offset);
    const float offset = static_cast<float>(op_param_.offset);
    const float lo = static_cast<float>(static_cast<long long>(op_param_.min_value) + op_param_.offset);
    const float hi = static_cast<float>(static_cast<long long>(op_param_.max_value) + op_param_.offset);
    const float* x0 = in0->data<float>();
    const float* x1 = in1->data<float>();
    const float* o = op_param_.output_scale.data();
    float* y = output->mutable_data<float>();
    const int n = in0->size(), n1 = in1->size();
    for (int base = 0, j = 0; base < n; base += channels) {
      for (int c = 0; c < channels; ++c) {
        const int i = base + c;
        const float v = (off1 + x1[j]) * (off0 + x0[i]) * o[c] + offset;
        y[i] = clamp_code(kvdl::tensorflow_round_cpu(v), lo, hi);
        if (++j == n1) j = 0;
      }
    }
    return true;
  }

 private:
  void check_inputs(const std::vector<const Tensor*>& inputs) const {
    if (inputs.size() != 2) {
      fatal("Unspport input size :" + std::to_string(inputs.size()) + "in Z40EltwiseMulInt8.");
    }
    check_input_not_scalar(inputs[0], kName);
  }

  static constexpr const char* kName = "Z40EltwiseMulInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40EltwiseMulInt8)
