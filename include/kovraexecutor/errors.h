#ifndef KOVRAEXECUTOR_ERRORS_H_
#define KOVRAEXECUTOR_ERRORS_H_

#include <functional>
#include <stdexcept>
#include <string>

#include "export.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// What a failure does. kAbort is the default and the library's documented
// behaviour: the error line on standard output, then abort(). kThrow raises
// Error instead and prints nothing, for programs that embed the library and
// must outlive a bad model or a wrong call: the executor that threw stays
// usable, and a failure on a pool thread of the library reaches the calling
// thread, under whose policy the pool's tasks run.
enum class ErrorPolicy { kAbort, kThrow };

// The process-wide policy.
KOVRA_API void set_error_policy(ErrorPolicy policy);
// The policy in force on the calling thread.
KOVRA_API ErrorPolicy error_policy();

// Puts the calling thread under `policy` for the scope's lifetime, whatever
// the process-wide policy says; scopes nest.
class KOVRA_API ScopedErrorPolicy {
 public:
  explicit ScopedErrorPolicy(ErrorPolicy policy);
  ~ScopedErrorPolicy();
  ScopedErrorPolicy(const ScopedErrorPolicy&) = delete;
  ScopedErrorPolicy& operator=(const ScopedErrorPolicy&) = delete;

 private:
  int previous_;
};

// A failure under kThrow. message() is the error line's text without colour
// codes and without the "Error: " word (for example
// `Check failed: suc==>"Do not find the strides in FloatZ40Conv2D!!!"`), and
// what() returns the same text. node() and op() name the node and its
// operator type when the failure happened while a node was being translated,
// prepared or run; both are empty otherwise.
class KOVRA_API Error : public std::runtime_error {
 public:
  Error(const std::string& message, std::string node, std::string op);
  const std::string& message() const noexcept { return message_; }
  const std::string& node() const noexcept { return node_; }
  const std::string& op() const noexcept { return op_; }

 private:
  std::string message_;
  std::string node_;
  std::string op_;
};

// Everything the library prints that is not a failure: warnings, log lines,
// error lines that do not stop (a report the caller may act on) and the
// version banner. `text` is the line without colour codes or prefix word.
enum class MessageLevel { kWarning, kLog, kError, kBanner };
using MessageSink = std::function<void(MessageLevel level, const std::string& text)>;

// Process-wide. An empty sink restores the default, which prints each message
// as the documented coloured line on standard output; a sink that does
// nothing silences the library.
KOVRA_API void set_message_sink(MessageSink sink);

// The line the library prints for a failure with this text under kAbort, so a
// front end that catches Error can report it in the library's own format.
KOVRA_API std::string error_line(const std::string& message);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_ERRORS_H_
