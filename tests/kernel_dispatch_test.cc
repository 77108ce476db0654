// The kernel families' tables: which variant runs for each instruction set,
// every variant the processor supports against the straightforward kernel
// on seeded random data (bit for bit), and the per-operator weight caches.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "op_executor.h"
#include "ops/kernels/avx_common.h"
#include "ops/kernels/conv2d_cpu.h"
#include "ops/kernels/conv2d_int8.h"
#include "ops/kernels/dwconv2d_cpu.h"
#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/int8_dot_path.h"
#include "ops/kernels/int8_eltwise_kernels.h"
#include "ops/kernels/winograd_f32.h"
#include "support/test_util.h"

namespace kovra_test {
namespace {

namespace kx = kovra::trenkit::kovraexecutor;
using kx::KernelIsa;

std::vector<float> uniform(size_t n, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = dist(rng);
  return v;
}

std::vector<float> codes(size_t n, unsigned seed, int lo, int hi) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> dist(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = static_cast<float>(dist(rng));
  return v;
}

bool same_bits(const float* a, const float* b, size_t n) { return std::memcmp(a, b, n * sizeof(float)) == 0; }

// One reduction step as the variant's family defines it: the vector float
// kernels fuse the multiply-add, the portable ones round the product first.
float step(bool fused, float acc, float a, float b) { return fused ? std::fma(a, b, acc) : acc + a * b; }

// ---- which variant runs ----

template <class Table>
std::string expected_choice(const kx::KernelTable<Table>& table, KernelIsa isa) {
  std::string name = table.variants()[0].name;
  for (int i = 1; i < table.variant_count(); ++i) {
    if (static_cast<int>(table.variants()[i].isa) <= static_cast<int>(isa)) name = table.variants()[i].name;
  }
  return name;
}

template <class Table>
void expect_table_follows(const kx::KernelTable<Table>& table, KernelIsa isa) {
  EXPECT_EQ(table.variants()[0].isa, KernelIsa::kPortable) << table.variants()[0].name;
  for (int i = 1; i < table.variant_count(); ++i) {
    EXPECT_LT(static_cast<int>(table.variants()[i - 1].isa), static_cast<int>(table.variants()[i].isa))
        << "variants are listed from the portable one up";
  }
  EXPECT_EQ(std::string(table->name), expected_choice(table, isa)) << kx::isa_name(isa);
}

void expect_every_table_follows(KernelIsa isa) {
  expect_table_follows(kx::gemm_f32_kernels(), isa);
  expect_table_follows(kx::conv_f32_tile_kernels(), isa);
  expect_table_follows(kx::dwconv_f32_row_kernels(), isa);
  expect_table_follows(kx::winograd_f32_kernels(), isa);
  expect_table_follows(kx::int8_dot_kernels(), isa);
  expect_table_follows(kx::int8_code_kernels(), isa);
  expect_table_follows(kx::int8_float_gemm_kernels(), isa);
  expect_table_follows(kx::int8_eltwise_kernels(), isa);
}

class ForcedIsaTest : public ::testing::TestWithParam<KernelIsa> {
 protected:
  void TearDown() override { kx::reset_isa(); }
};

// Forcing a supported set re-chooses every table; an unsupported one is
// refused and leaves every table as it was.
TEST_P(ForcedIsaTest, EveryTableTakesTheWidestVariantCovered) {
  const KernelIsa isa = GetParam();
  const KernelIsa before = kx::active_isa();
  if (!kx::cpu_supports(isa)) {
    EXPECT_FALSE(kx::force_isa(isa));
    EXPECT_EQ(kx::active_isa(), before);
    expect_every_table_follows(before);
    GTEST_SKIP() << "the processor lacks " << kx::isa_name(isa);
  }
  ASSERT_TRUE(kx::force_isa(isa));
  EXPECT_EQ(kx::active_isa(), isa);
  expect_every_table_follows(isa);
  kx::reset_isa();
  expect_every_table_follows(kx::active_isa());
}

INSTANTIATE_TEST_SUITE_P(Sets, ForcedIsaTest,
                         ::testing::Values(KernelIsa::kPortable, KernelIsa::kAvx2, KernelIsa::kAvx512,
                                           KernelIsa::kAvx512Vnni),
                         [](const auto& info) { return std::string(kx::isa_name(info.param)); });

// ---- every variant against the straightforward kernel ----

// A tile of rows x cols (inside a larger, sentinel-filled C) and a row
// product, with and without bias and accumulation.
void check_gemm(const kx::GemmF32Kernels& v) {
  const bool fused = v.isa != KernelIsa::kPortable;
  const int lda = 70, ldb = 45, ldc = 40, kc = 61;
  const std::vector<float> A = uniform(8 * lda, 1), B = uniform(kc * ldb, 2), bias = uniform(ldb, 3);
  const std::vector<float> start = uniform(9 * ldc, 4);
  for (int rows : {8, 5, 1}) {
    for (int cols : {32, 19}) {
      for (int mode = 0; mode < 4; ++mode) {
        const bool accumulate = mode & 1;
        const float* b = mode & 2 ? bias.data() : nullptr;
        std::vector<float> C = start;
        v.tile(A.data(), lda, B.data(), ldb, C.data(), ldc, rows, cols, kc, accumulate, b);
        for (int r = 0; r < 9; ++r)
          for (int n = 0; n < ldc; ++n) {
            float want = start[r * ldc + n];
            if (r < rows && n < cols) {
              float acc = accumulate ? want : 0.0f;
              for (int k = 0; k < kc; ++k) acc = step(fused, acc, A[r * lda + k], B[k * ldb + n]);
              want = b ? acc + b[n] : acc;
            }
            ASSERT_TRUE(same_bits(&C[r * ldc + n], &want, 1))
                << v.name << " rows " << rows << " cols " << cols << " mode " << mode << " at " << r << ","
                << n;
          }
      }
    }
  }
  // Depths below, at and past a multiple of four rows.
  for (int K : {1, 3, 4, kc})
  for (int N : {4, 37, 45}) {
    for (const float* b : {static_cast<const float*>(nullptr), bias.data()}) {
      std::vector<float> c(N + 3, -7.0f);
      v.gemv(A.data(), B.data(), ldb, c.data(), N, K, b);
      for (int n = 0; n < N + 3; ++n) {
        float want = -7.0f;
        if (n < N) {
          float acc = 0.0f;
          for (int k = 0; k < K; ++k) acc = step(fused, acc, A[k], B[k * ldb + n]);
          want = b ? acc + b[n] : acc;
        }
        ASSERT_TRUE(same_bits(&c[n], &want, 1)) << v.name << " gemv K " << K << " N " << N << " at " << n;
      }
    }
  }
}

// Tap pointers into an image and a padding run, B in 32-column panels.
void check_conv_tile(const kx::ConvF32TileKernels& v) {
  if (v.indirect == nullptr) GTEST_SKIP() << v.name << " gathers patches and runs the gemm table";
  const int taps = 5, C = 7, rows = 6, cols = 27, ldc = 33;
  const std::vector<float> image = uniform(200, 5), pad(C, 0.25f), B = uniform(taps * C * 32, 6),
                           bias = uniform(32, 7);
  std::vector<const float*> tap(taps * 8);
  std::mt19937 rng(8);
  for (int t = 0; t < taps; ++t)
    for (int r = 0; r < 8; ++r) tap[t * 8 + r] = rng() % 4 == 0 ? pad.data() : image.data() + rng() % 190;
  for (bool accumulate : {false, true}) {
    std::vector<float> c = uniform(rows * ldc, 9);
    const std::vector<float> start = c;
    v.indirect(tap.data(), taps, C, B.data(), 32, c.data(), ldc, rows, cols, accumulate, bias.data());
    for (int r = 0; r < rows; ++r)
      for (int n = 0; n < ldc; ++n) {
        float want = start[r * ldc + n];
        if (n < cols) {
          float acc = accumulate ? want : 0.0f;
          for (int t = 0; t < taps; ++t)
            for (int ch = 0; ch < C; ++ch) acc = std::fma(tap[t * 8 + r][ch], B[(t * C + ch) * 32 + n], acc);
          want = acc + bias[n];
        }
        ASSERT_TRUE(same_bits(&c[r * ldc + n], &want, 1)) << v.name << " at " << r << "," << n;
      }
  }
}

// Rows of a padded, strided and dilated depthwise convolution (one filter
// per channel, 19 channels so that vector tails are masked).
void check_dwconv_row(const kx::DwconvF32Kernels& v) {
  const bool fused = v.isa != KernelIsa::kPortable;
  for (int geometry = 0; geometry < 2; ++geometry) {
    kx::ConvGeometry g;
    g.in_h = 7, g.in_w = 11, g.in_c = g.out_c = 19;
    g.kernel_h = 3, g.kernel_w = geometry == 0 ? 3 : 2;
    g.stride_h = g.stride_w = geometry == 0 ? 1 : 2;
    g.dilation_h = g.dilation_w = geometry == 0 ? 1 : 2;
    g.pad_top = 1, g.pad_left = geometry == 0 ? 1 : 2;
    g.pad_value = 0.5f;
    g.out_h = (g.in_h + 2 * g.pad_top - g.dilation_h * (g.kernel_h - 1) - 1) / g.stride_h + 1;
    g.out_w = (g.in_w + 2 * g.pad_left - g.dilation_w * (g.kernel_w - 1) - 1) / g.stride_w + 1;
    const std::vector<float> image = uniform(g.in_h * g.in_w * g.in_c, 10), w = uniform(9 * g.out_c, 11),
                             bias = uniform(g.out_c, 12);
    std::vector<float> row(g.out_w * g.out_c);
    for (int oy = 0; oy < g.out_h; ++oy) {
      v.row(image.data(), w.data(), bias.data(), row.data(), g, oy);
      for (int ox = 0; ox < g.out_w; ++ox)
        for (int c = 0; c < g.out_c; ++c) {
          float acc = 0.0f;
          for (int ky = 0; ky < g.kernel_h; ++ky)
            for (int kx2 = 0; kx2 < g.kernel_w; ++kx2) {
              const int iy = oy * g.stride_h + ky * g.dilation_h - g.pad_top;
              const int ix = ox * g.stride_w + kx2 * g.dilation_w - g.pad_left;
              const bool inside = iy >= 0 && iy < g.in_h && ix >= 0 && ix < g.in_w;
              const float x = inside ? image[(iy * g.in_w + ix) * g.in_c + c] : g.pad_value;
              acc = step(fused, acc, x, w[(ky * g.kernel_w + kx2) * g.out_c + c]);
            }
          const float want = acc + bias[c];
          ASSERT_TRUE(same_bits(&row[ox * g.out_c + c], &want, 1))
              << v.name << " geometry " << geometry << " at " << oy << "," << ox << "," << c;
        }
    }
  }
}

// Integer dot products on weights packed for the variant's format.
void check_dot(const kx::Int8DotKernels& v) {
  ASSERT_TRUE(kx::force_isa(v.isa));
  const int depth = 75, out_c = 70, rows = 2 * v.row_block;
  const std::vector<float> w = codes(depth * out_c, 13, -128, 127);
  const Tensor weight = make_tensor({depth, out_c}, w);
  kx::Int8PackedWeights packed;
  kx::pack_int8_weights(&weight, depth, out_c, &packed);
  ASSERT_EQ(packed.format, v.format);
  const bool u8 = v.format == kx::Int8DotFormat::kU8S8;
  const std::vector<float> a = codes(rows * depth, 14, u8 ? 0 : -128, u8 ? 255 : 127);
  std::vector<uint8_t> a8(rows * packed.depth_padded, 0);
  std::vector<int16_t> a16(rows * packed.depth_padded, 0);
  for (int r = 0; r < rows; ++r)
    for (int k = 0; k < depth; ++k) {
      a8[r * packed.depth_padded + k] = static_cast<uint8_t>(a[r * depth + k]);
      a16[r * packed.depth_padded + k] = static_cast<int16_t>(a[r * depth + k]);
    }
  std::vector<int32_t> c(rows * packed.out_padded, -1);
  if (u8) {
    v.dot_u8(a8.data(), packed.depth_padded, packed.packed8.data(), packed.out_padded, rows, c.data());
  } else {
    v.dot_s16(a16.data(), packed.depth_padded, packed.packed16.data(), packed.out_padded, rows, c.data());
  }
  for (int r = 0; r < rows; ++r)
    for (int n = 0; n < out_c; ++n) {
      int64_t want = 0;
      for (int k = 0; k < depth; ++k) want += static_cast<int64_t>(a[r * depth + k]) * w[k * out_c + n];
      ASSERT_EQ(c[r * packed.out_padded + n], want) << v.name << " at " << r << "," << n;
    }
}

// Requantization from int32 sums, the range scan of codes and their
// conversion to bytes.
void check_codes(const kx::Int8CodeKernels& v) {
  const int channels = 37, rows = 3, ld = 48;
  std::mt19937 rng(15);
  std::uniform_int_distribution<int32_t> sum(-40000, 40000);
  std::vector<int32_t> sums(rows * ld), correction(channels);
  for (int32_t& s : sums) s = sum(rng);
  for (int32_t& s : correction) s = sum(rng) / 8;
  const std::vector<float> bias = uniform(channels, 16, -300, 300),
                           scale = uniform(channels, 17, 0.001f, 0.01f),
                           negative = uniform(channels, 18, 0.0001f, 0.001f);
  for (const float* neg : {static_cast<const float*>(nullptr), negative.data()}) {
    kx::Int8RequantizeArgs args;
    args.channels = channels;
    args.correction = correction.data();
    args.bias = bias.data();
    args.scale = scale.data();
    args.negative_scale = neg;
    args.multiplier = 4.0f, args.lo = -100.0f, args.hi = 90.0f, args.offset = 3.0f;
    std::vector<float> out(rows * channels);
    v.requantize(args, sums.data(), ld, rows, out.data());
    for (int r = 0; r < rows; ++r)
      for (int c = 0; c < channels; ++c) {
        const float a = static_cast<float>(sums[r * ld + c] - correction[c]) * 4.0f + bias[c];
        const float s = neg != nullptr && a < 0 ? a * neg[c] : a * scale[c];
        const float q = std::min(90.0f, std::max(-100.0f, std::nearbyint(s)));
        const float want = 3.0f + q;
        ASSERT_TRUE(same_bits(&out[r * channels + c], &want, 1)) << v.name << " at " << r << "," << c;
      }
  }
  struct Scan {
    std::vector<float> values;
    bool integral;
  };
  std::vector<float> in_range = codes(53, 19, -128, 255);
  std::vector<float> fractional = in_range, beyond = in_range, nan = in_range;
  fractional[40] = 7.5f;
  beyond[17] = 256.0f;
  nan[33] = std::numeric_limits<float>::quiet_NaN();
  for (const Scan& s :
       {Scan{in_range, true}, Scan{fractional, false}, Scan{beyond, false}, Scan{nan, false}}) {
    float lo = 0.0f, hi = 0.0f;
    bool integral = true;
    v.scan(s.values.data(), static_cast<long long>(s.values.size()), &lo, &hi, &integral);
    EXPECT_EQ(integral, s.integral) << v.name;
    if (s.integral) {
      float want_lo = 0.0f, want_hi = 0.0f;
      for (float x : s.values) want_lo = std::min(want_lo, x), want_hi = std::max(want_hi, x);
      EXPECT_EQ(lo, want_lo) << v.name;
      EXPECT_EQ(hi, want_hi) << v.name;
    }
  }
  const std::vector<float> signed_codes = codes(41, 20, -128, 127);
  std::vector<uint8_t> bytes(41);
  v.convert_u8(signed_codes.data(), 41, 128, bytes.data());
  for (int i = 0; i < 41; ++i) ASSERT_EQ(bytes[i], static_cast<int>(signed_codes[i]) + 128) << v.name;
}

// The float kernel of the int8 convolutions against gemm_float_int8.
void check_int8_float_gemm(const kx::Int8FloatGemmKernels& v) {
  const int in_c = 6, kp = 9, out_c = 45, depth = in_c * kp;
  const std::vector<float> in = codes(8 * depth, 21, 0, 255), w = codes(depth * out_c, 22, -128, 127),
                           bias = uniform(out_c, 23, -1000, 1000);
  const Tensor weight = make_tensor({depth, out_c}, w);
  kx::Int8FloatPackedWeights packed;
  const float* weights = v.packed ? kx::pack_float_weights_8x32(&weight, depth, out_c, &packed) : w.data();
  for (int rows : {8, 3}) {
    std::vector<float> got(8 * out_c, -1.0f), want(8 * out_c, -1.0f);
    v.gemm(got.data(), in.data(), weights, bias.data(), in_c, out_c, rows, kp, 16);
    kx::gemm_float_int8(want.data(), in.data(), w.data(), bias.data(), nullptr, nullptr, false, in_c, out_c,
                        rows, kp, nullptr, 0.0f, 16, 0);
    ASSERT_TRUE(same_bits(got.data(), want.data(), got.size())) << v.name << " rows " << rows;
  }
}

// Values with ties, signed zeros, tiny and huge magnitudes and infinities.
std::vector<float> eltwise_data(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-300.0f, 300.0f);
  const float inf = std::numeric_limits<float>::infinity();
  const float specials[] = {0.5f,  -0.5f,  2.5f,  -2.5f,  -0.0f, 0.0f, -0.25f,
                            1e-30f, -1e-30f, 1e30f, -1e30f, inf,  -inf};
  std::vector<float> v(n);
  for (int i = 0; i < n; ++i)
    v[i] = i % 7 == 3 ? specials[(i / 7) % 13] : (i % 2 ? std::round(dist(rng)) : dist(rng));
  return v;
}

// The element-wise int8 kernels against the portable ones, for channel
// counts on both sides of the vector width.
void check_eltwise(const kx::Int8EltwiseKernels& v) {
  const kx::Int8EltwiseKernels& plain = kx::int8_eltwise_kernels().variants()[0];
  for (int channels : {1, 3, 5, 16, 24, 64, 67}) {
    const int n = channels * 37;
    const std::vector<float> x0 = eltwise_data(n, 1), x1 = eltwise_data(n, 2);
    std::vector<float> s(channels), b(channels), k(channels);
    for (int c = 0; c < channels; ++c) {
      s[c] = 0.3f + 0.1f * c;
      b[c] = (c % 2 ? -0.7f : 0.45f) + 0.01f * c;
      k[c] = -2.5f + c;
    }
    std::vector<float> want(n), got(n);
    plain.quantize(x0.data(), want.data(), n, channels, s.data(), -128, 127, 0);
    v.quantize(x0.data(), got.data(), n, channels, s.data(), -128, 127, 0);
    EXPECT_TRUE(same_bits(want.data(), got.data(), n)) << v.name << " quantize " << channels;
    plain.quantize(x0.data(), want.data(), n, channels, s.data(), -5, 9, 3);
    v.quantize(x0.data(), got.data(), n, channels, s.data(), -5, 9, 3);
    EXPECT_TRUE(same_bits(want.data(), got.data(), n)) << v.name << " quantize bounds " << channels;
    plain.dequantize(x0.data(), want.data(), n, channels, s.data(), -128);
    v.dequantize(x0.data(), got.data(), n, channels, s.data(), -128);
    EXPECT_TRUE(same_bits(want.data(), got.data(), n)) << v.name << " dequantize " << channels;
    plain.sum_requant(x0.data(), x1.data(), want.data(), n, channels, s.data(), b.data(), k.data(), 130);
    v.sum_requant(x0.data(), x1.data(), got.data(), n, channels, s.data(), b.data(), k.data(), 130);
    EXPECT_TRUE(same_bits(want.data(), got.data(), n)) << v.name << " sum_requant " << channels;
  }
  // The portable quantizer itself, on hand-worked ties: half to even, upper bound first.
  const float x[4] = {2.5f, -2.5f, 1000.0f, 3.5f};
  const float scale[1] = {1.0f};
  float y[4];
  v.quantize(x, y, 4, 1, scale, -2.0f, 127.0f, 1.0f);
  EXPECT_EQ(std::vector<float>(y, y + 4), (std::vector<float>{3.0f, -1.0f, 128.0f, 5.0f})) << v.name;
}

// The Winograd transforms as matrix products summed in index order: V =
// B^T d B and Y = A^T m A + bias. Zero and unit coefficients are exact, so
// a variant must give these values (== rather than bits: zeros may differ
// in sign).
void check_winograd(const kx::WinogradF32Kernels& v) {
  const float bt[4][4] = {{1, 0, -1, 0}, {0, 1, 1, 0}, {0, -1, 1, 0}, {0, 1, 0, -1}};
  const float at[2][4] = {{1, 1, 1, 0}, {0, 1, -1, -1}};
  const int C = 37;  // vectors of every width and a scalar tail
  const size_t stride = 40;
  const std::vector<float> x = uniform(16 * C, 20), bias = uniform(C, 21);
  const float* taps[16];
  for (int p = 0; p < 16; ++p) taps[p] = x.data() + p * C;
  std::vector<float> got(16 * stride, -7.0f);
  v.input(taps, C, got.data(), stride);
  for (int c = 0; c < C; ++c) {
    float t[4][4];
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) {
        t[i][j] = 0.0f;
        for (int k = 0; k < 4; ++k) t[i][j] += bt[i][k] * x[(k * 4 + j) * C + c];
      }
    for (int i = 0; i < 4; ++i)
      for (int j = 0; j < 4; ++j) {
        float want = 0.0f;
        for (int k = 0; k < 4; ++k) want += t[i][k] * bt[j][k];
        ASSERT_EQ(got[(i * 4 + j) * stride + c], want) << v.name << " input " << i << j << " channel " << c;
      }
  }
  // Outputs past the image's edge are not written.
  std::vector<float> y(4 * C, -7.0f);
  float* const out[4] = {y.data(), y.data() + C, nullptr, y.data() + 3 * C};
  v.output(got.data(), stride, C, bias.data(), out);
  for (int c = 0; c < C; ++c) {
    float s[2][4];
    for (int i = 0; i < 2; ++i)
      for (int j = 0; j < 4; ++j) {
        s[i][j] = 0.0f;
        for (int k = 0; k < 4; ++k) s[i][j] += at[i][k] * got[(k * 4 + j) * stride + c];
      }
    for (int i = 0; i < 2; ++i)
      for (int j = 0; j < 2; ++j) {
        float want = 0.0f;
        for (int k = 0; k < 4; ++k) want += s[i][k] * at[j][k];
        want += bias[c];
        ASSERT_EQ(y[(i * 2 + j) * C + c], i * 2 + j == 2 ? -7.0f : want) << v.name << " output " << i << j;
      }
  }
}

