#include "profile.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace kovra_tool {

void Profiler::attach(kovra::trenkit::kovraexecutor::GraphExecutor* executor) {
  executor->set_node_observer(&Profiler::observe, this);
}

void Profiler::observe(void* context, const std::string& node, const std::string& op,
                       long long start_ns, long long end_ns) {
  auto* self = static_cast<Profiler*>(context);
  self->records_.push_back({self->run_, self->_slot_of(node, op), start_ns, end_ns});
}

int Profiler::_slot_of(const std::string& node, const std::string& op) {
  size_t slot = next_slot_;
  if (slot >= slots_.size() || slots_[slot].node != &node) {
    auto it = slot_index_.find(&node);
    if (it != slot_index_.end()) {
      slot = static_cast<size_t>(it->second);
    } else {
      slot = slots_.size();
      slots_.push_back({&node, node, op});
      slot_index_.emplace(&node, static_cast<int>(slot));
    }
  }
  next_slot_ = slot + 1;
  return static_cast<int>(slot);
}

const std::vector<Profiler::Event>& Profiler::events() const {
  events_.clear();
  for (const Record& r : records_) {
    events_.push_back({r.run, slots_[r.slot].name, slots_[r.slot].op, r.start_ns, r.end_ns});
  }
  return events_;
}

namespace {

struct Total {
  std::string label;
  std::string op;
  long long count = 0;
  long long ns = 0;
};

void print_table(std::ostream& out, const char* title, std::vector<Total> rows, long long all_ns,
                 bool with_op) {
  std::stable_sort(rows.begin(), rows.end(),
                   [](const Total& a, const Total& b) { return a.ns > b.ns; });
  size_t width = std::string(title).size();
  for (const Total& row : rows) width = std::max(width, row.label.size());
  char line[512];
  std::snprintf(line, sizeof(line), "%-*s %8s %12s %12s %7s%s\n", static_cast<int>(width), title,
                "count", "total ms", "mean us", "share", with_op ? "  op" : "");
  out << line;
  for (const Total& row : rows) {
    const double total_ms = static_cast<double>(row.ns) / 1e6;
    const double mean_us = row.count ? static_cast<double>(row.ns) / 1e3 / row.count : 0.0;
    const double share = all_ns ? 100.0 * static_cast<double>(row.ns) / all_ns : 0.0;
    std::snprintf(line, sizeof(line), "%-*s %8lld %12.3f %12.1f %6.1f%%", static_cast<int>(width),
                  row.label.c_str(), row.count, total_ms, mean_us, share);
    out << line << (with_op ? "  " + row.op : std::string()) << "\n";
  }
}

}  // namespace

void Profiler::print_profile(std::ostream& out, int runs) const {
  // Totals per slot first, then by name: one string lookup per node, not per event.
  std::vector<long long> slot_count(slots_.size(), 0);
  std::vector<long long> slot_ns(slots_.size(), 0);
  long long all_ns = 0;
  for (const Record& r : records_) {
    const long long ns = r.end_ns - r.start_ns;
    all_ns += ns;
    ++slot_count[r.slot];
    slot_ns[r.slot] += ns;
  }
  std::map<std::string, Total> by_op;
  std::map<std::string, Total> by_node;
  std::vector<std::string> node_order;
  for (size_t i = 0; i < slots_.size(); ++i) {
    const Slot& s = slots_[i];
    Total& op = by_op[s.op];
    op.label = s.op;
    op.count += slot_count[i];
    op.ns += slot_ns[i];
    if (!by_node.count(s.name)) node_order.push_back(s.name);
    Total& node = by_node[s.name];
    node.label = s.name;
    node.op = s.op;
    node.count += slot_count[i];
    node.ns += slot_ns[i];
  }
  char line[256];
  std::snprintf(line, sizeof(line), "profile: %d run(s), %.3f ms in operators, %.3f ms per run\n",
                runs, static_cast<double>(all_ns) / 1e6,
                runs ? static_cast<double>(all_ns) / 1e6 / runs : 0.0);
  out << line << "\n";
  std::vector<Total> ops;
  for (const auto& entry : by_op) ops.push_back(entry.second);
  print_table(out, "operator", ops, all_ns, false);
  out << "\n";
  std::vector<Total> nodes;
  for (const std::string& name : node_order) nodes.push_back(by_node[name]);
  print_table(out, "node", nodes, all_ns, true);
}

std::string json_string(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string Profiler::trace_json() const {
  const long long origin = records_.empty() ? 0 : records_.front().start_ns;
  std::string out = "{\"displayTimeUnit\": \"ms\", \"traceEvents\": [\n";
  out += "{\"name\": \"process_name\", \"ph\": \"M\", \"pid\": 1, \"tid\": 1, "
         "\"args\": {\"name\": \"kovra run\"}}";
  char numbers[128];
  for (const Record& e : records_) {
    const Slot& slot = slots_[e.slot];
    std::snprintf(numbers, sizeof(numbers), "\"ts\": %.3f, \"dur\": %.3f",
                  static_cast<double>(e.start_ns - origin) / 1e3,
                  static_cast<double>(e.end_ns - e.start_ns) / 1e3);
    out += ",\n{\"name\": " + json_string(slot.name) + ", \"cat\": " + json_string(slot.op) +
           ", \"ph\": \"X\", \"pid\": 1, \"tid\": 1, " + numbers +
           ", \"args\": {\"op\": " + json_string(slot.op) + ", \"run\": " + std::to_string(e.run) + "}}";
  }
  out += "\n]}\n";
  return out;
}

}  // namespace kovra_tool
