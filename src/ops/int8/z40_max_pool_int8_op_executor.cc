#include <limits>
#include <vector>

#include "op_attr.h"
#include "ops/common/op_checks.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_pool.h"
#include "ops/kernels/pool_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40MaxPoolInt8Param : Int8PoolParam {
  // Without "padValue" padded cells never win, as in the float max pooling.
  float pad_value = std::numeric_limits<float>::lowest();
};

// Maximum pooling on codes; padded cells take "padValue"; the result is clamped.
class Z40MaxPoolInt8OpExecutor : public ParamOpExecutor<Z40MaxPoolInt8Param> {
 public:
  void parse_parameter(const NodeDef& node) override {
    parse_pool_attrs(node, kName, op_param_.attrs);
    read_bool(node, "ceil_mode", op_param_.attrs.ceil_mode);
    int pad_value = 0;
    if (read_int(node, "padValue", pad_value)) op_param_.pad_value = static_cast<float>(pad_value);
  }

  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    prepare_pool(inputs, kName, "Wrong input shape in Z40MaxPoolInt8!!!", op_param_, shape);
  }

  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    const Tensor* input = prepared_input(inputs, op_param_.input_shape, output, op_param_.out_count, kName);
    const PoolGeometry& g = op_param_.geometry;
    float* y = output->mutable_data<float>();
    max_pool_f32(input->data<float>(), y, g);
    apply_pad_value(y, g, op_param_.pad_value);
    round_and_clamp(y, op_param_.out_count, static_cast<float>(op_param_.attrs.min_value),
                    static_cast<float>(op_param_.attrs.max_value));
    return true;
  }

 private:
  static constexpr const char* kName = "Z40MaxPoolInt8";
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

KOVRA_REGISTER_OP(Z40MaxPoolInt8)
