#include <gtest/gtest.h>

#include "ops/kernels/activate_int8.h"
#include "ops/int8/z40_conv2d_int8_op_executor.h"
#include "ops/int8/z40_depthwise_conv2d_native_int8_op_executor.h"
#include "ops/int8/z40_mat_mul_int8_op_executor.h"
#include "support/int8_reference.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;

template <class Param>
Param make_param(const std::string& action) {
  Param p;
  p.set_action_type(action);
  p.OUTPUTSCALE = {0.5f, 0.25f, 0.125f, 2.0f};  // two channels, split for LeakyRelu/PRelu
  p.SUMSCALE = {0.01f, 0.003f};
  p.QSCALE = {40.0f, 90.0f};
  p.elu_alpha = 0.7f;
  p.hswish_add_scalar_value = 3.0f;
  p.hswish_mul_scalar_value = 1.0f / 6.0f;
  return p;
}

Int8Stage stage_of(const kx::Int8OutputParam& p) {
  Int8Stage s;
  s.action = p.ActionType;
  s.output_scale = p.OUTPUTSCALE;
  s.sum_scale = p.SUMSCALE;
  s.q_scale = p.QSCALE;
  s.elu_alpha = p.elu_alpha;
  s.hswish_add = p.hswish_add_scalar_value;
  s.hswish_mul = p.hswish_mul_scalar_value;
  return s;
}

const char* const kActions[] = {"None",  "Relu",      "Relu6", "LeakyRelu", "PRelu",    "Swish",
                                "Sigmoid", "Selu",    "Tanh",  "Elu",       "HardSwish", "Mish",
                                "Softplus", "Softsign", "Gelu"};

class ActivateInt8Test : public ::testing::TestWithParam<const char*> {};

// Every activation, for each of the three records, over accumulators from
// far negative to far positive, equals the formula written out in the test.
TEST_P(ActivateInt8Test, MatchesFormulaForEveryRecord) {
  const auto conv = make_param<kx::Z40Conv2DInt8Param>(GetParam());
  const auto dw = make_param<kx::Z40DepthwiseConv2dNativeInt8Param>(GetParam());
  const auto mm = make_param<kx::Z40MatMulInt8Param>(GetParam());
  const Int8Stage ref = stage_of(conv);
  for (float a = -3000.0f; a <= 3000.0f; a += 37.25f) {
    for (int c = 0; c < 2; ++c) {
      const float want = ref_activate(ref, a, c, 2);
      EXPECT_EQ(kx::activate_int8(a, c, 2, const_cast<kx::Z40Conv2DInt8Param*>(&conv)), want) << a;
      EXPECT_EQ(kx::activate_int8(a, c, 2, const_cast<kx::Z40DepthwiseConv2dNativeInt8Param*>(&dw)), want);
      EXPECT_EQ(kx::activate_int8(a, c, 2, const_cast<kx::Z40MatMulInt8Param*>(&mm)), want);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(AllActivations, ActivateInt8Test, ::testing::ValuesIn(kActions));

// Hand-worked values of the boundary cases.
TEST(ActivateInt8HandTest, Boundaries) {
  auto p = make_param<kx::Z40Conv2DInt8Param>("Gelu");  // unknown: behaves as "None"
  EXPECT_EQ(kx::activate_int8(-8.0f, 1, 2, &p), -2.0f);
  p.set_action_type("LeakyRelu");
  EXPECT_EQ(kx::activate_int8(0.0f, 0, 2, &p), 0.0f);     // a = 0 takes the non-negative half
  EXPECT_EQ(kx::activate_int8(8.0f, 0, 2, &p), 4.0f);
  EXPECT_EQ(kx::activate_int8(-8.0f, 0, 2, &p), -1.0f);   // OUTPUTSCALE[2 + 0]
  EXPECT_EQ(kx::activate_int8(-8.0f, 1, 2, &p), -16.0f);  // OUTPUTSCALE[2 + 1]
  p.set_action_type("Tanh");
  p.SUMSCALE = {1.0f, 1.0f};
  EXPECT_EQ(kx::activate_int8(5.0f, 0, 2, &p), (float)(40.0 * 1.0058479));
  EXPECT_GT(kx::activate_int8(5.0f, 0, 2, &p), 40.0f);
  p.set_action_type("HardSwish");
  // r = 4 + 3 = 7 -> g = 6: 40 * (4 * 6 / 6)
  EXPECT_EQ(kx::activate_int8(4.0f, 0, 2, &p), 40.0f * (4.0f * 6.0f * (1.0f / 6.0f)));
  EXPECT_EQ(kx::activate_int8(-4.0f, 0, 2, &p), 0.0f);    // r = -1 -> 0
  p.set_action_type("Softsign");
  EXPECT_EQ(kx::activate_int8(-3.0f, 0, 2, &p), 40.0f * (-3.0f / 4.0f));
}

TEST(ActivateInt8HandTest, SeluAndEluDifferAtZero) {
  auto p = make_param<kx::Z40MatMulInt8Param>("Selu");
  p.SUMSCALE = {1.0f, 1.0f};
  // Selu takes the exponential branch at t = 0 (exp(0) - 1 = 0): 0 either way,
  // while just above zero both are linear.
  EXPECT_EQ(kx::activate_int8(0.0f, 0, 2, &p), 0.0f);
  EXPECT_EQ(kx::activate_int8(1.0f, 0, 2, &p), 40.0f * (float)(1.0 * 1.0507009873554805));
  p.set_action_type("Elu");
  EXPECT_EQ(kx::activate_int8(-1.0f, 0, 2, &p), (float)(40.0 * ((std::exp(-1.0) - 1) * 0.7f)));
}

}  // namespace
}  // namespace kovra_test
