#include "ops/int8/int8_conv_param.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "common.h"
#include "op_attr.h"
#include "ops/common/conv_attrs.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/gemm_f32.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

Int8Activation int8_activation_kind(const std::string& name) {
  // Tested in this order; the first match wins.
  if (name == "LeakyRelu" || name == "PRelu") return Int8Activation::kLeakyRelu;
  if (name == "Swish") return Int8Activation::kSwish;
  if (name == "Sigmoid") return Int8Activation::kSigmoid;
  if (name == "Selu") return Int8Activation::kSelu;
  if (name == "Tanh") return Int8Activation::kTanh;
  if (name == "Elu") return Int8Activation::kElu;
  if (name == "HardSwish") return Int8Activation::kHardSwish;
  if (name == "Mish") return Int8Activation::kMish;
  if (name == "Softplus") return Int8Activation::kSoftplus;
  if (name == "Softsign") return Int8Activation::kSoftsign;
  return Int8Activation::kScale;
}

Int8FloatOutputAction int8_float_output_action(const std::string& name) {
  if (name == "Relu") return Int8FloatOutputAction::kRelu;
  if (name == "Relu6") return Int8FloatOutputAction::kRelu6;
  if (name == "LeakyRelu") return Int8FloatOutputAction::kLeakyRelu;
  return Int8FloatOutputAction::kNone;
}

bool int8_prepared_for(const Int8Prepared& p, const std::vector<const Tensor*>& inputs) {
  return p.ready && inputs.size() == p.input_count && inputs[0]->shape() == p.input_shape &&
         inputs[1]->shape() == p.weight_shape && (p.input_count < 3 || inputs[2]->size() == p.bias_size);
}

bool int8_activation_uses_sum_scale(Int8Activation kind) {
  return kind != Int8Activation::kScale && kind != Int8Activation::kLeakyRelu;
}

namespace {

std::string missing(const char* key, const char* label) {
  return std::string("Do not find the ") + key + " in " + std::string(label) + "!!!";
}

}  // namespace

void parse_int8_output_param(const NodeDef& node, const char* label, bool require_bounds,
                             Int8OutputParam* param) {
  std::string action = param->ActionType;
  read_string(node, "ActionType", action);
  param->set_action_type(action);
  read_int_list(node, "multify_factor", param->multify_factor);
  read_float(node, "alpha", param->alpha);
  read_float(node, "elu_alpha", param->elu_alpha);
  read_float(node, "hswish_add_scalar_value", param->hswish_add_scalar_value);
  read_float(node, "hswish_mul_scalar_value", param->hswish_mul_scalar_value);
  const bool has_max = read_int(node, "maxValue", param->maxValue);
  const bool has_min = read_int(node, "minValue", param->minValue);
  if (require_bounds) {
    require_attr(has_max, missing("maxValue", label));
    require_attr(has_min, missing("minValue", label));
  }
  read_int(node, "offset", param->offset);
  require_float_list(node, "OUTPUTSCALE", param->OUTPUTSCALE, missing("OUTPUTSCALE", label));
  if (read_float_list(node, "SUMSCALE", param->SUMSCALE)) {
    read_float_list(node, "QSCALE", param->QSCALE);
  }
  read_int(node, "output_bitwidth", param->output_bitwidth);
}

void parse_int8_conv_param(const NodeDef& node, const char* label, Int8ConvBaseParam* param) {
  parse_int8_output_param(node, label, false, param);
  read_int_list(node, "dilations", param->dilations);
  read_int(node, "input_bitwidth", param->input_bitwidth);
  read_int(node, "input_offset", param->input_offset);
  require_string(node, "padding", param->padding, missing("padding", label));
  read_int_list(node, "pads", param->pads);
  read_float(node, "pad_value", param->pad_value);
  require_int_list(node, "strides", param->strides, missing("strides", label));
}

int int8_multiplier(const Int8OutputParam& param, const char* op) {
  const int m = param.multify_factor.empty() ? 0 : param.multify_factor[0];
  KOVRA_ENSURE_MSG(m >= -126 && m <= 30, "multify_factor[0] <= 30",
                   std::string(op) + ": multify_factor " + std::to_string(m) + " is out of range");
  return static_cast<int>(std::exp2(static_cast<double>(m)));
}

