#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/int8_graph.h"

namespace kovra_test {
namespace {

// One node carrying every attribute any of the operators below requires;
// each case drops one key and expects the operator's own message.
NodeDef full_node(const std::string& op) {
  NodeDef n;
  n.set_name("n");
  n.set_op(op);
  for (const char* key : {"QSCALE", "DEQSCALE", "INPUTSCALE", "INPUT0SCALE", "INPUT1SCALE",
                          "OUTPUTSCALE", "POOLSCALE"}) {
    set_attr_floats(&n, key, {1.0f});
  }
  for (const char* key : {"offset", "input_offset", "input0_offset", "input1_offset", "maxValue",
                          "minValue", "groups", "axis", "hidden_size"}) {
    set_attr_i(&n, key, 1);
  }
  for (const char* key : {"ksize", "strides", "pads", "output_shape", "perm", "starts", "ends",
                          "kernel_size"}) {
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
};

class MissingAttributeTest : public ::testing::TestWithParam<MissingCase> {};

TEST_P(MissingAttributeTest, AbortsWithTheOperatorsMessage) {
  const MissingCase& c = GetParam();
  NodeDef node = full_node(c.op);
  node.mutable_attr()->erase(c.key);
  auto op = make_op(c.op);
  EXPECT_CHECK_FAILED(op->parse_parameter(node), "suc", c.message);
}

TEST_P(MissingAttributeTest, CompleteNodeParses) {
  auto op = make_op(GetParam().op);
  op->parse_parameter(full_node(GetParam().op));
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, MissingAttributeTest, ::testing::ValuesIn(kMissing));

// Input checks of shape inference (and of execute where only it can tell).
struct ShapeCase {
  const char* op;
  std::vector<std::vector<int>> shapes;  // one tensor per entry
  const char* condition;                 // empty: a plain "Error:" line
  const char* message;
};

const ShapeCase kShapes[] = {
    {"Z40Quantize", {{1, 4}}, "",
     "\"The shape of input only support 3D ,4D or 5D in Z40Quantize!!!\""},
    {"Z40Quantize", {{1, 1, 1, 1, 1, 1}}, "",
     "\"The shape of input only support 3D ,4D or 5D in Z40Quantize!!!\""},
    {"Z40Dequantize", {{4}}, "",
     "\"The shape of input only support 3D ,4D or 5D in Z40Dequantize!!!\""},
    {"Z40Quantize", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40Quantize!!!"},
    {"Z40Dequantize", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40Dequantize!!!"},
    {"Z40KovraFakeQuantFeature", {{}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40KovraFakeQuantFeature!!!"},
    {"Z40EltwiseAddInt8", {{}, {1}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40EltwiseAddInt8!!!"},
    {"Z40EltwiseSubInt8", {{}, {1}}, "input_tensor->shape().size() > 0",
     "The shape of input is 0 in Z40EltwiseSubInt8!!!"},
    {"Z40EltwiseAddInt8", {{1, 2}}, "inputs.size() >= 2",
     "Z40EltwiseAddInt8 needs 2 inputs but has 1"},
    {"Z40Quantize", {}, "inputs.size() >= 1", "Z40Quantize needs 1 inputs but has 0"},
};

class ShapeCheckTest : public ::testing::TestWithParam<ShapeCase> {};

TEST_P(ShapeCheckTest, AbortsWithTheOperatorsMessage) {
  const ShapeCase& c = GetParam();
  auto op = make_op(c.op);
  op->parse_parameter(full_node(c.op));
  std::vector<Tensor> tensors;
  for (const auto& shape : c.shapes) {
    int n = 1;
    for (int d : shape) n *= d;
    tensors.push_back(make_tensor(shape, std::vector<float>(shape.empty() ? 0 : n, 1.0f)));
  }
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  std::vector<int> out;
  if (std::string(c.condition).empty()) {
    EXPECT_FATAL(op->inference_shape(inputs, out), c.message);
  } else {
    EXPECT_CHECK_FAILED(op->inference_shape(inputs, out), c.condition, c.message);
  }
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, ShapeCheckTest, ::testing::ValuesIn(kShapes));

// Execute-time checks: parameter vectors and inputs shorter than the data.
struct ExecuteCase {
  const char* op;
  std::vector<std::vector<int>> shapes;
  const char* condition;
  const char* message;
};

const ExecuteCase kExecute[] = {
    {"Z40Quantize", {{1, 2, 3}}, "values.size() >= 3",
     "Z40Quantize: attribute QSCALE has 1 values, needs 3"},
    {"Z40Dequantize", {{1, 2, 2, 4}}, "values.size() >= 4",
     "Z40Dequantize: attribute QSCALE has 1 values, needs 4"},
    {"Z40EltwiseAddInt8", {{1, 1, 2, 2}, {1, 1, 2, 2}}, "values.size() >= 2",
     "Z40EltwiseAddInt8: attribute INPUT0SCALE has 1 values, needs 2"},
    {"Z40EltwiseAddInt8", {{1, 1, 4, 1}, {1, 1, 2, 1}}, "tensor->size() >= 4",
     "Z40EltwiseAddInt8: t1 has 2 elements, needs 4"},
};

class ExecuteCheckTest : public ::testing::TestWithParam<ExecuteCase> {};

TEST_P(ExecuteCheckTest, AbortsBeforeReadingOutOfBounds) {
  const ExecuteCase& c = GetParam();
  auto op = make_op(c.op);
  op->parse_parameter(full_node(c.op));
  std::vector<Tensor> tensors;
  for (size_t i = 0; i < c.shapes.size(); ++i) {
    int n = 1;
    for (int d : c.shapes[i]) n *= d;
    tensors.push_back(make_tensor(c.shapes[i], std::vector<float>(n, 1.0f), "t" + std::to_string(i)));
  }
  std::vector<const Tensor*> inputs;
  for (const Tensor& t : tensors) inputs.push_back(&t);
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  int n = 1;
  for (int d : shape) n *= d;
  Tensor output = make_tensor(shape, std::vector<float>(n, 0.0f));
  EXPECT_CHECK_FAILED(op->execute(inputs, &output), c.condition, c.message);
}

INSTANTIATE_TEST_SUITE_P(Int8Operators, ExecuteCheckTest, ::testing::ValuesIn(kExecute));

}  // namespace
}  // namespace kovra_test
