#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/int8_graph.h"
#include "support/int8_reference.h"

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

// Per-channel parameters on a 4-D tensor of 3 channels, random codes.
struct PerChannelData {
  SumAttrs attrs{{0.02f, 0.05f, 0.11f}, {0.03f, 0.07f, 0.013f}, {9.0f, 4.5f, 12.25f}, -5, 7, 2, 120, -128};
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

// The direct requantization of the sum, the difference and the maximum,
// written out per element: os_k = O * S_k, and the three grouped as stated.
struct DirectCase {
  const char* op;
  float (*reference)(const SumAttrs& a, size_t c, float x0, float x1);
};
void PrintTo(const DirectCase& c, std::ostream* os) { *os << c.op; }

const DirectCase kDirect[] = {
    {"Z40EltwiseAddInt8",
     [](const SumAttrs& a, size_t c, float x0, float x1) {
       const float os0 = a.o[c] * a.s0[c], os1 = a.o[c] * a.s1[c];
       const float v = a.off0 * os0 + a.off1 * os1 + a.offset + (os0 * x0 + os1 * x1);
       return clamp_sum(std::nearbyint(v), 122.0f);
     }},
    {"Z40EltwiseSubInt8",
     [](const SumAttrs& a, size_t c, float x0, float x1) {
       const float os0 = a.o[c] * a.s0[c], os1 = a.o[c] * a.s1[c];
       const float v = a.off0 * os0 - a.off1 * os1 + a.offset + (os0 * x0 - os1 * x1);
       return clamp_sum(std::nearbyint(v), 122.0f);
     }},
    {"Z40MaxInt8",
     [](const SumAttrs& a, size_t c, float x0, float x1) {
       const float os0 = a.o[c] * a.s0[c], os1 = a.o[c] * a.s1[c];
       const float v = std::max(a.off0 * os0 + os0 * x0, a.off1 * os1 + os1 * x1) + a.offset;
       return std::min(std::max(std::nearbyint(v), -126.0f), 122.0f);  // [minValue, maxValue] + offset
     }},
};

class DirectRequantTest : public ::testing::TestWithParam<DirectCase> {};

TEST_P(DirectRequantTest, PerChannelOn4D) {
  PerChannelData d;
  Tensor x0 = make_tensor({2, 3, 4, 3}, d.x0), x1 = make_tensor({2, 3, 4, 3}, d.x1);
  const std::vector<float> got = sum_model(GetParam().op, d.attrs).run({&x0, &x1});
  ASSERT_EQ(got.size(), d.x0.size());
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i], GetParam().reference(d.attrs, i % 3, d.x0[i], d.x1[i])) << GetParam().op << " " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(SumDifferenceMaximum, DirectRequantTest, ::testing::ValuesIn(kDirect),
                         [](const auto& info) { return std::string(info.param.op); });

// Each fused activation written out from its formula.
struct ActivationCase {
  const char* name;
  std::function<float(float)> f;
};

const double kSeluScale = 1.0507009873554805, kSeluAlpha = 1.6732632423543772;

// Constants set on the model below.
const float kHsA = 0.25f, kHsB = 0.375f, kSwishBeta = 1.5f, kEluAlpha = 0.75f, kSlope = 0.125f,
            kHswAdd = 2.0f, kHswMul = 0.25f;

const ActivationCase kActivations[] = {
    {"Tanh", [](float y) { return static_cast<float>(ref_tanh(y)); }},
    {"Sigmoid", [](float y) { return static_cast<float>(1.0 / (std::exp(-double(y)) + 1.0)); }},
    {"Hsigmoid", [](float y) { return std::min(1.0f, std::max(0.0f, y * kHsA + kHsB)); }},
    {"Swish", [](float y) { return static_cast<float>(y / (std::exp(-double(y * kSwishBeta)) + 1.0)); }},
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
    {"Mish", [](float y) { return float(y * ref_tanh(std::log(std::exp(double(y)) + 1))); }},
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

}  // namespace
}  // namespace kovra_test
