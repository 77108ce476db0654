#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "kvdl.h"
#include "support/int8_graph.h"

namespace {

struct RoundCase {
  float in;
  float half_even;
  float half_away;
};

// Worked by hand: ties go to the even neighbour in one, away from zero in the other.
const RoundCase kRoundCases[] = {
    {0.5f, 0.0f, 1.0f},      {1.5f, 2.0f, 2.0f},     {2.5f, 2.0f, 3.0f},
    {-0.5f, -0.0f, -1.0f},   {-1.5f, -2.0f, -2.0f},  {-2.5f, -2.0f, -3.0f},
    {3.5f, 4.0f, 4.0f},      {0.49999997f, 0.0f, 0.0f}, {2.6f, 3.0f, 3.0f},
    {-0.3f, 0.0f, 0.0f},     {-2.7f, -3.0f, -3.0f},  {7.0f, 7.0f, 7.0f},
    {16777216.0f, 16777216.0f, 16777216.0f},         {-127.5f, -128.0f, -128.0f},
};

class RoundingTest : public ::testing::TestWithParam<RoundCase> {};

TEST_P(RoundingTest, HalfToEvenAndHalfAwayFromZero) {
  const RoundCase& c = GetParam();
  EXPECT_EQ(kvdl::tensorflow_round_cpu(c.in), c.half_even) << c.in;
  EXPECT_EQ(kvdl::Round(c.in), c.half_away) << c.in;
}

INSTANTIATE_TEST_SUITE_P(WorkedExamples, RoundingTest, ::testing::ValuesIn(kRoundCases));

TEST(RoundingTest, HalfToEvenMatchesTheNearestEvenIntegerEverywhere) {
  // Every float with a fraction of a half or nearby, on both sides of zero.
  for (int k = -4000; k <= 4000; ++k) {
    for (float frac : {0.25f, 0.5f, 0.75f}) {
      const float x = static_cast<float>(k) + frac;
      EXPECT_EQ(kvdl::tensorflow_round_cpu(x), std::nearbyint(x)) << x;
    }
  }
}

TEST(RoundingTest, RoundSaturatesInsteadOfOverflowing) {
  EXPECT_EQ(kvdl::Round(1e20f), 2147483647.0f);
  EXPECT_EQ(kvdl::Round(-1e20f), -2147483648.0f);
}

TEST(ExpTest, FollowsTheIntegerPowerAndTenTermSeries) {
  for (double x : {0.0, 0.3, -0.3, 0.999, -0.999, 1.0, 2.5, -2.5, 7.75, -7.75, 20.4, -33.1}) {
    EXPECT_DOUBLE_EQ(kvdl::Exp(x), kovra_test::firmware_exp_reference(x)) << x;
  }
  EXPECT_EQ(kvdl::Exp(0.0), 1.0);
}

TEST(ExpTest, DiffersFromTheLibraryWhereTheSeriesIsTruncated) {
  // The tenth term and beyond are missing: about 2.7e-7 relative at f near 1.
  const double x = 0.999;
  EXPECT_NE(kvdl::Exp(x), std::exp(x));
  EXPECT_NEAR(kvdl::Exp(x) / std::exp(x), 1.0, 5e-7);
}

TEST(ExpTest, HugeArgumentsSaturate) {
  EXPECT_EQ(kvdl::Exp(1000.0), std::numeric_limits<double>::infinity());
  EXPECT_EQ(kvdl::Exp(-1000.0), 0.0);
}

TEST(SqrtTest, NewtonIterationConverges) {
  for (double x : {1.0, 2.0, 4.0, 0.25, 10.0, 12345.678, 1e10}) {
    EXPECT_NEAR(kvdl::Sqrt(x), std::sqrt(x), 1e-9 * std::max(1.0, std::sqrt(x))) << x;
  }
}

TEST(SqrtTest, ZeroStopsAtTheIterationsLastStep) {
  // From 0.5 the iteration halves; it stops once a step is at most 1e-9.
  const double y = kvdl::Sqrt(0.0);
  EXPECT_GT(y, 0.0);
  EXPECT_LE(y, 1e-9);
  EXPECT_TRUE(std::isnan(kvdl::Sqrt(-1.0)));
}

TEST(RationalTanhTest, PolynomialInsideAndConstantsOutside) {
  EXPECT_EQ(kvdl::rational_tanh(0.0), 0.0);
  EXPECT_DOUBLE_EQ(kvdl::rational_tanh(1.0), 28.0 / 36.0);
  EXPECT_DOUBLE_EQ(kvdl::rational_tanh(-2.0), -2.0 * 31.0 / 63.0);
  EXPECT_DOUBLE_EQ(kvdl::rational_tanh(4.0), 4.0 * 43.0 / 171.0);
  EXPECT_EQ(kvdl::rational_tanh(4.5), 1.0058479);
  EXPECT_EQ(kvdl::rational_tanh(-5.0), -1.0058479);
}

}  // namespace
