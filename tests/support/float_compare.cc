#include "support/float_compare.h"

#include <cmath>

#include <gtest/gtest.h>

namespace kovra_test {

void expect_floats_near(const std::vector<float>& actual, const std::vector<float>& expected,
                        float rel_tol, float abs_tol, const std::string& what) {
  ASSERT_EQ(actual.size(), expected.size()) << what;
  for (size_t i = 0; i < actual.size(); ++i) {
    const float a = actual[i];
    const float e = expected[i];
    if (std::isnan(e)) {
      EXPECT_TRUE(std::isnan(a)) << what << " [" << i << "]: expected NaN, got " << a;
    } else if (std::isinf(e)) {
      EXPECT_EQ(a, e) << what << " [" << i << "]";
    } else {
      EXPECT_NEAR(a, e, abs_tol + rel_tol * std::fabs(e)) << what << " [" << i << "]";
    }
  }
}

}  // namespace kovra_test
