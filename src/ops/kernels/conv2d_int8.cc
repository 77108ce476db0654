#include "ops/kernels/conv2d_int8.h"

#include <algorithm>
#include <cstring>

#include "common.h"
#include "kvdl.h"
#include "ops/common/op_checks.h"
#include "ops/kernels/gemm_f32.h"
#include "ops/kernels/int8_dot_path.h"
#include "ops/kernels/x86/x86_kernels.h"
#include "thread_pool.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

const char kOp[] = "Z40Conv2DInt8";
constexpr int kTilePixels = 8;
constexpr int kMaxThreads = 16;

// One call of the tiled path, shared by its workers: worker t takes tiles
// t, t + T, t + 2T, ... of every image.
struct TileJob {
  int count = 1;
  const float* input = nullptr;
  const float* bias = nullptr;
  float* output = nullptr;
  const float* pad = nullptr;
  const AVXConvInt8Param* param = nullptr;
};
struct TileWorker {
  int index = 0;
  const TileJob* job = nullptr;
};

// The int8 worker entry; its own namespace keeps it apart from the float
// convolution's entry of the same name.
namespace int8_tiles {
void* computeConv_tiled(void* arg) {
  const TileWorker& worker = *static_cast<const TileWorker*>(arg);
  const TileJob& w = *worker.job;
  const AVXConvInt8Param& p = *w.param;
  const ConvGeometry& s = p.geometry;
  const int pixels = s.out_h * s.out_w;
  const int tiles = (pixels + kTilePixels - 1) / kTilePixels;
  const int kp = (s.kernel_h * s.kernel_w);
  const long long patch_row = static_cast<long long>(kp) * s.in_c;
  // The kernels may read all 8 rows of a tile.
  float* patch = scratch_floats(ScratchSlot::kPatches, static_cast<size_t>(kTilePixels) * patch_row);
  for (int b = 0; b < s.batch; ++b) {
    const float* image = w.input + static_cast<long long>(b) * s.in_h * s.in_w * s.in_c;
    for (int tile = worker.index; tile < tiles; tile += w.count) {
      const int first = tile * kTilePixels;
      const int len = std::min(kTilePixels, pixels - first);
      for (int j = 0; j < len; ++j) {
        const int oy = (first + j) / s.out_w, ox = (first + j) % s.out_w;
        float* dst = patch + j * patch_row;
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
      // Codes are a function of value and channel, so quantizing the patch
      // first gives the kernel the same operands.
      if (p.first_layer) {
        const float offset = static_cast<float>(p.input_offset);
        for (long long k = 0; k < len * patch_row; ++k) {
          const int i = static_cast<int>(k % s.in_c);
          patch[k] = first_layer_code(patch[k], p.input_mean[i], p.input_var[i], offset);
        }
      }
      p.gemm->gemm(out, patch, p.weights, w.bias, s.in_c, s.out_c, len, kp, p.multiplier);
      int8_output_scaled_rows(p.stage, out, out, len);
    }
  }
  return nullptr;
}
}  // namespace int8_tiles

const Int8FloatGemmKernels kGemmVariants[] = {
    {KernelIsa::kPortable, "gemm_float_int8_portable", false, gemm_float_int8_portable},
    {KernelIsa::kAvx512, "gemm_float_int8_8x32_avx512", true, gemm_float_int8_8x32_avx512},
};

void tiled_conv(const Tensor* weight, const float* input, const float* bias, float* out,
                Z40Conv2DInt8Param* param) {
  const Int8Prepared& prep = param->prepared;
  const ConvGeometry& s = prep.geometry;
  AVXConvInt8Param p;
  p.geometry = s;
  p.param = param;
  p.first_layer = param->first_layer;
  p.input_mean = param->input_mean.data();
  p.input_var = param->input_var.data();
  p.input_offset = param->input_offset;
  p.multiplier = prep.multiplier;
  p.stage = make_int8_output_stage(*param, bias, prep.multiplier, s.out_c);
  if (!param->first_layer) {
    if (!param->packed_weights) param->packed_weights = std::make_shared<Int8PackedWeights>();
    if (conv_int8_integer_path(s, input, prep.pad.data(), weight, param->packed_weights.get(), p.stage, out))
      return;
  }
  p.gemm = &int8_float_gemm_kernels().get();
  if (p.gemm->packed) {
    if (!param->packed_float_weights)
      param->packed_float_weights = std::make_shared<Int8FloatPackedWeights>();
    p.weights = pack_float_weights_8x32(weight, (s.kernel_h * s.kernel_w) * s.in_c, s.out_c,
                                        param->packed_float_weights.get());
  } else {
    p.weights = weight->data<float>();
  }
  const int pixels = s.out_h * s.out_w;
  TileJob job;
  job.count = std::min(kMaxThreads, (pixels + kTilePixels - 1) / kTilePixels);
  job.input = input;
  job.bias = bias;
  job.output = out;
  job.pad = prep.pad.data();
  job.param = &p;
  const TileJob* j = &job;
  ThreadPool::instance().run(job.count, [j](int t) {
    TileWorker worker{t, j};
    int8_tiles::computeConv_tiled(&worker);
  });
}

void direct_conv(const Tensor* weight, const float* input, const float* bias, float* dst,
                 const Z40Conv2DInt8Param* param) {
  const Int8Prepared& prep = param->prepared;
  const ConvGeometry& s = prep.geometry;
  const Int8OutputStage stage = make_int8_output_stage(*param, bias, prep.multiplier, s.out_c);
  const int in_group = s.in_c / param->groups;
  const int out_group = s.out_c / param->groups;
  const float offset = static_cast<float>(param->input_offset);
  const float* w = weight->data<float>();
  const float* pad = prep.pad.data();
  float* acc = scratch_floats(ScratchSlot::kPatches, static_cast<size_t>(s.out_c));
  for (int b = 0; b < s.batch; ++b) {
    const float* image = input + static_cast<long long>(b) * s.in_h * s.in_w * s.in_c;
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
              const float* wk = w + static_cast<long long>(ky * s.kernel_w + kx) * in_group * s.out_c;
              for (int c = 0; c < in_group; ++c) {
                const int ch = g * in_group + c;
                float v = inside ? px[ch] : pad[ch];
                if (param->first_layer) {
                  v = first_layer_code(v, param->input_mean[ch], param->input_var[ch], offset);
                }
                sum += v * wk[static_cast<long long>(c) * s.out_c + o];
              }
            }
          }
          acc[o] = sum;
        }
        int8_output_rows(stage, acc, dst, 1);
      }
    }
  }
}

}  // namespace

