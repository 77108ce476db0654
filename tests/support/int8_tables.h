#ifndef KOVRA_TESTS_SUPPORT_INT8_TABLES_H_
#define KOVRA_TESTS_SUPPORT_INT8_TABLES_H_

// Helpers that keep the rows of table-driven operator tests on one line.

#include <functional>
#include <string>

#include "support/test_util.h"

namespace kovra_test {

// Sets attributes from a short form, space separated: key=12 (int), key=0.5
// (float), key='SAME' (string), key=true (bool), key=[1,2] (int list) and
// key=[0.5,2.] (float list: at least one element with a point or exponent).
void set_attrs(NodeDef* node, const std::string& text);
NodeDef node_of(const std::string& op, const std::string& attrs);

// The text of the error `run` raises under the throwing policy, or
// "(no failure)". Much cheaper than a death test.
std::string failure_of(const std::function<void()>& run);
// The text of a failed check, as the library words it.
std::string check_text(const std::string& condition, const std::string& message);

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_INT8_TABLES_H_
