#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "op_executor.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::OpExecutor;

std::unique_ptr<OpExecutor> make_op(const std::string& name) {
  return std::unique_ptr<OpExecutor>(Holder::new_op_creator().at(name)());
}

// ---- every operator refuses a rank-0 input with its own label ----

struct LabelCase {
  const char* op;
  const char* label;
};

const LabelCase kLabels[] = {
    {"Z40Relu", "FloatZ40Relu"},           {"Z40Relu6", "FloatZ40Relu6"},
    {"Z40LeakyRelu", "FloatZ40LeakyRelu"}, {"Z40PRelu", "FloatZ40PRelu"},
    {"Z40Elu", "FloatZ40Elu"},             {"Z40Selu", "FloatZ40Selu"},
    {"Z40Hsigmoid", "FloatZ40Hsigmoid"},   {"Z40HardSwish", "FloatZ40HardSwish"},
    {"Z40Swish", "FloatZ40Swish"},         {"Z40Mish", "FloatZ40Mish"},
    {"Z40Tanh", "FloatZ40Tanh"},           {"Z40Softplus", "FloatZ40Softplus"},
    {"Z40Softsign", "FloatZ40Softsign"},   {"Z40Softmax", "FloatZ40Softmax"},
    {"Z40Add", "FloatZ40Add"},             {"Z40EltwiseAdd", "FloatZ40EltwiseAdd"},
    // The float subtraction names the int8 operator.
    {"Z40EltwiseSub", "Z40EltwiseSubInt8"}, {"Z40EltwiseMul", "FloatZ40EltwiseMul"},
    {"Z40Pow", "FloatZ40Pow"},             {"Z40Mul", "FloatZ40Mul"},
    {"Z40Sigmoid", "FloatZ40Sigmoid"},
};

class ScalarInputMessageTest : public ::testing::TestWithParam<LabelCase> {};

TEST_P(ScalarInputMessageTest, NamesTheOperator) {
  auto op = make_op(GetParam().op);
  Tensor scalar;  // no dimensions
  std::vector<int> shape;
  EXPECT_CHECK_ERROR(op->inference_shape({&scalar}, shape), "input_tensor->shape().size() > 0",
                     std::string("The shape of input is 0 in ") + GetParam().label + "!!!");
}

INSTANTIATE_TEST_SUITE_P(AllOps, ScalarInputMessageTest, ::testing::ValuesIn(kLabels),
                         [](const ::testing::TestParamInfo<LabelCase>& info) {
                           return std::string(info.param.op);
                         });

// ---- missing attributes, ranks, input counts and short operands ----

struct MessageCase {
  const char* label;
  std::function<void()> run;
  const char* condition;  // nullptr: a plain error line rather than a check
  std::string message;
};

std::ostream& operator<<(std::ostream& os, const MessageCase& c) { return os << c.label; }

// parse_parameter on a node with the given text attributes.
std::function<void()> parse(const char* op, const char* node_text) {
  return [=] { make_op(op)->parse_parameter(parse_text_node(node_text)); };
}

std::function<void()> infer(const char* op, std::vector<int> shape) {
  return [=] {
    Tensor x(shape, Tensor::DT_FLOAT, nullptr, "cpu");
    std::vector<int> out;
    make_op(op)->inference_shape({&x}, out);
  };
}

// execute on float tensors of the given shapes (the output shaped like the first).
std::function<void()> run(const char* op, std::vector<std::vector<int>> shapes,
                          const char* node_text = "name: \"n\"") {
  return [=] {
    auto executor = make_op(op);
    executor->parse_parameter(parse_text_node(node_text));
    std::vector<Tensor> tensors;
    for (size_t i = 0; i < shapes.size(); ++i) {
      tensors.emplace_back(shapes[i], Tensor::DT_FLOAT, nullptr, "cpu");
      tensors.back().set_name(i == 0 ? "a" : "b");
    }
    std::vector<const Tensor*> inputs;
    for (const Tensor& t : tensors) inputs.push_back(&t);
    Tensor out(shapes[0], Tensor::DT_FLOAT, nullptr, "cpu");
    executor->execute(inputs, &out);
  };
}

