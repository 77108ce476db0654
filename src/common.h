#ifndef KOVRAEXECUTOR_COMMON_H_
#define KOVRAEXECUTOR_COMMON_H_

#include <string>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Every message of the library is one coloured line on standard output.
// Errors abort after printing; warnings and log lines let execution go on.
extern const char* const kErrorColor;    // bold red
extern const char* const kWarningColor;  // bold yellow
extern const char* const kLogColor;      // bold green
extern const char* const kColorReset;

// "Error: <text>" in bold red; the caller decides whether to go on.
void print_error(const std::string& text);
// "Error: <text>" in bold red, then abort().
[[noreturn]] void fatal(const std::string& text);
// "Error: Check failed: <condition>" then abort().
[[noreturn]] void check_failed(const std::string& condition);
// "Error: Check failed: <condition>==><reason>" then abort(); the reason is
// printed as given, so a quoted message carries its own quotes.
[[noreturn]] void check_failed(const std::string& condition, const std::string& reason);
// check_failed with the reason wrapped in double quotes.
[[noreturn]] void check_failed_quoted(const std::string& condition, const std::string& reason);
void print_warning(const std::string& text);
void print_log(const std::string& text);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#define KOVRA_UNLIKELY(x) __builtin_expect(!!(x), 0)

// The one check of the library. `condition` is the text users see (usually
// the condition as the message catalogue spells it) and `message` any
// expression giving the reason; it is evaluated only when the check fails, so
// a passing check costs a compare and builds no string. Prints
// `Error: Check failed: <condition>=="<message>"` and stops.
#define KOVRA_ENSURE_MSG(ok, condition, message)                                                             \
  do {                                                                                                       \
    if (KOVRA_UNLIKELY(!(ok))) ::kovra::trenkit::kovraexecutor::check_failed_quoted((condition), (message)); \
  } while (0)

#endif  // KOVRAEXECUTOR_COMMON_H_
