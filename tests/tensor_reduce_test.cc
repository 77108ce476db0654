#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_util.h"
#include "tensor_reduce.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;

const float kNaN = std::numeric_limits<float>::quiet_NaN();

enum class Op { kMin, kMax, kSum, kMean, kStd };

const char* op_name(Op op) {
  switch (op) {
    case Op::kMin: return "min";
    case Op::kMax: return "max";
    case Op::kSum: return "sum";
    case Op::kMean: return "mean";
    case Op::kStd: return "std";
  }
  return "";
}

// Straight from the definition: walk (o, i) outputs, fold along the axis in
// order, in float.
std::vector<float> reference_reduce(const std::vector<float>& in, const std::vector<int>& shape,
                                    int axis, Op op) {
  int outer = 1, inner = 1;
  for (int d = 0; d < axis; ++d) outer *= shape[d];
  for (size_t d = axis + 1; d < shape.size(); ++d) inner *= shape[d];
  const int len = shape[axis];
  std::vector<float> out(outer * inner);
  for (int o = 0; o < outer; ++o) {
    for (int i = 0; i < inner; ++i) {
      auto at = [&](int a) { return in[(o * len + a) * inner + i]; };
      float acc = 0.0f;
      if (op == Op::kMin || op == Op::kMax) {
        acc = at(0);
        for (int a = 1; a < len; ++a) {
          const float v = at(a);
          if (op == Op::kMin ? v < acc : v > acc) acc = v;
        }
      } else {
        for (int a = 0; a < len; ++a) acc += at(a);
        if (op != Op::kSum) acc /= static_cast<float>(len);
        if (op == Op::kStd) {
          float var = 0.0f;
          for (int a = 0; a < len; ++a) var += (at(a) - acc) * (at(a) - acc);
          acc = powf(var / static_cast<float>(len), 0.5f);
        }
      }
      out[o * inner + i] = acc;
    }
  }
  return out;
}

Tensor reduce(const Tensor& t, Op op, int axis, bool keep) {
  switch (op) {
    case Op::kMin: return t.reduce_min(axis, keep);
    case Op::kMax: return t.reduce_max(axis, keep);
    case Op::kSum: return t.reduce_sum(axis, keep);
    case Op::kMean: return t.reduce_mean(axis, keep);
    case Op::kStd: return t.reduce_std(axis, keep);
  }
  return Tensor();
}

struct ReduceCase {
  std::vector<int> shape;
  int axis;
};

class ReduceAxisTest : public ::testing::TestWithParam<std::tuple<ReduceCase, Op>> {};

TEST_P(ReduceAxisTest, MatchesInOrderFold) {
  const ReduceCase& c = std::get<0>(GetParam());
  const Op op = std::get<1>(GetParam());
  int n = 1;
  for (int d : c.shape) n *= d;
  std::mt19937 gen(static_cast<unsigned>(n * 31 + c.axis));
  std::uniform_real_distribution<float> dist(-10.0f, 10.0f);
  std::vector<float> values(n);
  for (float& v : values) v = dist(gen);
  Tensor t = make_tensor(c.shape, values);
  const int rank = static_cast<int>(c.shape.size());
  const int axis = c.axis < 0 ? c.axis + rank : c.axis;
  const std::vector<float> want = reference_reduce(values, c.shape, axis, op);

  std::vector<int> kept = c.shape;
  kept[axis] = 1;
  std::vector<int> dropped = c.shape;
  dropped.erase(dropped.begin() + axis);
  if (dropped.empty()) dropped = {1};
  for (bool keep : {true, false}) {
    Tensor r = reduce(t, op, c.axis, keep);
    EXPECT_EQ(r.shape(), keep ? kept : dropped);
    EXPECT_EQ(r.data_type(), Tensor::DT_FLOAT);
    const std::vector<float> got = tensor_values(r);
    ASSERT_EQ(got.size(), want.size());
    for (size_t k = 0; k < want.size(); ++k) {
      // The fold order is fixed, so even sums agree to the bit; std goes
      // through powf, allowed a couple of ulps.
      if (op == Op::kStd) {
        EXPECT_FLOAT_EQ(got[k], want[k]) << k;
      } else {
        EXPECT_EQ(got[k], want[k]) << k;
      }
    }
  }
}

const ReduceCase kReduceCases[] = {
    {{7}, 0},        {{2, 3}, 1},        {{2, 3}, -1},       {{2, 3}, 0},
    {{9, 1}, 0},     {{5, 1}, 1},        {{3, 4, 5}, 1},     {{3, 4, 5}, -3},
    {{6, 33}, 1},    {{2, 9, 1, 3}, 1},  {{1, 40, 17}, 1},   {{11, 64}, 0},
};

INSTANTIATE_TEST_SUITE_P(
    ShapesAndOps, ReduceAxisTest,
    ::testing::Combine(::testing::ValuesIn(kReduceCases),
                       ::testing::Values(Op::kMin, Op::kMax, Op::kSum, Op::kMean, Op::kStd)),
    [](const auto& info) {
      const ReduceCase& c = std::get<0>(info.param);
      std::string name = op_name(std::get<1>(info.param));
      for (int d : c.shape) name += "_" + std::to_string(d);
      return name + "_axis" + (c.axis < 0 ? "m" + std::to_string(-c.axis) : std::to_string(c.axis));
    });

