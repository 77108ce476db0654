#ifndef KOVRAEXECUTOR_KVDL_H_
#define KOVRAEXECUTOR_KVDL_H_

// Small math helpers whose exact arithmetic decides the last bit of int8 results.
namespace kvdl {

// Round half to even, as the accelerator rounds.
float tensorflow_round_cpu(float x);
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