struct VariantCase {
  std::string name;
  KernelIsa isa;
  std::function<void()> check;
};

void PrintTo(const VariantCase& c, std::ostream* os) { *os << c.name; }

template <class Table>
void add_variants(std::vector<VariantCase>& cases, const char* family, const kx::KernelTable<Table>& table,
                  void (*check)(const Table&)) {
  for (int i = 0; i < table.variant_count(); ++i) {
    const Table* v = &table.variants()[i];
    cases.push_back({std::string(family) + "_" + v->name, v->isa, [v, check] { check(*v); }});
  }
}

std::vector<VariantCase> variant_cases() {
  std::vector<VariantCase> cases;
  add_variants(cases, "gemm", kx::gemm_f32_kernels(), check_gemm);
  add_variants(cases, "conv_tile", kx::conv_f32_tile_kernels(), check_conv_tile);
  add_variants(cases, "dwconv", kx::dwconv_f32_row_kernels(), check_dwconv_row);
  add_variants(cases, "winograd", kx::winograd_f32_kernels(), check_winograd);
  add_variants(cases, "dot", kx::int8_dot_kernels(), check_dot);
  add_variants(cases, "codes", kx::int8_code_kernels(), check_codes);
  add_variants(cases, "int8_gemm", kx::int8_float_gemm_kernels(), check_int8_float_gemm);
  add_variants(cases, "eltwise", kx::int8_eltwise_kernels(), check_eltwise);
  return cases;
}

