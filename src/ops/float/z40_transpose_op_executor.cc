#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/common/op_checks.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/gather.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40TransposeParam : BaseParam, PreparedShapes {
  std::vector<int> perm;
  std::vector<int> output_shape;
  GatherPlan plan;
};

// Without "perm" the axes are reversed, as numpy.transpose does.
class Z40TransposeOpExecutor : public ParamOpExecutor<Z40TransposeParam> {
 public:
  static constexpr const char* kName = "Z40Transpose";

  void parse_parameter(const NodeDef& node) override {
    read_int_list(node, "perm", op_param_.perm);
    require_int_list(node, "output_shape", op_param_.output_shape,
                     "Do not find the output_shape in FloatZ40Transpose!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40TransposeParam& p = op_param_;
    const std::vector<int> perm = _perm(inputs);
    p.in_shape = inputs[0]->shape();
    plan_transpose(p.in_shape, perm, p.plan);
    p.out_shape = p.output_shape;
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    Z40TransposeParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    if (inputs[0]->size() < 1) return true;
    run_gather(inputs[0]->data<float>(), output->mutable_data<float>(), p.plan);
    return true;
  }

 private:
  std::vector<int> _perm(const std::vector<const Tensor*>& inputs) const {
    check_input_count(inputs, 1, kName);
    const Tensor* input = inputs[0];
    check_input_not_scalar(input, "FloatZ40Transpose");
    check_float(input, kName);
    const int rank = input->dims();
    std::vector<int> perm = op_param_.perm;
    if (perm.empty()) {
      for (int a = rank - 1; a >= 0; --a) perm.push_back(a);
    }
    KOVRA_ENSURE_MSG(is_permutation_of_rank(perm, rank), "is_permutation_of_rank(perm, rank)",
                     std::string(kName) + ": perm " + shape_text(perm) +
                         " is no permutation of the axes of " + shape_text(input->shape()));
    std::vector<int> permuted(rank);
    for (int a = 0; a < rank; ++a) permuted[a] = input->shape()[perm[a]];
    KOVRA_ENSURE_MSG(permuted == op_param_.output_shape, "output_shape == input shape permuted by perm",
                     std::string(kName) + ": output_shape " + shape_text(op_param_.output_shape) +
                         " but perm gives " + shape_text(permuted));
    return perm;
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    _perm(inputs);
    refuse_unprepared(inputs, output, op_param_.output_shape, op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Transpose)
