#include "ops/kernels/conv2d_int8.h"

#include <algorithm>
#include <cstring>

#include "common.h"
#include "kvdl.h"
#include "ops/kernels/avx_common.h"
#include "ops/kernels/int8_dot_path.h"
#include "ops/common/op_checks.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const char kOp[] = "Z40Conv2DInt8";
constexpr int kTilePixels = 8;
constexpr int kMaxThreads = 16;

// Everything both convolution paths need, checked once per call.
struct ConvCall {
  ConvGeometry shape;
  const float* input = nullptr;
  const float* weight = nullptr;
  const float* bias = nullptr;
  int groups = 1;
  int multiplier = 1;
  std::vector<float> pad;  // one value per input channel
};

ConvCall prepare_call(const std::vector<const Tensor*>& inputs, const Tensor* output,
                      const Z40Conv2DInt8Param& p, const Int8FloatView& input) {
  check_input_count(inputs, 3, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const Tensor* weight = inputs[1];
  const Tensor* bias = inputs[2];
  KOVRA_ENSURE_MSG(weight->shape().size() == 4, "weight->shape().size() == 4",
                   "Wrong kernel shape in Z40Conv2DInt8!!!");
  check_float(weight, kOp);
  check_float(bias, kOp);
  const std::vector<int>& ws = weight->shape();
  ConvCall call;
  call.shape = int8_conv_shape(p, inputs[0]->shape(), ws[0], ws[1], ws[3], kOp);
  const ConvGeometry& s = call.shape;
  KOVRA_ENSURE_MSG(p.groups >= 1 && s.in_c % p.groups == 0 && s.out_c % p.groups == 0,
                   "in_channels % groups == 0 && out_channels % groups == 0",
                   std::string(kOp) + ": " + std::to_string(s.in_c) + " input and " +
                       std::to_string(s.out_c) + " output channels do not split into " +
                       std::to_string(p.groups) + " groups");
  KOVRA_ENSURE_MSG(ws[2] == s.in_c / p.groups, "weight->shape()[2] == in_channels / groups",
                   std::string(kOp) + ": weights take " + std::to_string(ws[2]) +
                       " input channels per group, the input gives " + std::to_string(s.in_c / p.groups));
  check_min_size(bias, s.out_c, kOp);
  check_int8_output_param(p, s.out_c, kOp);
  if (p.first_layer) {
    check_attr_size(p.input_mean.size(), s.in_c, "input_mean", kOp);
    check_attr_size(p.input_var.size(), s.in_c, "input_var", kOp);
  }
  const std::vector<int> expected = {s.batch, s.out_h, s.out_w, s.out_c};
  KOVRA_ENSURE_MSG(output->shape() == expected, "output->shape() == inferred shape",
                   std::string(kOp) + ": the output tensor does not have the inferred shape");
  call.input = input.data();
  call.weight = weight->data<float>();
  call.bias = bias->data<float>();
  call.groups = p.groups;
  call.multiplier = int8_multiplier(p, kOp);
  // Padded cells: an image input (3 channels) of the first layer pads with the
  // mean itself, so padding quantizes exactly to the input offset; other
  // first layers pad with the rounded mean; everything else with "pad_value".
  call.pad.assign(s.in_c, p.pad_value);
  if (p.first_layer) {
    for (int i = 0; i < s.in_c; ++i) {
      call.pad[i] = s.in_c == 3 ? p.input_mean[i] : kvdl::tensorflow_round_cpu(p.input_mean[i]);
    }
  }
  return call;
}

// One worker of the tiled path: tiles t, t + T, t + 2T, ... of every image.
struct TileWorker {
  int index = 0;
  int count = 1;
  const float* input = nullptr;
  const float* weight = nullptr;
  const float* bias = nullptr;
  float* patch = nullptr;
  float* output = nullptr;
  const float* pad = nullptr;
  const AVXConvInt8Param* param = nullptr;
};

// The int8 worker entry; its own namespace keeps it apart from the float
// convolution's entry of the same name.
namespace int8_tiles {
void* computeConv_tiled(void* arg) {
  const TileWorker& w = *static_cast<const TileWorker*>(arg);
  const AVXConvInt8Param& p = *w.param;
  const ConvGeometry& s = p.geometry;
  const int pixels = s.out_h * s.out_w;
  const int tiles = (pixels + kTilePixels - 1) / kTilePixels;
  const int kp = (s.kernel_h * s.kernel_w);
  const long long patch_row = static_cast<long long>(kp) * s.in_c;
  for (int b = 0; b < s.batch; ++b) {
    const float* image = w.input + static_cast<long long>(b) * s.in_h * s.in_w * s.in_c;
    for (int tile = w.index; tile < tiles; tile += w.count) {
      const int first = tile * kTilePixels;
      const int len = std::min(kTilePixels, pixels - first);
      for (int j = 0; j < len; ++j) {
        const int oy = (first + j) / s.out_w, ox = (first + j) % s.out_w;
        float* dst = w.patch + j * patch_row;
        for (int ky = 0; ky < s.kernel_h; ++ky) {
          const int iy = oy * s.stride_h - s.pad_top + ky * s.dilation_h;
          for (int kx = 0; kx < s.kernel_w; ++kx, dst += s.in_c) {
            const int ix = ox * s.stride_w - s.pad_left + kx * s.dilation_w;
            const bool inside = iy >= 0 && iy < s.in_h && ix >= 0 && ix < s.in_w;
            const float* src =
                inside ? image + (static_cast<long long>(iy) * s.in_w + ix) * s.in_c : w.pad;
            std::memcpy(dst, src, sizeof(float) * s.in_c);
          }
        }
      }
      float* out = w.output + (static_cast<long long>(b) * pixels + first) * s.out_c;
      if (p.packed_weights != nullptr) {
        // Codes are a function of value and channel, so quantizing the patch
        // first gives the kernel the same operands.
        if (p.first_layer) {
          const float offset = static_cast<float>(p.input_offset);
          for (long long k = 0; k < len * patch_row; ++k) {
            const int i = static_cast<int>(k % s.in_c);
            w.patch[k] = first_layer_code(w.patch[k], p.input_mean[i], p.input_var[i], offset);
          }
        }
        gemm_float_int8_8x32_avx512(out, w.patch, p.packed_weights, w.bias, s.in_c, s.out_c, len, kp,
                                    nullptr, 0.0f, p.multiplier);
      } else {
        gemm_float_int8(out, w.patch, w.weight, w.bias, p.input_mean, p.input_var, p.first_layer,
                        s.in_c, s.out_c, len, kp, nullptr, 0.0f, p.multiplier, p.input_offset);
      }
      int8_output_scaled_rows(p.stage, out, out, len);
    }
  }
  return nullptr;
}
}  // namespace int8_tiles

}  // namespace

