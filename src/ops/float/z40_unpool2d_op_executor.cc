#include <string>
#include <vector>

#include "common.h"
#include "op_attr.h"
#include "op_executor.h"
#include "ops/float/float_resize_params.h"
#include "ops/float/float_shape_checks.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40Unpool2DParam : BaseParam, PreparedShapes {
  std::string mode = "nearest";
  std::vector<int> kernel_size = {2, 2};
  ResizeGeometry geometry;
  std::vector<int> src_y, src_x;  // source row of each output row, column of each column
};

// Nearest unpooling repeats each input pixel over a kernel_h x kernel_w block
// ("kernel_size" = [kernel_h, kernel_w]), the nearest resize by those factors.
class Z40Unpool2DOpExecutor : public ParamOpExecutor<Z40Unpool2DParam> {
 public:
  static constexpr const char* kName = "Z40Unpool2D";

  void parse_parameter(const NodeDef& node) override {
    read_string(node, "mode", op_param_.mode);
    read_int_list(node, "kernel_size", op_param_.kernel_size);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    Z40Unpool2DParam& p = op_param_;
    const ResizeGeometry g = _plan(inputs);
    p.geometry = g;
    p.src_y = nearest_source_indices(g.h, g.out_h);
    p.src_x = nearest_source_indices(g.w, g.out_w);
    p.in_shape = inputs[0]->shape();
    p.out_shape = {g.n, g.out_h, g.out_w, g.c};
    shape = p.out_shape;
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Z40Unpool2DParam& p = op_param_;
    if (KOVRA_UNLIKELY(!matches_prepared(inputs, output, p))) _refuse(inputs, output);
    resize_nearest_f32(inputs[0]->data<float>(), output->mutable_data<float>(), p.geometry, p.src_y.data(),
                       p.src_x.data());
    return true;
  }

 private:
  ResizeGeometry _plan(const std::vector<const Tensor*>& inputs) const {
    const Z40Unpool2DParam& p = op_param_;
    KOVRA_ENSURE_MSG(p.mode == "nearest", "op_param_->mode == \"nearest\"",
                     std::string(kName) + " only supports mode nearest, not " + p.mode);
    KOVRA_ENSURE_MSG(
        p.kernel_size.size() == 2 && p.kernel_size[0] > 0 && p.kernel_size[1] > 0,
        "kernel_size == [kernel_h, kernel_w] > 0",
        std::string(kName) + ": kernel_size " + shape_text(p.kernel_size) + " is not two positive factors");
    return plan_resize(inputs, static_cast<float>(p.kernel_size[0]), static_cast<float>(p.kernel_size[1]),
                       kName);
  }

  [[noreturn]] __attribute__((noinline, cold)) void _refuse(const std::vector<const Tensor*>& inputs,
                                                            const Tensor* output) const {
    const ResizeGeometry g = _plan(inputs);
    refuse_unprepared(inputs, output, {g.n, g.out_h, g.out_w, g.c}, op_param_, kName);
  }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Unpool2D)
