#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/int8_graph.h"

namespace kovra_test {
namespace {

// One node carrying every attribute any of the operators below requires;
// each case drops one key and expects the operator's own message.
NodeDef full_node(const std::string& op) {
  NodeDef n;
  n.set_name("n");
  n.set_op(op);
  for (const char* key : {"QSCALE", "DEQSCALE", "INPUTSCALE", "INPUT0SCALE", "INPUT1SCALE", "OUTPUTSCALE",
                          "POOLSCALE", "scale", "bias"}) {
    set_attr_floats(&n, key, {1.0f});
  }
  for (const char* key : {"offset", "input_offset", "input0_offset", "input1_offset", "maxValue", "minValue",
                          "groups", "axis", "hidden_size"}) {
    set_attr_i(&n, key, 1);
  }
  for (const char* key :
       {"ksize", "strides", "pads", "output_shape", "perm", "starts", "ends", "kernel_size"}) {
    set_attr_ints(&n, key, {1, 1, 1, 1});
  }
  set_attr_f(&n, "fake_scale", 1.0f);
  set_attr_f(&n, "wh_scale", 2.0f);
  set_attr_s(&n, "mode", "constant");
  return n;
}

struct MissingCase {
  const char* op;
  const char* key;
  const char* message;
};
void PrintTo(const MissingCase& c, std::ostream* os) { *os << c.message; }

// clang-format off
const MissingCase kMissing[] = {
    {"Z40Quantize", "QSCALE", "Do not find the QSCALE in  Z40Quantize!!!"},
    {"Z40Quantize", "offset", "Do not find the offset in  Z40Quantize!!!"},
    {"Z40Quantize", "maxValue", "Do not find the maxValue in  Z40Quantize!!!"},
    {"Z40Quantize", "minValue", "Do not find the minValue in  Z40Quantize!!!"},
    {"Z40Dequantize", "QSCALE", "Do not find the QSCALE in  Z40Dequantize!!!"},
    {"Z40Dequantize", "offset", "Do not find the offset in  Z40Dequantize!!!"},
    {"Z40KovraFakeQuantFeature", "fake_scale",
     "Do not find the offset in Z40KovraFakeQuantFeature!!!"},
    {"Z40KovraFakeQuantFeature", "maxValue",
     "Do not find the maxValue in Z40KovraFakeQuantFeature!!!"},
    {"Z40KovraFakeQuantFeature", "minValue",
     "Do not find the minValue in Z40KovraFakeQuantFeature!!!"},
    {"Z40EltwiseAddInt8", "INPUT0SCALE", "Do not find the INPUT0SCALE in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseAddInt8", "input0_offset",
     "Do not find the input0_offset in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseAddInt8", "INPUT1SCALE", "Do not find the INPUT1SCALE in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseAddInt8", "input1_offset",
     "Do not find the input1_offset in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseAddInt8", "maxValue", "Do not find the maxValue in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseAddInt8", "minValue", "Do not find the minValue in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseAddInt8", "OUTPUTSCALE", "Do not find the OUTPUTSCALE in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseSubInt8", "INPUT1SCALE", "Do not find the INPUT1SCALE in Z40EltwiseSubInt8!!!"},
    {"Z40EltwiseSubInt8", "OUTPUTSCALE", "Do not find the OUTPUTSCALE in Z40EltwiseSubInt8!!!"},
    {"Z40EltwiseMulInt8", "input0_offset",
     "Do not find the input0_offset in Z40EltwiseMulInt8!!!"},
    {"Z40EltwiseMulInt8", "input1_offset",
     "Do not find the input1_offset in Z40EltwiseMulInt8!!!"},
    {"Z40EltwiseMulInt8", "maxValue", "Do not find the maxValue in Z40EltwiseMulInt8!!!"},
    {"Z40EltwiseMulInt8", "minValue", "Do not find the minValue in Z40EltwiseMulInt8!!!"},
    {"Z40EltwiseMulInt8", "OUTPUTSCALE", "Do not find the OUTPUTSCALE in Z40EltwiseMulInt8!!!"},
    {"Z40MaxInt8", "INPUT0SCALE", "Do not find the INPUT0SCALE in Z40MaxInt8!!!"},
    {"Z40MaxInt8", "minValue", "Do not find the minValue in Z40MaxInt8!!!"},
    {"Z40SigmoidInt8", "INPUTSCALE", "Do not find the INPUTSCALE in Z40SigmoidInt8!!!"},
    {"Z40SigmoidInt8", "OUTPUTSCALE", "Do not find the OUTPUTSCALE in Z40SigmoidInt8!!!"},
    {"Z40SigmoidInt8", "maxValue", "Do not find the maxValue in Z40SigmoidInt8!!!"},
    {"Z40SigmoidInt8", "minValue", "Do not find the minValue in Z40SigmoidInt8!!!"},
    {"Z40SigmoidInt8", "input_offset", "Do not find the input_offset in Z40SigmoidInt8!!!"},
    {"Z40SigmoidInt8", "offset", "Do not find the offset in Z40SigmoidInt8!!!"},
    {"Z40TanhInt8", "INPUTSCALE", "Do not find the INPUTSCALE in Z40TanhInt8!!!"},
    {"Z40TanhInt8", "offset", "Do not find the offset in Z40TanhInt8!!!"},
    {"Z40BatchNormScaleInt8", "bias", "Do not find the bias in Z40BatchNormScaleInt8!!!"},
    {"Z40BatchNormScaleInt8", "scale", "Do not find the scale in Z40BatchNormScaleInt8!!!"},
    {"Z40BatchNormScaleInt8", "offset", "Do not find the offset in Z40BatchNormScaleInt8!!!"},
    {"Z40BatchNormScaleInt8", "maxValue", "Do not find the maxValue in Z40BatchNormScaleInt8!!!"},
    {"Z40ChannelShuffleInt8", "groups", "Do not find the groups in Z40ChannelShuffleInt8!!!"},
    {"Z40ChannelShuffleInt8", "INPUTSCALE",
     "Do not find the INPUT1SCALE in Z40ChannelShuffleInt8!!!"},
    {"Z40AvgPoolInt8", "ksize", "Do not find the ksize in Z40AvgPoolInt8!!!"},
    {"Z40AvgPoolInt8", "maxValue", "Do not find the maxValue in Z40AvgPoolInt8!!!"},
    {"Z40AvgPoolInt8", "minValue", "Do not find the minValue in Z40AvgPoolInt8!!!"},
    {"Z40MaxPoolInt8", "ksize", "Do not find the ksize in Z40MaxPoolInt8!!!"},
    {"Z40MaxPoolInt8", "maxValue", "Do not find the maxValue in Z40MaxPoolInt8!!!"},
    {"Z40GlobalAvgPoolInt8", "maxValue", "Do not find the maxValue in Z40GlobalAvgPoolInt8!!!"},
    {"Z40GlobalAvgPoolInt8", "minValue", "DO not find the minValue in Z40GlobalAvgPoolInt8!!!"},
    {"Z40GlobalAvgPoolInt8", "POOLSCALE", "Do not find the POOLSCALE in Z40GlobalAvgPoolInt8!!!"},
    {"Z40ResizeBilinearInt8", "wh_scale", "Do not find the wh_scale in Z40ResizeBilinearInt8!!!"},
    {"Z40ResizeBilinearInt8", "maxValue", "Do not find the maxValue in Z40EltwiseMulInt8!!!"},
    {"Z40ResizeBilinearInt8", "minValue", "Do not find the minValue in Z40ResizeBilinearInt8!!!"},
    {"Z40ResizeBilinearInt8", "offset", "Do not find the offset in Z40ResizeBilinearInt8!!!"},
    {"Z40ResizeNearestNeighborInt8", "wh_scale",
     "Do not find the wh_scale in Z40ResizeNearestNeighborInt8!!!"},
    {"Z40Unpool2DInt8", "kernel_size", "Do not find the kernel_size in Z40Unpool2DInt8!!!"},
    {"Z40ConcatInt8", "maxValue", "Do not find the maxValue in Z40ConcatInt8!!!"},
    {"Z40ConcatInt8", "minValue", "Do not find the minValue in Z40ConcatInt8!!!"},
    {"Z40ConcatInt8", "offset", "Do not find the offset in Z40ConcatInt8!!!"},
    {"Z40ConcatInt8", "input_offset", "Do not find the input_offset in Z40ConcatInt8!!!"},
    {"Z40ConcatInt8", "QSCALE", "Do not find the QSCALE in Z40ConcatInt8!!!"},
    {"Z40ConcatInt8", "DEQSCALE", "Do not find the DEQSCALE in Z40ConcatInt8!!!"},
    {"Z40PadInt8", "pads", "Do not find the pads in Z40PadInt8!!!"},
    {"Z40SliceInt8", "output_shape", "Do not find the output_shape in Z40SliceInt8!!!"},
    {"Z40SliceInt8", "starts", "Do not find the starts in Z40SliceInt8!!!"},
    {"Z40SliceInt8", "ends", "Do not find the ends in Z40SliceInt8!!!"},
    {"Z40TransposeInt8", "perm", "Do not find the perm in Z40TransposeInt8!!!"},
    {"Z40TransposeInt8", "output_shape", "Do not find the output_shape in Z40TransposeInt8!!!"},
    {"Z40ReshapeInt8", "output_shape", "Do not find the strides in Z40ReshapeInt8!!!"},
    {"Z40SpaceToDepthInt8", "output_shape",
     "Do not find the output_shape in Z40SpaceToDepthInt8!!!"},
};
// clang-format on

class MissingAttributeTest : public ::testing::TestWithParam<MissingCase> {};

TEST_P(MissingAttributeTest, AbortsWithTheOperatorsMessage) {
  const MissingCase& c = GetParam();
  NodeDef node = full_node(c.op);
  node.mutable_attr()->erase(c.key);
  auto op = make_op(c.op);
  EXPECT_CHECK_FAILED(op->parse_parameter(node), "suc", c.message);
}

TEST(MissingAttributeTest, CompleteNodesParse) {
  for (const MissingCase& c : kMissing) make_op(c.op)->parse_parameter(full_node(c.op));
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, MissingAttributeTest, ::testing::ValuesIn(kMissing));

// A model's tensors of the given shapes, filled with ones and named t0, t1, ...
// (a shape of no elements stands for a tensor without a buffer).
struct Inputs {
  std::vector<Tensor> tensors;
  std::vector<const Tensor*> ptrs;
  explicit Inputs(const std::vector<std::vector<int>>& shapes) {
    for (size_t i = 0; i < shapes.size(); ++i) {
      int n = 1;
      for (int d : shapes[i]) n *= d;
      tensors.push_back(shapes[i].empty() || n == 0 ? Tensor()
                                                    : make_tensor(shapes[i], std::vector<float>(n, 1.0f)));
      tensors.back().set_name("t" + std::to_string(i));
    }
    for (const Tensor& t : tensors) ptrs.push_back(&t);
  }
};

// Both steps as a node takes them: shape inference, an output of that shape, execute.
void infer_and_execute(kovra::trenkit::kovraexecutor::OpExecutor* op,
                       const std::vector<const Tensor*>& inputs) {
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  int n = 1;
  for (int d : shape) n *= d;
  Tensor output = make_tensor(shape, std::vector<float>(n, 0.0f));
  op->execute(inputs, &output);
}

using Tweak = void (*)(NodeDef*);

// Inputs, and attribute values, that an operator refuses: each case gives the
// operator's own message, whichever of the two steps detects it.
struct CheckCase {
  const char* op;
  std::vector<std::vector<int>> shapes;  // one tensor per entry
  const char* condition;                 // empty: a plain "Error:" line
  const char* message;
  Tweak tweak = nullptr;  // changes to the complete node
};
void PrintTo(const CheckCase& c, std::ostream* os) { *os << c.op << ": " << c.message; }

// clang-format off
const CheckCase kChecks[] = {
    // Ranks and empty inputs.
    {"Z40Quantize", {{1, 4}}, "", "\"The shape of input only support 3D ,4D or 5D in Z40Quantize!!!\""},
    {"Z40Quantize", {{1, 1, 1, 1, 1, 1}}, "",
     "\"The shape of input only support 3D ,4D or 5D in Z40Quantize!!!\""},
    {"Z40Dequantize", {{4}}, "", "\"The shape of input only support 3D ,4D or 5D in Z40Dequantize!!!\""},
    {"Z40Quantize", {{}}, "input_tensor->shape().size() > 0", "The shape of input is 0 in Z40Quantize!!!"},
    {"Z40Dequantize", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40Dequantize!!!"},
    {"Z40KovraFakeQuantFeature", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40KovraFakeQuantFeature!!!"},
    {"Z40EltwiseAddInt8", {{}, {1}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseSubInt8", {{}, {1}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40EltwiseSubInt8!!!"},
    {"Z40EltwiseAddInt8", {{1, 2}}, "inputs.size() >= 2", "Z40EltwiseAddInt8 needs 2 inputs but has 1"},
    {"Z40Quantize", {}, "inputs.size() >= 1", "Z40Quantize needs 1 inputs but has 0"},
    {"Z40CloneInt8", {{1, 2, 3}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40CloneInt8!!!"},
    {"Z40BatchNormScaleInt8", {{1, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in z40 batch norm!!!"},
    {"Z40ChannelShuffleInt8", {{1, 2, 3}}, "input_tensor->shape().size() == 4",
     "Wrong input_shape in channel shuffle!!!"},
    {"Z40MaxInt8", {{1, 2, 3}, {1, 2, 3}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40MaxInt8."},
    {"Z40EltwiseMulInt8", {{1, 2}, {1, 2}, {1, 2}}, "", "Unspport input size :3in Z40EltwiseMulInt8."},
    {"Z40EltwiseMulInt8", {{1, 2}}, "", "Unspport input size :1in Z40EltwiseMulInt8."},
    {"Z40EltwiseMulInt8", {{}, {1}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40EltwiseMulInt8!!!"},
    {"Z40LeakyReluInt8", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40LeakyReluInt8!!!"},
    {"Z40FlattenInt8", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40FlattenInt8!!!"},
    {"Z40SigmoidInt8", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40SigmoidInt8!!!"},
    {"Z40TanhInt8", {{}}, "input_tensor->shape().size() > 0", "The shape of input is 0 in Z40TanhInt8!!!"},
    {"Z40PowInt8", {{}, {1}}, "input_tensor->shape().size() > 0", "The shape of input is 0 in Z40PowInt8!!!"},
    {"Z40PowInt8", {{1, 2}}, "inputs.size() >= 2", "Z40PowInt8 needs 2 inputs but has 1"},
    {"Z40AvgPoolInt8", {{1, 2, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40AvgPoolInt8!!!"},
    {"Z40MaxPoolInt8", {{1, 2, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40MaxPoolInt8!!!"},
    {"Z40GlobalAvgPoolInt8", {{1, 2}}, "input_tensor->shape().size() == 3 || 4",
     "Wrong input shape in Z40GlobalAvgPoolInt8!!!"},
    {"Z40ResizeBilinearInt8", {{1, 2, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40ResizeBilinearInt8!!!"},
    {"Z40ResizeNearestNeighborInt8", {{2, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40ResizeNearestNeighborInt8!!!"},
    {"Z40Unpool2DInt8", {{2, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40Unpool2DInt8!!!"},
    {"Z40SpaceToDepthInt8", {{2, 2}}, "input_tensor->shape().size() == 4",
     "Wrong input shape in Z40SpaceToDepthInt8!!!"},
    {"Z40ConcatInt8", {{1, 1, 1, 2}}, "inputs.size() > 1",
     "Z40ConcatInt8 operator inputs must greater than 1."},
    {"Z40ConcatInt8", {{1, 2, 3}, {1, 2, 3}}, "output_shape.size() > 3", "Wrong output shape in concat."},
    {"Z40PadInt8", {{1, 2, 2}}, "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
     "The shape of input only support 4D or 5D in Z40PadInt8!!!"},
    {"Z40PadInt8", {{1, 1, 1, 1, 1}}, "op_param_->pads.size() == 2 * rank",
     "The model only support constant in Z40PadInt8!!!"},
    {"Z40SliceInt8", {{1, 2, 2}}, "input_tensor->shape().size() == 4 || input_tensor->shape().size() == 5",
     "The shape of input only support  4D or 5D  in Z40SliceInt8!!!"},
    {"Z40ReshapeInt8", {{1, 2, 2, 2}}, "product(output_shape) == input->size()",
     "Z40ReshapeInt8: output_shape does not hold the input's 8 elements"},
    {"Z40TransposeInt8", {{1, 2, 2, 2}}, "is_permutation(perm, rank)",
     "Z40TransposeInt8: perm is not a permutation of the input's 4 axes"},
    // Per-channel attributes shorter than the channels, and inputs shorter than the data.
    {"Z40Quantize", {{1, 2, 3}}, "values.size() >= 3", "Z40Quantize: attribute QSCALE has 1 values, needs 3"},
    {"Z40Dequantize", {{1, 2, 2, 4}}, "values.size() >= 4",
     "Z40Dequantize: attribute QSCALE has 1 values, needs 4"},
    {"Z40EltwiseAddInt8", {{1, 1, 2, 2}, {1, 1, 2, 2}}, "values.size() >= 2",
     "Z40EltwiseAddInt8: attribute INPUT0SCALE has 1 values, needs 2"},
    {"Z40EltwiseAddInt8", {{1, 1, 4, 1}, {1, 1, 2, 1}}, "tensor->size() >= 4",
     "Z40EltwiseAddInt8: t1 has 2 elements, needs 4"},
    {"Z40EltwiseMulInt8", {{1, 1, 1, 2}, {1}}, "values.size() >= 2",
     "Z40EltwiseMulInt8: attribute OUTPUTSCALE has 1 values, needs 2"},
    {"Z40EltwiseMulInt8", {{1, 1, 1, 1}, {0}}, "tensor->data_type() == DT_FLOAT",
     "Z40EltwiseMulInt8 reads t1 as float but it holds type 0"},
    {"Z40MaxInt8", {{1, 1, 2, 1}, {1, 1, 1, 1}}, "tensor->size() >= 2",
     "Z40MaxInt8: t1 has 1 elements, needs 2"},
    {"Z40SigmoidInt8", {{1, 1, 1, 3}}, "values.size() >= 3",
     "Z40SigmoidInt8: attribute INPUTSCALE has 1 values, needs 3"},
    {"Z40BatchNormScaleInt8", {{1, 1, 1, 2}}, "values.size() >= 2",
     "Z40BatchNormScaleInt8: attribute scale has 1 values, needs 2"},
    {"Z40PowInt8", {{1, 2}, {0}}, "tensor->data_type() == DT_FLOAT",
     "Z40PowInt8 reads t1 as float but it holds type 0"},
    {"Z40GlobalAvgPoolInt8", {{1, 2, 2, 3}}, "values.size() >= 3",
     "Z40GlobalAvgPoolInt8: attribute POOLSCALE has 1 values, needs 3"},
    {"Z40ConcatInt8", {{1, 1, 1, 1}, {1, 1, 1, 1}}, "values.size() >= 2",
     "Z40ConcatInt8: attribute DEQSCALE has 1 values, needs 2",
     [](NodeDef* n) { set_attr_floats(n, "QSCALE", {1, 1}); }},
    {"Z40ConcatInt8", {{1, 1, 1, 1}, {1, 1, 2, 1}}, "inputs agree off the axis",
     "Z40ConcatInt8: input 1 differs from input 0 off the concatenation axis"},
    // Attribute values the operators refuse.
    {"Z40ChannelShuffleInt8", {{1, 1, 1, 6}}, "channels % groups == 0",
     "Z40ChannelShuffleInt8: 6 channels in 4 groups", [](NodeDef* n) { set_attr_i(n, "groups", 4); }},
    {"Z40ChannelShuffleInt8", {{1, 1, 1, 6}}, "channels % groups == 0",
     "Z40ChannelShuffleInt8: 6 channels in 0 groups", [](NodeDef* n) { set_attr_i(n, "groups", 0); }},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, "op_param_->ksize.size() > 2",
     "Wrong kernel size in Z40AvgPoolInt8!!!",
     [](NodeDef* n) { set_attr_ints(n, "ksize", {1, 2}); }},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, "op_param_->strides.size() > 2",
     "Wrong strides size in Z40AvgPoolInt8!!!",
     [](NodeDef* n) { set_attr_ints(n, "strides", {1, 2}); }},
    {"Z40MaxPoolInt8", {{1, 2, 2, 1}}, "op_param_->ksize.size() > 2",
     "Wrong kernel size in Z40MaxPoolInt8!!!",
     [](NodeDef* n) { set_attr_ints(n, "ksize", {2}); }},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, "false", "Worng padding type.",
     [](NodeDef* n) { set_attr_s(n, "padding", "FULL"); }},
    {"Z40MaxPoolInt8", {{1, 2, 2, 1}}, "kernel <= padded input",
     "Z40MaxPoolInt8: the window is larger than the padded input",
     [](NodeDef* n) { set_attr_ints(n, "ksize", {1, 5, 5, 1}); }},
    {"Z40PadInt8", {{1, 2, 2, 1}}, "op_param_->mode == \"constant\"",
     "The mode only support constant in Z40PadInt8!!!",
     [](NodeDef* n) { set_attr_s(n, "mode", "reflect"); }},
    {"Z40SliceInt8", {{1, 2, 2, 1}}, "slice extent > 0", "Z40SliceInt8: empty slice on axis 0"},
    {"Z40Unpool2DInt8", {{1, 2, 2, 1}}, "kernel_size == [kernel_h, kernel_w] > 0",
     "Z40Unpool2DInt8: kernel_size is not two positive factors",
     [](NodeDef* n) { set_attr_ints(n, "kernel_size", {2, 0}); }},
    {"Z40SpaceToDepthInt8", {{1, 2, 2, 1}}, "output_shape == space_to_depth(input_shape)",
     "Z40SpaceToDepthInt8: output_shape does not fit the input by a square block",
     [](NodeDef* n) { set_attr_ints(n, "output_shape", {1, 1, 1, 3}); }},
};
// clang-format on

class InputCheckTest : public ::testing::TestWithParam<CheckCase> {};

TEST_P(InputCheckTest, AbortsWithTheOperatorsMessage) {
  const CheckCase& c = GetParam();
  NodeDef node = full_node(c.op);
  if (c.tweak != nullptr) c.tweak(&node);
  Inputs inputs(c.shapes);
  auto run = [&] {
    auto op = make_op(c.op);
    op->parse_parameter(node);
    infer_and_execute(op.get(), inputs.ptrs);
  };
  if (std::string(c.condition).empty()) {
    EXPECT_FATAL(run(), c.message);
  } else {
    EXPECT_CHECK_FAILED(run(), c.condition, c.message);
  }
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, InputCheckTest, ::testing::ValuesIn(kChecks));

// A caller that runs execute on inputs other than those inference_shape
// prepared for (larger, or with other channels) is stopped before the
// prepared factors or geometry are applied to them.
struct ChangedInputCase {
  const char* op;
  std::vector<std::vector<int>> prepared;
  std::vector<std::vector<int>> run;
  const char* message;
  Tweak tweak = nullptr;
};
void PrintTo(const ChangedInputCase& c, std::ostream* os) { *os << c.message; }

void set_identity_lists(NodeDef* n) {
  set_attr_ints(n, "perm", {0, 1, 2, 3});
  set_attr_ints(n, "starts", {0, 0, 0, 0});
  set_attr_ints(n, "kernel_size", {1, 1});
  set_attr_floats(n, "QSCALE", {1, 1});
  set_attr_floats(n, "DEQSCALE", {1, 1});
}

// clang-format off
const ChangedInputCase kChangedInputs[] = {
    {"Z40Quantize", {{1, 2, 1}}, {{1, 3, 1}},
     "Z40Quantize: t0 has shape [1, 3, 1] but was prepared for [1, 2, 1]"},
    {"Z40Dequantize", {{1, 2, 1}}, {{2, 2, 1}},
     "Z40Dequantize: t0 has shape [2, 2, 1] but was prepared for [1, 2, 1]"},
    {"Z40EltwiseAddInt8", {{1, 2, 1}, {1, 2, 1}}, {{1, 2, 1}, {1}},
     "Z40EltwiseAddInt8: t1 has shape [1] but was prepared for [1, 2, 1]"},
    {"Z40EltwiseSubInt8", {{1, 2, 1}, {1}}, {{1, 4, 1}, {1}},
     "Z40EltwiseSubInt8: t0 has shape [1, 4, 1] but was prepared for [1, 2, 1]"},
    {"Z40EltwiseMulInt8", {{1, 2, 1}, {1}}, {{1, 2, 1}, {2}},
     "Z40EltwiseMulInt8: t1 has shape [2] but was prepared for [1]"},
    {"Z40MaxInt8", {{1, 1, 2, 1}, {1, 1, 2, 1}}, {{1, 1, 4, 1}, {1, 1, 4, 1}},
     "Z40MaxInt8: t0 has shape [1, 1, 4, 1] but was prepared for [1, 1, 2, 1]"},
    {"Z40PowInt8", {{2}, {1}}, {{3}, {1}}, "Z40PowInt8: t0 has shape [3] but was prepared for [2]"},
    {"Z40SigmoidInt8", {{1, 2, 1}}, {{1, 2, 2}},
     "Z40SigmoidInt8: t0 has shape [1, 2, 2] but was prepared for [1, 2, 1]"},
    {"Z40TanhInt8", {{1, 2, 1}}, {{1, 3, 1}},
     "Z40TanhInt8: t0 has shape [1, 3, 1] but was prepared for [1, 2, 1]"},
    {"Z40CloneInt8", {{1, 1, 1, 1}}, {{1, 2, 1, 1}},
     "Z40CloneInt8: t0 has shape [1, 2, 1, 1] but was prepared for [1, 1, 1, 1]"},
    {"Z40LeakyReluInt8", {{2}}, {{3}}, "Z40LeakyReluInt8: t0 has shape [3] but was prepared for [2]"},
    {"Z40FlattenInt8", {{1, 2}}, {{2, 2}}, "Z40FlattenInt8: t0 has shape [2, 2] but was prepared for [1, 2]"},
    {"Z40ChannelShuffleInt8", {{1, 1, 1, 2}}, {{1, 2, 1, 2}},
     "Z40ChannelShuffleInt8: t0 has shape [1, 2, 1, 2] but was prepared for [1, 1, 1, 2]"},
    {"Z40AvgPoolInt8", {{1, 2, 2, 1}}, {{1, 3, 3, 1}},
     "Z40AvgPoolInt8: t0 has shape [1, 3, 3, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40MaxPoolInt8", {{1, 2, 2, 1}}, {{1, 2, 2, 2}},
     "Z40MaxPoolInt8: t0 has shape [1, 2, 2, 2] but was prepared for [1, 2, 2, 1]"},
    {"Z40GlobalAvgPoolInt8", {{1, 2, 2, 1}}, {{1, 4, 4, 1}},
     "Z40GlobalAvgPoolInt8: t0 has shape [1, 4, 4, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40ResizeBilinearInt8", {{1, 2, 2, 1}}, {{1, 3, 3, 1}},
     "Z40ResizeBilinearInt8: t0 has shape [1, 3, 3, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40ResizeNearestNeighborInt8", {{1, 2, 2, 1}}, {{1, 2, 3, 1}},
     "Z40ResizeNearestNeighborInt8: t0 has shape [1, 2, 3, 1] but was prepared for [1, 2, 2, 1]"},
    {"Z40Unpool2DInt8", {{1, 2, 2, 1}}, {{2, 2, 2, 1}},
     "Z40Unpool2DInt8: t0 has shape [2, 2, 2, 1] but was prepared for [1, 2, 2, 1]", set_identity_lists},
    {"Z40ConcatInt8", {{1, 1, 1, 1}, {1, 1, 1, 1}}, {{1, 1, 1, 1}, {1, 1, 1, 3}},
     "Z40ConcatInt8: t1 has shape [1, 1, 1, 3] but was prepared for [1, 1, 1, 1]", set_identity_lists},
    {"Z40SliceInt8", {{1, 1, 1, 1}}, {{1, 1, 1, 2}},
     "Z40SliceInt8: t0 has shape [1, 1, 1, 2] but was prepared for [1, 1, 1, 1]", set_identity_lists},
    {"Z40TransposeInt8", {{1, 1, 1, 1}}, {{1, 1, 2, 1}},
     "Z40TransposeInt8: t0 has shape [1, 1, 2, 1] but was prepared for [1, 1, 1, 1]", set_identity_lists},
    {"Z40ReshapeInt8", {{1, 1, 1, 1}}, {{2, 1, 1, 1}},
     "Z40ReshapeInt8: t0 has shape [2, 1, 1, 1] but was prepared for [1, 1, 1, 1]"},
    {"Z40SpaceToDepthInt8", {{1, 1, 1, 1}}, {{1, 2, 2, 1}},
     "Z40SpaceToDepthInt8: t0 has shape [1, 2, 2, 1] but was prepared for [1, 1, 1, 1]"},
    // execute without inference_shape: nothing was prepared.
    {"Z40Quantize", {}, {{1, 2, 1}}, "Z40Quantize: t0 has shape [1, 2, 1] but was prepared for []"},
};
// clang-format on

class ChangedInputTest : public ::testing::TestWithParam<ChangedInputCase> {};

TEST_P(ChangedInputTest, ExecuteStopsBeforeUsingThePreparedRecord) {
  const ChangedInputCase& c = GetParam();
  NodeDef node = full_node(c.op);
  if (c.tweak != nullptr) c.tweak(&node);
  auto op = make_op(c.op);
  op->parse_parameter(node);
  Inputs prepared(c.prepared), changed(c.run);
  std::vector<int> shape;
  if (!c.prepared.empty()) op->inference_shape(prepared.ptrs, shape);
  // An output large enough for anything the operator could write.
  Tensor output = make_tensor({1 << 12}, std::vector<float>(1 << 12, 0.0f));
  EXPECT_CHECK_FAILED(op->execute(changed.ptrs, &output), "input->shape() == prepared", c.message);
  // The prepared inputs still run.
  if (!c.prepared.empty()) op->execute(prepared.ptrs, &output);
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, ChangedInputTest, ::testing::ValuesIn(kChangedInputs));

TEST(ChangedInputTest, ConcatWithAnotherInputCount) {
  NodeDef node = full_node("Z40ConcatInt8");
  set_attr_floats(&node, "QSCALE", {1, 1, 1});
  set_attr_floats(&node, "DEQSCALE", {1, 1, 1});
  auto op = make_op("Z40ConcatInt8");
  op->parse_parameter(node);
  Inputs two({{1, 1, 1, 1}, {1, 1, 1, 1}}), three({{1, 1, 1, 1}, {1, 1, 1, 1}, {1, 1, 1, 1}});
  std::vector<int> shape;
  op->inference_shape(two.ptrs, shape);
  Tensor output = make_tensor({3}, {0, 0, 0});
  EXPECT_CHECK_FAILED(op->execute(three.ptrs, &output), "inputs.size() == prepared inputs",
                      "Z40ConcatInt8: 3 inputs but prepared for 2");
}

TEST(ChangedInputTest, OutputSmallerThanPrepared) {
  auto op = make_op("Z40Quantize");
  op->parse_parameter(full_node("Z40Quantize"));
  Inputs x({{1, 4, 1}});
  std::vector<int> shape;
  op->inference_shape(x.ptrs, shape);
  Tensor output = make_tensor({2}, {0, 0}, "out");
  EXPECT_CHECK_FAILED(op->execute(x.ptrs, &output), "tensor->size() >= 4",
                      "Z40Quantize: out has 2 elements, needs 4");
}

}  // namespace
}  // namespace kovra_test