float first_layer_code(float x, float mean, float scale, float input_offset) {
  const float q = input_offset + kvdl::tensorflow_round_cpu((x - mean) * scale);
  return q < 0.0f ? 0.0f : (q > 255.0f ? 255.0f : q);
}

const Int8FloatPackedWeights& pack_float_weights_8x32(const Tensor* weight, int depth, int out_c,
                                                      std::shared_ptr<Int8FloatPackedWeights>* cache) {
  const float* src = weight->data<float>();
  const Int8FloatPackedWeights* held = cache->get();
  if (held != nullptr && held->source == src && held->size == weight->size()) return *held;
  auto packed = std::make_shared<Int8FloatPackedWeights>();
  packed->source = src;
  packed->size = weight->size();
  const int blocks = (out_c + 31) / 32;
  packed->packed.assign(static_cast<size_t>(blocks) * depth * 32, 0.0f);
  for (long long k = 0; k < depth; ++k) {
    for (int n = 0; n < out_c; ++n) {
      packed->packed[(static_cast<size_t>(n / 32) * depth + k) * 32 + n % 32] = src[k * out_c + n];
    }
  }
  *cache = packed;
  return *packed;
}

void gemm_float_int8(float* out, const float* in, const float* weight, const float* bias,
                     const float* mean, const float* scale, bool first_layer, int in_channels,
                     int out_channels, int rows, int kernel_positions,
                     void (*activate)(float*, int, float), float alpha, int multiplier,
                     int input_offset) {
  const long long depth = static_cast<long long>(kernel_positions) * in_channels;
  const float offset = static_cast<float>(input_offset);
  const float mult = static_cast<float>(multiplier);
  for (int r = 0; r < rows; ++r) {
    float* o = out + static_cast<long long>(r) * out_channels;
    const float* x = in + r * depth;
    std::fill(o, o + out_channels, 0.0f);
    for (long long k = 0; k < depth; ++k) {
      float v = x[k];
      if (first_layer) {
        const int i = static_cast<int>(k % in_channels);
        v = first_layer_code(v, mean[i], scale[i], offset);
      }
      const float* wk = weight + k * out_channels;
      // Columns are independent, so a vectorised loop keeps every sum's order.
      for (int n = 0; n < out_channels; ++n) o[n] += v * wk[n];
    }
    for (int n = 0; n < out_channels; ++n) o[n] = o[n] * mult + bias[n];
    if (activate != nullptr) activate(o, out_channels, alpha);
  }
}

