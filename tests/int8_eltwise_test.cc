#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/int8_graph.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;

struct SumAttrs {
  std::vector<float> s0, s1, o;
  int off0, off1, offset, max_value, min_value;
};

OneOpModel sum_model(const std::string& op, const SumAttrs& a, const std::string& action = "") {
  OneOpModel m(op, 2);
  NodeDef* n = m.node();
  set_attr_floats(n, "INPUT0SCALE", a.s0);
  set_attr_floats(n, "INPUT1SCALE", a.s1);
  set_attr_floats(n, "OUTPUTSCALE", a.o);
  set_attr_i(n, "input0_offset", a.off0);
  set_attr_i(n, "input1_offset", a.off1);
  set_attr_i(n, "offset", a.offset);
  set_attr_i(n, "maxValue", a.max_value);
  set_attr_i(n, "minValue", a.min_value);
  if (!action.empty()) set_attr_s(n, "ActionType", action);
  return m;
}

// Scales 0.5 / 0.25, output scale 2, offsets 1 / -2, output offset 3: the sum
// is 3 + (x0 + 0.5 x1) and the difference 5 + (x0 - 0.5 x1).
const SumAttrs kHand = {{0.5f}, {0.25f}, {2.0f}, 1, -2, 3, 100, -128};

TEST(EltwiseAddInt8Test, HandWorkedSumsClampAtZeroAndMaxPlusOffset) {
  Tensor x0 = make_tensor({1, 1, 6, 1}, {10, 2, 3, -20, 200, -3});
  Tensor x1 = make_tensor({1, 1, 6, 1}, {4, 3, 3, 0, 0, -1});
  // 15; 6.5 -> 6; 7.5 -> 8; -17 -> 0 although minValue is -128; 203 -> 103; -0.5 -> 0.
  const std::vector<float> expected = {15, 6, 8, 0, 103, 0};
  for (const char* action : {"", "None", "Relu", "Relu6"}) {
    EXPECT_EQ(sum_model("Z40EltwiseAddInt8", kHand, action).run({&x0, &x1}), expected) << action;
  }
}

TEST(EltwiseSubInt8Test, HandWorkedDifferences) {
  Tensor x0 = make_tensor({1, 1, 4, 1}, {10, 2, -20, 200});
  Tensor x1 = make_tensor({1, 1, 4, 1}, {4, 3, 0, 0});
  // 5 + 10 - 2 = 13; 5 + 2 - 1.5 = 5.5 -> 6; -15 -> 0; 205 -> 103.
  EXPECT_EQ(sum_model("Z40EltwiseSubInt8", kHand).run({&x0, &x1}),
            (std::vector<float>{13, 6, 0, 103}));
}

TEST(EltwiseAddInt8Test, OneElementShortcutClampsAtMinValue) {
  SumAttrs a = kHand;
  a.o = {0.75f};
  Tensor x0 = make_tensor({1, 1, 4, 1}, {2, -2, -300, 300});
  Tensor x1 = make_tensor({1}, {5});
  // 1.5 + 5 = 6.5 -> 6; -1.5 + 5 = 3.5 -> 4; -220 -> -128 (minValue); 230 -> 103.
  EXPECT_EQ(sum_model("Z40EltwiseAddInt8", a).run({&x0, &x1}),
            (std::vector<float>{6, 4, -128, 103}));
  // The difference subtracts the scalar: 1.5 - 5 = -3.5 -> -4.
  EXPECT_EQ(sum_model("Z40EltwiseSubInt8", a).run({&x0, &x1}),
            (std::vector<float>{-4, -6, -128, 103}));
}

// Per-channel parameters on a 4-D tensor of 3 channels, random codes.
struct PerChannelData {
  SumAttrs attrs{{0.02f, 0.05f, 0.11f}, {0.03f, 0.07f, 0.013f}, {9.0f, 4.5f, 12.25f},
                 -5, 7, 2, 120, -128};
  std::vector<float> x0, x1;
  PerChannelData() {
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> code(-128, 127);
    for (int i = 0; i < 2 * 3 * 4 * 3; ++i) {
      x0.push_back(static_cast<float>(code(rng)));
      x1.push_back(static_cast<float>(code(rng)));
    }
  }
};

