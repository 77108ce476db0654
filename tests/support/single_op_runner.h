#ifndef KOVRA_TESTS_SUPPORT_SINGLE_OP_RUNNER_H_
#define KOVRA_TESTS_SUPPORT_SINGLE_OP_RUNNER_H_

#include <memory>
#include <string>
#include <vector>

#include "lite/proto/graph_def.pb.h"
#include "op_executor.h"
#include "tensor.h"

namespace kovra_test {

using kovra::trenkit::kovraexecutor::Tensor;

// Drives one registered operator the way a node does, without a graph:
// create by name, parse `node`, infer the shape, allocate, execute.
class SingleOpRunner {
 public:
  SingleOpRunner(const std::string& op, const kovra::trenkit::NodeDef& node);
  // Runs on `inputs` and returns the output's values; `shape` receives its shape.
  std::vector<float> run(const std::vector<const Tensor*>& inputs, std::vector<int>* shape = nullptr);
  kovra::trenkit::kovraexecutor::OpExecutor* op() { return op_.get(); }
  Tensor& output() { return output_; }

 private:
  std::unique_ptr<kovra::trenkit::kovraexecutor::OpExecutor> op_;
  Tensor output_;
};

// A node with the given name and attributes in protobuf text form, e.g.
// R"(attr { key: "groups" value { f: 2 } })".
kovra::trenkit::NodeDef node_with_attrs(const std::string& attrs_text, const std::string& name = "op");

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_SINGLE_OP_RUNNER_H_
