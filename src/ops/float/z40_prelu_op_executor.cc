#include "common.h"
#include "ops/float/float_eltwise.h"
#include "ops/kernels/float_activation_kernels.h"
#include "ops/kernels/float_eltwise_grad_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40PReluParam : BaseParam, EltwiseSizes {
  int channels = 0;  // the last dimension: one slope each
};

// x >= 0 ? x : x * slope[c], one slope per channel (the last dimension of a
// 4-D tensor); the slopes are the second input.
class Z40PReluOpExecutor : public FloatBinaryOpExecutor<Z40PReluOpExecutor, Z40PReluParam> {
 public:
  static constexpr const char* kName = "Z40PRelu";
  static constexpr const char* kLabel = "FloatZ40PRelu";

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    FloatBinaryOpExecutor::inference_shape(inputs, shape);
    op_param_.channels = shape[3];
  }

  void compute(const float* x, int n, const float* slope, int, float* y) const {
    prelu_f32(x, y, n, slope, op_param_.channels);
  }

  // The rank is checked on the output's shape, which is x's.
  static void check_inputs(const std::vector<const Tensor*>& inputs) {
    check_input_count(inputs, 1, kName);
    check_input_not_scalar(inputs[0], kLabel);
    check_input_count(inputs, 2, kName);
    check_float(inputs[0], kName);
    check_float(inputs[1], kName);
    KOVRA_ENSURE_MSG(inputs[0]->dims() == 4, "output->shape().size() == 4",
                     "Wrong input shape in FloatZ40PRelu.");
    if (inputs[0]->size() > 0) check_min_size(inputs[1], inputs[0]->shape()[3], kName);
  }

  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    const int n = output->size();
    check_inputs(inputs);
    check_min_size(inputs[0], n, kName);
    float* grads[2];
    prepare_input_grads(inputs, output_grad, n, input_grads, 2, grads, kName);
    prelu_backward_cpu(inputs[0]->data<float>(), inputs[1]->data<float>(), output_grad->data<float>(), n,
                       inputs[0]->shape()[3], grads[0], grads[1], inputs[1]->size());
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40PRelu)
