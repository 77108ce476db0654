#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ChannelShuffleParam : BaseParam, PreparedShapes {
  int groups = 0;
};

class Z40ChannelShuffleOpExecutor : public ParamOpExecutor<Z40ChannelShuffleParam> {
 public:
  static constexpr const char* kName = "Z40ChannelShuffle";

  void parse_parameter(const NodeDef& node) override {
    require_float_as_int(node, "groups", op_param_.groups,
                         "Do not find the groups in FloatZ40ChannelShuffle!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    _check(inputs);
    op_param_.in_shape = op_param_.out_shape = inputs[0]->shape();
    shape = op_param_.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40ChannelShuffleParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    if (inputs[0]->size() < 1) return true;
    channel_shuffle_f32(inputs[0]->data<float>(), output->mutable_data<float>(), p.in_shape, p.groups);
    return true;
  }

 private:
  void _check(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, kName);
    const Tensor* input = inputs[0];
    KOVRA_ENSURE_MSG(input->dims() == 4, "input_tensor->shape().size() == 4",
                     "Wrong input_shape in channel shuffle!!!");
    check_float(input, kName);
    const int groups = op_param_.groups;
    KOVRA_ENSURE_MSG(groups > 0 && input->shape()[3] % groups == 0, "channels % groups == 0",
                     std::string(kName) + ": " + std::to_string(input->shape()[3]) +
                         " channels cannot be split into " + std::to_string(groups) + " groups");
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    _check(inputs);
    refuse_unprepared(inputs, output, inputs[0]->shape(), op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ChannelShuffle)
