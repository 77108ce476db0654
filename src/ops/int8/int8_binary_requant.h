#ifndef KOVRAEXECUTOR_OPS_INT8_BINARY_REQUANT_H_
#define KOVRAEXECUTOR_OPS_INT8_BINARY_REQUANT_H_

#include <string>
#include <vector>

#include "op_executor.h"
#include "ops/int8/int8_common.h"
#include "ops/int8/int8_eltwise_activation.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Attributes shared by the two-input int8 operators that bring both inputs
// to the output scale (sum, difference, maximum), and what inference_shape
// prepares from them.
struct Int8BinaryRequantParam : BaseParam {
  std::vector<float> input0_scale, input1_scale, output_scale;
  int input0_offset = 0;
  int input1_offset = 0;
  int offset = 0;
  int max_value = 0;
  int min_value = 0;
  int output_bitwidth = 8;
  std::string action_type = "None";
  EltwiseActivation activation = EltwiseActivation::kLinear;
  EltwiseActivationConstants constants;

  // Prepared: the input shapes, the channel count and the per-channel
  // factors of the direct requantization.
  std::vector<int> input0_shape, input1_shape;
  int channels = 1;
  SumRequant requant;
};

// Reads the scales, offsets and bounds (required, "Do not find the KEY in
// <op>!!!") and, when `with_activation`, "ActionType" and its constants.
void parse_binary_requant(const NodeDef& node, const char* op, bool with_activation,
                          Int8BinaryRequantParam& param);

// inference_shape's part: checks both inputs and the per-channel attributes,
// records the shapes and fills the factors (b negated for a difference). A
// second input that is neither a single value nor as large as the first
// fails unless `scalar_allowed` is false, when it must always cover the first.
void prepare_binary_requant(const std::vector<const Tensor*>& inputs, const char* op, bool difference,
                            bool scalar_allowed, Int8BinaryRequantParam& param);

// execute's guard: two float inputs of the prepared shapes and an output of
// the first input's size.
void check_binary_prepared(const std::vector<const Tensor*>& inputs, const Tensor* output, const char* op,
                           const Int8BinaryRequantParam& param);

// The element-wise sum (difference when `difference`): direct requantization
// without activation, real-valued path with one, the one-element shortcut
// when the second input holds a single value.
void run_int8_sum(const std::vector<const Tensor*>& inputs, Tensor* output, const char* op,
                  const Int8BinaryRequantParam& param, bool difference);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_BINARY_REQUANT_H_
