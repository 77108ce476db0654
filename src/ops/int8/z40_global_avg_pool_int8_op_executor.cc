#include <algorithm>
#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40GlobalAvgPoolInt8Param : BaseParam {
  std::vector<float> pool_scale;
  std::vector<int> output_shape;
  int max_value = 0;
  int min_value = 0;
  int output_bitwidth = 8;
  // Prepared: the input shape, its batch, channels and spatial positions, and
  // the per-channel sums of one image.
  std::vector<int> input_shape;
  int batch = 0, channels = 0, spatial = 0;
  std::vector<float> sum;
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
    Z40GlobalAvgPoolInt8Param& p = op_param_;
    const Tensor* input = checked_input(inputs);
    p.batch = input->shape()[0];
    p.channels = input->shape().back();
    check_per_channel(p.pool_scale, p.channels, "POOLSCALE", kName);
    p.spatial = p.batch > 0 && p.channels > 0 ? input->size() / (p.batch * p.channels) : 0;
    p.input_shape = input->shape();
    p.sum.assign(p.channels > 0 ? p.channels : 0, 0.0f);
    shape = {p.batch, 1, 1, p.channels};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40GlobalAvgPoolInt8Param& p = op_param_;
    const int batch = p.batch, channels = p.channels, spatial = p.spatial;
    const Tensor* input =
        prepared_input(inputs, p.input_shape, output, static_cast<long long>(batch) * channels, kName);
    const float lo = static_cast<float>(p.min_value);
    const float hi = static_cast<float>(p.max_value);
    const float* x = input->data<float>();
    float* y = output->mutable_data<float>();
    float* sum = p.sum.data();
    for (int n = 0; n < batch; ++n) {
      std::fill(sum, sum + channels, 0.0f);
      const float* image = x + static_cast<long>(n) * spatial * channels;
      for (int q = 0; q < spatial; ++q) {
        for (int c = 0; c < channels; ++c) sum[c] += image[static_cast<long>(q) * channels + c];
      }
      for (int c = 0; c < channels; ++c) {
        y[static_cast<long>(n) * channels + c] =
            clamp_code(kvdl::tensorflow_round_cpu(sum[c] * p.pool_scale[c]), lo, hi);
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
