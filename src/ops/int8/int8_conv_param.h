#ifndef KOVRAEXECUTOR_OPS_INT8_CONV_PARAM_H_
#define KOVRAEXECUTOR_OPS_INT8_CONV_PARAM_H_

#include <string>
#include <vector>

#include "op_executor.h"
#include "ops/kernels/conv2d_cpu.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Fused activations of the int8 convolution and matrix operators, resolved
// once from "ActionType" so the output stage does not compare strings per value.
enum class Int8Activation {
  kScale,  // "None", "Relu", "Relu6" and every unknown name: a * OUTPUTSCALE[c]
  kLeakyRelu,  // "LeakyRelu" and "PRelu": split OUTPUTSCALE
  kSwish,
  kSigmoid,
  kSelu,
  kTanh,
  kElu,
  kHardSwish,
  kMish,
  kSoftplus,
  kSoftsign,
};

Int8Activation int8_activation_kind(const std::string& action_type);

// What the 32-bit output path does after the activation, also resolved once.
enum class Int8FloatOutputAction { kNone, kRelu, kRelu6, kLeakyRelu };
Int8FloatOutputAction int8_float_output_action(const std::string& action_type);

// What inference_shape prepared for the inputs it saw. execute compares its
// inputs with it (shapes and count, without allocating) and prepares again
// only when they differ, so direct callers that skip inference_shape still
// get every check.
struct Int8Prepared {
  bool ready = false;
  size_t input_count = 0;
  std::vector<int> input_shape, weight_shape, output_shape;
  int bias_size = 0;
  ConvGeometry geometry;         // convolutions; a product is a 1 x 1 one
  int multiplier = 1;            // 2^m, truncated
  bool tiled = false;            // the tiled (and integer) path, else the direct loop
  std::vector<float> pad;        // one value per input channel
  std::vector<float> zero_bias;  // out_c zeros standing in for a missing bias
};
bool int8_prepared_for(const Int8Prepared& prepared, const std::vector<const Tensor*>& inputs);
// Activations that work on SUMSCALE x a and scale the result by QSCALE.
bool int8_activation_uses_sum_scale(Int8Activation kind);

// What the three int8 accumulate-and-requantize operators share: the fused
// activation and the output stage (multiplier, bias, activation, rounding,
// clamping, offset).
struct Int8OutputParam : BaseParam {
  std::string ActionType = "None";
  Int8Activation action = Int8Activation::kScale;
  std::vector<int> multify_factor;
  float alpha = 1.0f;
  float elu_alpha = 1.0f;
  float hswish_add_scalar_value = 3.0f;
  float hswish_mul_scalar_value = 1.0f / 6.0f;
  int maxValue = 127;
  int minValue = -128;
  int offset = 0;
  std::vector<float> OUTPUTSCALE;
  std::vector<float> SUMSCALE;
  std::vector<float> QSCALE;
  int output_bitwidth = 8;
  bool has_bias = false;
  Int8FloatOutputAction float_action = Int8FloatOutputAction::kNone;
  Int8Prepared prepared;

  void set_action_type(const std::string& name) {
    ActionType = name;
    action = int8_activation_kind(name);
    float_action = int8_float_output_action(name);
  }
};

// Geometry and input side of the int8 convolutions.
struct Int8ConvBaseParam : Int8OutputParam {
  std::vector<int> dilations;
  int input_bitwidth = 8;
  int input_offset = 0;
  std::string padding;
  std::vector<int> pads;
  float pad_value = 0.0f;
  std::vector<int> strides;
};

// Reads the attributes shared by the three operators. A missing required
// attribute stops with `Check failed: suc=="Do not find the KEY in <label>!!!"`.
void parse_int8_output_param(const NodeDef& node, const char* label, bool require_bounds,
                             Int8OutputParam* param);
void parse_int8_conv_param(const NodeDef& node, const char* label, Int8ConvBaseParam* param);

// The accumulator multiplier 2^m, truncated to an integer; m outside [-126, 30]
// stops with a message naming `op`.
int int8_multiplier(const Int8OutputParam& param, const char* op);

// Scale lists must cover every output channel the activation reads.
void check_int8_output_param(const Int8OutputParam& param, int channels, const char* op);

ConvGeometry int8_conv_shape(const Int8ConvBaseParam& param, const std::vector<int>& input_shape,
                             int kernel_h, int kernel_w, int out_c, const char* op);

// Records what every execute compares against: the inputs' count and shapes,
// the output shape, the bias flag and, when the node has no bias, out_c zeros.
void record_int8_inputs(const std::vector<const Tensor*>& inputs, const std::vector<int>& output_shape,
                        int out_c, Int8OutputParam* param);

// The data input as floats: the tensor itself when it holds floats, else a
// converted copy (int32 models) in the calling thread's scratch. Stops on any
// other element type.
class Int8FloatView {
 public:
  Int8FloatView(const Tensor* tensor, const char* op);
  const float* data() const { return data_; }

 private:
  const float* data_ = nullptr;
};

// Where the kernels write: the output tensor itself when it holds floats, else
// a float buffer in the calling thread's scratch, converted to the tensor's
// int32 elements (saturated) by finish().
class Int8OutputBuffer {
 public:
  Int8OutputBuffer(Tensor* output, const char* op);
  float* data() { return data_; }
  void finish();

 private:
  Tensor* output_;
  bool converted_ = false;
  float* data_ = nullptr;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_INT8_CONV_PARAM_H_
