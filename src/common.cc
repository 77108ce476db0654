#include "common.h"

#include <cstdio>
#include <cstdlib>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

const char* const kErrorColor = "\033[1m\033[31m";
const char* const kWarningColor = "\033[1m\033[33m";
const char* const kLogColor = "\033[1m\033[32m";
const char* const kColorReset = "\033[0m\n";

namespace {

void print_line(const char* color, const char* word, const std::string& text) {
  std::printf("%s%s%s%s", color, word, text.c_str(), kColorReset);
  // abort() does not flush stdio, and interleaving with other writers matters.
  std::fflush(stdout);
}

}  // namespace

void print_error(const std::string& text) { print_line(kErrorColor, "Error: ", text); }

void fatal(const std::string& text) {
  print_error(text);
  std::abort();
}

void check_failed(const std::string& condition) { fatal("Check failed: " + condition); }

void check_failed(const std::string& condition, const std::string& reason) {
  fatal("Check failed: " + condition + "==>" + reason);
}

void check_failed_quoted(const std::string& condition, const std::string& reason) {
  check_failed(condition, "\"" + reason + "\"");
}

void print_warning(const std::string& text) { print_line(kWarningColor, "Warning: ", text); }

void print_log(const std::string& text) { print_line(kLogColor, "Log: ", text); }

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
