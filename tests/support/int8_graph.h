#ifndef KOVRA_TESTS_SUPPORT_INT8_GRAPH_H_
#define KOVRA_TESTS_SUPPORT_INT8_GRAPH_H_

#include <memory>
#include <string>
#include <vector>

#include "op_executor.h"
#include "support/test_util.h"

namespace kovra_test {

// A model of graph inputs "input", "input1", ... (ZxxNOp) feeding one node
// "op" of the given operator, which carries "output_bitwidth" 8 as quantized
// nodes must. Attributes are added through node().
class OneOpModel {
 public:
  OneOpModel(const std::string& op, int num_inputs);
  NodeDef* node() { return graph_.mutable_node(num_inputs_); }
  // Runs the model on `inputs` (in order) and returns the node's output.
  std::vector<float> run(const std::vector<const Tensor*>& inputs,
                         std::vector<int>* shape = nullptr) const;

 private:
  GraphDef graph_;
  int num_inputs_;
};

// e^x as the accelerator computes it, written out independently of the
// library: e^n by |n| products of e, e^f by ten terms of the Taylor series.
double firmware_exp_reference(double x);

// An executor of `op` made through the registry, for calling its steps directly.
std::unique_ptr<kovra::trenkit::kovraexecutor::OpExecutor> make_op(const std::string& op);

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_INT8_GRAPH_H_
