#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "op_executor.h"
#include "support/float_compare.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::OpExecutor;

std::unique_ptr<OpExecutor> make_op(const std::string& name) {
  return std::unique_ptr<OpExecutor>(Holder::new_op_creator().at(name)());
}

// ---- binary operators through a graph, against hand-worked values ----

struct BinaryCase {
  std::string label;
  std::string op;
  std::vector<int> a_shape;
  std::vector<float> a;
  std::vector<int> b_shape;
  std::vector<float> b;
  std::function<void(NodeDef*)> attrs;
  std::vector<float> expected;
};

std::ostream& operator<<(std::ostream& os, const BinaryCase& c) { return os << c.label; }

void none(NodeDef*) {}
std::function<void(NodeDef*)> action(const std::string& type) {
  return [type](NodeDef* n) { set_attr_s(n, "ActionType", type); };
}

const std::vector<int> k4 = {1, 1, 2, 3};
const std::vector<float> kA = {1, -2, 3, -4, 5, -6};

std::vector<BinaryCase> binary_cases() {
  return {
      {"AddPerChannel", "Z40Add", k4, kA, {3}, {0.5f, 1, -10}, none, {1.5f, -1, -7, -3.5f, 6, -16}},
      {"AddRelu", "Z40Add", k4, kA, {3}, {0.5f, 1, -10}, action("Relu"), {1.5f, 0, 0, 0, 6, 0}},
      {"AddRelu6", "Z40Add", k4, kA, {3}, {10, 1, -10}, action("Relu6"), {6, 0, 0, 6, 6, 0}},
      // The add kernels know only "Relu" and "Relu6".
      {"AddIgnoresLeakyRelu", "Z40Add", k4, kA, {3}, {0.5f, 1, -10}, action("LeakyRelu"),
       {1.5f, -1, -7, -3.5f, 6, -16}},
      // The fused form of the activation table: NaN becomes 0.
      {"AddRelu6NaN", "Z40Add", {1, 1, 1, 3}, {NAN, 7, -1}, {1}, {0}, action("Relu6"), {0, 6, 0}},
      {"AddSameShape", "Z40Add", k4, kA, k4, {1, 1, 1, 1, 1, 1}, none, {2, -1, 4, -3, 6, -5}},
      {"EltwiseAddSameShape", "Z40EltwiseAdd", k4, kA, k4, {6, 5, 4, 3, 2, 1}, action("Relu"),
       {7, 3, 7, 0, 7, 0}},
      {"EltwiseAddScalar", "Z40EltwiseAdd", k4, kA, {1}, {2}, action("Relu6"), {3, 0, 5, 0, 6, 0}},
      {"EltwiseSubScalar", "Z40EltwiseSub", k4, kA, {1}, {1}, none, {0, -3, 2, -5, 4, -7}},
      {"EltwiseSubSameShape", "Z40EltwiseSub", k4, kA, k4, {1, 2, 3, 4, 5, 6}, none,
       {0, -4, 0, -8, 0, -12}},
      {"EltwiseMulPerChannel", "Z40EltwiseMul", k4, kA, {3}, {2, 0.5f, -1}, none,
       {2, -1, -3, -8, 2.5f, 6}},
      {"EltwiseMulScalar", "Z40EltwiseMul", k4, kA, {1}, {-3}, none, {-3, 6, -9, 12, -15, 18}},
      {"EltwiseDivSameShape", "Z40EltwiseDiv", k4, kA, k4, {2, 4, -3, 8, 0, -0.5f}, none,
       {0.5f, -0.5f, -1, -0.5f, INFINITY, 12}},
      {"DivPerChannel", "Z40Div", k4, kA, {3}, {2, -4, 0.5f}, none, {0.5f, 0.5f, 6, -2, -1.25f, -12}},
      {"MulPerChannel", "Z40Mul", k4, kA, {3}, {2, 0.5f, -1}, none, {2, -1, -3, -8, 2.5f, 6}},
      {"MulScalar", "Z40Mul", k4, kA, {1}, {0.5f}, none, {0.5f, -1, 1.5f, -2, 2.5f, -3}},
      // Equal ranks [2, 3] x [2, 1]: flat element j pairs with b[j mod 2], not
      // with its row, as the tensor arithmetic broadcasts.
      {"MulFlatPairing", "Z40Mul", {2, 3}, {1, 2, 3, 4, 5, 6}, {2, 1}, {10, 100}, none,
       {10, 200, 30, 400, 50, 600}},
      {"Max", "Z40Max", k4, kA, k4, {0, 0, 4, -5, 5, NAN}, none, {1, 0, 4, -4, 5, -6}},
      // C library pow: a negative base with a fractional exponent is NaN.
      {"PowScalar", "Z40Pow", k4, kA, {1}, {2}, none, {1, 4, 9, 16, 25, 36}},
      {"PowPerChannel", "Z40Pow", k4, {4, -8, 2, 9, -8, 0}, {3}, {0.5f, 1.0f / 3, -1}, none,
       {2, NAN, 0.5f, 3, NAN, INFINITY}},
  };
}

