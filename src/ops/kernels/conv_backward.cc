#include "ops/kernels/conv_backward.h"

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// d act / d y at an activated output value.
float activation_slope(float out, const ConvGeometry& g) {
  if (g.clip) return out > g.clip_min && out < g.clip_max ? 1.0f : 0.0f;
  if (g.activate == activation_relu) return out > 0.0f ? 1.0f : 0.0f;
  if (g.activate == activation_relu6) return out > 0.0f && out < 6.0f ? 1.0f : 0.0f;
  if (g.activate == activation_leaky) return out > 0.0f ? 1.0f : g.alpha;
  if (g.activate == activation_Hsigmoid) return out > 0.0f && out < 1.0f ? 1.0f : 0.0f;
  return 1.0f;
}

std::vector<float> pre_activation_grad(const float* output, const float* output_grad,
                                       const ConvGeometry& g) {
  std::vector<float> dy(static_cast<size_t>(g.batch) * g.out_h * g.out_w * g.out_c);
  for (size_t i = 0; i < dy.size(); ++i) dy[i] = output_grad[i] * activation_slope(output[i], g);
  return dy;
}

// Visits every (output element, tap) pair: fn(dy, input index or -1 for a
// padding tap, weight index). in_channel(o, c) maps an output channel and the
// tap's channel index to the input channel.
template <class Visit>
void for_each_tap(const ConvGeometry& g, int taps_per_position, int weight_stride,
                  int (*in_channel)(const ConvGeometry&, int o, int c), int (*weight_channel)(const ConvGeometry&, int o, int c),
                  const std::vector<float>& dy, Visit visit) {
  size_t at = 0;
  for (int b = 0; b < g.batch; ++b) {
    for (int oy = 0; oy < g.out_h; ++oy) {
      for (int ox = 0; ox < g.out_w; ++ox) {
        for (int o = 0; o < g.out_c; ++o, ++at) {
          const float d = dy[at];
          for (int ky = 0; ky < g.kernel_h; ++ky) {
            const int iy = oy * g.stride_h + ky * g.dilation_h - g.pad_top;
            for (int kx = 0; kx < g.kernel_w; ++kx) {
              const int ix = ox * g.stride_w + kx * g.dilation_w - g.pad_left;
              const bool inside = iy >= 0 && iy < g.in_h && ix >= 0 && ix < g.in_w;
              const long long pixel = ((static_cast<long long>(b) * g.in_h + iy) * g.in_w + ix) * g.in_c;
              const long long tap = static_cast<long long>(ky * g.kernel_w + kx) * taps_per_position * weight_stride;
              for (int c = 0; c < taps_per_position; ++c) {
                visit(d, inside ? pixel + in_channel(g, o, c) : -1, tap + weight_channel(g, o, c));
              }
            }
          }
        }
      }
    }
  }
}

void finish_bias(const std::vector<float>& dy, float* bias_grad, const ConvGeometry& g) {
  if (bias_grad == nullptr) return;
  std::fill(bias_grad, bias_grad + g.out_c, 0.0f);
  for (size_t i = 0; i < dy.size(); ++i) bias_grad[i % g.out_c] += dy[i];
}

template <class Map>
void backward(const float* input, const float* weight, const float* output, const float* output_grad,
              float* input_grad, float* weight_grad, float* bias_grad, const ConvGeometry& g,
              int taps_per_position, int weight_stride, long long weight_count, Map) {
  const std::vector<float> dy = pre_activation_grad(output, output_grad, g);
  std::fill(weight_grad, weight_grad + weight_count, 0.0f);
  if (input_grad != nullptr) {
    std::fill(input_grad, input_grad + static_cast<size_t>(g.batch) * g.in_h * g.in_w * g.in_c, 0.0f);
  }
  for_each_tap(g, taps_per_position, weight_stride, Map::in_channel, Map::weight_channel, dy,
               [&](float d, long long in_index, long long w_index) {
                 if (in_index < 0) {
                   weight_grad[w_index] += g.pad_value * d;
                   return;
                 }
                 weight_grad[w_index] += input[in_index] * d;
                 if (input_grad != nullptr) input_grad[in_index] += weight[w_index] * d;
               });
  finish_bias(dy, bias_grad, g);
}

// Conv2D: tap channel c of output o reads channel group * in_per_group + c;
// the weight row of a tap holds out_c values per input channel.
struct DenseMap {
  static int in_channel(const ConvGeometry& g, int o, int c) {
    return o / (g.out_c / g.groups) * (g.in_c / g.groups) + c;
  }
  static int weight_channel(const ConvGeometry& g, int o, int c) { return c * g.out_c + o; }
};

// Depthwise: one tap per position; output o reads channel o / multiplier.
struct DepthwiseMap {
  static int in_channel(const ConvGeometry& g, int o, int) { return o / (g.out_c / g.in_c); }
  static int weight_channel(const ConvGeometry&, int o, int) { return o; }
};

}  // namespace

void conv2d_backward_cpu(const float* input, const float* weight, const float* output,
                         const float* output_grad, float* input_grad, float* weight_grad,
                         float* bias_grad, const ConvGeometry& g) {
  const int in_per_group = g.in_c / g.groups;
  backward(input, weight, output, output_grad, input_grad, weight_grad, bias_grad, g, in_per_group, g.out_c,
           static_cast<long long>(g.kernel_h) * g.kernel_w * in_per_group * g.out_c, DenseMap());
}

void dwconv2d_backward_cpu(const float* input, const float* weight, const float* output,
                           const float* output_grad, float* input_grad, float* weight_grad,
                           float* bias_grad, const ConvGeometry& g) {
  backward(input, weight, output, output_grad, input_grad, weight_grad, bias_grad, g, 1, g.out_c,
           static_cast<long long>(g.kernel_h) * g.kernel_w * g.out_c, DepthwiseMap());
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