float clamp_sum(float q, float hi) { return q > hi ? hi : (q < 0 ? 0 : q); }

TEST(EltwiseAddInt8Test, PerChannelDirectRequantizationOn4D) {
  PerChannelData d;
  const SumAttrs& a = d.attrs;
  Tensor x0 = make_tensor({2, 3, 4, 3}, d.x0), x1 = make_tensor({2, 3, 4, 3}, d.x1);
  const std::vector<float> got = sum_model("Z40EltwiseAddInt8", a).run({&x0, &x1});
  for (size_t i = 0; i < got.size(); ++i) {
    const size_t c = i % 3;
    const float os0 = a.o[c] * a.s0[c], os1 = a.o[c] * a.s1[c];
    const float v = a.off0 * os0 + a.off1 * os1 + a.offset + (os0 * d.x0[i] + os1 * d.x1[i]);
    EXPECT_EQ(got[i], clamp_sum(std::nearbyint(v), 122.0f)) << i;
  }
}

// Each fused activation written out from its formula.
struct ActivationCase {
  const char* name;
  std::function<float(float)> f;
};

const double kSeluScale = 1.0507009873554805, kSeluAlpha = 1.6732632423543772;

double tanh_approx(double x) {
  if (x < -4) return -1.0058479;
  if (x > 4) return 1.0058479;
  return x * (x * x + 27) / (9 * x * x + 27);
}

// Constants set on the model below.
const float kHsA = 0.25f, kHsB = 0.375f, kSwishBeta = 1.5f, kEluAlpha = 0.75f, kSlope = 0.125f,
            kHswAdd = 2.0f, kHswMul = 0.25f;

const ActivationCase kActivations[] = {
    {"Tanh", [](float y) { return static_cast<float>(tanh_approx(y)); }},
    {"Sigmoid", [](float y) { return static_cast<float>(1.0 / (std::exp(-double(y)) + 1.0)); }},
    {"Hsigmoid", [](float y) { return std::min(1.0f, std::max(0.0f, y * kHsA + kHsB)); }},
    {"Swish",
     [](float y) { return static_cast<float>(y / (std::exp(-double(y * kSwishBeta)) + 1.0)); }},
    {"Elu", [](float y) { return y < 0 ? float((std::exp(double(y)) - 1) * kEluAlpha) : y; }},
    {"Selu",
     [](float y) {
       return y <= 0 ? float(float((std::exp(double(y)) - 1) * kSeluAlpha) * kSeluScale)
                     : float(y * kSeluScale);
     }},
    {"Softplus", [](float y) { return float(std::log(std::exp(double(y)) + 1)); }},
    {"Softsign", [](float y) { return y / (std::fabs(y) + 1.0f); }},
    {"LeakyRelu", [](float y) { return y < 0 ? y * kSlope : y; }},
    {"PRelu", [](float y) { return y < 0 ? y * kSlope : y; }},
    {"HardSwish",
     [](float y) {
       const float r = y + kHswAdd;
       return y * ((r < 0 ? 0.0f : std::min(r, 6.0f)) * kHswMul);
     }},
    {"Mish", [](float y) { return float(y * tanh_approx(std::log(std::exp(double(y)) + 1))); }},
    {"SomethingElse", [](float y) { return y; }},
};

class EltwiseActivationTest : public ::testing::TestWithParam<ActivationCase> {};

