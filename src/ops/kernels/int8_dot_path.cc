#include "ops/kernels/int8_dot_path.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "ops/kernels/conv2d_int8.h"
#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/x86/x86_kernels.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

std::atomic<bool>& integer_path_flag() {
  static std::atomic<bool> enabled{true};
  return enabled;
}

std::atomic<long long> integer_outputs{0}, recomputed_outputs{0};

int round_up(int v, int m) { return (v + m - 1) / m * m; }

constexpr int kChunkRows = 48;  // output pixels per work item; a multiple of 6 and 4
constexpr int kMaxWorkers = 16;
constexpr int64_t kExactLimit = int64_t{1} << 24;
constexpr int64_t kSquareLimit = int64_t{1} << 48;
constexpr int64_t kNoLimit = int64_t{1} << 62;

// The smallest patch value that breaks value * factor < limit, for factor >= 0.
int64_t limit_for(int64_t factor, int64_t limit) {
  return factor == 0 ? kNoLimit : (limit + factor - 1) / factor;
}

// Range and integrality of a block of codes, in one pass.
struct CodeRange {
  float lo = 0.0f, hi = 0.0f;
  bool integral = true;
};

void scan_codes(const float* v, long long count, CodeRange* range) {
  int8_code_kernels()->scan(v, count, &range->lo, &range->hi, &range->integral);
}

// The codes converted once per call to the kernel's element type, into the
// calling thread's scratch.
template <typename T>
T* convert_codes(const float* v, long long count, int shift, ScratchSlot slot) {
  T* out = static_cast<T*>(scratch_bytes(slot, sizeof(T) * static_cast<size_t>(std::max(count, 1LL))));
  if constexpr (std::is_same<T, uint8_t>::value) {
    int8_code_kernels()->convert_u8(v, count, shift, out);
  } else {
    for (long long i = 0; i < count; ++i) out[i] = static_cast<T>(static_cast<int>(v[i]) + shift);
  }
  return out;
}

const Int8DotKernels kDotVariants[] = {
    {KernelIsa::kPortable, "dot_s16_s32_portable", Int8DotFormat::kS16, 4, nullptr, dot_s16_s32_portable},
    {KernelIsa::kAvx2, "dot_s16_s32_4x24_avx2", Int8DotFormat::kS16, 4, nullptr, dot_s16_s32_4x24_avx2},
    {KernelIsa::kAvx512Vnni, "dot_u8s8_s32_6x64_avx512vnni", Int8DotFormat::kU8S8, 6,
     dot_u8s8_s32_6x64_avx512vnni, nullptr},
};

const Int8CodeKernels kCodeVariants[] = {
    {KernelIsa::kPortable, "codes_f32_portable", requantize_s32_portable, scan_codes_f32_portable,
     convert_codes_f32_u8_portable},
    {KernelIsa::kAvx512, "codes_f32_1x16_avx512", requantize_s32_1x16_avx512, scan_codes_f32_1x16_avx512,
     convert_codes_f32_u8_1x16_avx512},
};

