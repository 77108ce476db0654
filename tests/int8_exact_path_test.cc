// The integer path of the int8 convolution and product with codes whose sums
// are exact for some outputs and not for others: every output must equal the
// float sum in reduction order, and the integer kernels' result must be kept
// exactly for the outputs one of the two bounds proves exact.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <tuple>

#include "graph_executor.h"
#include "ops/kernels/avx_common.h"
#include "ops/kernels/int8_dot_path.h"
#include "support/int8_reference.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;

struct Range {
  int lo, hi;
};

// A 3 x 3 "SAME" convolution (k = 3), a 1 x 1 one (k = 1) or, with `matmul`,
// a product whose rows are the h pixels. Pixels whose index is a multiple of
// `big_every` take big codes, the others small ones; the channels in
// `big_channels` take big weights, the others small ones.
struct ExactCase {
  std::string name;
  bool matmul = false;
  int h = 6, w = 7, cin = 256, cout = 16, k = 3;
  float pad_value = 0.0f;
  Range small_code{0, 3}, big_code{200, 255};
  int big_every = 2;  // 0: no big pixels
  Range small_weight{-3, 3}, big_weight{100, 127};
  std::vector<int> big_channels{0, 9};
  bool bits32 = true;  // the sums themselves, else Relu codes
  // When set, fills codes and weights instead of the ranges above.
  std::function<void(std::vector<float>*, std::vector<float>*)> fill;
  // What the data must show for the case to test anything.
  bool order_sensitive = true;  // some float sum in order differs from the exact sum
  long long recomputed = -1;    // when >= 0, the number of outputs no bound proves exact
  // Every row holds so many unproven outputs that the float kernel gives them all.
  bool all_float = false;
};

int depth_of(const ExactCase& c) { return c.k * c.k * c.cin; }

struct Expected {
  std::vector<float> out;
  long long unproven = 0, order_sensitive = 0;
};

// The patch of output pixel (oy, ox) in reduction order: kernel rows, kernel
// columns, input channels; taps outside the image read "pad_value".
std::vector<float> patch(const ExactCase& c, const std::vector<float>& x, int oy, int ox) {
  std::vector<float> p;
  const int r = c.k / 2;
  for (int ky = 0; ky < c.k; ++ky)
    for (int kx = 0; kx < c.k; ++kx)
      for (int i = 0; i < c.cin; ++i) {
        const int iy = oy + ky - r, ix = ox + kx - r;
        const bool inside = iy >= 0 && iy < c.h && ix >= 0 && ix < c.w;
        p.push_back(inside ? x[((size_t)iy * c.w + ix) * c.cin + i] : c.pad_value);
      }
  return p;
}

Expected expect(const ExactCase& c, const Int8Stage& s, const std::vector<float>& x,
                const std::vector<float>& w, const std::vector<float>& b) {
  Expected e;
  const int depth = depth_of(c);
  for (int oy = 0; oy < c.h; ++oy)
    for (int ox = 0; ox < c.w; ++ox) {
      const std::vector<float> p = patch(c, x, oy, ox);
      int64_t largest = 0, square_x = 0;
      for (float v : p) {
        largest = std::max<int64_t>(largest, (int64_t)std::fabs(v));
        square_x += (int64_t)v * (int64_t)v;
      }
      for (int o = 0; o < c.cout; ++o) {
        float sum = 0.0f;
        int64_t exact = 0, abs_w = 0, square_w = 0;
        for (int k = 0; k < depth; ++k) {
          const float wk = w[(size_t)k * c.cout + o];
          sum += p[k] * wk;
          exact += (int64_t)p[k] * (int64_t)wk;
          abs_w += (int64_t)std::fabs(wk);
          square_w += (int64_t)wk * (int64_t)wk;
        }
        const bool proven = largest * abs_w < (1LL << 24) || square_x * square_w < (1LL << 48);
        e.unproven += !proven;
        e.order_sensitive += (double)sum != (double)exact;
        e.out.push_back(ref_output(s, sum, b[o], o, c.cout));
      }
    }
  return e;
}

