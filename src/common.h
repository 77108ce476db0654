#ifndef KOVRAEXECUTOR_COMMON_H_
#define KOVRAEXECUTOR_COMMON_H_

#include <string>
#include <vector>

#include "errors.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Every message of the library is one coloured line on standard output.
// Failures end in fatal(), which under the error policy (errors.h) prints and
// aborts or throws Error; warnings, log lines, non-stopping error lines and the
// banner go through the message sink and let execution go on.
extern const char* const kErrorColor;    // bold red
extern const char* const kWarningColor;  // bold yellow
extern const char* const kLogColor;      // bold green
extern const char* const kColorReset;

// "Error: <text>" in bold red; the caller decides whether to go on.
// "[1,224,224,3]": how messages write a shape.
std::string shape_text(const std::vector<int>& shape);

void print_error(const std::string& text);
// The one failure handler: "Error: <text>" in bold red, then abort() - or,
// under ErrorPolicy::kThrow, Error with the text and the current node. A text
// of several lines (a failure, then the operands it names) prints each line
// in the error style.
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
// The version banner's text (without its colour codes).
void print_banner(const std::string& line);

// Names the node whose translation, preparation or run is under way on this
// thread, so that a failure inside it can say which node failed (Error::node()
// and op() under kThrow; the kAbort line stays the message alone). Holds
// pointers, never copies: the strings must outlive the time they are named.
// A loop over nodes keeps one scope and calls set() per node, which is two
// stores and no thread-local access. Scopes nest; a scope naming no node
// leaves the naming to the enclosing one.
class NodeErrorScope {
 public:
  NodeErrorScope();
  NodeErrorScope(const std::string& node, const std::string& op);
  ~NodeErrorScope();
  NodeErrorScope(const NodeErrorScope&) = delete;
  NodeErrorScope& operator=(const NodeErrorScope&) = delete;

  void set(const std::string& node, const std::string& op) {
    node_ = &node;
    op_ = &op;
  }
  void clear() {
    node_ = nullptr;
    op_ = nullptr;
  }

 private:
  friend void fatal(const std::string& text);
  const std::string* node_ = nullptr;
  const std::string* op_ = nullptr;
  const NodeErrorScope* previous_;
};

// What a failure on this thread would report: the policy in force and the
// innermost named node. The thread pool carries it from the caller into its
// workers, so that a task fails as its caller would.
struct ErrorContext {
  int policy;
  const NodeErrorScope* scope;
  static ErrorContext current();
};

// Puts `context` in force on the calling thread for the scope's lifetime.
class ScopedErrorContext {
 public:
  explicit ScopedErrorContext(const ErrorContext& context);
  ~ScopedErrorContext();
  ScopedErrorContext(const ScopedErrorContext&) = delete;
  ScopedErrorContext& operator=(const ScopedErrorContext&) = delete;

 private:
  ErrorContext previous_;
};

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
