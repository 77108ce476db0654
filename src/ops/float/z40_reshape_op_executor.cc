#include <algorithm>
#include <cstring>
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

struct Z40ReshapeParam : BaseParam, PreparedShapes {
  std::vector<int> output_shape;
  std::string src_framework;
  bool onnx = false;  // src_framework "ONNX": the data are reordered
  OnnxReshapePlan onnx_plan;
  std::vector<float> scratch;  // the reorder's channels-first copy of the input
};

// A second input (a shape tensor) may be present; output_shape decides.
class Z40ReshapeOpExecutor : public ParamOpExecutor<Z40ReshapeParam> {
 public:
  static constexpr const char* kName = "Z40Reshape";

  void parse_parameter(const NodeDef& node) override {
    Z40ReshapeParam& p = op_param_;
    require_int_list(node, "output_shape", p.output_shape, "Do not find the strides in FloatZ40Reshape!!!");
    read_string(node, "src_framework", p.src_framework);
    p.onnx = p.src_framework == "ONNX";
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40ReshapeParam& p = op_param_;
    _check(inputs);
    p.in_shape = inputs[0]->shape();
    p.out_shape = p.output_shape;
    if (p.onnx) {
      plan_onnx_reshape(p.in_shape, p.out_shape, p.onnx_plan);
      p.scratch.resize(p.onnx_plan.flat ? 0 : inputs[0]->size());
    }
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40ReshapeParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    const Tensor* input = inputs[0];
    if (input->size() < 1) return true;
    if (p.onnx) {
      onnx_reshape_reorder(input->data<float>(), output->mutable_data<float>(), p.onnx_plan, p.scratch.data());
    } else {
      std::memcpy(output->mutable_data<float>(), input->data<float>(), sizeof(float) * input->size());
    }
    return true;
  }

 private:
  void _check(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, kName);
    check_input_not_scalar(inputs[0], "FloatZ40Reshape");
    check_float(inputs[0], kName);
    check_positive_dims(op_param_.output_shape, "output_shape", kName);
    check_same_count(op_param_.output_shape, inputs[0], kName);
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    _check(inputs);
    refuse_unprepared(inputs, output, op_param_.output_shape, op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Reshape)
