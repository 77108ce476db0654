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

struct Z40SpaceToDepthParam : BaseParam, PreparedShapes {
  std::vector<int> output_shape;
  int block = 0;
};

// The block size is not an attribute: it is what turns the input's height
// into output_shape's, and it must do the same for the width and channels.
class Z40SpaceToDepthOpExecutor : public ParamOpExecutor<Z40SpaceToDepthParam> {
 public:
  static constexpr const char* kName = "Z40SpaceToDepth";

  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "output_shape", op_param_.output_shape,
                     "Do not find the strides in FloatZ40SpaceToDepth!!!");
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40SpaceToDepthParam& p = op_param_;
    p.out_shape = _output_shape(inputs, p.block);
    p.in_shape = inputs[0]->shape();
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40SpaceToDepthParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    if (output->size() < 1) return true;
    space_to_depth_f32(inputs[0]->data<float>(), output->mutable_data<float>(), p.in_shape, p.block);
    return true;
  }

 private:
  std::vector<int> _output_shape(const std::vector<const Tensor*>& inputs, int& block) const {
    check_input_count(inputs, 1, kName);
    check_input_not_scalar(inputs[0], "FloatZ40SpaceToDepth");
    check_rank(inputs[0], 4, kName);
    const std::vector<int>& in = inputs[0]->shape();
    std::vector<int> out = op_param_.output_shape;
    KOVRA_ENSURE_MSG(out.size() == 4, "output_shape.size() == 4",
                     std::string(kName) + ": output_shape " + shape_text(out) + " is not 4-D");
    out[0] = in[0];
    check_positive_dims(out, "output_shape", kName);
    block = in[1] / out[1];
    const long long b = block;
    const bool ok = block > 0 && out[1] * b == in[1] && out[2] * b == in[2] && in[3] * b * b == out[3];
    KOVRA_ENSURE_MSG(ok, "output_shape == [N, H/block, W/block, C*block*block]",
                     std::string(kName) + ": output_shape " + shape_text(out) + " is no space-to-depth of " +
                         shape_text(in));
    return out;
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    int block = 0;
    refuse_unprepared(inputs, output, _output_shape(inputs, block), op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40SpaceToDepth)