class KernelVariantTest : public ::testing::TestWithParam<VariantCase> {
 protected:
  void TearDown() override { kx::reset_isa(); }
};

TEST_P(KernelVariantTest, MatchesTheStraightforwardKernel) {
  const VariantCase& c = GetParam();
  if (!kx::cpu_supports(c.isa)) GTEST_SKIP() << "the processor lacks " << kx::isa_name(c.isa);
  c.check();
}

INSTANTIATE_TEST_SUITE_P(Variants, KernelVariantTest, ::testing::ValuesIn(variant_cases()),
                         [](const auto& info) { return info.param.name; });

// ---- packed weights follow the weight tensor ----

struct CacheCase {
  std::string name;
  std::string op;
  std::string attrs;
  std::vector<int> input_shape, weight_shape;
  int code_lo, code_hi;  // input values: integer codes, or fractional when code_lo > code_hi
};

void PrintTo(const CacheCase& c, std::ostream* os) { *os << c.name; }

const char* const kConvAttrs = R"(attr { key: "padding" value { s: "SAME" } }
  attr { key: "strides" value { list { i: [1, 1, 1, 1] } } })";
const char* const kInt8Attrs = R"(attr { key: "padding" value { s: "SAME" } }
  attr { key: "strides" value { list { i: [1, 1, 1, 1] } } }
  attr { key: "OUTPUTSCALE" value { list { f: [0.001, 0.002, 0.003, 0.004, 0.005, 0.006, 0.007, 0.008, 0.009,
                                               0.01, 0.011, 0.012, 0.013, 0.014, 0.015, 0.016, 0.017, 0.018,
                                               0.019, 0.02] } } }
  attr { key: "maxValue" value { i: 127 } } attr { key: "minValue" value { i: -128 } })";

