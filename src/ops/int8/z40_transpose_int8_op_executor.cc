#include <string>
#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/kernels/gather.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40TransposeInt8Param : BaseParam {
  std::vector<int> perm;
  std::vector<int> output_shape;
  // Prepared: the input shape and the gather that permutes it.
  std::vector<int> input_shape;
  GatherPlan plan;
};

// Axis permutation of the codes, a gather prepared once per input shape.
class Z40TransposeInt8OpExecutor : public ParamOpExecutor<Z40TransposeInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "perm", op_param_.perm, missing_message("perm", kName));
    require_int_list(node, "output_shape", op_param_.output_shape, missing_message("output_shape", kName));
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const Tensor* input = first_input(inputs, kName);
    KOVRA_ENSURE_MSG(is_permutation_of_rank(op_param_.perm, input->dims()), "is_permutation(perm, rank)",
                     std::string(kName) + ": perm is not a permutation of the input's " +
                         std::to_string(input->dims()) + " axes");
    op_param_.input_shape = input->shape();
    plan_transpose(input->shape(), op_param_.perm, op_param_.plan);
    shape.clear();
    for (int axis : op_param_.perm) shape.push_back(input->shape()[axis]);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    GatherPlan& plan = op_param_.plan;
    const Tensor* input = prepared_input(inputs, op_param_.input_shape, output, plan.count, kName);
    run_gather(input->data<float>(), output->mutable_data<float>(), plan);
    return true;
  }

 private:
  static constexpr const char* kName = "Z40TransposeInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40TransposeInt8)
