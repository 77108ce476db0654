#include "ops/kernels/int8_dot_path.h"

#include <algorithm>
#include <atomic>
#include <type_traits>
#include <cmath>
#include <cstring>

#include "ops/kernels/avx_common.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

std::atomic<bool>& integer_path_flag() {
  static std::atomic<bool> enabled{true};
  return enabled;
}

// Packed layouts, one per kernel family.
enum Format { kVnni = 0, kInt16 = 1 };

int active_format() {
  return active_isa() == KernelIsa::kAvx512 && cpu_supports_avx512_vnni() ? kVnni : kInt16;
}

int round_up(int v, int m) { return (v + m - 1) / m * m; }

constexpr int kChunkRows = 48;  // output pixels per work item; a multiple of 6 and 4
constexpr int kMaxWorkers = 16;
constexpr int64_t kExactLimit = int64_t{1} << 24;

// Range and integrality of a block of codes, in one pass.
struct CodeRange {
  float lo = 0.0f, hi = 0.0f;
  bool integral = true;
};

void scan_codes(const float* v, long long count, CodeRange* range) {
  if (active_isa() == KernelIsa::kAvx512) {
    scan_codes_avx512(v, count, &range->lo, &range->hi, &range->integral);
    return;
  }
  float lo = range->lo, hi = range->hi;
  bool ok = range->integral;
  for (long long i = 0; i < count; ++i) {
    const float x = v[i];
    const bool in_range = x >= -128.0f && x <= 255.0f;  // false for NaN
    const float clamped = in_range ? x : 0.0f;
    ok &= in_range & (static_cast<float>(static_cast<int>(clamped)) == x);
    lo = x < lo ? x : lo;
    hi = x > hi ? x : hi;
  }
  range->lo = lo;
  range->hi = hi;
  range->integral = ok;
}

// The input converted once per call to the kernel's element type.
template <typename T>
std::vector<T> convert_codes(const float* v, long long count, int shift) {
  std::vector<T> out(count);
  if (std::is_same<T, uint8_t>::value && active_isa() == KernelIsa::kAvx512) {
    convert_codes_u8_avx512(v, count, shift, reinterpret_cast<uint8_t*>(out.data()));
    return out;
  }
  for (long long i = 0; i < count; ++i) out[i] = static_cast<T>(static_cast<int>(v[i]) + shift);
  return out;
}

// Gathers the patches of `len` output pixels starting at `first` into rows of
// `depth_padded` codes; unused rows and columns are zero.
template <typename T>
void gather_rows(const ConvGeometry& s, const T* image, const T* pad, int first, int len,
                 int depth_padded, T* rows) {
  const int depth = (s.kernel_h * s.kernel_w) * s.in_c;
  for (int j = 0; j < len; ++j) {
    const int oy = (first + j) / s.out_w, ox = (first + j) % s.out_w;
    T* dst = rows + static_cast<long long>(j) * depth_padded;
    for (int ky = 0; ky < s.kernel_h; ++ky) {
      const int iy = oy * s.stride_h - s.pad_top + ky * s.dilation_h;
      for (int kx = 0; kx < s.kernel_w; ++kx, dst += s.in_c) {
        const int ix = ox * s.stride_w - s.pad_left + kx * s.dilation_w;
        const bool inside = iy >= 0 && iy < s.in_h && ix >= 0 && ix < s.in_w;
        const T* src = inside ? image + (static_cast<long long>(iy) * s.in_w + ix) * s.in_c : pad;
        std::memcpy(dst, src, sizeof(T) * s.in_c);
      }
    }
    std::fill(dst, dst + (depth_padded - depth), T(0));
  }
}

