#ifndef KOVRAEXECUTOR_KVDL_H_
#define KOVRAEXECUTOR_KVDL_H_

// Small math helpers whose exact arithmetic decides the last bit of int8 results.
#include <cmath>

namespace kvdl {

// Round half to even, as the accelerator rounds. Adding and taking away 2^23
// rounds |x| < 2^23 to an integer in the current (nearest-even) mode; larger
// magnitudes, infinities and NaN come back as they are. A value that rounds to
// zero gives +0 and a zero keeps its sign, as the firmware's floor-based
// rounding does (checked on every float). Inline and branch-free, so loops
// over codes vectorise.
inline float tensorflow_round_cpu(float x) {
  const float a = std::fabs(x);
  const float t = (a + 8388608.0f) - 8388608.0f;
  const float r = x < 0.0f && t != 0.0f ? -t : t;
  return a < 8388608.0f && x != 0.0f ? r : x;
}
// Round half away from zero.
float Round(float x);
// e^x as the accelerator's firmware computes it: integer powers of e times a
// ten-term Taylor series of the fraction.
double Exp(double x);
// Newton square root.
double Sqrt(double x);
// Rational tanh approximation used by fused activations: x(x^2+27)/(9x^2+27)
// inside [-4, 4], +-1.0058479 outside (kept although it overshoots 1).
double rational_tanh(double x);

}  // namespace kvdl

#endif  // KOVRAEXECUTOR_KVDL_H_
