#ifndef KOVRAEXECUTOR_OPS_FLOAT_ACTIVATION_KERNELS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_ACTIVATION_KERNELS_H_

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Stand-alone float activations: out[i] = f(in[i]) for i in [0, n). Each one
// is a plain loop over raw pointers; `in` and `out` may be the same buffer.
// Where a formula is evaluated in double, x is widened, the formula computed
// in double and the result narrowed once.

void relu_f32(const float* in, float* out, int n);
void relu6_f32(const float* in, float* out, int n);
void leaky_relu_f32(const float* in, float* out, int n, float alpha);
// x >= 0 ? x : x * slope[i mod channels]; slope holds `channels` values.
void prelu_f32(const float* in, float* out, int n, const float* slope, int channels);
void elu_f32(const float* in, float* out, int n, float alpha);
void selu_f32(const float* in, float* out, int n);
void hsigmoid_f32(const float* in, float* out, int n, float alpha, float beta);
// add_scalar is integral: the model's value is truncated when it is read.
void hard_swish_f32(const float* in, float* out, int n, int add_scalar);
// beta is integral for the same reason.
void swish_f32(const float* in, float* out, int n, int beta);
void mish_f32(const float* in, float* out, int n);
// 1 / (1 + expf(-x)) in float: the tensor arithmetic's sigmoid.
void sigmoid_f32(const float* in, float* out, int n);
void tanh_f32(const float* in, float* out, int n);
void softplus_f32(const float* in, float* out, int n);
void softsign_f32(const float* in, float* out, int n);
// Normalises over all n values at once, without subtracting the maximum.
void softmax_whole_f32(const float* in, float* out, int n);

// The tanh stand-in of Mish: a rational function of s, saturating at the
// float 0x3f80bfa0 (about 1.0058479) outside [-4, 4].
float mish_rational_tanh(float s);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_ACTIVATION_KERNELS_H_