float first_layer_code(float x, float mean, float scale, float input_offset) {
  const float q = input_offset + kvdl::tensorflow_round_cpu((x - mean) * scale);
  return q < 0.0f ? 0.0f : (q > 255.0f ? 255.0f : q);
}

const KernelTable<Int8FloatGemmKernels>& int8_float_gemm_kernels() {
  static const KernelTable<Int8FloatGemmKernels> table(kGemmVariants);
  return table;
}

const float* pack_float_weights_8x32(const Tensor* weight, int depth, int out_c,
                                     Int8FloatPackedWeights* cache) {
  if (cache->version != 0 && cache->version == weight->version() && cache->depth == depth &&
      cache->out_c == out_c) {
    return cache->packed.data();
  }
  const float* src = weight->data<float>();
  const int blocks = (out_c + 31) / 32;
  cache->packed.assign(static_cast<size_t>(blocks) * depth * 32, 0.0f);
  for (long long k = 0; k < depth; ++k) {
    for (int n = 0; n < out_c; ++n) {
      cache->packed[(static_cast<size_t>(n / 32) * depth + k) * 32 + n % 32] = src[k * out_c + n];
    }
  }
  cache->version = weight->version();
  cache->depth = depth;
  cache->out_c = out_c;
  return cache->packed.data();
}