std::vector<float> run_op(kx::OpExecutor* op, const std::vector<const Tensor*>& inputs) {
  std::vector<int> shape;
  op->inference_shape(inputs, shape);
  Tensor out(shape, Tensor::DT_FLOAT, nullptr, "cpu");
  op->execute(inputs, &out);
  return tensor_values(out);
}

class WeightCacheTest : public ::testing::TestWithParam<CacheCase> {};

// An operator that keeps running sees every new version of its weights: a
// change through mutable access, a tensor freed and created again in the
// same place, and a new buffer set into the same tensor. Its results equal
// those of a fresh operator on the same values.
TEST_P(WeightCacheTest, RepacksWhenTheWeightChanges) {
  const CacheCase& c = GetParam();
  const kx::NodeDef node = parse_text_node(c.attrs);
  std::unique_ptr<kx::OpExecutor> op(kx::Holder::new_op_creator().at(c.op)());
  op->parse_parameter(node);
  auto fresh = [&](const std::vector<const Tensor*>& inputs) {
    std::unique_ptr<kx::OpExecutor> other(kx::Holder::new_op_creator().at(c.op)());
    other->parse_parameter(node);
    return run_op(other.get(), inputs);
  };
  size_t count = 1, weights = 1;
  for (int d : c.input_shape) count *= d;
  for (int d : c.weight_shape) weights *= d;
  const bool integer = c.code_lo <= c.code_hi;
  const Tensor input = make_tensor(
      c.input_shape, integer ? codes(count, 30, c.code_lo, c.code_hi) : uniform(count, 30, -40, 40));
  const std::vector<float> w0 = codes(weights, 31, -20, 20);
  auto* weight = new Tensor(make_tensor(c.weight_shape, w0));
  const std::vector<float> first = run_op(op.get(), {&input, weight});
  EXPECT_EQ(run_op(op.get(), {&input, weight}), first);

  // Changed in place.
  float* data = weight->mutable_data<float>();
  for (size_t i = 0; i < weights; i += 3) data[i] = -data[i] + 1.0f;
  const std::vector<float> second = run_op(op.get(), {&input, weight});
  EXPECT_NE(second, first);
  EXPECT_EQ(second, fresh({&input, weight}));

  // Freed and made again, most likely at the same address, with new values.
  delete weight;
  weight = new Tensor(make_tensor(c.weight_shape, codes(weights, 32, -20, 20)));
  const std::vector<float> third = run_op(op.get(), {&input, weight});
  EXPECT_EQ(third, fresh({&input, weight}));

  // A new buffer in the same tensor.
  std::vector<float> w3 = codes(weights, 33, -20, 20);
  weight->set_data(c.weight_shape, Tensor::DT_FLOAT, w3.data());
  EXPECT_EQ(run_op(op.get(), {&input, weight}), fresh({&input, weight}));
  EXPECT_NE(run_op(op.get(), {&input, weight}), third);
  delete weight;
}

INSTANTIATE_TEST_SUITE_P(
    Ops, WeightCacheTest,
    ::testing::Values(
        CacheCase{"conv_tiled", "Z40Conv2D", kConvAttrs, {1, 5, 6, 8}, {3, 3, 8, 20}, 1, 0},
        CacheCase{"conv_one_by_one", "Z40Conv2D", kConvAttrs, {1, 4, 4, 40}, {1, 1, 40, 20}, 1, 0},
        CacheCase{"matmul", "Z40MatMul", "", {9, 30}, {30, 20}, 1, 0},
        CacheCase{"conv_int8_integer", "Z40Conv2DInt8", kInt8Attrs, {1, 5, 6, 8}, {3, 3, 8, 20}, 0, 255},
        CacheCase{"conv_int8_float", "Z40Conv2DInt8", kInt8Attrs, {1, 5, 6, 8}, {3, 3, 8, 20}, 1, 0},
        CacheCase{"matmul_int8", "Z40MatMulInt8", kInt8Attrs, {9, 30}, {30, 20}, -128, 127}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace kovra_test
