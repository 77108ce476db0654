#include <algorithm>
#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/int8/int8_common.h"
#include "ops/common/op_checks.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40GlobalAvgPoolInt8Param : BaseParam {
  std::vector<float> pool_scale;
  std::vector<int> output_shape;
  int max_value = 0;
  int min_value = 0;
  int output_bitwidth = 8;
};

// Sum over all spatial positions per channel, in float and in memory order;
// "POOLSCALE" (which carries the 1 / (H*W)) scales it to the output codes.
// Output [N, 1, 1, C] for a 4-D [N, H, W, C] or 3-D [N, L, C] input.
class Z40GlobalAvgPoolInt8OpExecutor : public ParamOpExecutor<Z40GlobalAvgPoolInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_int(node, "maxValue", op_param_.max_value, missing_message("maxValue", kName));
    // The capital O is in the text users search for.
    require_int(node, "minValue", op_param_.min_value, "DO not find the minValue in Z40GlobalAvgPoolInt8!!!");
    require_float_list(node, "POOLSCALE", op_param_.pool_scale, missing_message("POOLSCALE", kName));
    read_int_list(node, "output_shape", op_param_.output_shape);
    read_int(node, "output_bitwidth", op_param_.output_bitwidth);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = checked_input(inputs);
    shape = {input->shape()[0], 1, 1, input->shape().back()};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input = checked_input(inputs);
    check_float(input, kName);
    const int batch = input->shape()[0];
    const int channels = input->shape().back();
    check_per_channel(op_param_.pool_scale, channels, "POOLSCALE", kName);
    check_min_size(output, static_cast<long long>(batch) * channels, kName);
    const int spatial = batch > 0 && channels > 0 ? input->size() / (batch * channels) : 0;
    const float lo = static_cast<float>(op_param_.min_value);
    const float hi = static_cast<float>(op_param_.max_value);
    const float* x = input->data<float>();
    float* y = output->mutable_data<float>();
    std::vector<float> sum(channels);
    for (int n = 0; n < batch; ++n) {
      std::fill(sum.begin(), sum.end(), 0.0f);
      const float* image = x + static_cast<long>(n) * spatial * channels;
      for (int p = 0; p < spatial; ++p) {
        for (int c = 0; c < channels; ++c) sum[c] += image[static_cast<long>(p) * channels + c];
      }
      for (int c = 0; c < channels; ++c) {
        const float q = kvdl::tensorflow_round_cpu(sum[c] * op_param_.pool_scale[c]);
        y[static_cast<long>(n) * channels + c] = clamp_code(q, lo, hi);
      }
    }
    return true;
  }

 private:
  const Tensor* checked_input(const std::vector<const Tensor*>& inputs) const {
    const Tensor* input = first_input(inputs, kName);
    const size_t rank = input->shape().size();
    KOVRA_ENSURE_MSG(rank == 3 || rank == 4, "input_tensor->shape().size() == 3 || 4",
                     "Wrong input shape in Z40GlobalAvgPoolInt8!!!");
    return input;
  }

  static constexpr const char* kName = "Z40GlobalAvgPoolInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40GlobalAvgPoolInt8)
