#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40KovraFakeQuantFeatureParam : BaseParam {
  float fake_scale = 1.0f;
  // Integer bounds that converters write as integers or as floats.
  int max_value = 0;
  int min_value = 0;
};

// Snaps a float feature map to its quantizer's grid and stays in float; the
// one quantizing operator that divides by its scale.
class Z40KovraFakeQuantFeatureOpExecutor : public ParamOpExecutor<Z40KovraFakeQuantFeatureParam> {
 public:
  static constexpr const char* kName = "Z40KovraFakeQuantFeature";

  void parse_parameter(const NodeDef& node) override {
    // A missing scale reports "offset": the text users know from this message.
    require_float(node, "fake_scale", op_param_.fake_scale,
                  "Do not find the offset in Z40KovraFakeQuantFeature!!!");
    require_int_or_float(node, "maxValue", op_param_.max_value,
                         "Do not find the maxValue in Z40KovraFakeQuantFeature!!!");
    require_int_or_float(node, "minValue", op_param_.min_value,
                         "Do not find the minValue in Z40KovraFakeQuantFeature!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    shape = first_input(inputs, kName)->shape();
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input = first_input(inputs, kName);
    check_float(input, kName);
    const int n = input->size();
    check_min_size(output, n, kName);
    const float* x = input->data<float>();
    float* y = output->mutable_data<float>();
    const float scale = op_param_.fake_scale;
    const float hi = static_cast<float>(op_param_.max_value);
    const float lo = static_cast<float>(op_param_.min_value);
    for (int i = 0; i < n; ++i) {
      float q = kvdl::tensorflow_round_cpu(x[i] / scale);
      q = q > hi ? hi : (q < lo ? lo : q);
      y[i] = q * scale;
    }
    return true;
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40KovraFakeQuantFeature)
