#ifndef KOVRA_TOOLS_PROFILE_H_
#define KOVRA_TOOLS_PROFILE_H_

#include <deque>
#include <ostream>
#include <string>
#include <unordered_map>
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
  const std::vector<Event>& events() const;

  // Per operator type and per node: count, total, mean and share, slowest first.
  void print_profile(std::ostream& out, int runs) const;
  // Chrome trace-event JSON (one complete event per node execution).
  std::string trace_json() const;

 private:
  static void observe(void* context, const std::string& node, const std::string& op,
                      long long start_ns, long long end_ns);
  // The observer hands out each node's own name string, whose address stays
  // the same from run to run: it identifies the node.
  int _slot_of(const std::string& node, const std::string& op);

  // Recording must cost little next to a tiny node: a record holds the index
  // of its node's slot, and names are copied once per node, not per run.
  struct Slot {
    const std::string* node;
    std::string name;
    std::string op;
  };
  struct Record {
    int run;
    int slot;
    long long start_ns;
    long long end_ns;
  };
  int run_ = 0;
  std::vector<Slot> slots_;
  std::unordered_map<const std::string*, int> slot_index_;
  size_t next_slot_ = 0;  // nodes run in the same order every run: try this slot first
  std::deque<Record> records_;  // grows without moving what it holds
  mutable std::vector<Event> events_;
};

// JSON string literal of `text`.
std::string json_string(const std::string& text);

}  // namespace kovra_tool

#endif  // KOVRA_TOOLS_PROFILE_H_
