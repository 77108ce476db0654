#ifndef KOVRAEXECUTOR_OPS_INT8_DOT_PATH_H_
#define KOVRAEXECUTOR_OPS_INT8_DOT_PATH_H_

#include <cstdint>
#include <memory>
#include <vector>

#include "ops/int8/int8_conv_param.h"
#include "ops/kernels/activate_int8.h"
#include "ops/kernels/avx_common.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The exact integer path of the int8 convolutions. When every input code and
// pad value is an integer of 8 bits and every weight an integer in
// [-128, 127], an output whose partial sums all stay below 2^24 in magnitude
// has each float partial sum exactly representable, so float accumulation in
// any order and an int32 dot product give the same value. The kernels then run
// on 8/16-bit integers; the output stage is the same as on the float path.
// Two bounds prove it for an output over patch x and weight column w, either
// one sufficing: max|x| * sum|w| < 2^24, and (Cauchy-Schwarz) sum x^2 * sum
// w^2 < 2^48. When the first holds for the largest code of the whole input and
// every column, no output needs a check; otherwise each output is checked
// against its own patch and the ones neither bound proves are computed again
// in float, in reduction order.

// ---- the int8 dot-product family ----
// c[r][n] = sum_k a[r][k] * b[k][n] for r < rows and n < out_padded, with b
// packed by pack_int8_weights for the table's format; rows is a multiple of
// the table's row block and c has out_padded columns.
enum class Int8DotFormat {
  kU8S8 = 0,  // unsigned codes x signed weights, 4 depths per 32-bit lane, 16-column blocks
  kS16 = 1,   // 16-bit codes and weights, 2 depths per lane, 8-column blocks
};
typedef void (*DotU8Fn)(const uint8_t* a, int depth_padded, const int8_t* b, int out_padded, int rows,
                        int32_t* c);
typedef void (*DotS16Fn)(const int16_t* a, int depth_padded, const int16_t* b, int out_padded, int rows,
                         int32_t* c);
struct Int8DotKernels {
  KernelIsa isa;
  const char* name;
  Int8DotFormat format;
  int row_block;
  DotU8Fn dot_u8;    // kU8S8 only
  DotS16Fn dot_s16;  // kS16 only
};
const KernelTable<Int8DotKernels>& int8_dot_kernels();
void dot_s16_s32_portable(const int16_t* a, int depth_padded, const int16_t* b, int out_padded, int rows,
                          int32_t* c);

// ---- the requantize and code-scan family ----
// What the vectorised output stage needs: the plain and split-scale
// activations with integer output.
struct Int8RequantizeArgs {
  int channels = 0;
  const int32_t* correction = nullptr;
  const float* bias = nullptr;
  const float* scale = nullptr;
  const float* negative_scale = nullptr;  // split scale for values below 0, or null
  float multiplier = 1.0f, lo = 0.0f, hi = 0.0f, offset = 0.0f;
};
struct Int8CodeKernels {
  KernelIsa isa;
  const char* name;
  // out[r][c] = offset + clamp(round_half_even(a * scale), lo, hi) with
  // a = float(sums[r][c] - correction[c]) * multiplier + bias[c]: the output
  // stage of the "None"/"Relu"/"Relu6" and split-scale activations.
  void (*requantize)(const Int8RequantizeArgs& args, const int32_t* sums, int ld, int rows, float* out);
  // Widens lo/hi to the codes' range and clears `integral` when one is not an
  // integer in [-128, 255]. Every variant gives the same results while
  // `integral` stays set (a NaN may leave lo/hi apart, never `integral`).
  void (*scan)(const float* v, long long count, float* lo, float* hi, bool* integral);
  // out[i] = int(v[i]) + shift, for codes that scan() accepted.
  void (*convert_u8)(const float* v, long long count, int shift, uint8_t* out);
};
const KernelTable<Int8CodeKernels>& int8_code_kernels();
void requantize_s32_portable(const Int8RequantizeArgs& args, const int32_t* sums, int ld, int rows,
                             float* out);
void scan_codes_f32_portable(const float* v, long long count, float* lo, float* hi, bool* integral);
void convert_codes_f32_u8_portable(const float* v, long long count, int shift, uint8_t* out);

struct Int8FloatPackedWeights;

// Weights packed for one dot-product format, with what the checks need; kept
// per operator and keyed by the weight tensor's version.
struct Int8PackedWeights {
  uint64_t version = 0;  // 0: nothing packed yet
  Int8DotFormat format = Int8DotFormat::kS16;
  bool fits = false;  // every weight an integer in [-128, 127]
  int depth = 0, out_c = 0;
  int depth_padded = 0, out_padded = 0;
  std::vector<int64_t> abs_sum;  // per output channel, sum of |w|
  std::vector<int32_t> sum;      // per output channel, sum of w
  // Per output channel, the bounds as limits on the patch: its sums are exact
  // when max|x| < largest_limit or sum x^2 < square_limit (ceil(2^24 / sum|w|)
  // and ceil(2^48 / sum w^2)); the smallest of each over all channels clears
  // a patch for every channel at once.
  std::vector<int64_t> largest_limit, square_limit;
  int64_t min_largest_limit = 0, min_square_limit = 0;
  // Taken off each column when signed codes are shifted to unsigned bytes
  // (128 * sum), or nothing.
  std::vector<int32_t> shift_correction, no_correction;
  std::vector<int8_t> packed8;
  std::vector<int16_t> packed16;
  // For the float kernel that sums unproven outputs, packed when first needed.
  std::shared_ptr<Int8FloatPackedWeights> float_weights;
};

// Tests switch the integer path off to run the float kernel on the same data.
void set_int8_integer_path_enabled(bool enabled);
bool int8_integer_path_enabled();

// Outputs of the integer path since the last reset: those the integer
// kernels gave, and those computed again in float order because no bound
// proved their sums exact. Counted once per block of rows.
struct Int8PathCounts {
  long long integer = 0;
  long long recomputed = 0;
};
Int8PathCounts int8_path_counts();
void reset_int8_path_counts();

// Whether the integer path gives the exact sums for these codes (`integer`:
// every output, by the worst case; `per_output`: the kernels run and each
// output is checked against its own patch), and whether the inputs need the
// signed form.
struct Int8DotPlan {
  bool integer = false;
  bool per_output = false;
  bool signed_input = false;
};
Int8DotPlan plan_int8_dot(const float* input, long long count, const float* pad, int pad_count,
                          const Int8PackedWeights& weights);

// Packs `weight` (depth x out_c floats) for the current dot table unless
// `cache` already holds this version of it in that format.
const Int8PackedWeights& pack_int8_weights(const Tensor* weight, int depth, int out_c,
                                           Int8PackedWeights* cache);

// Runs the convolution on the integer kernels and the output stage into `out`
// (N x OH x OW x C_out) and returns true, or returns false without writing
// when the codes do not allow it. Outputs whose sums no bound proves exact are
// computed in float in reduction order from the same codes and `weight`.
// `pad` holds one value per input channel, or is null when no tap falls
// outside the image. Working memory is the calling thread's and the workers'
// scratch: nothing is allocated once it has grown.
bool conv_int8_integer_path(const ConvGeometry& shape, const float* input, const float* pad,
                            const Tensor* weight, Int8PackedWeights* cache, const Int8OutputStage& stage,
                            float* out);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_DOT_PATH_H_