template <typename T>
void run_chunks(const ConvGeometry& s, const std::vector<T>& codes, const std::vector<T>& pad,
                const Int8PackedWeights& w, const int32_t* correction, const Int8OutputStage& stage,
                float* out) {
  const int pixels = s.out_h * s.out_w;
  const int per_image = (pixels + kChunkRows - 1) / kChunkRows;
  const int chunks = per_image * s.batch;
  const int workers = std::min(kMaxWorkers, chunks);
  const long long image_size = static_cast<long long>(s.in_h) * s.in_w * s.in_c;
  // The plain and split-scale stages run vectorised straight from the sums.
  const Int8OutputParam& param = *stage.param;
  const bool fast_stage = w.format == kVnni && !stage.float_output &&
                          (param.action == Int8Activation::kScale ||
                           param.action == Int8Activation::kLeakyRelu);
  Int8RequantizeArgs args;
  args.channels = s.out_c;
  args.correction = correction;
  args.bias = stage.bias;
  args.scale = param.OUTPUTSCALE.data();
  args.negative_scale =
      param.action == Int8Activation::kLeakyRelu ? param.OUTPUTSCALE.data() + s.out_c : nullptr;
  args.multiplier = stage.multiplier;
  args.lo = stage.lo;
  args.hi = stage.hi;
  args.offset = stage.offset;
  ThreadPool::instance().run(workers, [&](int worker) {
    std::vector<T> rows(static_cast<size_t>(kChunkRows) * w.depth_padded, T(0));
    std::vector<int32_t> sums(static_cast<size_t>(kChunkRows) * w.out_padded);
    for (int chunk = worker; chunk < chunks; chunk += workers) {
      const int b = chunk / per_image;
      const int first = (chunk % per_image) * kChunkRows;
      const int len = std::min(kChunkRows, pixels - first);
      gather_rows(s, codes.data() + b * image_size, pad.data(), first, len, w.depth_padded,
                  rows.data());
      if constexpr (std::is_same<T, uint8_t>::value) {
        gemm_u8s8_s32_6x64_avx512vnni(rows.data(), w.depth_padded, w.packed8.data(),
                                      w.out_padded, round_up(len, 6), sums.data());
      } else if (active_isa() == KernelIsa::kPortable) {
        gemm_s16_s32_portable(rows.data(), w.depth_padded, w.packed16.data(), w.out_padded,
                              round_up(len, 4), sums.data());
      } else {
        gemm_s16_s32_4x24_avx2(rows.data(), w.depth_padded, w.packed16.data(), w.out_padded,
                               round_up(len, 4), sums.data());
      }
      float* dst = out + (static_cast<long long>(b) * pixels + first) * s.out_c;
      if (fast_stage) {
        requantize_s32_rows_avx512(args, sums.data(), w.out_padded, len, dst);
        continue;
      }
      for (int j = 0; j < len; ++j) {
        const int32_t* src = sums.data() + static_cast<long long>(j) * w.out_padded;
        float* row = dst + static_cast<long long>(j) * s.out_c;
        for (int n = 0; n < s.out_c; ++n) row[n] = static_cast<float>(src[n] - correction[n]);
      }
      int8_output_rows(stage, dst, dst, len);
    }
  });
}

}  // namespace

void set_int8_integer_path_enabled(bool enabled) { integer_path_flag().store(enabled); }
bool int8_integer_path_enabled() { return integer_path_flag().load(); }

const Int8PackedWeights& pack_int8_weights(const Tensor* weight, int depth, int out_c,
                                           std::shared_ptr<Int8PackedWeights>* cache) {
  const float* src = weight->data<float>();
  const int format = active_format();
  Int8PackedWeights* held = cache->get();
  if (held != nullptr && held->source == src && held->size == weight->size() &&
      held->format == format && held->depth == depth && held->out_c == out_c) {
    return *held;
  }
  auto w = std::make_shared<Int8PackedWeights>();
  w->source = src;
  w->size = weight->size();
  w->format = format;
  w->depth = depth;
  w->out_c = out_c;
  CodeRange range;
  scan_codes(src, static_cast<long long>(depth) * out_c, &range);
  w->fits = range.integral && range.lo >= -128.0f && range.hi <= 127.0f;
  if (w->fits) {
    w->abs_sum.assign(out_c, 0);
    w->sum.assign(out_c, 0);
    for (int k = 0; k < depth; ++k) {
      for (int n = 0; n < out_c; ++n) {
        const int v = static_cast<int>(src[static_cast<long long>(k) * out_c + n]);
        w->abs_sum[n] += v < 0 ? -v : v;
        w->sum[n] += v;
      }
    }
    if (format == kVnni) {
      // Blocks of 16 columns; in each, 4 consecutive depths of a column share
      // one 32-bit lane.
      w->depth_padded = round_up(depth, 4);
      w->out_padded = round_up(out_c, 16);
      w->packed8.assign(static_cast<size_t>(w->depth_padded) * w->out_padded, 0);
      for (int k = 0; k < depth; ++k) {
        for (int n = 0; n < out_c; ++n) {
          const size_t at = (static_cast<size_t>(n / 16) * (w->depth_padded / 4) + k / 4) * 64 +
                            (n % 16) * 4 + k % 4;
          w->packed8[at] = static_cast<int8_t>(src[static_cast<long long>(k) * out_c + n]);
        }
      }
    } else {
      // Blocks of 8 columns; 2 consecutive depths of a column share a lane.
      w->depth_padded = round_up(depth, 2);
      w->out_padded = round_up(out_c, 8);
      w->packed16.assign(static_cast<size_t>(w->depth_padded) * w->out_padded, 0);
      for (int k = 0; k < depth; ++k) {
        for (int n = 0; n < out_c; ++n) {
          const size_t at = (static_cast<size_t>(n / 8) * (w->depth_padded / 2) + k / 2) * 16 +
                            (n % 8) * 2 + k % 2;
          w->packed16[at] = static_cast<int16_t>(src[static_cast<long long>(k) * out_c + n]);
        }
      }
    }
  }
  *cache = w;
  return *w;
}

