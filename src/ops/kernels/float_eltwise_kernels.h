#ifndef KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_KERNELS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_KERNELS_H_

#include <string>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Two-operand float kernels: out[i] = f(a[i], b[j]) for i in [0, n). The
// callers validate sizes once; the kernels assume:
//  - cyclic pairing, j = i mod nb, nb >= 1 (a per-channel b of C values
//    applies value c to channel c; a single value applies to every element);
//  - element pairing, j = i, nb >= n, with nb == 1 accepted as a scalar
//    where the operator allows it — both are the cyclic rule restricted.

// The activations the add kernels and the batch-norm scale fuse, applied in
// the same pass: "Relu" is x > 0 ? x : 0 and "Relu6" then clamps to 6, as the
// fused activation table defines them (so NaN becomes 0).
enum class FusedRelu { kNone, kRelu, kRelu6 };
// "Relu" and "Relu6"; any other name fuses nothing.
FusedRelu fused_relu_kind(const std::string& action_type);

// a + b[i mod nb], then the fused "Relu"/"Relu6".
void add_cpu(const float* a, int n, const float* b, int nb, float* out, FusedRelu act);
// a + b with b a scalar (nb == 1) or of a's size, then the fused "Relu"/"Relu6".
void eltwise_add_cpu(const float* a, int n, const float* b, int nb, float* out, FusedRelu act);
// a - b, b a scalar or of a's size.
void eltwise_sub_f32(const float* a, int n, const float* b, int nb, float* out);
// a / b, b a scalar or of a's size.
void eltwise_div_f32(const float* a, int n, const float* b, int nb, float* out);
// a * b[i mod nb].
void mul_cyclic_f32(const float* a, int n, const float* b, int nb, float* out);
// a / b[i mod nb].
void div_cyclic_f32(const float* a, int n, const float* b, int nb, float* out);
// pow(a, b[i mod nb]) with the C library's double pow.
void pow_cyclic_f32(const float* a, int n, const float* b, int nb, float* out);
// The tensor arithmetic's broadcast product, planned once: for k < lead and
// j < block, out[k * block + j] = a[k * step_a + j % block_a] *
// b[k * step_b + j % block_b] (the operand with the extra leading dimensions
// steps by its block, the other stays).
struct BroadcastPlan {
  int lead = 0, block = 0;
  int block_a = 1, block_b = 1;
  int step_a = 0, step_b = 0;
};
void mul_broadcast_f32(const float* a, const float* b, float* out, const BroadcastPlan& plan);
// std::max(a[i], b[i]); b holds at least n values.
void max_f32(const float* a, int n, const float* b, float* out);
// x * scale[i mod channels] + bias[i mod channels], then the fused activation.
void batch_norm_scale_f32(const float* x, int n, const float* scale, const float* bias, int channels,
                          float* out, FusedRelu act);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_KERNELS_H_
