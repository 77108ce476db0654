#include "support/int8_graph.h"

#include <cmath>
#include <cstdlib>

namespace kovra_test {

namespace {
std::string input_name(int i) { return i == 0 ? "input" : "input" + std::to_string(i); }
}  // namespace

OneOpModel::OneOpModel(const std::string& op, int num_inputs) : num_inputs_(num_inputs) {
  std::vector<std::string> names;
  for (int i = 0; i < num_inputs; ++i) {
    add_node(graph_, input_name(i), "ZxxNOp");
    names.push_back(input_name(i));
  }
  NodeDef* node = add_node(graph_, "op", op, names);
  set_attr_i(node, "output_bitwidth", 8);
}

std::vector<float> OneOpModel::run(const std::vector<const Tensor*>& inputs,
                                   std::vector<int>* shape) const {
  std::vector<std::pair<std::string, const Tensor*>> named;
  for (int i = 0; i < num_inputs_ && i < static_cast<int>(inputs.size()); ++i) {
    named.emplace_back(input_name(i), inputs[i]);
  }
  return run_graph(graph_, named, "op", shape);
}

double firmware_exp_reference(double x) {
  const int n = static_cast<int>(x);
  const double f = x - n;
  double en = 1.0;
  for (int i = 0; i < std::abs(n); ++i) en *= 2.718281828459045;
  if (n < 0) en = 1.0 / en;
  double ef = 0.0, factorial = 1.0;
  for (int k = 0; k <= 9; ++k) {
    if (k > 0) factorial *= k;
    ef += std::pow(f, k) / factorial;
  }
  return en * ef;
}

std::unique_ptr<kovra::trenkit::kovraexecutor::OpExecutor> make_op(const std::string& op) {
  auto creator = kovra::trenkit::kovraexecutor::Holder::new_op_creator().at(op);
  return std::unique_ptr<kovra::trenkit::kovraexecutor::OpExecutor>(creator());
}

}  // namespace kovra_test
