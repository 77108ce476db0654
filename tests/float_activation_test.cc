#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/float_compare.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Zero of both signs, both sides of every threshold (0, 1, 4, 6), values whose
// exponentials overflow in float (100) and in double (800), and NaN.
const std::vector<float> kInputs = {0.0f,  -0.0f, 0.3f,  -0.3f, 1.0f,  -1.0f, 2.5f,   -2.5f,
                                    3.0f,  -4.0f, 4.5f,  5.0f,  6.0f,  7.5f,  -7.5f,  20.0f,
                                    -20.0f, 100.0f, -100.0f, 800.0f, -800.0f, 1e-8f, kNaN, 0.75f};
// kInputs as [1, 2, 4, 3]: three channels for the per-channel slopes.
const std::vector<int> kShape = {1, 2, 4, 3};

using Reference = std::function<std::vector<float>(const std::vector<float>&)>;

Reference each(std::function<double(double)> f) {
  return [f](const std::vector<float>& xs) {
    std::vector<float> ys;
    for (float x : xs) ys.push_back(static_cast<float>(f(x)));
    return ys;
  };
}

double clamp(double v, double lo, double hi) {
  if (std::isnan(v)) return v;
  return v < lo ? lo : (v > hi ? hi : v);
}

float float_from_bits(uint32_t bits) {
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

// The Mish stand-in for tanh, evaluated in double from its definition.
double mish_reference(double x) {
  const double s = static_cast<float>(std::log1p(std::exp(x)));
  double t;
  if (s > 4.0) {
    t = float_from_bits(0x3f80bfa0u);
  } else {
    t = s * (s * s + 27.0) / (9.0 * s * s + 27.0);
  }
  return x * t;
}

// Softmax over the whole tensor with the running sum kept as a float.
std::vector<float> softmax_reference(const std::vector<float>& xs) {
  float sum = 0.0f;
  for (float x : xs) sum = static_cast<float>(sum + std::exp(static_cast<double>(x)));
  std::vector<float> ys;
  for (float x : xs) ys.push_back(static_cast<float>(std::exp(static_cast<double>(x)) / sum));
  return ys;
}

struct ActivationCase {
  std::string label;
  std::string op;
  std::function<void(NodeDef*)> attrs;
  Reference reference;
  std::vector<float> inputs = kInputs;
  std::vector<int> shape = kShape;
};

std::ostream& operator<<(std::ostream& os, const ActivationCase& c) { return os << c.label; }

void no_attrs(NodeDef*) {}

const double kSeluScale = 1.0507009873554805;
const double kSeluAlpha = 1.6732632423543772;

std::vector<ActivationCase> activation_cases() {
  return {
      {"Relu", "Z40Relu", no_attrs, each([](double x) { return std::isnan(x) ? x : (x > 0 ? x : 0.0); })},
      {"Relu6", "Z40Relu6", no_attrs, each([](double x) { return clamp(x, 0, 6); })},
      {"LeakyRelu", "Z40LeakyRelu", [](NodeDef* n) { set_attr_f(n, "alpha", 0.1f); },
       each([](double x) { return x > 0 ? x : x * 0.1f; })},
      {"PRelu", "Z40PRelu", no_attrs,
       [](const std::vector<float>& xs) {
         const float slope[3] = {0.5f, -2.0f, 0.0f};
         std::vector<float> ys;
         for (size_t i = 0; i < xs.size(); ++i) {
           ys.push_back(xs[i] >= 0 ? xs[i] : xs[i] * slope[i % 3]);
         }
         return ys;
       }},
      {"EluDefaultAlpha", "Z40Elu", no_attrs,
       each([](double x) { return x < 0 ? 0.25 * std::expm1(x) : x; })},
      {"EluAlpha", "Z40Elu", [](NodeDef* n) { set_attr_f(n, "alpha", 1.5f); },
       each([](double x) { return x < 0 ? 1.5 * std::expm1(x) : x; })},
      // An alpha stored as an integer is another kind of value and reads as 0.
      {"EluIntegerAlphaReadsZero", "Z40Elu", [](NodeDef* n) { set_attr_i(n, "alpha", 2); },
       each([](double x) { return x < 0 ? 0.0 : x; })},
      {"Selu", "Z40Selu", no_attrs,
       each([](double x) { return x > 0 ? kSeluScale * x : kSeluScale * kSeluAlpha * std::expm1(x); })},
      {"HsigmoidDefaults", "Z40Hsigmoid", no_attrs, each([](double x) { return clamp(x / 5 + 0.5, 0, 1); })},
      {"Hsigmoid", "Z40Hsigmoid",
       [](NodeDef* n) {
         set_attr_f(n, "alpha", 0.25f);
         set_attr_f(n, "beta", 0.25f);
       },
       each([](double x) { return clamp(x / 4 + 0.25, 0, 1); })},
      // The offset is integral (3.7 acts as 3) and the multiplier has no effect.
      {"HardSwish", "Z40HardSwish",
       [](NodeDef* n) {
         set_attr_f(n, "add_scalar_value", 3.7f);
         set_attr_f(n, "mul_scalar_value", 5.0f);
       },
       each([](double x) { return x * clamp(x + 3, 0, 6) / 6; })},
      // beta is integral: 1.9 acts as 1 and 0.5 as 0 (x / 2 everywhere).
      {"SwishBeta1", "Z40Swish", [](NodeDef* n) { set_attr_f(n, "beta", 1.9f); },
       each([](double x) { return x / (std::exp(-x) + 1); })},
      {"SwishBetaHalf", "Z40Swish", [](NodeDef* n) { set_attr_f(n, "beta", 0.5f); },
       each([](double x) { return x / 2; })},
      {"SwishBeta2", "Z40Swish", [](NodeDef* n) { set_attr_f(n, "beta", 2.0f); },
       each([](double x) { return x / (std::exp(-2 * x) + 1); })},
      {"Mish", "Z40Mish", no_attrs, each(mish_reference)},
      {"Sigmoid", "Z40Sigmoid", no_attrs, each([](double x) { return 1 / (1 + std::exp(-x)); })},
      {"Tanh", "Z40Tanh", no_attrs, each([](double x) { return std::tanh(x); })},
      // No guard: exp(800) is infinite and so is the result.
      {"Softplus", "Z40Softplus", no_attrs,
       each([](double x) { return x > 709 ? INFINITY : std::log1p(std::exp(x)); })},
      {"Softsign", "Z40Softsign", no_attrs, each([](double x) { return x / (1 + std::fabs(x)); })},
      // All twelve values share one sum, not each row of three.
      {"SoftmaxWholeTensor", "Z40Softmax", no_attrs, softmax_reference,
       {0.5f, -1.0f, 2.0f, 0.0f, 3.0f, -2.0f, 1.0f, 1.5f, -0.5f, 0.25f, 2.5f, -3.0f},
       {1, 2, 2, 3}},
      // No maximum is subtracted: e^100 overflows the float sum (every result
      // 0), and e^800 overflows even in double (infinity / infinity is NaN).
      {"SoftmaxFloatSumOverflow", "Z40Softmax", no_attrs, softmax_reference,
       {100.0f, 1.0f, 2.0f}, {1, 3}},
      {"SoftmaxDoubleOverflow", "Z40Softmax", no_attrs, softmax_reference,
       {800.0f, 1.0f, 2.0f}, {1, 3}},
  };
}

class FloatActivationTest : public ::testing::TestWithParam<ActivationCase> {};

TEST_P(FloatActivationTest, MatchesScalarFormulaThroughGraph) {
  const ActivationCase& c = GetParam();
  GraphDef graph;
  add_node(graph, "input", "ZxxNOp");
  std::vector<std::string> inputs = {"input"};
  if (c.op == "Z40PRelu") {
    add_float_const(graph, "slope", {3}, {0.5f, -2.0f, 0.0f});
    inputs.push_back("slope");
  }
  c.attrs(add_node(graph, "act", c.op, inputs));
  Tensor input = make_tensor(c.shape, c.inputs);
  std::vector<int> shape;
  const std::vector<float> output = run_single_op(graph, input, "act", &shape);
  EXPECT_EQ(shape, c.shape);
  expect_floats_near(output, c.reference(c.inputs), 2e-6f, 1e-6f, c.label);
}

INSTANTIATE_TEST_SUITE_P(AllActivations, FloatActivationTest,
                         ::testing::ValuesIn(activation_cases()),
                         [](const ::testing::TestParamInfo<ActivationCase>& info) {
                           return info.param.label;
                         });

// A few hand-worked values that pin the stated quirks exactly.
TEST(FloatActivationQuirkTest, HandWorkedValues) {
  struct Quirk {
    const char* op;
    std::function<void(NodeDef*)> attrs;
    std::vector<float> in, out;
  } quirks[] = {
      {"Z40HardSwish", [](NodeDef* n) { set_attr_f(n, "add_scalar_value", 3.0f); },
       {3.0f, -4.0f, 0.0f, 1.0f}, {3.0f, 0.0f, 0.0f, 4.0f / 6.0f}},
      {"Z40Selu", no_attrs, {0.0f}, {0.0f}},
      {"Z40Hsigmoid", no_attrs, {-2.5f, 0.0f, 2.5f}, {0.0f, 0.5f, 1.0f}},
      {"Z40Swish", [](NodeDef* n) { set_attr_f(n, "beta", 0.5f); }, {3.0f, -7.0f}, {1.5f, -3.5f}},
      // s = softplus(10) > 4 selects the saturated constant 0x3f80bfa0.
      {"Z40Mish", no_attrs, {10.0f}, {10.0f * float_from_bits(0x3f80bfa0u)}},
  };
  for (const Quirk& q : quirks) {
    GraphDef graph;
    add_node(graph, "input", "ZxxNOp");
    q.attrs(add_node(graph, "act", q.op, {"input"}));
    Tensor input = make_tensor({1, static_cast<int>(q.in.size())}, q.in);
    expect_floats_near(run_single_op(graph, input, "act"), q.out, 1e-6f, 0.0f, q.op);
  }
}

}  // namespace
}  // namespace kovra_test
