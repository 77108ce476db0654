#ifndef KOVRAEXECUTOR_OPS_INT8_DOT_PATH_H_
#define KOVRAEXECUTOR_OPS_INT8_DOT_PATH_H_

#include <cstdint>
#include <memory>

#include "ops/kernels/activate_int8.h"
#include "ops/int8/int8_conv_param.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// The exact integer path of the int8 convolutions. When every input code and
// pad value is an integer of 8 bits, every weight an integer in [-128, 127],
// and sum |x| * |w| of every output stays below 2^24, each float partial sum
// is an exactly representable integer, so float accumulation in any order and
// an int32 dot product give the same value. The kernels then run on 8/16-bit
// integers; the output stage is the same as on the float path.

// Weights packed for the active kernel, with what the checks need.
struct Int8PackedWeights {
  const void* source = nullptr;
  int size = 0;
  int format = -1;
  bool fits = false;  // every weight an integer in [-128, 127]
  int depth = 0, out_c = 0;
  int depth_padded = 0, out_padded = 0;
  std::vector<int64_t> abs_sum;  // per output channel, sum of |w|
  std::vector<int32_t> sum;      // per output channel, sum of w
  std::vector<int8_t> packed8;
  std::vector<int16_t> packed16;
};

// Tests switch the integer path off to run the float kernel on the same data.
void set_int8_integer_path_enabled(bool enabled);
bool int8_integer_path_enabled();

// Whether the integer path gives the exact sums for these codes, and whether
// the inputs need the signed form. `weights` is depth x out_c.
struct Int8DotPlan {
  bool integer = false;
  bool signed_input = false;
};
Int8DotPlan plan_int8_dot(const float* input, long long count, const float* pad, int pad_count,
                          const Int8PackedWeights& weights);

// Packs `weight` (depth x out_c floats) for the active kernel unless `cache`
// already holds it.
const Int8PackedWeights& pack_int8_weights(const Tensor* weight, int depth, int out_c,
                                           std::shared_ptr<Int8PackedWeights>* cache);

// Runs the convolution on the integer kernels and the output stage into `out`
// (N x OH x OW x C_out) and returns true, or returns false without writing
// when the codes do not allow it. `pad` holds one value per input channel.
bool conv_int8_integer_path(const ConvGeometry& shape, const float* input, const float* pad,
                            const Tensor* weight, std::shared_ptr<Int8PackedWeights>* cache,
                            const Int8OutputStage& stage, float* out);

// Kernels: c[r][n] = sum_k a[r][k] * b[k][n] for r < rows and n < out_padded,
// with b packed by pack_int8_weights; rows is a multiple of the kernel's row
// block (6 for VNNI, 4 otherwise) and c has out_padded columns.
void gemm_u8s8_s32_6x64_avx512vnni(const uint8_t* a, int depth_padded, const int8_t* b,
                                   int out_padded, int rows, int32_t* c);
void gemm_s16_s32_4x24_avx2(const int16_t* a, int depth_padded, const int16_t* b, int out_padded,
                            int rows, int32_t* c);
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
void requantize_s32_rows_avx512(const Int8RequantizeArgs& args, const int32_t* sums, int ld,
                                int rows, float* out);
// Widens lo/hi to the codes' range and clears `integral` when one is not an integer.
void scan_codes_avx512(const float* v, long long count, float* lo, float* hi, bool* integral);
void convert_codes_u8_avx512(const float* v, long long count, int shift, uint8_t* out);

void gemm_s16_s32_portable(const int16_t* a, int depth_padded, const int16_t* b, int out_padded,
                           int rows, int32_t* c);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_DOT_PATH_H_
