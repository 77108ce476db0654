#include <memory>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ChannelShuffleParam : BaseParam {
  int groups = 0;
};

class Z40ChannelShuffleOpExecutor : public ParamOpExecutor<Z40ChannelShuffleParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_float_as_int(node, "groups", op_param_.groups,
                         "Do not find the groups in FloatZ40ChannelShuffle!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    _check(inputs);
    shape = inputs[0]->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    _check(inputs);
    const Tensor* input = inputs[0];
    check_output_shape(output, input->shape(), "Z40ChannelShuffle");
    if (input->size() < 1) return true;
    channel_shuffle_f32(input->data<float>(), output->mutable_data<float>(), input->shape(),
                        op_param_.groups);
    return true;
  }

 private:
  void _check(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, "Z40ChannelShuffle");
    const Tensor* input = inputs[0];
    KOVRA_ENSURE_MSG(input->dims() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input_shape in channel shuffle!!!");
    check_float(input, "Z40ChannelShuffle");
    const int groups = op_param_.groups;
    KOVRA_ENSURE_MSG(groups > 0 && input->shape()[3] % groups == 0, "channels % groups == 0",
                     "Z40ChannelShuffle: " + std::to_string(input->shape()[3]) +
                         " channels cannot be split into " + std::to_string(groups) + " groups");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ChannelShuffle)
