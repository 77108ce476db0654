#include <string>
#include <vector>

#include "common.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/pool_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40GlobalAvgPoolParam : BaseParam, PreparedShapes {
  int n = 0, spatial = 0, c = 0;
};

// [N, H, W, C] or [N, L, C] -> [N, 1, 1, C].
class Z40GlobalAvgPoolOpExecutor : public ParamOpExecutor<Z40GlobalAvgPoolParam> {
 public:
  static constexpr const char* kName = "Z40GlobalAvgPool";

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40GlobalAvgPoolParam& p = op_param_;
    const Extent e = _extent(inputs);
    p.n = e.n, p.spatial = e.spatial, p.c = e.c;
    p.in_shape = inputs[0]->shape();
    p.out_shape = {e.n, 1, 1, e.c};
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40GlobalAvgPoolParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    if (inputs[0]->size() < 1) return true;
    global_avg_pool_f32(inputs[0]->data<float>(), output->mutable_data<float>(), p.n, p.spatial, p.c);
    return true;
  }

  // The gradient of a mean: every position gets output_grad / (spatial size).
  void backward(const std::vector<const Tensor*>& inputs, const Tensor* output, const Tensor* output_grad,
                std::vector<Tensor*>& input_grads) override {
    (void)output;
    const Extent e = _extent(inputs);
    KOVRA_ENSURE_MSG(output_grad != nullptr && output_grad->size() == e.n * e.c,
                     "output_grad->size() == N * C",
                     std::string(kName) + ": the output gradient does not match [" + std::to_string(e.n) +
                         ",1,1," + std::to_string(e.c) + "]");
    check_float(output_grad, kName);
    KOVRA_ENSURE_MSG(!input_grads.empty() && input_grads[0] != nullptr, "input_grads[0] != nullptr",
                     std::string(kName) + ": no tensor to receive the input gradient");
    Tensor* grad = input_grads[0];
    grad->set_data(inputs[0]->shape(), Tensor::DT_FLOAT, nullptr);
    if (inputs[0]->size() < 1) return;
    global_avg_pool_backward_f32(output_grad->data<float>(), grad->mutable_data<float>(), e.n, e.spatial, e.c,
                                 1.0f / static_cast<float>(e.spatial));
  }

 private:
  struct Extent {
    int n, spatial, c;
  };

  static Extent _extent(const std::vector<const Tensor*>& inputs) {
    check_input_count(inputs, 1, kName);
    const Tensor* input = inputs[0];
    check_input_not_scalar(input, "FloatZ40GlobalAvgPool");
    const std::vector<int>& s = input->shape();
    KOVRA_ENSURE_MSG(s.size() == 3 || s.size() == 4, "input->dims() == 3 || input->dims() == 4",
                     std::string(kName) + " needs a 3-D or 4-D input but got " + shape_text(s));
    check_float(input, kName);
    if (s.size() == 4) return {s[0], s[1] * s[2], s[3]};
    return {s[0], s[1], s[2]};
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    const Extent e = _extent(inputs);
    refuse_unprepared(inputs, output, {e.n, 1, 1, e.c}, op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40GlobalAvgPool)
