#include <string>
#include <vector>

#include "kvdl.h"
#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_resize.h"
#include "ops/kernels/resize_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40Unpool2DInt8Param : BaseParam {
  std::vector<int> kernel_size;  // [kernel_h, kernel_w]
  Int8ResizePlan plan;           // prepared
};

// Nearest unpooling as the float operator does it: each code repeated over a
// kernel_h x kernel_w block, the enlarged sides rounded half to even.
class Z40Unpool2DInt8OpExecutor : public ParamOpExecutor<Z40Unpool2DInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    require_int_list(node, "kernel_size", op_param_.kernel_size, missing_message("kernel_size", kName));
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    const ResizeGeometry g = geometry(inputs);
    plan_resize(inputs[0], g, false, false, op_param_.plan, shape);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Int8ResizePlan& plan = op_param_.plan;
    const Tensor* input = prepared_input(inputs, plan.input_shape, output, plan.out_count, kName);
    resize_nearest_f32(input->data<float>(), output->mutable_data<float>(), plan.geometry, plan.rows.data(),
                       plan.cols.data());
    return true;
  }

 private:
  ResizeGeometry geometry(const std::vector<const Tensor*>& inputs) const {
    const Tensor* input = first_input(inputs, kName);
    check_rank_4(input, "Wrong input shape in Z40Unpool2DInt8!!!");
    const std::vector<int>& k = op_param_.kernel_size;
    KOVRA_ENSURE_MSG(k.size() == 2 && k[0] > 0 && k[1] > 0 && k[0] < 65536 && k[1] < 65536,
                     "kernel_size == [kernel_h, kernel_w] > 0",
                     std::string(kName) + ": kernel_size is not two positive factors");
    const std::vector<int>& s = input->shape();
    ResizeGeometry g;
    g.n = s[0], g.h = s[1], g.w = s[2], g.c = s[3];
    const float oh = kvdl::tensorflow_round_cpu(static_cast<float>(s[1]) * k[0]);
    const float ow = kvdl::tensorflow_round_cpu(static_cast<float>(s[2]) * k[1]);
    KOVRA_ENSURE_MSG(oh < 2147483647.0f && ow < 2147483647.0f, "out_h, out_w < 2^31",
                     std::string(kName) + ": the unpooled size is too large");
    g.out_h = static_cast<int>(oh);
    g.out_w = static_cast<int>(ow);
    return g;
  }

  static constexpr const char* kName = "Z40Unpool2DInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40Unpool2DInt8)