GraphDef build_graph(const ExactCase& c, const Int8Stage& s, const std::vector<float>& w,
                     const std::vector<float>& b) {
  GraphDef g;
  add_node(g, "input", "ZxxNOp");
  if (c.matmul) {
    add_float_const(g, "w", {c.cin, c.cout}, w);
  } else {
    add_float_const(g, "w", {c.k, c.k, c.cin, c.cout}, w);
  }
  add_float_const(g, "b", {c.cout}, b);
  NodeDef* node = add_node(g, "op", c.matmul ? "Z40MatMulInt8" : "Z40Conv2DInt8", {"input", "w", "b"});
  if (!c.matmul) {
    set_attr_s(node, "padding", "SAME");
    set_attr_ints(node, "strides", {1, 1, 1, 1});
    set_attr_f(node, "pad_value", c.pad_value);
  }
  set_attr_s(node, "ActionType", s.action);
  set_attr_floats(node, "OUTPUTSCALE", s.output_scale);
  set_attr_ints(node, "multify_factor", {s.m});
  set_attr_i(node, "maxValue", s.hi);
  set_attr_i(node, "minValue", s.lo);
  set_attr_i(node, "output_bitwidth", s.bits32 ? 32 : 8);
  return g;
}

// Channel 0 holds -128 at 1024 of 1280 depths (sum w^2 = 2^24, sum |w| =
// 2^17), channel 1 the same at other depths; the rest hold 0 or 1. Pixel 0
// repeats {255, 22, 5, 1, 1}, so sum x^2 = 256 * 65536 = 2^24 and the
// Cauchy-Schwarz product is exactly 2^48: not proven. Pixel 1 drops one 1:
// proven by it alone. Pixel 2 is all 128, so max|x| * sum|w| is exactly 2^24:
// not proven; pixel 3 all 127: proven.
void fill_at_limit(std::vector<float>* x, std::vector<float>* w) {
  const int depth = 1280, cout = 16;
  const float block[5] = {255, 22, 5, 1, 1};
  for (int k = 0; k < depth; ++k) {
    (*x)[k] = block[k % 5];
    (*x)[depth + k] = block[k % 5];
    (*x)[2 * depth + k] = 128;
    (*x)[3 * depth + k] = 127;
    (*w)[k * cout + 0] = k % 5 == 0 ? 0 : -128;
    (*w)[k * cout + 1] = k % 5 == 1 ? 0 : -128;
    for (int o = 2; o < cout; ++o) (*w)[k * cout + o] = (k + o) % 3 == 0;
  }
  (*x)[depth + 3] = 0;
}

std::vector<ExactCase> exact_cases() {
  std::vector<ExactCase> cases;
  ExactCase base;
  // clang-format off
  { ExactCase c = base; c.name = "mixed_pixels_and_channels"; cases.push_back(c); }
  // Four of eight channels unproven in a row: the whole row is summed again,
  // among rows of integer sums (big codes in column 0 only), or with no integer
  // sums when all rows are so.
  { ExactCase c = base; c.name = "whole_rows"; c.cin = 512; c.cout = 8; c.big_channels = {1, 2, 5, 7};
    c.big_every = 7; cases.push_back(c); }
  { ExactCase c = base; c.name = "whole_rows_only"; c.cout = 8; c.big_channels = {1, 2, 5, 7};
    c.all_float = true; cases.push_back(c); }
  { ExactCase c = base; c.name = "relu_codes"; c.bits32 = false; cases.push_back(c); }
  { ExactCase c = base; c.name = "signed_codes"; c.cin = 384; c.small_code = {-2, 2};
    c.big_code = {-128, -100}; cases.push_back(c); }
  // Most patches hold only small signed codes, which the unsigned form shifts to large ones.
  { ExactCase c = base; c.name = "signed_sparse_big"; c.cin = 384; c.small_code = {-2, 2};
    c.big_code = {-128, -120}; c.big_weight = {120, 127}; c.big_every = 17; c.order_sensitive = false;
    cases.push_back(c); }
  // Only the padded taps are big: border outputs of the big channels.
  { ExactCase c = base; c.name = "big_pad_value"; c.big_every = 0; c.pad_value = 255.0f; cases.push_back(c); }
  { ExactCase c = base; c.name = "all_proven"; c.big_every = 0; c.order_sensitive = false; c.recomputed = 0;
    cases.push_back(c); }
  { ExactCase c = base; c.name = "bounds_at_their_limit"; c.h = 1; c.w = 4; c.k = 1; c.cin = 1280;
    c.fill = fill_at_limit; c.order_sensitive = false; c.recomputed = 4; cases.push_back(c); }
  { ExactCase c = base; c.name = "matmul_mixed"; c.matmul = true; c.h = 9; c.w = 1; c.k = 1; c.cin = 2304;
    c.big_every = 3; cases.push_back(c); }
  // clang-format on
  return cases;
}

