#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common.h"
#include "support/test_util.h"
#include "tensor_operators.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;
using kx::BinaryFn;

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Exact comparison that also tells -0.0 from 0.0 and treats NaN as equal to NaN.
bool same_float(float a, float b) {
  if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
  return a == b && std::signbit(a) == std::signbit(b);
}

void expect_values(const Tensor& t, const std::vector<float>& expected, float rel_tol = 0.0f) {
  ASSERT_EQ(static_cast<size_t>(t.size()), expected.size());
  EXPECT_EQ(t.data_type(), Tensor::DT_FLOAT);
  const std::vector<float> got = tensor_values(t);
  for (size_t i = 0; i < expected.size(); ++i) {
    const float e = expected[i];
    if (rel_tol > 0.0f && std::isfinite(e)) {
      EXPECT_NEAR(got[i], e, rel_tol * std::max(1.0f, std::fabs(e))) << "element " << i;
    } else {
      EXPECT_TRUE(same_float(got[i], e)) << "element " << i << ": got " << got[i] << " want " << e;
    }
  }
}

std::vector<float> random_values(int n, unsigned seed, float lo = -4.0f, float hi = 4.0f) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = dist(gen);
  return v;
}

// ---- scalar primitives, worked out by hand ----

struct ScalarCase {
  const char* name;
  kx::Tensor (*wrapper)(const kx::Tensor&, float);
  float s;
  std::vector<float> expected;  // for the inputs kInputs below
  float rel_tol;
};

const std::vector<float> kInputs = {-2.5f, -0.0f, 0.0f, 0.5f, 3.0f, kNaN};

const ScalarCase kScalarCases[] = {
    {"add", kx::tensor_add_cpu, 0.5f, {-2.0f, 0.5f, 0.5f, 1.0f, 3.5f, kNaN}, 0},
    {"sub", kx::tensor_sub_cpu, 0.5f, {-3.0f, -0.5f, -0.5f, 0.0f, 2.5f, kNaN}, 0},
    {"mul", kx::tensor_mul_cpu, 0.5f, {-1.25f, -0.0f, 0.0f, 0.25f, 1.5f, kNaN}, 0},
    {"div", kx::tensor_div_cpu, 0.5f, {-5.0f, -0.0f, 0.0f, 1.0f, 6.0f, kNaN}, 0},
    {"div_by_zero", kx::tensor_div_cpu, 0.0f, {-kInf, kNaN, kNaN, kInf, kInf, kNaN}, 0},
    {"neg", kx::tensor_neg_cpu, 0.0f, {2.5f, 0.0f, -0.0f, -0.5f, -3.0f, kNaN}, 0},
    {"abs", kx::tensor_abs_cpu, 0.0f, {2.5f, 0.0f, 0.0f, 0.5f, 3.0f, kNaN}, 0},
    {"sign", kx::tensor_sign_cpu, 0.0f, {-1.0f, 0.0f, 0.0f, 1.0f, 1.0f, 0.0f}, 0},
    {"sigmoid", kx::tensor_sigmoid_cpu, 0.0f,
     {0.07585818f, 0.5f, 0.5f, 0.62245933f, 0.95257413f, kNaN}, 1e-6f},
    {"exp", kx::tensor_exp_cpu, 0.0f, {0.08208500f, 1.0f, 1.0f, 1.64872127f, 20.0855369f, kNaN},
     1e-6f},
    {"exp_ignores_argument", kx::tensor_exp_cpu, 5.0f,
     {0.08208500f, 1.0f, 1.0f, 1.64872127f, 20.0855369f, kNaN}, 1e-6f},
    {"log", kx::tensor_log_cpu, 0.0f, {kNaN, -kInf, -kInf, -0.69314718f, 1.09861229f, kNaN}, 1e-6f},
    {"floor", kx::tensor_floor_cpu, 0.0f, {-3.0f, -0.0f, 0.0f, 0.0f, 3.0f, kNaN}, 0},
    {"pow", kx::tensor_pow_cpu, 0.5f, {kNaN, 0.0f, 0.0f, 0.70710678f, 1.73205081f, kNaN}, 1e-6f},
    {"pow_square", kx::tensor_pow_cpu, 2.0f, {6.25f, 0.0f, 0.0f, 0.25f, 9.0f, kNaN}, 0},
    {"clip_min", kx::tensor_clip_min_cpu, 0.5f, {0.5f, 0.5f, 0.5f, 0.5f, 3.0f, kNaN}, 0},
    {"clip_max", kx::tensor_clip_max_cpu, 0.5f, {-2.5f, -0.0f, 0.0f, 0.5f, 0.5f, kNaN}, 0},
    {"clip_min_nan_bound", kx::tensor_clip_min_cpu, kNaN, {-2.5f, -0.0f, 0.0f, 0.5f, 3.0f, kNaN}, 0},
    {"less_than", kx::tensor_less_than_cpu, 0.5f, {1, 1, 1, 0, 0, 0}, 0},
    {"greater_than", kx::tensor_greater_than_cpu, 0.5f, {0, 0, 0, 0, 1, 0}, 0},
    {"equal", kx::tensor_equal_cpu, 0.5f, {0, 0, 0, 1, 0, 0}, 0},
    {"equal_zero", kx::tensor_equal_cpu, 0.0f, {0, 1, 1, 0, 0, 0}, 0},
    {"equal_nan", kx::tensor_equal_cpu, kNaN, {0, 0, 0, 0, 0, 0}, 0},
    {"less_equal", kx::tensor_less_equal_cpu, 0.5f, {1, 1, 1, 1, 0, 0}, 0},
    {"greater_equal", kx::tensor_greater_equal_cpu, 0.5f, {0, 0, 0, 1, 1, 0}, 0},
    {"bool_not", kx::tensor_bool_not_cpu, 0.0f, {0, 1, 1, 0, 0, 0}, 0},
    {"bool_and_true", kx::tensor_bool_and_cpu, 0.5f, {1, 0, 0, 1, 1, 1}, 0},
    {"bool_and_false", kx::tensor_bool_and_cpu, 0.0f, {0, 0, 0, 0, 0, 0}, 0},
    {"bool_or_false", kx::tensor_bool_or_cpu, 0.0f, {1, 0, 0, 1, 1, 1}, 0},
    {"bool_or_nan", kx::tensor_bool_or_cpu, kNaN, {1, 1, 1, 1, 1, 1}, 0},
};

