#ifndef KOVRA_TESTS_SUPPORT_KOVRA_CLI_H_
#define KOVRA_TESTS_SUPPORT_KOVRA_CLI_H_

#include <string>

namespace kovra_test {

// What one run of the kovra tool gave.
struct Result {
  int code;
  std::string out;  // standard output, then standard error
  std::string err;  // standard error alone
};

// The variable's value, or "" when it is unset.
std::string env_or_empty(const char* name);

// Runs the built kovra (KOVRA_TEST_BIN_DIR, which ctest sets) with `args` through the shell.
Result kovra(const std::string& args);

// Whether `out` holds `line` as a whole line; the first line that starts with `prefix` ("" if none).
bool has_line(const std::string& out, const std::string& line);
std::string line_starting(const std::string& out, const std::string& prefix);

// A whole file's bytes ("" when it cannot be read).
std::string slurp(const std::string& path);

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_KOVRA_CLI_H_