class FloatBinaryTest : public ::testing::TestWithParam<BinaryCase> {};

TEST_P(FloatBinaryTest, MatchesHandWorkedValues) {
  const BinaryCase& c = GetParam();
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  add_float_const(graph, "b", c.b_shape, c.b);
  c.attrs(add_node(graph, "op", c.op, {"input", "b"}));
  Tensor a = make_tensor(c.a_shape, c.a);
  std::vector<int> shape;
  expect_floats_near(run_single_op(graph, a, "op", &shape), c.expected, 1e-6f, 0.0f, c.label);
  EXPECT_EQ(shape, c.a_shape);
}

INSTANTIATE_TEST_SUITE_P(AllBinary, FloatBinaryTest, ::testing::ValuesIn(binary_cases()),
                         [](const ::testing::TestParamInfo<BinaryCase>& info) {
                           return info.param.label;
                         });

// Long tensors cross the kernels' internal tiles at offsets that are not
// multiples of b's length; a plain loop gives the expected sums.
TEST(FloatBinaryTest, CyclicPairingOverManyTiles) {
  std::mt19937 rng(42);
  std::uniform_real_distribution<float> dist(-4.0f, 4.0f);
  const int n = 3 * 4096 + 17 * 7;
  std::vector<float> a(n);
  for (float& v : a) v = dist(rng);
  for (int nb : {1, 7, 64, 5000, n}) {
    std::vector<float> b(nb);
    for (float& v : b) v = dist(rng);
    for (const char* act : {"", "Relu", "Relu6"}) {
      GraphDef graph;
      add_node(graph, "input", "ZxxNOp");
      add_float_const(graph, "b", {nb}, b);
      NodeDef* node = add_node(graph, "op", "Z40Add", {"input", "b"});
      set_attr_s(node, "ActionType", act);
      std::vector<float> expected(n);
      for (int i = 0; i < n; ++i) {
        float s = a[i] + b[i % nb];
        if (std::string(act) == "Relu") s = s > 0 ? s : 0;
        if (std::string(act) == "Relu6") s = s > 6 ? 6 : (s > 0 ? s : 0);
        expected[i] = s;
      }
      Tensor input = make_tensor({1, n}, a);
      expect_floats_near(run_single_op(graph, input, "op"), expected, 0.0f, 0.0f,
                         "nb=" + std::to_string(nb) + " act=" + act);
    }
  }
}

// ---- batch-norm scale ----

TEST(FloatBatchNormScaleTest, ScalesAndShiftsEachChannelThenActivates) {
  struct {
    const char* action;
    std::vector<float> scale, bias, x, expected;
  } cases[] = {
      // x * scale[c] + bias[c]
      {"", {2, -1, 0.5f}, {1, 0, -8}, kA, {3, 2, -6.5f, -7, -5, -11}},
      {"Relu", {2, -1, 0.5f}, {1, 0, -8}, kA, {3, 2, 0, 0, 0, 0}},
      {"Relu6", {2, -1, 0.5f}, {1, 0, -8}, kA, {3, 2, 0, 0, 0, 0}},
      {"Relu6", {4, 1, 1}, {0, 0, 0}, {1, 7, -1, 2, 0, 3}, {4, 6, 0, 6, 0, 3}},
  };
  for (const auto& c : cases) {
    GraphDef graph;
    add_node(graph, "input", "ZxxNOp");
    NodeDef* node = add_node(graph, "bn", "Z40BatchNormScale", {"input"});
    set_attr_floats(node, "scale", c.scale);
    set_attr_floats(node, "bias", c.bias);
    set_attr_s(node, "ActionType", c.action);
    Tensor x = make_tensor(k4, c.x);
    expect_floats_near(run_single_op(graph, x, "bn"), c.expected, 1e-6f, 0.0f, c.action);
  }
}

// ---- gradients ----

struct GradCase {
  std::string label;
  std::string op;
  std::function<void(NodeDef*)> attrs;
  std::vector<float> a, b;
  std::vector<int> b_shape;
  std::vector<float> grad_out, grad_a, grad_b;
};

std::ostream& operator<<(std::ostream& os, const GradCase& c) { return os << c.label; }

const std::vector<int> kGradShape = {1, 1, 2, 2};

