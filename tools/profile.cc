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
  self->events_.push_back({self->run_, node, op, start_ns, end_ns});
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
  std::map<std::string, Total> by_op;
  std::map<std::string, Total> by_node;
  std::vector<std::string> node_order;
  long long all_ns = 0;
  for (const Event& e : events_) {
    const long long ns = e.end_ns - e.start_ns;
    all_ns += ns;
    Total& op = by_op[e.op];
    op.label = e.op;
    ++op.count;
    op.ns += ns;
    if (!by_node.count(e.node)) node_order.push_back(e.node);
    Total& node = by_node[e.node];
    node.label = e.node;
    node.op = e.op;
    ++node.count;
    node.ns += ns;
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
  const long long origin = events_.empty() ? 0 : events_.front().start_ns;
  std::string out = "{\"displayTimeUnit\": \"ms\", \"traceEvents\": [\n";
  out += "{\"name\": \"process_name\", \"ph\": \"M\", \"pid\": 1, \"tid\": 1, "
         "\"args\": {\"name\": \"kovra run\"}}";
  char numbers[128];
  for (const Event& e : events_) {
    std::snprintf(numbers, sizeof(numbers), "\"ts\": %.3f, \"dur\": %.3f",
                  static_cast<double>(e.start_ns - origin) / 1e3,
                  static_cast<double>(e.end_ns - e.start_ns) / 1e3);
    out += ",\n{\"name\": " + json_string(e.node) + ", \"cat\": " + json_string(e.op) +
           ", \"ph\": \"X\", \"pid\": 1, \"tid\": 1, " + numbers +
           ", \"args\": {\"op\": " + json_string(e.op) + ", \"run\": " + std::to_string(e.run) + "}}";
  }
  out += "\n]}\n";
  return out;
}

}  // namespace kovra_tool