void conv2d_avx_int8(const std::vector<const Tensor*>& inputs, Tensor* output,
                     Z40Conv2DInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  KOVRA_ENSURE_MSG(param->groups == 1, "groups == 1", "conv2d_avx_int8 computes ungrouped convolutions only");
  const Int8FloatView input(inputs[0], kOp);
  const ConvCall call = prepare_call(inputs, output, *param, input);
  const ConvGeometry& s = call.shape;
  Int8OutputBuffer out(output, kOp);
  AVXConvInt8Param p;
  p.geometry = s;
  p.ActionType = param->ActionType;
  p.first_layer = param->first_layer;
  p.input_mean = param->input_mean.data();
  p.input_var = param->input_var.data();
  p.input_offset = param->input_offset;
  p.multiplier = call.multiplier;
  p.stage = make_int8_output_stage(*param, call.bias, call.multiplier, s.out_c);

  if (!param->first_layer &&
      conv_int8_integer_path(s, call.input, call.pad.data(), inputs[1], &param->packed_weights,
                             p.stage, out.data())) {
    out.finish();
    return;
  }

  if (active_isa() == KernelIsa::kAvx512) {
    p.packed_weights = pack_float_weights_8x32(inputs[1], (s.kernel_h * s.kernel_w) * s.in_c, s.out_c,
                                               &param->packed_float_weights)
                           .packed.data();
  }
  const int pixels = s.out_h * s.out_w;
  const int threads = std::min(kMaxThreads, (pixels + kTilePixels - 1) / kTilePixels);
  const long long patch_size = static_cast<long long>(kTilePixels) * (s.kernel_h * s.kernel_w) * s.in_c;
  std::vector<float> patches(patch_size * threads);
  std::vector<TileWorker> workers(threads);
  for (int t = 0; t < threads; ++t) {
    TileWorker& w = workers[t];
    w.index = t;
    w.count = threads;
    w.input = call.input;
    w.weight = call.weight;
    w.bias = call.bias;
    w.patch = patches.data() + patch_size * t;
    w.output = out.data();
    w.pad = call.pad.data();
    w.param = &p;
  }
  ThreadPool::instance().run(threads, [&](int t) { int8_tiles::computeConv_tiled(&workers[t]); });
  out.finish();
}

void conv2d_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40Conv2DInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  const Int8FloatView input(inputs[0], kOp);
  const ConvCall call = prepare_call(inputs, output, *param, input);
  const ConvGeometry& s = call.shape;
  Int8OutputBuffer out(output, kOp);
  const Int8OutputStage stage = make_int8_output_stage(*param, call.bias, call.multiplier, s.out_c);
  const int in_group = s.in_c / call.groups;
  const int out_group = s.out_c / call.groups;
  const float offset = static_cast<float>(param->input_offset);
  std::vector<float> acc(s.out_c);
  float* dst = out.data();
  for (int b = 0; b < s.batch; ++b) {
    const float* image = call.input + static_cast<long long>(b) * s.in_h * s.in_w * s.in_c;
    for (int oy = 0; oy < s.out_h; ++oy) {
      for (int ox = 0; ox < s.out_w; ++ox, dst += s.out_c) {
        for (int o = 0; o < s.out_c; ++o) {
          const int g = o / out_group;
          float sum = 0.0f;
          for (int ky = 0; ky < s.kernel_h; ++ky) {
            const int iy = oy * s.stride_h - s.pad_top + ky * s.dilation_h;
            for (int kx = 0; kx < s.kernel_w; ++kx) {
              const int ix = ox * s.stride_w - s.pad_left + kx * s.dilation_w;
              const bool inside = iy >= 0 && iy < s.in_h && ix >= 0 && ix < s.in_w;
              const float* px =
                  inside ? image + (static_cast<long long>(iy) * s.in_w + ix) * s.in_c : nullptr;
              const float* wk =
                  call.weight + static_cast<long long>(ky * s.kernel_w + kx) * in_group * s.out_c;
              for (int c = 0; c < in_group; ++c) {
                const int ch = g * in_group + c;
                float v = inside ? px[ch] : call.pad[ch];
                if (param->first_layer) {
                  v = first_layer_code(v, param->input_mean[ch], param->input_var[ch], offset);
                }
                sum += v * wk[static_cast<long long>(c) * s.out_c + o];
              }
            }
          }
          acc[o] = sum;
        }
        int8_output_rows(stage, acc.data(), dst, 1);
      }
    }
  }
  out.finish();
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
