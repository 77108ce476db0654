#ifndef KOVRAEXECUTOR_BASIC_CAL_FUNCTION_H_
#define KOVRAEXECUTOR_BASIC_CAL_FUNCTION_H_

#include <cmath>

#include "export.h"
namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Signature shared by every element-wise primitive; unary ones ignore `b`.
using BinaryFn = float (*)(float a, float b);

// The formulas themselves, inline so that tensor loops can be instantiated for a
// known primitive (and vectorised) while computing exactly what the exported
// `<name>_func_cpu` functions compute. Masks are 1.0 / 0.0, and an input is
// true when it is not equal to 0.0 (so NaN is true).
namespace scalar {

inline float add(float a, float b) { return a + b; }
inline float sub(float a, float b) { return a - b; }
inline float mul(float a, float b) { return a * b; }
inline float div(float a, float b) { return a / b; }
inline float neg(float a, float) { return -a; }
inline float abs(float a, float) { return std::fabs(a); }
// NaN and both zeros give 0.
inline float sign(float a, float) { return a > 0.0f ? 1.0f : (a < 0.0f ? -1.0f : 0.0f); }
inline float sigmoid(float a, float) { return 1.0f / (1.0f + expf(-a)); }
// The second argument has no effect, although Tensor::exp takes one.
inline float exp(float a, float) { return expf(a); }
inline float log(float a, float) { return logf(a); }
inline float floor(float a, float) { return floorf(a); }
inline float pow(float a, float b) { return powf(a, b); }
inline float clip_min(float a, float b) { return b > a ? b : a; }
inline float clip_max(float a, float b) { return b < a ? b : a; }
inline float less_than(float a, float b) { return a < b ? 1.0f : 0.0f; }
inline float greater_than(float a, float b) { return a > b ? 1.0f : 0.0f; }
inline float equal(float a, float b) { return a == b ? 1.0f : 0.0f; }
inline float less_equal(float a, float b) { return a <= b ? 1.0f : 0.0f; }
inline float greater_equal(float a, float b) { return a >= b ? 1.0f : 0.0f; }
inline float bool_not(float a, float) { return a == 0.0f ? 1.0f : 0.0f; }
inline float bool_and(float a, float b) { return (a != 0.0f && b != 0.0f) ? 1.0f : 0.0f; }
inline float bool_or(float a, float b) { return (a != 0.0f || b != 0.0f) ? 1.0f : 0.0f; }

}  // namespace scalar

// X-macro over every primitive name, used to declare, define and dispatch them.
#define KOVRA_SCALAR_PRIMITIVES(X)                                                  \
  X(add) X(sub) X(mul) X(div) X(neg) X(abs) X(sign) X(sigmoid) X(exp) X(log)        \
  X(floor) X(pow) X(clip_min) X(clip_max) X(less_than) X(greater_than) X(equal)     \
  X(less_equal) X(greater_equal) X(bool_not) X(bool_and) X(bool_or)

KOVRA_API float add_func_cpu(float a, float b);
KOVRA_API float sub_func_cpu(float a, float b);
KOVRA_API float mul_func_cpu(float a, float b);
KOVRA_API float div_func_cpu(float a, float b);
KOVRA_API float neg_func_cpu(float a, float b);
KOVRA_API float abs_func_cpu(float a, float b);
KOVRA_API float sign_func_cpu(float a, float b);
KOVRA_API float sigmoid_func_cpu(float a, float b);
KOVRA_API float exp_func_cpu(float a, float b);
KOVRA_API float log_func_cpu(float a, float b);
KOVRA_API float floor_func_cpu(float a, float b);
KOVRA_API float pow_func_cpu(float a, float b);
KOVRA_API float clip_min_func_cpu(float a, float b);
KOVRA_API float clip_max_func_cpu(float a, float b);
KOVRA_API float less_than_func_cpu(float a, float b);
KOVRA_API float greater_than_func_cpu(float a, float b);
KOVRA_API float equal_func_cpu(float a, float b);
KOVRA_API float less_equal_func_cpu(float a, float b);
KOVRA_API float greater_equal_func_cpu(float a, float b);
KOVRA_API float bool_not_func_cpu(float a, float b);
KOVRA_API float bool_and_func_cpu(float a, float b);
KOVRA_API float bool_or_func_cpu(float a, float b);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_BASIC_CAL_FUNCTION_H_
