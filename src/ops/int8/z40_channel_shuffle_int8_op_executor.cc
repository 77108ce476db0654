#include <string>
#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ChannelShuffleInt8Param : BaseParam {
  int groups = 1;
  std::vector<float> input_scale;
  std::vector<int> input_shape;  // prepared
};

// Channel shuffle as in ShuffleNet / ONNX ChannelShuffle: the C channels,
// seen as [groups, C / groups], are transposed to [C / groups, groups]. A
// permutation leaves the codes and their scale unchanged.
class Z40ChannelShuffleInt8OpExecutor : public ParamOpExecutor<Z40ChannelShuffleInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_int(node, "groups", op_param_.groups, missing_message("groups", kName));
    // The message names INPUT1SCALE although the key is INPUTSCALE; users know it so.
    require_float_list(node, "INPUTSCALE", op_param_.input_scale,
                       "Do not find the INPUT1SCALE in Z40ChannelShuffleInt8!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, kName);
    check_rank_4(input, "Wrong input_shape in channel shuffle!!!");
    const int channels = input->shape()[3];
    const int groups = op_param_.groups;
    KOVRA_ENSURE_MSG(groups > 0 && channels % groups == 0, "channels % groups == 0",
                     std::string(kName) + ": " + std::to_string(channels) + " channels in " +
                         std::to_string(groups) + " groups");
    op_param_.input_shape = input->shape();
    shape = input->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const std::vector<int>& shape = op_param_.input_shape;
    const Tensor* input = prepared_input(inputs, shape, output, shape_count(shape), kName);
    channel_shuffle_f32(input->data<float>(), output->mutable_data<float>(), shape, op_param_.groups);
    return true;
  }

 private:
  static constexpr const char* kName = "Z40ChannelShuffleInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40ChannelShuffleInt8)
