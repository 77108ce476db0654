#ifndef KOVRAEXECUTOR_OPS_DWCONV2D_INT8_H_
#define KOVRAEXECUTOR_OPS_DWCONV2D_INT8_H_

#include <vector>

#include "ops/int8/z40_depthwise_conv2d_native_int8_op_executor.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Depthwise int8 convolution; inputs are the data, the weights
// [kernel_h, kernel_w, C, multiplier] and the bias (C x multiplier values).
// Each output sums its kernel positions in order, in float, then takes the
// output stage of the int8 convolutions.
void dwconv2d_int8(const std::vector<const Tensor*>& inputs, Tensor* output,
                   Z40DepthwiseConv2dNativeInt8Param* param);

// Checks the inputs (data, weights, optional bias) and prepares geometry,
// multiplier and the stand-in bias into param->prepared.
void prepare_dwconv2d_int8(const std::vector<const Tensor*>& inputs,
                           Z40DepthwiseConv2dNativeInt8Param* param);
// The convolution once prepared: no allocation and no message unless a
// check fails. `bias` holds C x multiplier values.
void run_dwconv2d_int8(const Tensor* input, const Tensor* weight, const float* bias, Tensor* output,
                       const Z40DepthwiseConv2dNativeInt8Param* param);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_DWCONV2D_INT8_H_
