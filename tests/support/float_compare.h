#ifndef KOVRA_TESTS_SUPPORT_FLOAT_COMPARE_H_
#define KOVRA_TESTS_SUPPORT_FLOAT_COMPARE_H_

#include <string>
#include <vector>

namespace kovra_test {

// Element-by-element comparison of float results: equal sizes; NaN only where
// NaN is expected; infinities equal; otherwise |a - e| <= abs_tol + rel_tol * |e|.
// `what` names the case in failure messages.
void expect_floats_near(const std::vector<float>& actual, const std::vector<float>& expected,
                        float rel_tol, float abs_tol, const std::string& what);

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_FLOAT_COMPARE_H_
