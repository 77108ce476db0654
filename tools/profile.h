#ifndef KOVRA_TOOLS_PROFILE_H_
#define KOVRA_TOOLS_PROFILE_H_

#include <ostream>
#include <string>
#include <vector>

#include <kovraexecutor/graph_executor.h>

namespace kovra_tool {

// Collects the wall time of every node execution, run by run, through the
// executor's node observer; it reads nothing of the tensors.
class Profiler {
 public:
  struct Event {
    int run;
    std::string node;
    std::string op;
    long long start_ns;
    long long end_ns;
  };

  void attach(kovra::trenkit::kovraexecutor::GraphExecutor* executor);
  void begin_run(int run) { run_ = run; }
  const std::vector<Event>& events() const { return events_; }

  // Per operator type and per node: count, total, mean and share, slowest first.
  void print_profile(std::ostream& out, int runs) const;
  // Chrome trace-event JSON (one complete event per node execution).
  std::string trace_json() const;

 private:
  static void observe(void* context, const std::string& node, const std::string& op,
                      long long start_ns, long long end_ns);

  int run_ = 0;
  std::vector<Event> events_;
};

// JSON string literal of `text`.
std::string json_string(const std::string& text);

}  // namespace kovra_tool

#endif  // KOVRA_TOOLS_PROFILE_H_