std::vector<GradCase> grad_cases() {
  return {
      // out = relu({2, -1, 4, -3}): the clamped elements pass no gradient.
      {"AddRelu", "Z40Add", action("Relu"), {1, -2, 3, -4}, {1, 1}, {2},
       {1, 2, 3, 4}, {1, 0, 3, 0}, {4, 0}},
      {"AddRelu6", "Z40Add", action("Relu6"), {1, 6, 3, -4}, {1, 1}, {2},
       {1, 2, 3, 4}, {1, 0, 3, 0}, {4, 0}},
      {"EltwiseAddScalar", "Z40EltwiseAdd", none, {1, -2, 3, -4}, {0.5f}, {1},
       {1, 2, 3, 4}, {1, 2, 3, 4}, {10}},
      {"EltwiseAddSame", "Z40EltwiseAdd", action("Relu"), {1, -2, 3, -4}, {1, 1, 1, 1}, kGradShape,
       {1, 2, 3, 4}, {1, 0, 3, 0}, {1, 0, 3, 0}},
      // A tie sends the gradient to a.
      {"Max", "Z40Max", none, {1, 5, 3, 3}, {2, 4, 3, 0}, kGradShape,
       {1, 2, 3, 4}, {0, 2, 3, 4}, {1, 0, 0, 0}},
      // Each operand's gradient is g times the other operand.
      {"Mul", "Z40Mul", none, {1, -2, 3, -4}, {2, 3, 4, 5}, kGradShape,
       {1, 2, 3, 4}, {2, 6, 12, 20}, {1, -4, 9, -16}},
      // x >= 0 passes g; otherwise g * slope[c], and slope[c] collects g * x.
      {"PRelu", "Z40PRelu", none, {1, -2, -3, 4}, {0.5f, 0.25f}, {2},
       {1, 2, 3, 4}, {1, 0.5f, 1.5f, 4}, {-9, -4}},
  };
}

class FloatGradientTest : public ::testing::TestWithParam<GradCase> {};

TEST_P(FloatGradientTest, MatchesHandWorkedGradients) {
  const GradCase& c = GetParam();
  auto op = make_op(c.op);
  NodeDef node;
  node.set_name("op");
  c.attrs(&node);
  op->parse_parameter(node);
  Tensor a = make_tensor(kGradShape, c.a, "a");
  Tensor b = make_tensor(c.b_shape, c.b, "b");
  std::vector<int> shape;
  op->inference_shape({&a, &b}, shape);
  Tensor out(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  op->execute({&a, &b}, &out);
  Tensor grad_out = make_tensor(shape, c.grad_out);
  Tensor grad_a, grad_b;
  std::vector<Tensor*> grads = {&grad_a, &grad_b};
  op->backward({&a, &b}, &out, &grad_out, grads);
  EXPECT_EQ(grad_a.shape(), a.shape());
  EXPECT_EQ(grad_b.shape(), b.shape());
  expect_floats_near(tensor_values(grad_a), c.grad_a, 1e-6f, 0.0f, c.label + " grad a");
  expect_floats_near(tensor_values(grad_b), c.grad_b, 1e-6f, 0.0f, c.label + " grad b");

  // Gradients nobody asked for are skipped.
  Tensor only_b;
  std::vector<Tensor*> partial = {nullptr, &only_b};
  op->backward({&a, &b}, &out, &grad_out, partial);
  expect_floats_near(tensor_values(only_b), c.grad_b, 1e-6f, 0.0f, c.label + " only b");
}

INSTANTIATE_TEST_SUITE_P(AllGradients, FloatGradientTest, ::testing::ValuesIn(grad_cases()),
                         [](const ::testing::TestParamInfo<GradCase>& info) {
                           return info.param.label;
                         });

TEST(FloatGradientTest, SigmoidScalesByItsDerivative) {
  const std::vector<float> x = {0.0f, 2.0f, -1.0f, 30.0f};
  const std::vector<float> g = {1.0f, 2.0f, 3.0f, 4.0f};
  std::vector<float> expected;
  for (size_t i = 0; i < x.size(); ++i) {
    const double s = 1.0 / (1.0 + std::exp(-static_cast<double>(x[i])));
    expected.push_back(static_cast<float>(g[i] * s * (1.0 - s)));
  }
  auto op = make_op("Z40Sigmoid");
  Tensor input = make_tensor({1, 4}, x, "x");
  std::vector<int> shape;
  op->inference_shape({&input}, shape);
  Tensor out(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  op->execute({&input}, &out);
  Tensor grad_out = make_tensor({1, 4}, g);
  Tensor grad_x;
  std::vector<Tensor*> grads = {&grad_x};
  op->backward({&input}, &out, &grad_out, grads);
  EXPECT_EQ(grad_x.shape(), input.shape());
  expect_floats_near(tensor_values(grad_x), expected, 1e-6f, 1e-9f, "sigmoid gradient");
}

}  // namespace
}  // namespace kovra_test
