#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/int8_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40DequantizeParam : BaseParam {
  std::vector<float> qscale;
  int offset = 0;
  // Prepared: the input shape and its channel count.
  std::vector<int> input_shape;
  int channels = 1;
};

// Codes to real values: (offset + q) * QSCALE[c]; the model stores the
// reciprocal scale here, so the scale multiplies in both directions.
class Z40DequantizeOpExecutor : public ParamOpExecutor<Z40DequantizeParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_float_list(node, "QSCALE", op_param_.qscale, "Do not find the QSCALE in  Z40Dequantize!!!");
    require_int(node, "offset", op_param_.offset, "Do not find the offset in  Z40Dequantize!!!");
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
    dequantize_f32(input->data<float>(), output->mutable_data<float>(), input->size(), op_param_.channels,
                   op_param_.qscale.data(), static_cast<float>(op_param_.offset));
    return true;
  }

 private:
  static constexpr const char* kName = "Z40Dequantize";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Dequantize)
