#ifndef KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_GRAD_KERNELS_H_
#define KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_GRAD_KERNELS_H_

#include "ops/kernels/float_eltwise_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Gradients of the element-wise operators. `grad_out` is the gradient of the
// forward output (n values); a null gradient pointer means "not wanted".
// Gradients of b are written over all nb values (entries that no element of
// a used stay 0) and accumulate in element order.

// Forward out[i] = act(a[i] + b[i mod nb]); the activation's derivative is
// taken from the forward output (1 inside the linear range, 0 where clamped).
void add_backward_cpu(const float* out, const float* grad_out, int n, int nb, FusedRelu act,
                      float* grad_a, float* grad_b);
// Forward with b a scalar (nb == 1, its gradient is the sum) or of a's size.
void eltwise_add_backward_cpu(const float* out, const float* grad_out, int n, int nb,
                              FusedRelu act, float* grad_a, float* grad_b);
// Forward std::max(a[i], b[i]): a tie routes the gradient to a, as the
// forward returns a then.
void max_backward_cpu(const float* a, const float* b, const float* grad_out, int n, int nb,
                      float* grad_a, float* grad_b);
// Forward x >= 0 ? x : x * slope[i mod channels]; grad_slope has nslope
// entries (at least channels).
void prelu_backward_cpu(const float* x, const float* slope, const float* grad_out, int n,
                        int channels, float* grad_x, float* grad_slope, int nslope);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_FLOAT_ELTWISE_GRAD_KERNELS_H_
