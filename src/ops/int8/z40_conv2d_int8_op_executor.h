#ifndef KOVRAEXECUTOR_OPS_Z40_CONV2D_INT8_OP_EXECUTOR_H_
#define KOVRAEXECUTOR_OPS_Z40_CONV2D_INT8_OP_EXECUTOR_H_

#include <memory>
#include <vector>

#include "ops/int8/int8_conv_param.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Int8PackedWeights;
struct Int8FloatPackedWeights;

struct Z40Conv2DInt8Param : Int8ConvBaseParam {
  std::vector<float> input_mean;
  std::vector<float> input_var;
  // Set by the presence of "input_mean": input codes are normalised and
  // quantized inside the convolution.
  bool first_layer = false;
  int groups = 1;
  // Weights packed for the integer dot-product and the 32-column float
  // kernels, the first time they are needed, and again only when the weight
  // tensor's version (or the kernel table's format) changes.
  std::shared_ptr<Int8PackedWeights> packed_weights;
  std::shared_ptr<Int8FloatPackedWeights> packed_float_weights;
};

class Z40Conv2DInt8OpExecutor : public ParamOpExecutor<Z40Conv2DInt8Param> {
 public:
  static constexpr const char* kName = "Z40Conv2DInt8";
  void parse_parameter(const NodeDef& node_def) override;
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override;
  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override;
  Z40Conv2DInt8Param* param() { return &op_param_; }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_Z40_CONV2D_INT8_OP_EXECUTOR_H_