// Gathers the patches of `len` output pixels starting at `first` into rows of
// `depth_padded` codes; unused rows and columns are zero.
template <typename T>
void gather_rows(const ConvGeometry& s, const T* image, const T* pad, int first, int len, int depth_padded,
                 T* rows) {
  const int depth = (s.kernel_h * s.kernel_w) * s.in_c;
  // Inside the image, the taps of one kernel row are one run of the input row.
  const int run = s.kernel_w * s.in_c;
  for (int j = 0; j < len; ++j) {
    const int oy = (first + j) / s.out_w, ox = (first + j) % s.out_w;
    T* dst = rows + static_cast<long long>(j) * depth_padded;
    const int iy0 = oy * s.stride_h - s.pad_top, ix0 = ox * s.stride_w - s.pad_left;
    if (s.dilation_w == 1 && iy0 >= 0 && iy0 + (s.kernel_h - 1) * s.dilation_h < s.in_h && ix0 >= 0 &&
        ix0 + s.kernel_w <= s.in_w) {
      for (int ky = 0; ky < s.kernel_h; ++ky, dst += run) {
        const T* src = image + (static_cast<long long>(iy0 + ky * s.dilation_h) * s.in_w + ix0) * s.in_c;
        std::memcpy(dst, src, sizeof(T) * run);
      }
      std::fill(dst, dst + (depth_padded - depth), T(0));
      continue;
    }
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

// What the bounds need of a patch, summed per input pixel once per call:
// sum x^2 and max |x| over its channels.
struct PixelStats {
  int64_t square = 0;
  int largest = 0;
};

template <typename T>
PixelStats pixel_stats(const T* codes, int channels, int shift) {
  PixelStats p;
  for (int c = 0; c < channels; ++c) {
    const int v = static_cast<int>(codes[c]) - shift;
    p.square += v * v;
    p.largest = std::max(p.largest, v < 0 ? -v : v);
  }
  return p;
}

// One call of the integer path, shared by its workers.
template <typename T>
struct ChunkJob {
  const ConvGeometry* s;
  const T* codes;
  const T* pad;
  const Int8PackedWeights* w;
  const Int8DotKernels* dot;
  const int32_t* correction;
  const Int8OutputStage* stage;
  const Int8RequantizeArgs* args;
  bool fast_stage;
  float* out;
  int per_image, chunks, workers;
  bool checked = false;                              // outputs need the per-output check
  int shift = 0;                                     // added to the codes (unsigned form of signed codes)
  const Int8FloatGemmKernels* float_gemm = nullptr;  // for unproven outputs
  const float* float_weights = nullptr;              // in the layout float_gemm reads
  const PixelStats* stats = nullptr;                 // per input pixel of the batch, when checked
  PixelStats pad_stats = PixelStats();
};

// One output's sum over the patch `row` in reduction order, in float, with
// column n of the packed weights.
template <typename T>
float ordered_column_sum(const T* row, int shift, const Int8PackedWeights& w, int n) {
  float sum = 0.0f;
  if constexpr (std::is_same<T, uint8_t>::value) {
    const int8_t* col =
        w.packed8.data() + static_cast<size_t>(n / 16) * (w.depth_padded / 4) * 64 + (n % 16) * 4;
    for (int k = 0; k < w.depth; ++k) {
      sum += static_cast<float>(static_cast<int>(row[k]) - shift) *
             static_cast<float>(col[(k / 4) * 64 + k % 4]);
    }
  } else {
    const int16_t* col =
        w.packed16.data() + static_cast<size_t>(n / 8) * (w.depth_padded / 2) * 16 + (n % 8) * 2;
    for (int k = 0; k < w.depth; ++k) {
      sum += static_cast<float>(static_cast<int>(row[k]) - shift) *
             static_cast<float>(col[(k / 2) * 16 + k % 2]);
    }
  }
  return sum;
}

// Working memory of the per-output check for one block of rows, in the
// worker's scratch: which outputs of each row no bound proves, and room for
// the float kernel's batches.
struct CheckScratch {
  int* unproven;      // kChunkRows x out_c channel indices, each row's first `count[j]` used
  int* count;         // kChunkRows
  float* acc;         // out_c sums of one row
  float* x;           // kFloatBatch x depth codes as floats
  float* batch_sums;  // kFloatBatch x out_c
  float* zero;        // out_c zeros: the float kernel's bias
};

constexpr int kFloatBatch = 8;  // rows of one float kernel call

CheckScratch check_scratch(int depth, int out_c) {
  const size_t ints = static_cast<size_t>(kChunkRows) * out_c + kChunkRows;
  const size_t floats =
      static_cast<size_t>(out_c) * (2 + kFloatBatch) + static_cast<size_t>(kFloatBatch) * depth;
  char* base =
      static_cast<char*>(scratch_bytes(ScratchSlot::kRecompute, sizeof(int) * ints + sizeof(float) * floats));
  CheckScratch c;
  c.unproven = reinterpret_cast<int*>(base);
  c.count = c.unproven + static_cast<size_t>(kChunkRows) * out_c;
  c.acc = reinterpret_cast<float*>(base + sizeof(int) * ints);
  c.x = c.acc + out_c;
  c.batch_sums = c.x + static_cast<size_t>(kFloatBatch) * depth;
  c.zero = c.batch_sums + static_cast<size_t>(kFloatBatch) * out_c;
  std::fill(c.zero, c.zero + out_c, 0.0f);
  return c;
}

// A row goes to the float kernel whole when more than an eighth of it is
// unproven; fewer outputs are summed one by one.
bool whole_row(int count, int out_c) { return count * 8 > out_c; }

// Finds the outputs of the `len` output pixels from `first` of image `b`
// that neither bound proves exact; returns how many rows go to the float
// kernel whole.
template <typename T>
int find_unproven(const ChunkJob<T>& job, int b, int first, int len, const CheckScratch& c) {
  const Int8PackedWeights& w = *job.w;
  const ConvGeometry& s = *job.s;
  const PixelStats* image = job.stats + static_cast<long long>(b) * s.in_h * s.in_w;
  int whole = 0;
  for (int j = 0; j < len; ++j) {
    // The taps of the patch, as gather_rows takes them.
    const int oy = (first + j) / s.out_w, ox = (first + j) % s.out_w;
    int64_t square = 0;
    int largest = 0;
    for (int ky = 0; ky < s.kernel_h; ++ky) {
      const int iy = oy * s.stride_h - s.pad_top + ky * s.dilation_h;
      for (int kx = 0; kx < s.kernel_w; ++kx) {
        const int ix = ox * s.stride_w - s.pad_left + kx * s.dilation_w;
        const bool inside = iy >= 0 && iy < s.in_h && ix >= 0 && ix < s.in_w;
        const PixelStats& p = inside ? image[static_cast<long long>(iy) * s.in_w + ix] : job.pad_stats;
        square += p.square;
        largest = std::max(largest, p.largest);
      }
    }
    int& count = c.count[j];
    count = 0;
    if (largest < w.min_largest_limit || square < w.min_square_limit) continue;
    int* unproven = c.unproven + static_cast<long long>(j) * w.out_c;
    for (int n = 0; n < w.out_c; ++n) {
      if (largest >= w.largest_limit[n] && square >= w.square_limit[n]) unproven[count++] = n;
    }
    whole += whole_row(count, w.out_c);
  }
  return whole;
}

// Rewrites the rows holding unproven outputs: those outputs are summed again
// in float in reduction order, one by one or by the float kernel over whole
// rows in batches; the others keep the integer sums, or, when `sums` is null
// (no integer sums were made), take the float kernel's equal ones. Returns how
// many outputs came from float sums.
template <typename T>
long long recompute_unproven(const ChunkJob<T>& job, const T* rows, const int32_t* sums, int len,
                             const CheckScratch& c, float* dst) {
  const Int8PackedWeights& w = *job.w;
  const int depth = w.depth, out_c = w.out_c;
  long long redone = 0;
  // The integer sums of row j with the float sums of its unproven outputs,
  // through the output stage.
  auto finish_row = [&](int j, const float* row_sums) {
    const int* unproven = c.unproven + static_cast<long long>(j) * out_c;
    if (sums == nullptr) {
      std::copy(row_sums, row_sums + out_c, c.acc);
      redone += out_c;
    } else {
      const int32_t* src = sums + static_cast<long long>(j) * w.out_padded;
      for (int n = 0; n < out_c; ++n) c.acc[n] = static_cast<float>(src[n] - job.correction[n]);
      for (int i = 0; i < c.count[j]; ++i) c.acc[unproven[i]] = row_sums[unproven[i]];
      redone += c.count[j];
    }
    int8_output_rows(*job.stage, c.acc, dst + static_cast<long long>(j) * out_c, 1);
  };
  int batch[kFloatBatch];
  int batched = 0;
  auto flush = [&]() {
    // The kernel reads 8 rows; sum * 1 + 0 is the sum itself.
    std::fill(c.x + static_cast<long long>(batched) * depth,
              c.x + static_cast<long long>(kFloatBatch) * depth, 0.0f);
    job.float_gemm->gemm(c.batch_sums, c.x, job.float_weights, c.zero, depth, out_c, batched, 1, 1);
    for (int i = 0; i < batched; ++i) finish_row(batch[i], c.batch_sums + static_cast<long long>(i) * out_c);
    batched = 0;
  };
  for (int j = 0; j < len; ++j) {
    const int count = c.count[j];
    if (count == 0 && sums != nullptr) continue;
    const T* row = rows + static_cast<long long>(j) * w.depth_padded;
    if (sums == nullptr || whole_row(count, out_c)) {
      float* x = c.x + static_cast<long long>(batched) * depth;
      for (int k = 0; k < depth; ++k) x[k] = static_cast<float>(static_cast<int>(row[k]) - job.shift);
      batch[batched++] = j;
      if (batched == kFloatBatch) flush();
      continue;
    }
    const int* unproven = c.unproven + static_cast<long long>(j) * out_c;
    // batch_sums holds values only within a flush.
    for (int i = 0; i < count; ++i)
      c.batch_sums[unproven[i]] = ordered_column_sum(row, job.shift, w, unproven[i]);
    finish_row(j, c.batch_sums);
  }
  if (batched > 0) flush();
  return redone;
}

template <typename T>
void run_chunk_worker(const ChunkJob<T>& job, int worker) {
  const ConvGeometry& s = *job.s;
  const Int8PackedWeights& w = *job.w;
  const int pixels = s.out_h * s.out_w;
  const long long image_size = static_cast<long long>(s.in_h) * s.in_w * s.in_c;
  T* rows = static_cast<T*>(scratch_bytes(ScratchSlot::kRows, sizeof(T) * kChunkRows * w.depth_padded));
  int32_t* sums =
      static_cast<int32_t*>(scratch_bytes(ScratchSlot::kSums, sizeof(int32_t) * kChunkRows * w.out_padded));
  const CheckScratch check = job.checked ? check_scratch(w.depth, w.out_c) : CheckScratch();
  long long done = 0, redone = 0;
  for (int chunk = worker; chunk < job.chunks; chunk += job.workers) {
    const int b = chunk / job.per_image;
    const int first = (chunk % job.per_image) * kChunkRows;
    const int len = std::min(kChunkRows, pixels - first);
    const int padded_len = round_up(len, job.dot->row_block);
    gather_rows(s, job.codes + b * image_size, job.pad, first, len, w.depth_padded, rows);
    // The kernel reads whole row blocks; rows past `len` are computed and dropped.
    std::fill(rows + static_cast<size_t>(len) * w.depth_padded,
              rows + static_cast<size_t>(padded_len) * w.depth_padded, T(0));
    float* dst = job.out + (static_cast<long long>(b) * pixels + first) * s.out_c;
    done += static_cast<long long>(len) * s.out_c;
    // When every row goes to the float kernel whole, integer sums would be wasted.
    if (job.checked && find_unproven(job, b, first, len, check) == len) {
      redone += recompute_unproven(job, rows, static_cast<const int32_t*>(nullptr), len, check, dst);
      continue;
    }
    if constexpr (std::is_same<T, uint8_t>::value) {
      job.dot->dot_u8(rows, w.depth_padded, w.packed8.data(), w.out_padded, padded_len, sums);
    } else {
      job.dot->dot_s16(rows, w.depth_padded, w.packed16.data(), w.out_padded, padded_len, sums);
    }
    if (job.fast_stage) {
      int8_code_kernels()->requantize(*job.args, sums, w.out_padded, len, dst);
    } else {
      for (int j = 0; j < len; ++j) {
        const int32_t* src = sums + static_cast<long long>(j) * w.out_padded;
        float* row = dst + static_cast<long long>(j) * s.out_c;
        for (int n = 0; n < s.out_c; ++n) row[n] = static_cast<float>(src[n] - job.correction[n]);
      }
      int8_output_rows(*job.stage, dst, dst, len);
    }
    if (job.checked) redone += recompute_unproven(job, rows, sums, len, check, dst);
  }
  integer_outputs.fetch_add(done - redone, std::memory_order_relaxed);
  recomputed_outputs.fetch_add(redone, std::memory_order_relaxed);
}

template <typename T>
void run_chunks(const ConvGeometry& s, const T* codes, const T* pad, const Int8PackedWeights& w,
                const Int8DotKernels& dot, const int32_t* correction, const Int8OutputStage& stage,
                bool checked, int shift, const Int8FloatGemmKernels* float_gemm, const float* float_weights,
                float* out) {
  const int pixels = s.out_h * s.out_w;
  const int per_image = (pixels + kChunkRows - 1) / kChunkRows;
  const int chunks = per_image * s.batch;
  // The plain and split-scale stages run straight from the sums.
  const Int8OutputParam& param = *stage.param;
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
  const int workers = std::min(kMaxWorkers, chunks);
  ChunkJob<T> job{&s,    codes, pad, &w,        &dot,   correction, &stage,
                  &args, false, out, per_image, chunks, workers};
  job.checked = checked;
  job.shift = shift;
  job.float_gemm = float_gemm;
  job.float_weights = float_weights;
  if (checked) {
    const long long pixels_in = static_cast<long long>(s.batch) * s.in_h * s.in_w;
    PixelStats* stats = static_cast<PixelStats*>(
        scratch_bytes(ScratchSlot::kPixelStats, sizeof(PixelStats) * static_cast<size_t>(pixels_in)));
    for (long long p = 0; p < pixels_in; ++p) stats[p] = pixel_stats(codes + p * s.in_c, s.in_c, shift);
    job.stats = stats;
    job.pad_stats = pixel_stats(pad, s.in_c, shift);
  }
  job.fast_stage = !stage.float_output &&
                   (param.action == Int8Activation::kScale || param.action == Int8Activation::kLeakyRelu);
  const ChunkJob<T>* j = &job;
  ThreadPool::instance().run(job.workers, [j](int worker) { run_chunk_worker(*j, worker); });
}

}  // namespace

void set_int8_integer_path_enabled(bool enabled) { integer_path_flag().store(enabled); }
bool int8_integer_path_enabled() { return integer_path_flag().load(); }

Int8PathCounts int8_path_counts() {
  Int8PathCounts counts;
  counts.integer = integer_outputs.load();
  counts.recomputed = recomputed_outputs.load();
  return counts;
}

void reset_int8_path_counts() {
  integer_outputs.store(0);
  recomputed_outputs.store(0);
}

const KernelTable<Int8DotKernels>& int8_dot_kernels() {
  static const KernelTable<Int8DotKernels> table(kDotVariants);
  return table;
}

const KernelTable<Int8CodeKernels>& int8_code_kernels() {
  static const KernelTable<Int8CodeKernels> table(kCodeVariants);
  return table;
}

const Int8PackedWeights& pack_int8_weights(const Tensor* weight, int depth, int out_c,
                                           Int8PackedWeights* cache) {
  const Int8DotFormat format = int8_dot_kernels()->format;
  if (cache->version != 0 && cache->version == weight->version() && cache->format == format &&
      cache->depth == depth && cache->out_c == out_c) {
    return *cache;
  }
  const float* src = weight->data<float>();
  Int8PackedWeights& w = *cache;
  w.version = weight->version();
  w.format = format;
  w.depth = depth;
  w.out_c = out_c;
  w.packed8.clear();
  w.packed16.clear();
  CodeRange range;
  range.lo = range.hi = depth > 0 && out_c > 0 ? src[0] : 0.0f;
  scan_codes(src, static_cast<long long>(depth) * out_c, &range);
  w.fits = range.integral && range.lo >= -128.0f && range.hi <= 127.0f;
  if (!w.fits) return w;
  w.abs_sum.assign(out_c, 0);
  w.sum.assign(out_c, 0);
  std::vector<int64_t> square(out_c, 0);
  for (int k = 0; k < depth; ++k) {
    for (int n = 0; n < out_c; ++n) {
      const int v = static_cast<int>(src[static_cast<long long>(k) * out_c + n]);
      w.abs_sum[n] += v < 0 ? -v : v;
      w.sum[n] += v;
      square[n] += v * v;
    }
  }
  w.largest_limit.resize(out_c);
  w.square_limit.resize(out_c);
  w.min_largest_limit = w.min_square_limit = kNoLimit;
  for (int n = 0; n < out_c; ++n) {
    w.largest_limit[n] = limit_for(w.abs_sum[n], kExactLimit);
    w.square_limit[n] = limit_for(square[n], kSquareLimit);
    w.min_largest_limit = std::min(w.min_largest_limit, w.largest_limit[n]);
    w.min_square_limit = std::min(w.min_square_limit, w.square_limit[n]);
  }
  w.shift_correction.resize(out_c);
  for (int n = 0; n < out_c; ++n) w.shift_correction[n] = 128 * w.sum[n];
  w.no_correction.assign(out_c, 0);
  if (format == Int8DotFormat::kU8S8) {
    // Blocks of 16 columns; in each, 4 consecutive depths of a column share
    // one 32-bit lane.
    w.depth_padded = round_up(depth, 4);
    w.out_padded = round_up(out_c, 16);
    w.packed8.assign(static_cast<size_t>(w.depth_padded) * w.out_padded, 0);
    for (int k = 0; k < depth; ++k) {
      for (int n = 0; n < out_c; ++n) {
        const size_t at =
            (static_cast<size_t>(n / 16) * (w.depth_padded / 4) + k / 4) * 64 + (n % 16) * 4 + k % 4;
        w.packed8[at] = static_cast<int8_t>(src[static_cast<long long>(k) * out_c + n]);
      }
    }
  } else {
    // Blocks of 8 columns; 2 consecutive depths of a column share a lane.
    w.depth_padded = round_up(depth, 2);
    w.out_padded = round_up(out_c, 8);
    w.packed16.assign(static_cast<size_t>(w.depth_padded) * w.out_padded, 0);
    for (int k = 0; k < depth; ++k) {
      for (int n = 0; n < out_c; ++n) {
        const size_t at =
            (static_cast<size_t>(n / 8) * (w.depth_padded / 2) + k / 2) * 16 + (n % 8) * 2 + k % 2;
        w.packed16[at] = static_cast<int16_t>(src[static_cast<long long>(k) * out_c + n]);
      }
    }
  }
  return w;
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
  // No int32 lane may overflow, in the shifted unsigned form either, even for
  // outputs that are computed again.
  for (int n = 0; n < weights.out_c; ++n) {
    if (weights.abs_sum[n] * 255 >= (int64_t{1} << 31)) return plan;
  }
  plan.integer = largest < weights.min_largest_limit;
  plan.per_output = !plan.integer;
  plan.signed_input = !unsigned_codes;
  return plan;
}

bool conv_int8_integer_path(const ConvGeometry& s, const float* input, const float* pad, const Tensor* weight,
                            Int8PackedWeights* cache, const Int8OutputStage& stage, float* out) {
  if (!int8_integer_path_enabled()) return false;
  const int depth = (s.kernel_h * s.kernel_w) * s.in_c;
  const Int8PackedWeights& w = pack_int8_weights(weight, depth, s.out_c, cache);
  const long long count = static_cast<long long>(s.batch) * s.in_h * s.in_w * s.in_c;
  const int pad_count = pad == nullptr ? 0 : s.in_c;
  const Int8DotPlan plan = plan_int8_dot(input, count, pad, pad_count, w);
  if (!plan.integer && !plan.per_output) return false;
  const bool checked = plan.per_output;
  // Unproven outputs are summed again by the float kernel of the float path.
  const Int8FloatGemmKernels* float_gemm = nullptr;
  const float* float_weights = nullptr;
  if (checked) {
    float_gemm = &int8_float_gemm_kernels().get();
    float_weights = weight->data<float>();
    if (float_gemm->packed) {
      if (!cache->float_weights) cache->float_weights = std::make_shared<Int8FloatPackedWeights>();
      float_weights = pack_float_weights_8x32(weight, depth, s.out_c, cache->float_weights.get());
    }
  }
  const Int8DotKernels& dot = int8_dot_kernels().get();
  // Without padding (1 x 1 products) no tap reads the pad codes: the image's
  // own codes stand in for them.
  if (dot.format == Int8DotFormat::kU8S8) {
    // vpdpbusd multiplies unsigned bytes: signed codes are shifted by 128 and
    // 128 * sum(w) is taken off each column again.
    const int shift = plan.signed_input ? 128 : 0;
    const uint8_t* codes = convert_codes<uint8_t>(input, count, shift, ScratchSlot::kCodes);
    const uint8_t* pad_codes =
        pad == nullptr ? codes : convert_codes<uint8_t>(pad, s.in_c, shift, ScratchSlot::kPadCodes);
    run_chunks(s, codes, pad_codes, w, dot,
               plan.signed_input ? w.shift_correction.data() : w.no_correction.data(), stage, checked, shift,
               float_gemm, float_weights, out);
  } else {
    const int16_t* codes = convert_codes<int16_t>(input, count, 0, ScratchSlot::kCodes);
    const int16_t* pad_codes =
        pad == nullptr ? codes : convert_codes<int16_t>(pad, s.in_c, 0, ScratchSlot::kPadCodes);
    run_chunks(s, codes, pad_codes, w, dot, w.no_correction.data(), stage, checked, 0, float_gemm,
               float_weights, out);
  }
  return true;
}

void dot_s16_s32_portable(const int16_t* a, int depth_padded, const int16_t* b, int out_padded, int rows,
                          int32_t* c) {
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

void requantize_s32_portable(const Int8RequantizeArgs& args, const int32_t* sums, int ld, int rows,
                             float* out) {
  for (int r = 0; r < rows; ++r) {
    const int32_t* src = sums + static_cast<long long>(r) * ld;
    float* dst = out + static_cast<long long>(r) * args.channels;
    for (int c = 0; c < args.channels; ++c) {
      const float a = static_cast<float>(src[c] - args.correction[c]) * args.multiplier + args.bias[c];
      const float v =
          args.negative_scale != nullptr && a < 0 ? a * args.negative_scale[c] : a * args.scale[c];
      // Round half to even (the default rounding mode), clamp, offset.
      float q = std::nearbyint(v);
      q = q < args.lo ? args.lo : q;
      q = args.hi < q ? args.hi : q;
      dst[c] = args.offset + q;
    }
  }
}

void scan_codes_f32_portable(const float* v, long long count, float* lo_out, float* hi_out, bool* integral) {
  float lo = *lo_out, hi = *hi_out;
  bool ok = *integral;
  for (long long i = 0; i < count; ++i) {
    const float x = v[i];
    const bool in_range = x >= -128.0f && x <= 255.0f;  // false for NaN
    const float clamped = in_range ? x : 0.0f;
    ok &= in_range & (static_cast<float>(static_cast<int>(clamped)) == x);
    lo = x < lo ? x : lo;
    hi = x > hi ? x : hi;
  }
  *lo_out = lo;
  *hi_out = hi;
  *integral = ok;
}

void convert_codes_f32_u8_portable(const float* v, long long count, int shift, uint8_t* out) {
  for (long long i = 0; i < count; ++i) out[i] = static_cast<uint8_t>(static_cast<int>(v[i]) + shift);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
