#include <memory>
#include <string>

#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_resize_params.h"
#include "ops/float/float_shape_checks.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40Unpool2DParam : BaseParam {
  std::string mode = "nearest";
  std::vector<int> kernel_size = {2, 2};
};

// Nearest unpooling repeats each input pixel over a kernel_h x kernel_w block
// ("kernel_size" = [kernel_h, kernel_w]), the nearest resize by those factors.
class Z40Unpool2DOpExecutor : public ParamOpExecutor<Z40Unpool2DParam> {
 public:
  void parse_parameter(const NodeDef& node) override {
    read_string(node, "mode", op_param_.mode);
    read_int_list(node, "kernel_size", op_param_.kernel_size);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const ResizeGeometry g = _plan(inputs);
    shape = {g.n, g.out_h, g.out_w, g.c};
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const ResizeGeometry g = _plan(inputs);
    check_output_shape(output, {g.n, g.out_h, g.out_w, g.c}, "Z40Unpool2D");
    resize_nearest_f32(inputs[0]->data<float>(), output->mutable_data<float>(), g);
    return true;
  }

 private:
  ResizeGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    const Z40Unpool2DParam& p = op_param_;
    KOVRA_ENSURE_MSG(p.mode == "nearest", "op_param_->mode == \"nearest\"",
                     "Z40Unpool2D only supports mode nearest, not " + p.mode);
    KOVRA_ENSURE_MSG(
        p.kernel_size.size() == 2 && p.kernel_size[0] > 0 && p.kernel_size[1] > 0,
        "kernel_size == [kernel_h, kernel_w] > 0",
        "Z40Unpool2D: kernel_size " + shape_text(p.kernel_size) + " is not two positive factors");
    return plan_resize(inputs, static_cast<float>(p.kernel_size[0]), static_cast<float>(p.kernel_size[1]),
                       "Z40Unpool2D");
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Unpool2D)
