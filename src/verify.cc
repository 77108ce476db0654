// Per-layer isolation: which node computes differently from a reference, as
// opposed to the nodes that only inherit a difference from upstream.

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "kovraexecutor/compare.h"
#include "kovraexecutor/graph_executor.h"
#include "kovraexecutor/model_check.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

// Names of the nodes in the order the executor ran them.
void record_order(void* context, const std::string& node, const std::string&, long long, long long) {
  static_cast<std::vector<std::string>*>(context)->push_back(node);
}

TensorDiff diff_tensor(const GraphExecutor& executor, const Tensor* host, const DumpTensor& reference,
                       const VerifySettings& settings) {
  TensorDiff d;
  if (host == nullptr || host->shape() != reference.shape) {
    d.status = "shape";
    if (host != nullptr) d.shape_a = host->shape();
    d.shape_b = reference.shape;
    return d;
  }
  // The host's values as the reference's dump type holds them, so that a 16-bit
  // node's fractions or an unsigned node's negative codes are not differences.
  std::vector<float> values = executor.get_node_float_data(host);
  for (float& v : values) v = as_dumped(v, reference.dtype);
  return diff_values(values, reference.values, reference.shape, is_code_dtype(reference.dtype), settings.rtol,
                     settings.atol);
}

}  // namespace

bool verify_model(const GraphDef& graph, const std::string& reference,
                  const std::map<std::string, const Tensor*>& inputs, const VerifySettings& settings,
                  VerifyReport& report, std::string& error) {
  report = VerifyReport();
  error.clear();  // the loaders below report through it
  std::vector<DumpTensor> listed;
  if (!read_dump_index(reference, settings.manifest, listed, error)) return false;
  std::map<std::string, DumpTensor*> by_name;
  for (DumpTensor& t : listed) by_name[t.name] = &t;

  const GraphOutline outline = graph_outline(graph);
  for (const std::string& name : settings.starts) {
    if (outline.find(name) < 0) {
      error = "the model has no node '" + name + "'";
      return false;
    }
  }
  if (!settings.output.empty() && outline.find(settings.output) < 0) {
    error = "the model has no node '" + settings.output + "'";
    return false;
  }
  // Tensors handed to the executor: given inputs are copied so that the
  // executor may rename them.
  std::map<std::string, std::unique_ptr<Tensor>> held;
  auto from_reference = [&](const std::string& name) -> Tensor* {
    auto found = by_name.find(name);
    if (found == by_name.end()) return nullptr;
    std::unique_ptr<Tensor>& slot = held["ref:" + name];
    if (!slot) {
      if (!load_dump_tensor(reference, *found->second, error)) return nullptr;
      slot = tensor_of(name, found->second->shape, found->second->values);
    }
    return slot.get();
  };
  auto given = [&](const std::string& name) -> Tensor* {
    auto found = inputs.find(name);
    if (found == inputs.end()) return nullptr;
    std::unique_ptr<Tensor>& slot = held["in:" + name];
    if (!slot) {
      // Inputs are float tensors, as load_inputs makes them.
      const Tensor* t = found->second;
      const std::vector<float> values(t->data<float>(), t->data<float>() + t->size());
      slot = tensor_of(name, t->shape(), values);
    }
    return slot.get();
  };

  // The whole graph, from the given inputs, else the reference's.
  const std::vector<std::string> feeds = run_feeds(outline, run_starts(outline, settings.starts));
  std::map<std::string, Tensor*> fed;
  for (const std::string& name : feeds) {
    Tensor* tensor = given(name);
    if (tensor == nullptr && error.empty()) tensor = from_reference(name);
    if (!error.empty()) return false;
    if (tensor == nullptr) {
      error = "no data for input '" + name + "': give it, or a reference that holds it";
      return false;
    }
    fed[name] = tensor;
  }
  GraphExecutor executor(&graph, CPU);
  std::vector<std::string> order;
  executor.set_node_observer(record_order, &order);
  executor.set_inputs(fed);
  executor.work(settings.starts, settings.output);
  executor.set_node_observer(nullptr, nullptr);

  const std::set<std::string> fed_names(feeds.begin(), feeds.end());
  for (const std::string& name : order) {
    if (fed_names.count(name)) continue;
    auto ref = by_name.find(name);
    if (ref == by_name.end()) {
      report.unreferenced.push_back(name);
      continue;
    }
    if (!load_dump_tensor(reference, *ref->second, error)) return false;
    VerifyNode node;
    node.name = name;
    node.op = outline.ops[outline.find(name)];
    node.accumulated = diff_tensor(executor, executor.get_node_tensor(name), *ref->second, settings);
    node.accumulated.name = node.name;
    node.accumulated.op = node.op;
    report.nodes.push_back(node);
  }

  if (report.nodes.empty()) {
    error = "no node of the run has a tensor in '" + reference + "'";
    return false;
  }

  // Each node alone, from the reference's values of what it reads.
  for (VerifyNode& node : report.nodes) {
    std::map<std::string, Tensor*> sources;
    for (size_t p : outline.producers[outline.find(node.name)]) {
      const std::string& name = outline.names[p];
      Tensor* tensor = from_reference(name);
      if (tensor == nullptr && error.empty()) tensor = given(name);
      if (!error.empty()) return false;
      if (tensor == nullptr) {
        error = "node '" + node.name + "': the reference holds no tensor for its input '" + name + "'";
        return false;
      }
      sources[name] = tensor;
    }
    executor.set_inputs(sources);
    executor.work({node.name}, node.name);
    const DumpTensor& ref = *by_name[node.name];
    node.local = diff_tensor(executor, executor.get_output_tensor(node.name), ref, settings);
    node.local.name = node.name;
    node.local.op = node.op;
    if (node.local.status != "ok" && report.local_failed++ == 0) report.first_local = node.name;
    if (node.accumulated.status != "ok" && report.accumulated_failed++ == 0) {
      report.first_accumulated = node.name;
    }
  }
  for (DumpTensor& t : listed) t.values = std::vector<float>();
  return true;
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