void check_int8_output_param(const Int8OutputParam& param, int channels, const char* op) {
  const long long c = channels;
  check_attr_size(param.OUTPUTSCALE.size(), param.action == Int8Activation::kLeakyRelu ? 2 * c : c,
                  "OUTPUTSCALE", op);
  if (int8_activation_uses_sum_scale(param.action)) {
    check_attr_size(param.SUMSCALE.size(), c, "SUMSCALE", op);
    check_attr_size(param.QSCALE.size(), c, "QSCALE", op);
  }
}

ConvGeometry int8_conv_shape(const Int8ConvBaseParam& param, const std::vector<int>& input_shape,
                             int kernel_h, int kernel_w, int out_c, const char* op) {
  KOVRA_ENSURE_MSG(input_shape.size() == 4, "input_tensor->shape().size() == 4",
                   "Wrong input shape in " + std::string(op) + "!!!");
  const ConvSteps steps =
      conv_steps(param.strides, param.dilations, param.pads, param.padding, op);
  ConvGeometry g;
  g.batch = input_shape[0];
  g.in_h = input_shape[1];
  g.in_w = input_shape[2];
  g.in_c = input_shape[3];
  g.kernel_h = kernel_h;
  g.kernel_w = kernel_w;
  g.out_c = out_c;
  conv_output_hw(input_shape, kernel_h, kernel_w, steps, op, g.out_h, g.out_w);
  g.stride_h = steps.stride_h;
  g.stride_w = steps.stride_w;
  g.dilation_h = steps.dilation_h;
  g.dilation_w = steps.dilation_w;
  if (steps.same) {
    g.pad_top = same_pad_tiled(g.out_h, g.stride_h, kernel_h, g.in_h);
    g.pad_left = same_pad_tiled(g.out_w, g.stride_w, kernel_w, g.in_w);
  } else {
    g.pad_top = steps.pads[0];
    g.pad_left = steps.pads[2];
  }
  g.pad_value = param.pad_value;
  return g;
}

void record_int8_inputs(const std::vector<const Tensor*>& inputs, const std::vector<int>& output_shape,
                        int out_c, Int8OutputParam* param) {
  Int8Prepared& p = param->prepared;
  param->has_bias = inputs.size() >= 3;
  p.input_count = inputs.size();
  p.input_shape = inputs[0]->shape();
  p.weight_shape = inputs[1]->shape();
  p.output_shape = output_shape;
  p.bias_size = param->has_bias ? inputs[2]->size() : 0;
  // Weight tensors are never empty, and their dimensions multiply to at most
  // their element count, so `out_c` is a valid positive size here.
  p.zero_bias.assign(param->has_bias ? 0 : out_c, 0.0f);
  p.ready = true;
}

Int8FloatView::Int8FloatView(const Tensor* tensor, const char* op) {
  if (tensor->data_type() == Tensor::DT_INT32) {
    const int32_t* src = tensor->data<int32_t>();
    float* copy = scratch_floats(ScratchSlot::kInputCopy, static_cast<size_t>(tensor->size()));
    for (int i = 0; i < tensor->size(); ++i) copy[i] = static_cast<float>(src[i]);
    data_ = copy;
    return;
  }
  check_float(tensor, op);
  data_ = tensor->data<float>();
}

Int8OutputBuffer::Int8OutputBuffer(Tensor* output, const char* op) : output_(output) {
  if (output->data_type() == Tensor::DT_INT32) {
    converted_ = true;
    data_ = scratch_floats(ScratchSlot::kOutputCopy, static_cast<size_t>(output->size()));
    std::fill(data_, data_ + output->size(), 0.0f);
    return;
  }
  check_float(output, op);
  data_ = output->mutable_data<float>();
}

void Int8OutputBuffer::finish() {
  if (!converted_) return;
  int32_t* dst = output_->mutable_data<int32_t>();
  for (int i = 0; i < output_->size(); ++i) {
    const float v = data_[i];
    if (!(v == v)) {
      dst[i] = 0;
    } else if (v >= 2147483647.0f) {
      dst[i] = INT32_MAX;
    } else if (v <= -2147483648.0f) {
      dst[i] = INT32_MIN;
    } else {
      dst[i] = static_cast<int32_t>(v);
    }
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
