#include <cmath>
#include <vector>

#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40PowInt8Param : BaseParam {
  std::vector<int> input_shape;  // prepared
};

// Every element to the power of the second input's first element, in double
// through the C library; the result is neither rounded nor clamped.
class Z40PowInt8OpExecutor : public ParamOpExecutor<Z40PowInt8Param> {
 public:
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    check_input_count(inputs, 2, kName);
    op_param_.input_shape = first_input(inputs, kName)->shape();
    shape = op_param_.input_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    check_input_count(inputs, 2, kName);
    const Tensor* input = first_input(inputs, kName);
    check_prepared(input, op_param_.input_shape, kName);
    check_float(input, kName);
    check_float(inputs[1], kName);
    check_min_size(inputs[1], 1, kName);
    check_min_size(output, input->size(), kName);
    const double exponent = inputs[1]->data<float>()[0];
    const float* x = input->data<float>();
    float* y = output->mutable_data<float>();
    for (int i = 0, n = input->size(); i < n; ++i) {
      y[i] = static_cast<float>(std::pow(static_cast<double>(x[i]), exponent));
    }
    return true;
  }

 private:
  static constexpr const char* kName = "Z40PowInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40PowInt8)