class ScalarPrimitiveTest : public ::testing::TestWithParam<ScalarCase> {};

TEST_P(ScalarPrimitiveTest, MatchesHandWorkedValues) {
  const ScalarCase& c = GetParam();
  Tensor t = make_tensor({2, 3}, kInputs, "t");
  Tensor r = c.wrapper(t, c.s);
  EXPECT_EQ(r.shape(), (std::vector<int>{2, 3}));
  EXPECT_EQ(r.head(), 1);
  expect_values(r, c.expected, c.rel_tol);
}

INSTANTIATE_TEST_SUITE_P(AllPrimitives, ScalarPrimitiveTest, ::testing::ValuesIn(kScalarCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- the per-primitive loops compute what the exported functions compute ----

struct NamedFn {
  const char* name;
  BinaryFn fn;
};

#define KOVRA_TEST_FN(name) NamedFn{#name, kx::name##_func_cpu},
const NamedFn kAllFns[] = {KOVRA_SCALAR_PRIMITIVES(KOVRA_TEST_FN)};
#undef KOVRA_TEST_FN

class EngineAgreesWithFunctionTest : public ::testing::TestWithParam<NamedFn> {};

TEST_P(EngineAgreesWithFunctionTest, ScalarEngine) {
  const BinaryFn fn = GetParam().fn;
  // Enough elements for vector bodies and a tail; masks need exact ties too.
  std::vector<float> values = random_values(1027, 7, 0.01f, 4.0f);
  values[3] = 1.25f;
  values[10] = 0.0f;
  values[11] = -values[12];
  Tensor t = make_tensor({1027}, values);
  for (float s : {1.25f, -0.5f, 0.0f}) {
    Tensor r = kx::tensor_Binocular_cal_cpu(t, s, fn);
    const std::vector<float> got = tensor_values(r);
    for (int i = 0; i < 1027; ++i) {
      ASSERT_TRUE(same_float(got[i], fn(values[i], s))) << "s=" << s << " i=" << i;
    }
  }
}

TEST_P(EngineAgreesWithFunctionTest, BroadcastEngine) {
  const BinaryFn fn = GetParam().fn;
  std::vector<float> av = random_values(5 * 37, 11, 0.01f, 4.0f);
  std::vector<float> bv = random_values(37, 12, 0.01f, 4.0f);
  bv[5] = av[5];
  Tensor a = make_tensor({5, 37}, av);
  Tensor b = make_tensor({37}, bv);
  const std::vector<float> got = tensor_values(kx::broadcast_cpu(a, b, fn));
  for (int i = 0; i < 5 * 37; ++i) {
    ASSERT_TRUE(same_float(got[i], fn(av[i], bv[i % 37]))) << "i=" << i;
  }
}

INSTANTIATE_TEST_SUITE_P(AllPrimitives, EngineAgreesWithFunctionTest, ::testing::ValuesIn(kAllFns),
                         [](const auto& info) { return std::string(info.param.name); });

float weighted(float a, float b) { return 2.0f * a - b; }

TEST(ScalarEngineTest, AnyFunctionPointerWorks) {
  Tensor t = make_tensor({3}, {1.0f, 2.0f, -4.0f});
  expect_values(kx::tensor_Binocular_cal_cpu(t, 0.5f, weighted), {1.5f, 3.5f, -8.5f});
  Tensor b = make_tensor({2, 3}, {1, 2, 3, 4, 5, 6});
  expect_values(kx::broadcast_cpu(b, t, weighted), {1, 2, 10, 7, 8, 16});
}

// ---- broadcast pairing by flat position ----

// The pairing written out directly: result element n sits in block k = n / block_r
// at j = n % block_r; the operand with extra leading dimensions moves on by one
// block per k, the other restarts.
std::vector<float> reference_broadcast(const std::vector<int>& sa, const std::vector<float>& a,
                                       const std::vector<int>& sb, const std::vector<float>& b,
                                       const std::vector<int>& sr, BinaryFn fn) {
  const size_t aligned = std::min(sa.size(), sb.size());
  const size_t lead_dims = sr.size() - aligned;
  long lead = 1, block_r = 1, block_a = 1, block_b = 1;
  for (size_t d = 0; d < sr.size(); ++d) (d < lead_dims ? lead : block_r) *= sr[d];
  for (size_t d = sa.size() - aligned; d < sa.size(); ++d) block_a *= sa[d];
  for (size_t d = sb.size() - aligned; d < sb.size(); ++d) block_b *= sb[d];
  std::vector<float> r(lead * block_r);
  for (long n = 0; n < lead * block_r; ++n) {
    const long k = n / block_r, j = n % block_r;
    const long ka = sb.size() <= sa.size() ? k : 0;
    const long kb = sa.size() < sb.size() ? k : 0;
    r[n] = fn(a[ka * block_a + j % block_a], b[kb * block_b + j % block_b]);
  }
  return r;
}

struct BroadcastCase {
  const char* name;
  std::vector<int> a_shape, b_shape, result_shape;
};

const BroadcastCase kBroadcastCases[] = {
    {"row_to_rows", {2, 3}, {3}, {2, 3}},
    {"rows_to_row", {3}, {2, 3}, {2, 3}},
    {"same_shape", {4, 5}, {4, 5}, {4, 5}},
    {"column_equal_rank", {2, 3}, {2, 1}, {2, 3}},
    {"column_by_row", {2, 1}, {1, 3}, {2, 3}},
    {"scalar_block_right", {6, 7}, {1}, {6, 7}},
    {"scalar_block_left", {1}, {6, 7}, {6, 7}},
    {"rank3_by_rank2", {3, 4, 5}, {4, 5}, {3, 4, 5}},
    {"rank2_by_rank4", {4, 5}, {2, 3, 4, 5}, {2, 3, 4, 5}},
    {"middle_one", {3, 1, 9}, {3, 4, 9}, {3, 4, 9}},
    {"inner_one_with_lead", {5, 3, 1}, {1, 4}, {5, 3, 4}},
    {"unit_blocks_with_lead", {8, 1}, {1}, {8, 1}},
};

class BroadcastPairingTest : public ::testing::TestWithParam<BroadcastCase> {};

TEST_P(BroadcastPairingTest, FollowsFlatPositionRule) {
  const BroadcastCase& c = GetParam();
  auto count = [](const std::vector<int>& s) {
    int n = 1;
    for (int d : s) n *= d;
    return n;
  };
  const std::vector<float> av = random_values(count(c.a_shape), 21);
  const std::vector<float> bv = random_values(count(c.b_shape), 22);
  Tensor a = make_tensor(c.a_shape, av, "a");
  Tensor b = make_tensor(c.b_shape, bv, "b");
  for (const NamedFn& f : {NamedFn{"sub", kx::sub_func_cpu}, NamedFn{"weighted", weighted}}) {
    Tensor r = kx::broadcast_cpu(a, b, f.fn);
    EXPECT_EQ(r.shape(), c.result_shape) << f.name;
    expect_values(r, reference_broadcast(c.a_shape, av, c.b_shape, bv, c.result_shape, f.fn));
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, BroadcastPairingTest, ::testing::ValuesIn(kBroadcastCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(BroadcastTest, HandWorkedPairings) {
  // A row added to every row.
  Tensor m = make_tensor({2, 3}, {1, 2, 3, 4, 5, 6});
  expect_values(m + make_tensor({3}, {10, 20, 30}), {11, 22, 33, 14, 25, 36});
  // [2,1] x [1,3]: a[j % 2] * b[j % 3], not the outer product.
  Tensor col = make_tensor({2, 1}, {2, 3});
  Tensor row = make_tensor({1, 3}, {5, 7, 11});
  Tensor r = col * row;
  EXPECT_EQ(r.shape(), (std::vector<int>{2, 3}));
  expect_values(r, {10, 21, 22, 15, 14, 33});
  // [2,3] + [2,1]: flat element j takes b[j % 2].
  expect_values(m + make_tensor({2, 1}, {100, 200}), {101, 202, 103, 204, 105, 206});
}

TEST(BroadcastTest, ResultTensorShapeAndDevice) {
  Tensor a = make_tensor({4, 1, 3}, std::vector<float>(12, 1.0f));
  Tensor b = make_tensor({5, 1}, std::vector<float>(5, 1.0f));
  Tensor r = kx::get_broadcast_tensor(a, b);
  EXPECT_EQ(r.shape(), (std::vector<int>{4, 5, 3}));
  EXPECT_EQ(r.head(), 1);
  EXPECT_EQ(r.data_type(), Tensor::DT_FLOAT);
}

// ---- members and operators ----

TEST(TensorMemberTest, OperatorsMapToTheirOperations) {
  Tensor a = make_tensor({4}, {1, 2, 3, 0});
  Tensor b = make_tensor({4}, {2, 2, 1, 0});
  expect_values(a + b, {3, 4, 4, 0});
  expect_values(a - b, {-1, 0, 2, 0});
  expect_values(a * b, {2, 4, 3, 0});
  expect_values(a / make_tensor({4}, {2, 4, 3, 8}), {0.5f, 0.5f, 1, 0});
  expect_values(a < b, {1, 0, 0, 0});
  expect_values(a <= b, {1, 1, 0, 1});
  expect_values(a > b, {0, 0, 1, 0});
  expect_values(a >= b, {0, 1, 1, 1});
  expect_values(a == b, {0, 1, 0, 1});
  expect_values(a && make_tensor({4}, {0, 1, 1, 1}), {0, 1, 1, 0});
  expect_values(a || make_tensor({4}, {0, 0, 0, 1}), {1, 1, 1, 1});
  expect_values(a + 1.0f, {2, 3, 4, 1});
  expect_values(a - 1.0f, {0, 1, 2, -1});
  expect_values(a * 2.0f, {2, 4, 6, 0});
  expect_values(a / 2.0f, {0.5f, 1, 1.5f, 0});
  expect_values(a < 2.0f, {1, 0, 0, 1});
  expect_values(a <= 2.0f, {1, 1, 0, 1});
  expect_values(a > 2.0f, {0, 0, 1, 0});
  expect_values(a >= 2.0f, {0, 1, 1, 0});
  expect_values(a == 2.0f, {0, 1, 0, 0});
  expect_values(a && 1.0f, {1, 1, 1, 0});
  expect_values(a || 0.0f, {1, 1, 1, 0});
  expect_values(a.pow(2.0f), {1, 4, 9, 0});
  expect_values(a.neg(), {-1, -2, -3, -0.0f});
  expect_values(a.bool_not(), {0, 0, 0, 1});
  expect_values(make_tensor({3}, {-1.5f, 0.25f, 2.0f}).floor(), {-2, 0, 2});
  expect_values(make_tensor({2}, {-2.0f, 0.0f}).abs(), {2, 0});
  expect_values(make_tensor({2}, {-2.0f, 0.0f}).sign(), {-1, 0});
  expect_values(make_tensor({1}, {0.0f}).sigmoid(), {0.5f});
  expect_values(make_tensor({1}, {1.0f}).log(), {0.0f});
}

TEST(TensorMemberTest, ExpArgumentHasNoEffect) {
  Tensor t = make_tensor({3}, {-1.0f, 0.0f, 2.0f});
  expect_values(t.exp(5.0f), tensor_values(t.exp(0.0f)));
  expect_values(t.exp(0.0f), {0.36787944f, 1.0f, 7.3890561f}, 1e-6f);
}

TEST(TensorMemberTest, ScalarOnTheLeft) {
  Tensor t = make_tensor({2, 2}, {1, 2, 4, -5}, "t");
  Tensor q = 5.0f / t;
  EXPECT_EQ(q.shape(), (std::vector<int>{2, 2}));
  expect_values(q, {5.0f, 2.5f, 1.25f, -1.0f});
  expect_values(5.0f - t, {4, 3, 1, 10});
}

TEST(TensorMemberTest, CompoundAssignmentKeepsName) {
  Tensor t = make_tensor({2, 2}, {1, 2, 3, 4}, "kept");
  Tensor u = make_tensor({2}, {10, 20}, "other");
  t += u;
  expect_values(t, {11, 22, 13, 24});
  t -= 1.0f;
  expect_values(t, {10, 21, 12, 23});
  t *= make_tensor({2, 2}, {2, 2, 2, 2});
  expect_values(t, {20, 42, 24, 46});
  t /= 2.0f;
  expect_values(t, {10, 21, 12, 23});
  t *= 3.0f;
  t -= u;
  t += 1.0f;
  t /= make_tensor({1}, {2.0f});
  expect_values(t, {10.5f, 22, 13.5f, 25});
  EXPECT_EQ(t.name(), "kept");
}

TEST(TensorMemberTest, FillAndClip) {
  Tensor t = make_tensor({5}, {-3, -0.5f, 0, 0.75f, 9});
  expect_values(t.clip(-1.0f, 1.0f), {-1, -0.5f, 0, 0.75f, 1});
  t.fill(2.5f);
  expect_values(t, {2.5f, 2.5f, 2.5f, 2.5f, 2.5f});
}

TEST(TensorMemberTest, IntegerTypedFourByteTensorIsReadAsFloat) {
  // Element bytes are taken as float whatever the type code says.
  float raw[2] = {1.5f, -2.0f};
  Tensor t({2}, Tensor::DT_INT32, raw, "cpu");
  Tensor r = t.add(1.0f);
  EXPECT_EQ(r.data_type(), Tensor::DT_FLOAT);
  expect_values(r, {2.5f, -1.0f});
}

// ---- failures ----

std::string error_line(const std::string& text) {
  return std::string(kx::kErrorColor) + "Error: " + text + "\033[0m\n";
}

TEST(TensorArithDeathTest, IncompatibleShapesReportBoth) {
  Tensor a = make_tensor({2, 3}, std::vector<float>(6, 1.0f), "left");
  Tensor b = make_tensor({2}, {1, 2}, "right");
  const std::string text = error_line("unsupport broadcast") +
                           error_line("tensor: left  shape: [2,3]") +
                           error_line("tensor: right  shape: [2]");
  EXPECT_DEATH(a + b, literal_regex(text) + "$");
  // Under the throwing policy the report is one Error of three lines.
  EXPECT_EQ(kovra_test::error_text([&] { a + b; }),
            "unsupport broadcast\ntensor: left  shape: [2,3]\ntensor: right  shape: [2]");
  EXPECT_DEATH(kx::get_broadcast_tensor(b, a), literal_regex(error_line("tensor: left  shape: [2,3]")));
}

TEST(TensorArithDeathTest, EmptyOperandCannotBroadcast) {
  // An extent 0 meeting an extent 1 passes the shape rule but leaves nothing to pair.
  Tensor a = make_tensor({2, 3}, std::vector<float>(6, 1.0f), "a");
  Tensor empty({2, 1}, Tensor::DT_FLOAT, nullptr, "cpu");
  empty.set_name("empty");
  empty.set_data({2, 0}, Tensor::DT_FLOAT, nullptr);
  const std::string text = error_line("unsupport broadcast") + error_line("tensor: empty  shape: [2,0]") +
                           error_line("tensor: a  shape: [2,3]");
  EXPECT_DEATH(kx::broadcast_add_cpu(empty, make_tensor({1, 1}, {1}, "a")),
               literal_regex(error_line("tensor: empty  shape: [2,0]")));
  EXPECT_DEATH(kx::broadcast_add_cpu(empty, a), literal_regex(text) + "$");
}

TEST(TensorArithDeathTest, MismatchedDevices) {
  Tensor a = make_tensor({2}, {1, 2}, "a");
  Tensor none;
  none.set_name("b");
  const std::string text = error_line("tensor must at the same device") +
                           error_line("tensor: a  device: 1") + error_line("tensor: b  device: 0");
  EXPECT_DEATH(a.add(none), literal_regex(text) + "$");
  EXPECT_DEATH(a == none, literal_regex(text) + "$");
  EXPECT_DEATH(kx::check_same_device(a, none), literal_regex(text) + "$");
  EXPECT_EQ(kovra_test::error_text([&] { kx::check_same_device(a, none); }),
            "tensor must at the same device\ntensor: a  device: 1\ntensor: b  device: 0");
}

TEST(TensorArithMessageTest, TensorWithoutDevice) {
  Tensor none;
  EXPECT_ERROR(kx::tensor_add_cpu(none, 1.0f), "tensor must at cpu or gpu");
  EXPECT_ERROR(none.sigmoid(), "tensor must at cpu or gpu");
  EXPECT_ERROR(none + none, "tensor must at cpu or gpu");
  EXPECT_ERROR(2.0f / none, "tensor must at cpu or gpu");
  EXPECT_ERROR(2.0f - none, "tensor must at cpu or gpu");
}

TEST(TensorArithDeathTest, ClipNeedsOrderedBounds) {
  Tensor t = make_tensor({2}, {1, 2});
  EXPECT_DEATH(t.clip(0.0f, 0.0f), "Assertion `max > min' failed\\.\n$");
  EXPECT_DEATH(t.clip(1.0f, -1.0f), "Assertion `max > min' failed\\.\n$");
  EXPECT_DEATH(t.clip(kNaN, 1.0f), "Assertion `max > min' failed\\.\n$");
}

TEST(TensorArithMessageTest, NonFloatBuffersAreRefused) {
  Tensor bytes({8}, Tensor::DT_INT8, nullptr, "cpu");
  bytes.set_name("q");
  const std::string text = "tensor must hold float elements, tensor: q  size: 8  byte size: 8";
  EXPECT_ERROR(bytes.add(1.0f), text);
  EXPECT_ERROR(bytes.fill(0.0f), text);
  EXPECT_ERROR(make_tensor({8}, std::vector<float>(8, 0.0f)) + bytes, text);
  Tensor released = make_tensor({2}, {1, 2}, "gone");
  released._release();
  EXPECT_ERROR(released.neg(), "tensor must hold float elements, tensor: gone  size: 2  byte size: 8");
}

}  // namespace
}  // namespace kovra_test
