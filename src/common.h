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

// The condition text is printed as written in the source, as users grep for it.
#define KOVRA_CHECK(cond)                                                  \
  do {                                                                     \
    if (!(cond)) ::kovra::trenkit::kovraexecutor::check_failed(#cond);     \
  } while (0)

// The message is a string literal and is printed with its quotes.
#define KOVRA_CHECK_MSG(cond, msg)                                         \
  do {                                                                     \
    if (!(cond)) ::kovra::trenkit::kovraexecutor::check_failed(#cond, #msg); \
  } while (0)

#endif  // KOVRAEXECUTOR_COMMON_H_