struct PathRun {
  const char* name;
  bool integer;
  kx::KernelIsa isa;
  int threads;
};
const PathRun kPaths[] = {
    {"float", false, kx::KernelIsa::kAvx512Vnni, 2}, {"portable", true, kx::KernelIsa::kPortable, 1},
    {"avx2", true, kx::KernelIsa::kAvx2, 2},         {"avx512", true, kx::KernelIsa::kAvx512, 1},
    {"vnni_1", true, kx::KernelIsa::kAvx512Vnni, 1}, {"vnni_2", true, kx::KernelIsa::kAvx512Vnni, 2}};

void PrintTo(const ExactCase& c, std::ostream* os) { *os << c.name; }
void PrintTo(const PathRun& p, std::ostream* os) { *os << p.name; }

class Int8ExactPathTest : public ::testing::TestWithParam<std::tuple<ExactCase, PathRun>> {
 protected:
  void TearDown() override {
    kx::reset_isa();
    kx::set_int8_integer_path_enabled(true);
    kx::GraphExecutor::set_num_threads(2);
  }
};

TEST_P(Int8ExactPathTest, MatchesOrderedSumsAndKeepsProvenOutputs) {
  const ExactCase& c = std::get<0>(GetParam());
  const PathRun& run = std::get<1>(GetParam());
  if (!kx::force_isa(run.isa)) GTEST_SKIP() << "the processor lacks " << kx::isa_name(run.isa);
  kx::set_int8_integer_path_enabled(run.integer);
  kx::GraphExecutor::set_num_threads(run.threads);

  std::mt19937 rng(2024);
  const int depth = depth_of(c);
  std::vector<float> x((size_t)c.h * c.w * c.cin), w((size_t)depth * c.cout), b(c.cout);
  if (c.fill) {
    c.fill(&x, &w);
  } else {
    for (size_t i = 0; i < x.size(); ++i) {
      const Range r = c.big_every > 0 && (i / c.cin) % c.big_every == 0 ? c.big_code : c.small_code;
      x[i] = std::uniform_int_distribution<int>(r.lo, r.hi)(rng);
    }
    for (size_t i = 0; i < w.size(); ++i) {
      const bool big = std::count(c.big_channels.begin(), c.big_channels.end(), (int)(i % c.cout)) > 0;
      const Range r = big ? c.big_weight : c.small_weight;
      w[i] = std::uniform_int_distribution<int>(r.lo, r.hi)(rng);
    }
  }
  for (int o = 0; o < c.cout; ++o) b[o] = 0.5f * o - 3.0f;
  Int8Stage s;
  s.bits32 = c.bits32;
  s.action = c.bits32 ? "None" : "Relu";
  s.output_scale.assign(c.cout, c.bits32 ? 1.0f : 1.0f / (1 << 19));
  s.lo = 0;

  const Expected e = expect(c, s, x, w, b);
  const long long total = (long long)c.h * c.w * c.cout;
  EXPECT_EQ(e.order_sensitive > 0, c.order_sensitive) << "the data no longer tests the order";
  if (c.recomputed >= 0) {
    EXPECT_EQ(e.unproven, c.recomputed);
  } else {
    EXPECT_GT(e.unproven, 0);
    EXPECT_LT(e.unproven, total);
  }

  const GraphDef g = build_graph(c, s, w, b);
  const Tensor input = c.matmul ? make_tensor({c.h, c.cin}, x) : make_tensor({1, c.h, c.w, c.cin}, x);
  kx::reset_int8_path_counts();
  const std::vector<float> got = run_single_op(g, input, "op");
  const kx::Int8PathCounts counts = kx::int8_path_counts();
  ASSERT_EQ(got.size(), e.out.size());
  int mismatches = 0;
  for (size_t i = 0; i < got.size(); ++i) {
    if (got[i] != e.out[i] && ++mismatches <= 3) {
      ADD_FAILURE() << "output " << i << ": got " << got[i] << " expected " << e.out[i];
    }
  }
  EXPECT_EQ(mismatches, 0);
  const long long recomputed = c.all_float ? total : e.unproven;
  EXPECT_EQ(counts.recomputed, run.integer ? recomputed : 0);
  EXPECT_EQ(counts.integer, run.integer ? total - recomputed : 0);
}

INSTANTIATE_TEST_SUITE_P(Cases, Int8ExactPathTest,
                         ::testing::Combine(::testing::ValuesIn(exact_cases()), ::testing::ValuesIn(kPaths)),
                         [](const auto& info) {
                           return std::get<0>(info.param).name + "_" + std::get<1>(info.param).name;
                         });

}  // namespace
}  // namespace kovra_test
