#include "kvdl.h"

#include <cmath>
#include <cstdint>
#include <limits>

namespace kvdl {

float Round(float x) {
  const double shifted = x > 0 ? static_cast<double>(x) + 0.5 : static_cast<double>(x) - 0.5;
  // Saturate instead of overflowing the 32-bit conversion.
  if (!(shifted == shifted)) return 0.0f;
  if (shifted >= 2147483647.0) return 2147483647.0f;
  if (shifted <= -2147483648.0) return -2147483648.0f;
  return static_cast<float>(static_cast<int32_t>(shifted));
}

double Exp(double x) {
  if (!(x == x)) return x;
  // Past these bounds the integer power alone over- or underflows double.
  if (x > 710.0) return std::numeric_limits<double>::infinity();
  if (x < -746.0) return 0.0;
  const int n = static_cast<int>(x);
  const double f = x - n;
  double en = 1.0;
  const int count = n < 0 ? -n : n;
  for (int i = 0; i < count; ++i) en *= 2.718281828459045;
  if (n < 0) en = 1.0 / en;
  const double f2 = f * f, f3 = f2 * f, f4 = f3 * f, f5 = f4 * f, f6 = f5 * f, f7 = f6 * f,
               f8 = f7 * f, f9 = f8 * f;
  const double ef = 1 + f + f2 / 2 + f3 / 6 + f4 / 24 + f5 / 120 + f6 / 720 + f7 / 5040 +
                    f8 / 40320 + f9 / 362880;
  return en * ef;
}

double Sqrt(double x) {
  // No real root below zero; NaN and infinity would never settle.
  if (x < 0.0 || !(x == x)) return std::numeric_limits<double>::quiet_NaN();
  if (x == std::numeric_limits<double>::infinity()) return x;
  // Zero is not special: the iteration halves from 0.5 until the step is small
  // enough, as the firmware does.
  double y = x + 0.5;
  double previous = y;
  for (int i = 0; i < 10000; ++i) {
    const double next = (y * y + x) / (2 * y);
    if (std::fabs(next - y) <= 1e-9) return next;
    // Stop when the iteration falls back to a value it had two steps ago.
    if (next == previous) return next;
    previous = y;
    y = next;
  }
  return y;
}

double rational_tanh(double x) {
  if (x < -4) return -1.0058479;
  if (x > 4) return 1.0058479;
  return x * (x * x + 27) / (9 * x * x + 27);
}

}  // namespace kvdl
