#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/int8_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40QuantizeParam : BaseParam {
  std::vector<float> qscale;
  int max_value = 0;
  int min_value = 0;
  int offset = 0;
  int input_bitwidth = 32;
  int output_bitwidth = 8;
  // Prepared: the input shape and its channel count.
  std::vector<int> input_shape;
  int channels = 1;
};

// Real values to codes: q = clamp(round(QSCALE[c] * x), minValue, maxValue),
// and the zero point is added after the clamp.
class Z40QuantizeOpExecutor : public ParamOpExecutor<Z40QuantizeParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_float_list(node, "QSCALE", op_param_.qscale, "Do not find the QSCALE in  Z40Quantize!!!");
    require_int(node, "offset", op_param_.offset, "Do not find the offset in  Z40Quantize!!!");
    require_int(node, "maxValue", op_param_.max_value, "Do not find the maxValue in  Z40Quantize!!!");
    require_int(node, "minValue", op_param_.min_value, "Do not find the minValue in  Z40Quantize!!!");
    read_int(node, "input_bitwidth", op_param_.input_bitwidth);
    read_int(node, "output_bitwidth", op_param_.output_bitwidth);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, kName);
    check_rank_3_to_5(input, kName);
    const int channels = channel_count(input);
    check_per_channel(op_param_.qscale, channels, "QSCALE", kName);
    op_param_.input_shape = input->shape();
    op_param_.channels = channels;
    shape = input->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input =
        prepared_input(inputs, op_param_.input_shape, output, shape_count(op_param_.input_shape), kName);
    quantize_f32(input->data<float>(), output->mutable_data<float>(), input->size(), op_param_.channels,
                 op_param_.qscale.data(), static_cast<float>(op_param_.min_value),
                 static_cast<float>(op_param_.max_value), static_cast<float>(op_param_.offset));
    return true;
  }

 private:
  static constexpr const char* kName = "Z40Quantize";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Quantize)
