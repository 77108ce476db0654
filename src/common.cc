#include "common.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <utility>

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

std::atomic<int> process_policy{static_cast<int>(ErrorPolicy::kAbort)};
// -1: the thread follows the process-wide policy.
thread_local int thread_policy = -1;

// The innermost NodeErrorScope of the thread.
thread_local const NodeErrorScope* current_scope = nullptr;

std::mutex sink_mutex;
MessageSink& sink() {
  static MessageSink* s = new MessageSink();
  return *s;
}

void emit(MessageLevel level, const char* color, const char* word, const std::string& text) {
  MessageSink copy;
  {
    std::lock_guard<std::mutex> lock(sink_mutex);
    copy = sink();
  }
  if (copy) {
    copy(level, text);
  } else {
    print_line(color, word, text);
  }
}

}  // namespace

void set_error_policy(ErrorPolicy policy) { process_policy.store(static_cast<int>(policy)); }

ErrorPolicy error_policy() {
  return static_cast<ErrorPolicy>(thread_policy >= 0 ? thread_policy : process_policy.load());
}

ScopedErrorPolicy::ScopedErrorPolicy(ErrorPolicy policy) : previous_(thread_policy) {
  thread_policy = static_cast<int>(policy);
}

ScopedErrorPolicy::~ScopedErrorPolicy() { thread_policy = previous_; }

Error::Error(const std::string& message, std::string node, std::string op)
    : std::runtime_error(message), message_(message), node_(std::move(node)), op_(std::move(op)) {}

void set_message_sink(MessageSink sink_fn) {
  std::lock_guard<std::mutex> lock(sink_mutex);
  sink() = std::move(sink_fn);
}

std::string error_line(const std::string& message) {
  // A report of several lines (a failure and the operands it names) prints
  // each line in the error style.
  std::string out;
  size_t begin = 0;
  for (;;) {
    const size_t end = message.find('\n', begin);
    out += std::string(kErrorColor) + "Error: " + message.substr(begin, end - begin) + kColorReset;
    if (end == std::string::npos) return out;
    begin = end + 1;
  }
}

NodeErrorScope::NodeErrorScope() : previous_(current_scope) { current_scope = this; }

NodeErrorScope::NodeErrorScope(const std::string& node, const std::string& op)
    : node_(&node), op_(&op), previous_(current_scope) {
  current_scope = this;
}

NodeErrorScope::~NodeErrorScope() { current_scope = previous_; }

ErrorContext ErrorContext::current() { return ErrorContext{thread_policy, current_scope}; }

ScopedErrorContext::ScopedErrorContext(const ErrorContext& context) : previous_(ErrorContext::current()) {
  thread_policy = context.policy;
  current_scope = context.scope;
}

ScopedErrorContext::~ScopedErrorContext() {
  thread_policy = previous_.policy;
  current_scope = previous_.scope;
}

std::string shape_text(const std::vector<int>& shape) {
  std::string text = "[";
  for (size_t i = 0; i < shape.size(); ++i) text += (i ? "," : "") + std::to_string(shape[i]);
  return text + "]";
}

void print_error(const std::string& text) { emit(MessageLevel::kError, kErrorColor, "Error: ", text); }

void fatal(const std::string& text) {
  if (error_policy() == ErrorPolicy::kThrow) {
    const NodeErrorScope* scope = current_scope;
    while (scope != nullptr && scope->node_ == nullptr) scope = scope->previous_;
    if (scope == nullptr) throw Error(text, std::string(), std::string());
    throw Error(text, *scope->node_, *scope->op_);
  }
  const std::string lines = error_line(text);
  std::fputs(lines.c_str(), stdout);
  // abort() does not flush stdio.
  std::fflush(stdout);
  std::abort();
}

void check_failed(const std::string& condition) { fatal("Check failed: " + condition); }

void check_failed(const std::string& condition, const std::string& reason) {
  fatal("Check failed: " + condition + "==>" + reason);
}

void check_failed_quoted(const std::string& condition, const std::string& reason) {
  check_failed(condition, "\"" + reason + "\"");
}

void print_warning(const std::string& text) {
  emit(MessageLevel::kWarning, kWarningColor, "Warning: ", text);
}

void print_log(const std::string& text) { emit(MessageLevel::kLog, kLogColor, "Log: ", text); }

void print_banner(const std::string& line) {
  MessageSink copy;
  {
    std::lock_guard<std::mutex> lock(sink_mutex);
    copy = sink();
  }
  if (copy) {
    copy(MessageLevel::kBanner, line);
  } else {
    std::printf("\033[1;32;40m%s\033[0m\n", line.c_str());
    std::fflush(stdout);
  }
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
