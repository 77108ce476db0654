#include <string>
#include <vector>

#include "common.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/layout_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40ConcatParam : BaseParam {
  std::vector<std::vector<int>> in_shapes;  // empty until inference_shape has run
  std::vector<int> out_shape;
  ConcatPlan plan;
  std::vector<const float*> parts;  // each input's data, gathered on every run
};

// Joins every input (weights included) along the channel axis, the last one.
class Z40ConcatOpExecutor : public ParamOpExecutor<Z40ConcatParam> {
 public:
  static constexpr const char* kName = "Z40Concat";

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40ConcatParam& p = op_param_;
    p.out_shape = _joined_shape(inputs);
    p.in_shapes.clear();
    std::vector<int> axis_sizes;
    for (const Tensor* input : inputs) {
      p.in_shapes.push_back(input->shape());
      axis_sizes.push_back(input->shape().back());
    }
    p.plan = plan_concat(axis_sizes, p.out_shape, static_cast<int>(p.out_shape.size()) - 1);
    p.parts.assign(inputs.size(), nullptr);
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40ConcatParam& p = op_param_;
    if (KOVRA_UNLIKELY(!_matches_prepared(inputs, output))) _refuse(inputs, output);
    KOVRA_ENSURE_MSG(p.out_shape.size() > 3, "output_shape.size() > 3", "Wrong output shape in concat.");
    if (output->size() < 1) return true;
    for (size_t i = 0; i < inputs.size(); ++i) p.parts[i] = inputs[i]->data<float>();
    concat_f32(p.parts.data(), p.plan, output->mutable_data<float>());
    return true;
  }

 private:
  static std::vector<int> _joined_shape(const std::vector<const Tensor*>& inputs) {
    KOVRA_ENSURE_MSG(inputs.size() > 1, "inputs.size() > 1",
                     "Z40Concat operator inputs must greater than 1.");
    const std::vector<int>& first = inputs[0]->shape();
    KOVRA_ENSURE_MSG(!first.empty(), "input_tensor->shape().size() > 0",
                     "The shape of input is 0 in FloatZ40Concat!!!");
    std::vector<int> joined = first;
    long long channels = 0;
    for (const Tensor* input : inputs) {
      check_float(input, kName);
      const std::vector<int>& shape = input->shape();
      bool match = shape.size() == first.size();
      for (size_t a = 0; match && a + 1 < shape.size(); ++a) match = shape[a] == first[a];
      KOVRA_ENSURE_MSG(match, "inputs agree on every axis but the last",
                       std::string(kName) + " cannot join " + input->name() + " " + shape_text(shape) +
                           " to " + inputs[0]->name() + " " + shape_text(first));
      channels += shape.back();
    }
    KOVRA_ENSURE_MSG(channels <= 0x7fffffffLL, "joined channels fit in int",
                     std::string(kName) + ": the inputs join to " + std::to_string(channels) + " channels");
    joined.back() = static_cast<int>(channels);
    return joined;
  }

  bool _matches_prepared(const std::vector<const Tensor*>& inputs, const Tensor* output) const {
    const Z40ConcatParam& p = op_param_;
    if (p.in_shapes.empty() || inputs.size() != p.in_shapes.size()) return false;
    for (size_t i = 0; i < inputs.size(); ++i) {
      if (inputs[i]->shape() != p.in_shapes[i] || inputs[i]->data_type() != Tensor::DT_FLOAT) return false;
    }
    return output->shape() == p.out_shape && output->data_type() == Tensor::DT_FLOAT;
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    const Z40ConcatParam& p = op_param_;
    const std::vector<int> joined = _joined_shape(inputs);
    KOVRA_ENSURE_MSG(joined.size() > 3, "output_shape.size() > 3", "Wrong output shape in concat.");
    check_output_shape(output, joined, kName);
    check_float_output(output, kName);
    if (p.in_shapes.empty()) fail_unprepared(inputs[0], {}, kName);
    KOVRA_ENSURE_MSG(inputs.size() == p.in_shapes.size(), "inputs.size() == prepared inputs",
                     std::string(kName) + ": execute on " + std::to_string(inputs.size()) +
                         " inputs but inference_shape prepared " + std::to_string(p.in_shapes.size()));
    for (size_t i = 0; i < inputs.size(); ++i) {
      if (inputs[i]->shape() != p.in_shapes[i]) fail_unprepared(inputs[i], p.in_shapes[i], kName);
    }
    fail_unprepared(inputs[0], p.in_shapes[0], kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Concat)