TEST(ReduceTest, HandWorkedValues) {
  Tensor t = make_tensor({4}, {1, 2, 3, 4});
  EXPECT_FLOAT_EQ(t.reduce_std(0, true).at(0), 1.11803399f);  // population, not sqrt(5/3)
  EXPECT_FLOAT_EQ(t.reduce_mean(0, false).at(0), 2.5f);
  EXPECT_FLOAT_EQ(t.reduce_std(), 1.11803399f);
  EXPECT_FLOAT_EQ(t.reduce_mean(), 2.5f);
  EXPECT_FLOAT_EQ(t.reduce_sum(), 10.0f);
  EXPECT_FLOAT_EQ(t.reduce_min(), 1.0f);
  EXPECT_FLOAT_EQ(t.reduce_max(), 4.0f);

  Tensor m = make_tensor({2, 3}, {1, 5, 3, -4, 2, 8});
  Tensor rows = m.reduce_sum(1, false);
  EXPECT_EQ(rows.shape(), (std::vector<int>{2}));
  EXPECT_EQ(tensor_values(rows), (std::vector<float>{9, 6}));
  EXPECT_EQ(m.reduce_max(-1, true).shape(), (std::vector<int>{2, 1}));
  EXPECT_EQ(tensor_values(m.reduce_max(-1, true)), (std::vector<float>{5, 8}));
  EXPECT_EQ(tensor_values(m.reduce_min(0, false)), (std::vector<float>{-4, 2, 3}));
  EXPECT_EQ(tensor_values(kx::tensor_reduce_mean_cpu(m, 0, true)), (std::vector<float>{-1.5f, 3.5f, 5.5f}));
}

TEST(ReduceTest, SumStartsFromPositiveZero) {
  Tensor t = make_tensor({2, 1}, {-0.0f, -0.0f});
  EXPECT_FALSE(std::signbit(t.reduce_sum(1, false).at(0)));
}

TEST(ReduceTest, NaNKeepsTheRunningValue) {
  // A comparison with NaN is false, so a NaN is skipped unless it comes first.
  for (const std::vector<int>& shape : {std::vector<int>{3, 1}, std::vector<int>{3}}) {
    Tensor t = make_tensor(shape, {3.0f, kNaN, 1.0f});
    EXPECT_EQ(tensor_values(t.reduce_min(0, true)), (std::vector<float>{1.0f}));
    EXPECT_EQ(tensor_values(t.reduce_max(0, true)), (std::vector<float>{3.0f}));
  }
  Tensor lead = make_tensor({2}, {kNaN, 1.0f});
  EXPECT_TRUE(std::isnan(lead.reduce_min()));
}

TEST(ReduceTest, WholeTensorFormsOverEveryElement) {
  std::mt19937 gen(5);
  std::normal_distribution<float> dist(3.0f, 2.0f);
  std::vector<float> values(10001);
  for (float& v : values) v = dist(gen);
  Tensor t = make_tensor({73, 137}, values);
  float sum = 0.0f, lo = values[0], hi = values[0];
  for (float v : values) {
    sum += v;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  EXPECT_EQ(t.reduce_sum(), sum);
  EXPECT_EQ(t.reduce_mean(), sum / 10001.0f);
  EXPECT_EQ(t.reduce_min(), lo);
  EXPECT_EQ(t.reduce_max(), hi);
  double mean = 0.0;
  for (float v : values) mean += v;
  mean /= values.size();
  double squares = 0.0;
  for (float v : values) squares += (v - mean) * (v - mean);
  EXPECT_NEAR(t.reduce_std(), std::sqrt(squares / values.size()), 1e-5);
}

TEST(ReduceDeathTest, AxisOutOfRange) {
  Tensor m = make_tensor({2, 3}, {1, 2, 3, 4, 5, 6});
  EXPECT_FATAL(m.reduce_sum(2, false), "reduce axis error");
  EXPECT_ERROR(m.reduce_mean(-3, true), "reduce axis error");
  EXPECT_ERROR(kx::get_reduce_tensor(m, 7, true), "reduce axis error");
  Tensor none;
  EXPECT_ERROR(none.reduce_max(0, true), "reduce axis error");
}

TEST(ReduceDeathTest, NonFloatBuffersAreRefused) {
  Tensor bytes({2, 4}, Tensor::DT_INT8, nullptr, "cpu");
  bytes.set_name("q");
  const std::string text = "tensor must hold float elements, tensor: q  size: 8  byte size: 8";
  EXPECT_ERROR(bytes.reduce_sum(1, true), text);
  EXPECT_ERROR(bytes.reduce_std(), text);
  EXPECT_ERROR(bytes.reduce_min(), text);
  Tensor none;
  EXPECT_ERROR(none.reduce_mean(), "tensor must hold float elements, tensor:   size: 0  byte size: 0");
}

}  // namespace
}  // namespace kovra_test