const char* const kBnScale = R"(name: "bn" attr { key: "scale" value { list { f: [1, 2] } } }
                                attr { key: "bias" value { list { f: [1, 2, 3] } } })";
const char* const kBnBias = R"(name: "bn" attr { key: "scale" value { list { f: [1, 2, 3] } } }
                               attr { key: "bias" value { list { f: [1] } } })";

std::vector<MessageCase> message_cases() {
  const std::vector<int> s4 = {1, 2, 2, 3};
  return {
      // Missing attributes, with the keys and names users know from their logs.
      {"LeakyReluAlpha", parse("Z40LeakyRelu", "name: \"n\""), "suc",
       "Do not find the alpha in FloatZ40LeakyRelu!!!"},
      {"HardSwishAdd", parse("Z40HardSwish", "name: \"n\" attr { key: \"mul_scalar_value\" value { f: 1 } }"),
       "suc", "Do not find the padding in FloatZ40HardSwish!!!"},
      {"SwishBeta", parse("Z40Swish", "name: \"n\""), "suc", "Do not find the padding in Z40Swish!!!"},
      {"BatchNormScale",
       parse("Z40BatchNormScale", R"(name: "n" attr { key: "bias" value { list { f: 1 } } })"), "suc",
       "Do not find the scale in FloatZ40BatchNormScaleOpExecutor!!!"},
      {"BatchNormBias",
       parse("Z40BatchNormScale", R"(name: "n" attr { key: "scale" value { list { f: 1 } } })"), "suc",
       "Do not find the bias in FloatZ40BatchNormScaleOpExecutor!!!"},
      // Operators that need 4-D input.
      {"EltwiseDivRank", infer("Z40EltwiseDiv", {2, 3}), "input_tensor->shape().size() == 4",
       "Wrong input shape in FloatZ40EltwiseDiv."},
      {"DivRank", infer("Z40Div", {1, 2, 3}), "input_tensor->shape().size() == 4",
       "Wrong input shape in FloatZ40Div."},
      {"MaxRank", infer("Z40Max", {1, 1, 2, 2, 3}), "input_tensor->shape().size() == 4",
       "Wrong input shape in FloatZ40Max."},
      {"BatchNormScaleRank", infer("Z40BatchNormScale", {6}), "input_tensor->shape().size() == 4",
       "Wrong input shape in z40 batch norm!!!"},
      {"PReluRank", run("Z40PRelu", {{2, 3}, {3}}), "output->shape().size() == 4",
       "Wrong input shape in FloatZ40PRelu."},
      // Input counts.
      {"InferWithoutInputs",
       [] {
         std::vector<int> s;
         make_op("Z40Relu")->inference_shape({}, s);
       },
       "inputs.size() >= 1", "Z40Relu needs 1 inputs but has 0"},
      {"AddOneInput", run("Z40Add", {s4}), "inputs.size() >= 2", "Z40Add needs 2 inputs but has 1"},
      {"MulOneInput", run("Z40Mul", {s4}), "inputs.size() >= 2", "Z40Mul needs 2 inputs but has 1"},
      {"PReluNoSlope", run("Z40PRelu", {s4}), "inputs.size() >= 2", "Z40PRelu needs 2 inputs but has 1"},
      {"EltwiseMulOneInput", run("Z40EltwiseMul", {s4}), nullptr,
       "Unspport input size :1in Z40EltwiseMulInt8."},
      {"EltwiseMulThreeInputs", run("Z40EltwiseMul", {s4, {3}, {3}}), nullptr,
       "Unspport input size :3in Z40EltwiseMulInt8."},
      // Operands too short for the pairing, validated before any element is read.
      {"EltwiseAddShortB", run("Z40EltwiseAdd", {s4, {2}}), "tensor->size() >= 12",
       "Z40EltwiseAdd: b has 2 elements, needs 12"},
      {"EltwiseSubShortB", run("Z40EltwiseSub", {s4, {11}}), "tensor->size() >= 12",
       "Z40EltwiseSub: b has 11 elements, needs 12"},
      {"MaxScalarB", run("Z40Max", {s4, {1}}), "tensor->size() >= 12", "Z40Max: b has 1 elements, needs 12"},
      {"PReluShortSlope", run("Z40PRelu", {s4, {2}}), "tensor->size() >= 3",
       "Z40PRelu: b has 2 elements, needs 3"},
      {"BatchNormShortScale", run("Z40BatchNormScale", {s4}, kBnScale), "values.size() >= 3",
       "Z40BatchNormScale: attribute scale has 2 values, needs 3"},
      {"BatchNormShortBias", run("Z40BatchNormScale", {s4}, kBnBias), "values.size() >= 3",
       "Z40BatchNormScale: attribute bias has 1 values, needs 3"},
      // The broadcast product must fit the output, which is shaped like a.
      {"MulProductLargerThanA", run("Z40Mul", {{3}, {2, 3}}), "product.size() == output->size()",
       "Z40Mul: the product has 6 elements but the output holds 3"},
      // Element types other than float.
      {"ReluInt8Input",
       [] {
         Tensor x({1, 4}, Tensor::DT_INT8, nullptr, "cpu");
         x.set_name("q");
         Tensor out({1, 4}, Tensor::DT_INT8, nullptr, "cpu");
         make_op("Z40Relu")->execute({&x}, &out);
       },
       "tensor->data_type() == DT_FLOAT", "Z40Relu reads q as float but it holds type 6"},
      {"ReluInt8Output",
       [] {
         Tensor x = make_tensor({1, 4}, {1, 2, 3, 4}, "x");
         Tensor out({1, 4}, Tensor::DT_INT8, nullptr, "cpu");
         out.set_name("y");
         auto op = make_op("Z40Relu");
         std::vector<int> shape;
         op->inference_shape({&x}, shape);
         op->execute({&x}, &out);
       },
       "output->data_type() == DT_FLOAT", "Z40Relu writes y as float but it holds type 6"},
      // A gradient shorter than the output.
      {"MaxShortGradient",
       [] {
         Tensor a = make_tensor({1, 1, 1, 2}, {1, 2}, "a");
         Tensor b = make_tensor({1, 1, 1, 2}, {2, 1}, "b");
         Tensor out = make_tensor({1, 1, 1, 2}, {2, 2}, "out");
         Tensor grad = make_tensor({1}, {1}, "g");
         std::vector<Tensor*> grads;
         make_op("Z40Max")->backward({&a, &b}, &out, &grad, grads);
       },
       "tensor->size() >= 2", "Z40Max: g has 1 elements, needs 2"},
      {"SigmoidGradientShapeDiffers",
       [] {
         Tensor x = make_tensor({1, 2}, {1, 2}, "x");
         Tensor out = make_tensor({1, 2}, {0.5f, 0.5f}, "out");
         Tensor grad = make_tensor({1, 3}, {1, 1, 1}, "g");
         Tensor grad_x;
         std::vector<Tensor*> grads = {&grad_x};
         make_op("Z40Sigmoid")->backward({&x}, &out, &grad, grads);
       },
       "output_grad->size() == output->size()", "Z40Sigmoid: the gradient has 3 elements but the output 2"},
  };
}

class FloatMessageTest : public ::testing::TestWithParam<MessageCase> {};

// Operands the tensor arithmetic cannot broadcast are reported by it, last line
// naming b; it aborts whatever the policy.
TEST(FloatMessageDeathTest, MulUnsupportedBroadcast) {
  EXPECT_FATAL(run("Z40Mul", {{1, 2, 3}, {1, 2}})(), "tensor: b  shape: [1,2]");
}

TEST_P(FloatMessageTest, StopsWithExactMessage) {
  const MessageCase& c = GetParam();
  if (c.condition == nullptr) {
    EXPECT_ERROR(c.run(), c.message);
  } else {
    EXPECT_CHECK_ERROR(c.run(), c.condition, c.message);
  }
}

INSTANTIATE_TEST_SUITE_P(All, FloatMessageTest, ::testing::ValuesIn(message_cases()),
                         [](const ::testing::TestParamInfo<MessageCase>& info) {
                           return std::string(info.param.label);
                         });

}  // namespace
}  // namespace kovra_test
