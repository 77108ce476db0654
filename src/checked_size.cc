#include "checked_size.h"

#include <string>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

long long shape_count(const std::vector<int>& shape) {
  long long count = 1;
  for (int d : shape) {
    if (d < 0) return -1;
    // count <= 2^31 - 1 and d < 2^31, so the product fits 62 bits.
    count *= d;
    if (count > kMaxTensorElements) {
      // A later zero dimension still makes the shape empty.
      for (int rest : shape) {
        if (rest < 0) return -1;
        if (rest == 0) return 0;
      }
      return -1;
    }
  }
  return count;
}

int checked_size(long long value, const char* what, const char* op) {
  KOVRA_ENSURE_MSG(value >= 0 && value <= kMaxTensorElements, "0 <= " + std::string(what) + " <= 2147483647",
                   std::string(op) + ": " + what + " is " + std::to_string(value) +
                       ", outside the 32-bit size of a tensor");
  return static_cast<int>(value);
}

int padded_size(int in, int before, int after, const char* op) {
  return checked_size(static_cast<long long>(in) + before + after, "padded size", op);
}

int checked_count(const std::vector<int>& shape, const char* op) {
  const long long count = shape_count(shape);
  if (count >= 0) return static_cast<int>(count);
  const std::string what = "element count of " + shape_text(shape);
  check_failed_quoted("0 <= " + what + " <= 2147483647",
                      std::string(op) + ": " + what + " is negative or exceeds 2147483647");
}

std::string over_budget_message(const std::string& node, long long bytes, long long total, long long budget) {
  return "The node:" + node + " needs " + std::to_string(bytes) +
         " bytes for its output, which brings the run to " + std::to_string(total) +
         " bytes, over its memory budget of " + std::to_string(budget);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