Int8DotPlan plan_int8_dot(const float* input, long long count, const float* pad, int pad_count,
                          const Int8PackedWeights& weights) {
  Int8DotPlan plan;
  if (!weights.fits || count <= 0) return plan;
  CodeRange range;
  range.lo = range.hi = input[0];
  scan_codes(input, count, &range);
  scan_codes(pad, pad_count, &range);
  if (!range.integral) return plan;
  const bool unsigned_codes = range.lo >= 0.0f && range.hi <= 255.0f;
  const bool signed_codes = range.lo >= -128.0f && range.hi <= 127.0f;
  if (!unsigned_codes && !signed_codes) return plan;
  const int64_t largest = static_cast<int64_t>(std::max(std::fabs(range.lo), std::fabs(range.hi)));
  for (int n = 0; n < weights.out_c; ++n) {
    if (weights.abs_sum[n] * largest >= kExactLimit) return plan;
    // The shifted unsigned form must not overflow its int32 lanes either.
    if (weights.abs_sum[n] * 255 >= (int64_t{1} << 31)) return plan;
  }
  plan.integer = true;
  plan.signed_input = !unsigned_codes;
  return plan;
}

bool conv_int8_integer_path(const ConvGeometry& s, const float* input, const float* pad,
                            const Tensor* weight, std::shared_ptr<Int8PackedWeights>* cache,
                            const Int8OutputStage& stage, float* out) {
  if (!int8_integer_path_enabled()) return false;
  const int depth = (s.kernel_h * s.kernel_w) * s.in_c;
  const Int8PackedWeights& w = pack_int8_weights(weight, depth, s.out_c, cache);
  const long long count = static_cast<long long>(s.batch) * s.in_h * s.in_w * s.in_c;
  // Without padding (1 x 1 products) the pad codes are never read.
  const std::vector<float> no_pad(pad == nullptr ? s.in_c : 0, 0.0f);
  const int pad_count = pad == nullptr ? 0 : s.in_c;
  if (pad == nullptr) pad = no_pad.data();
  const Int8DotPlan plan = plan_int8_dot(input, count, pad, pad_count, w);
  if (!plan.integer) return false;
  if (w.format == kVnni) {
    // vpdpbusd multiplies unsigned bytes: signed codes are shifted by 128 and
    // 128 * sum(w) is taken off each column again.
    const int shift = plan.signed_input ? 128 : 0;
    std::vector<int32_t> correction(s.out_c);
    for (int n = 0; n < s.out_c; ++n) correction[n] = shift * w.sum[n];
    run_chunks(s, convert_codes<uint8_t>(input, count, shift),
               convert_codes<uint8_t>(pad, s.in_c, shift), w, correction.data(), stage, out);
  } else {
    const std::vector<int32_t> correction(s.out_c, 0);
    run_chunks(s, convert_codes<int16_t>(input, count, 0), convert_codes<int16_t>(pad, s.in_c, 0),
               w, correction.data(), stage, out);
  }
  return true;
}

void gemm_s16_s32_portable(const int16_t* a, int depth_padded, const int16_t* b, int out_padded,
                           int rows, int32_t* c) {
  const int pairs = depth_padded / 2;
  for (int r = 0; r < rows; ++r) {
    const int16_t* x = a + static_cast<long long>(r) * depth_padded;
    int32_t* dst = c + static_cast<long long>(r) * out_padded;
    for (int block = 0; block < out_padded / 8; ++block) {
      int32_t acc[8] = {0, 0, 0, 0, 0, 0, 0, 0};
      const int16_t* wb = b + static_cast<long long>(block) * pairs * 16;
      for (int k2 = 0; k2 < pairs; ++k2) {
        const int32_t x0 = x[2 * k2], x1 = x[2 * k2 + 1];
        const int16_t* wk = wb + k2 * 16;
        for (int lane = 0; lane < 8; ++lane) acc[lane] += x0 * wk[2 * lane] + x1 * wk[2 * lane + 1];
      }
      std::memcpy(dst + block * 8, acc, sizeof(acc));
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