void gemm_float_int8_portable(float* out, const float* in, const float* weights, const float* bias,
                              int in_channels, int out_channels, int rows, int kernel_positions,
                              int multiplier) {
  gemm_float_int8(out, in, weights, bias, nullptr, nullptr, false, in_channels, out_channels, rows,
                  kernel_positions, nullptr, 0.0f, multiplier, 0);
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

void prepare_conv2d_int8(const std::vector<const Tensor*>& inputs, Z40Conv2DInt8Param* param) {
  const Z40Conv2DInt8Param& p = *param;
  check_input_count(inputs, 2, kOp);
  check_input_not_scalar(inputs[0], kOp);
  const Tensor* weight = inputs[1];
  const std::vector<int>& ws = weight->shape();
  KOVRA_ENSURE_MSG(ws.size() == 4, "weight->shape().size() == 4", "Wrong kernel shape in Z40Conv2DInt8!!!");
  check_float(weight, kOp);
  if (inputs.size() >= 3) check_float(inputs[2], kOp);
  const ConvGeometry s = int8_conv_shape(p, inputs[0]->shape(), ws[0], ws[1], ws[3], kOp);
  KOVRA_ENSURE_MSG(p.groups >= 1 && s.in_c % p.groups == 0 && s.out_c % p.groups == 0,
                   "in_channels % groups == 0 && out_channels % groups == 0",
                   std::string(kOp) + ": " + std::to_string(s.in_c) + " input and " +
                       std::to_string(s.out_c) + " output channels do not split into " +
                       std::to_string(p.groups) + " groups");
  KOVRA_ENSURE_MSG(ws[2] == s.in_c / p.groups, "weight->shape()[2] == in_channels / groups",
                   std::string(kOp) + ": weights take " + std::to_string(ws[2]) +
                       " input channels per group, the input gives " + std::to_string(s.in_c / p.groups));
  if (inputs.size() >= 3) check_min_size(inputs[2], s.out_c, kOp);
  check_int8_output_param(p, s.out_c, kOp);
  if (p.first_layer) {
    check_attr_size(p.input_mean.size(), s.in_c, "input_mean", kOp);
    check_attr_size(p.input_var.size(), s.in_c, "input_var", kOp);
  }
  Int8Prepared& prep = param->prepared;
  prep.geometry = s;
  prep.multiplier = int8_multiplier(p, kOp);
  prep.tiled = s.in_c > 2 && p.groups == 1;
  // Padded cells: an image input (3 channels) of the first layer pads with the
  // mean itself, so padding quantizes exactly to the input offset; other
  // first layers pad with the rounded mean; everything else with "pad_value".
  prep.pad.assign(s.in_c, p.pad_value);
  if (p.first_layer) {
    for (int i = 0; i < s.in_c; ++i) {
      prep.pad[i] = s.in_c == 3 ? p.input_mean[i] : kvdl::tensorflow_round_cpu(p.input_mean[i]);
    }
  }
  record_int8_inputs(inputs, {s.batch, s.out_h, s.out_w, s.out_c}, s.out_c, param);
}

void run_conv2d_int8(const Tensor* input, const Tensor* weight, const float* bias, Tensor* output,
                     Z40Conv2DInt8Param* param, bool tiled) {
  KOVRA_ENSURE_MSG(output->shape() == param->prepared.output_shape, "output->shape() == inferred shape",
                   std::string(kOp) + ": the output tensor does not have the inferred shape");
  check_float(weight, kOp);
  const Int8FloatView in(input, kOp);
  Int8OutputBuffer out(output, kOp);
  if (tiled) {
    tiled_conv(weight, in.data(), bias, out.data(), param);
  } else {
    direct_conv(weight, in.data(), bias, out.data(), param);
  }
  out.finish();
}

void conv2d_avx_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40Conv2DInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  KOVRA_ENSURE_MSG(param->groups == 1, "groups == 1", "conv2d_avx_int8 computes ungrouped convolutions only");
  if (!int8_prepared_for(param->prepared, inputs)) prepare_conv2d_int8(inputs, param);
  run_conv2d_int8(inputs[0], inputs[1], inputs[2]->data<float>(), output, param, true);
}

void conv2d_int8(const std::vector<const Tensor*>& inputs, Tensor* output, Z40Conv2DInt8Param* param) {
  check_input_count(inputs, 3, kOp);
  if (!int8_prepared_for(param->prepared, inputs)) prepare_conv2d_int8(inputs, param);
  run_conv2d_int8(inputs[0], inputs[1], inputs[2]->data<float>(), output, param, false);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
