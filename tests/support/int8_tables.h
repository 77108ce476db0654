#ifndef KOVRA_TESTS_SUPPORT_INT8_TABLES_H_
#define KOVRA_TESTS_SUPPORT_INT8_TABLES_H_

// Helpers that keep the rows of table-driven operator tests on one line.

#include <string>

#include "support/test_util.h"

namespace kovra_test {

// Sets attributes from a short form, space separated: key=12 (int), key=0.5
// (float), key='SAME' (string), key=true (bool), key=[1,2] (int list) and
// key=[0.5,2.] (float list: at least one element with a point or exponent).
void set_attrs(NodeDef* node, const std::string& text);
NodeDef node_of(const std::string& op, const std::string& attrs);

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_INT8_TABLES_H_