TEST_P(EltwiseActivationTest, RealValuedPathPerChannel) {
  PerChannelData d;
  const SumAttrs& a = d.attrs;
  OneOpModel m = sum_model("Z40EltwiseAddInt8", a, GetParam().name);
  set_attr_f(m.node(), "hsigmoid_alpha", kHsA);
  set_attr_f(m.node(), "hsigmoid_beta", kHsB);
  set_attr_f(m.node(), "swish_beta", kSwishBeta);
  set_attr_f(m.node(), "elu_alpha", kEluAlpha);
  set_attr_f(m.node(), "prelu_leakyrelu_slope", kSlope);
  set_attr_f(m.node(), "hswish_add_scalar_value", kHswAdd);
  set_attr_f(m.node(), "hswish_mul_scalar_value", kHswMul);
  Tensor x0 = make_tensor({2, 3, 4, 3}, d.x0), x1 = make_tensor({2, 3, 4, 3}, d.x1);
  const std::vector<float> got = m.run({&x0, &x1});
  int differs_from_linear = 0;
  for (size_t i = 0; i < got.size(); ++i) {
    const size_t c = i % 3;
    const float y = (a.off0 + d.x0[i]) * a.s0[c] + (a.off1 + d.x1[i]) * a.s1[c];
    const float expected = clamp_sum(std::nearbyint(GetParam().f(y) * a.o[c] + a.offset), 122.0f);
    EXPECT_EQ(got[i], expected) << GetParam().name << " element " << i << " y " << y;
    differs_from_linear += expected != clamp_sum(std::nearbyint(y * a.o[c] + a.offset), 122.0f);
  }
  // The data reach the part of each curve where it bends (not for the identity).
  if (std::string(GetParam().name) != "SomethingElse") {
    EXPECT_GT(differs_from_linear, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(AllBranches, EltwiseActivationTest, ::testing::ValuesIn(kActivations),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(EltwiseMulInt8Test, HandWorkedProductsWithShiftedBounds) {
  OneOpModel m("Z40EltwiseMulInt8", 2);
  set_attr_i(m.node(), "input0_offset", 1);
  set_attr_i(m.node(), "input1_offset", -2);
  set_attr_floats(m.node(), "OUTPUTSCALE", {0.5f});
  set_attr_i(m.node(), "offset", 3);
  set_attr_i(m.node(), "maxValue", 100);
  set_attr_i(m.node(), "minValue", -10);
  Tensor x0 = make_tensor({1, 1, 5, 1}, {3, 2, -1, 100, -40});
  Tensor x1 = make_tensor({1, 1, 5, 1}, {5, 5, 7, 100, 12});
  // 4*3*0.5+3 = 9; 3*3*0.5+3 = 7.5 -> 8; 0 -> 3; 4952 -> 103; -192 -> -7 (minValue + offset).
  EXPECT_EQ(m.run({&x0, &x1}), (std::vector<float>{9, 8, 3, 103, -7}));
}

TEST(EltwiseMulInt8Test, ShortSecondInputRepeatsPerChannel) {
  OneOpModel m("Z40EltwiseMulInt8", 2);
  set_attr_i(m.node(), "input0_offset", 0);
  set_attr_i(m.node(), "input1_offset", 0);
  set_attr_floats(m.node(), "OUTPUTSCALE", {1.0f, 0.25f});
  set_attr_i(m.node(), "maxValue", 127);
  set_attr_i(m.node(), "minValue", -128);
  Tensor x0 = make_tensor({1, 1, 3, 2}, {1, 2, 3, 4, 5, 6});
  Tensor x1 = make_tensor({2}, {2, 3});
  // channel 0: x * 2; channel 1: x * 3 * 0.25 (1.5 -> 2, 3, 4.5 -> 4).
  EXPECT_EQ(m.run({&x0, &x1}), (std::vector<float>{2, 2, 6, 3, 10, 4}));
}

TEST(MaxInt8Test, LargerOfTheRequantizedInputs) {
  OneOpModel m = sum_model("Z40MaxInt8", {{0.5f}, {0.25f}, {2.0f}, 1, -2, 3, 100, -10});
  Tensor x0 = make_tensor({1, 1, 4, 1}, {10, -5, -50, 200});
  Tensor x1 = make_tensor({1, 1, 4, 1}, {4, 9, -50, 0});
  // max(11, 1) + 3 = 14; max(-4, 3.5) + 3 = 6.5 -> 6; -23 -> -7; 204 -> 103.
  EXPECT_EQ(m.run({&x0, &x1}), (std::vector<float>{14, 6, -7, 103}));
}

struct UnaryCase {
  const char* op;
  std::function<double(double)> f;
};

const UnaryCase kUnary[] = {
    {"Z40SigmoidInt8", [](double y) { return 1.0 / (firmware_exp_reference(-y) + 1.0); }},
    {"Z40TanhInt8", [](double y) { return 2.0 / (firmware_exp_reference(-2.0 * y) + 1.0) - 1.0; }},
};

class UnaryActivationTest : public ::testing::TestWithParam<UnaryCase> {};

TEST_P(UnaryActivationTest, PerChannelScalesClampThenOffset) {
  const std::vector<float> in_scale = {0.05f, 0.013f, 0.11f}, out_scale = {127.0f, 300.0f, 64.5f};
  OneOpModel m(GetParam().op, 1);
  set_attr_floats(m.node(), "INPUTSCALE", in_scale);
  set_attr_floats(m.node(), "OUTPUTSCALE", out_scale);
  set_attr_i(m.node(), "maxValue", 127);
  set_attr_i(m.node(), "minValue", -100);
  set_attr_i(m.node(), "input_offset", 4);
  set_attr_i(m.node(), "offset", -7);
  std::vector<float> codes;
  for (int v = -128; v < 128; v += 3) codes.push_back(static_cast<float>(v));
  while (codes.size() % 3) codes.push_back(0.0f);
  Tensor x = make_tensor({1, 1, static_cast<int>(codes.size() / 3), 3}, codes);
  const std::vector<float> got = m.run({&x});
  for (size_t i = 0; i < codes.size(); ++i) {
    const size_t c = i % 3;
    const float y = (4.0f + codes[i]) * in_scale[c];
    float q = std::nearbyint(static_cast<float>(GetParam().f(y)) * out_scale[c]);
    q = std::max(std::min(q, 127.0f), -100.0f);
    EXPECT_EQ(got[i], -7.0f + q) << GetParam().op << " " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(SigmoidAndTanh, UnaryActivationTest, ::testing::ValuesIn(kUnary));

TEST(UnaryActivationTest, HandWorkedSigmoidAtZero) {
  OneOpModel m("Z40SigmoidInt8", 1);
  set_attr_floats(m.node(), "INPUTSCALE", {0.1f});
  set_attr_floats(m.node(), "OUTPUTSCALE", {101.0f});
  set_attr_i(m.node(), "maxValue", 127);
  set_attr_i(m.node(), "minValue", -128);
  set_attr_i(m.node(), "input_offset", 5);
  set_attr_i(m.node(), "offset", -50);
  // -5 + 5 = 0: sigmoid 0.5 * 101 = 50.5 -> 50, plus the offset -50.
  Tensor x = make_tensor({1, 1, 1, 1}, {-5});
  EXPECT_EQ(m.run({&x}), (std::vector<float>{0}));
}

TEST(BatchNormScaleInt8Test, PerChannelAffineClampedAboveOnly) {
  OneOpModel m("Z40BatchNormScaleInt8", 1);
  set_attr_floats(m.node(), "scale", {0.5f, 2.0f});
  set_attr_floats(m.node(), "bias", {1.0f, -3.0f});
  set_attr_i(m.node(), "offset", 10);
  set_attr_i(m.node(), "maxValue", 20);
  Tensor x = make_tensor({1, 1, 3, 2}, {3, 4, 100, 100, -100, -1});
  // 2.5 -> 2; 5; 51 -> 20; 197 -> 20; -49 (no lower bound); -5; each plus 10.
  EXPECT_EQ(m.run({&x}), (std::vector<float>{12, 15, 30, 30, -39, 5}));
}

TEST(PowInt8Test, DoublePowerOfTheFirstExponentWithoutRounding) {
  OneOpModel m("Z40PowInt8", 2);
  Tensor x = make_tensor({1, 1, 1, 4}, {2, -3, 0.5f, 5});
  Tensor e = make_tensor({2}, {3, 9});
  EXPECT_EQ(m.run({&x, &e}), (std::vector<float>{8, -27, 0.125f, 125}));
  Tensor half = make_tensor({1}, {0.5f});
  const std::vector<float> roots = m.run({&x, &half});
  EXPECT_EQ(roots[0], static_cast<float>(std::sqrt(2.0)));
  EXPECT_TRUE(std::isnan(roots[1]));
}

}  // namespace
}  // namespace kovra_test
