#include "support/single_op_runner.h"

#include <gtest/gtest.h>

#include "support/test_util.h"

namespace kovra_test {

using kovra::trenkit::kovraexecutor::Holder;

SingleOpRunner::SingleOpRunner(const std::string& op, const kovra::trenkit::NodeDef& node) {
  auto& creators = Holder::new_op_creator();
  auto it = creators.find(op);
  if (it == creators.end() || it->second == nullptr) {
    ADD_FAILURE() << "operator " << op << " is not registered";
    return;
  }
  op_.reset(it->second());
  output_.set_name(node.name());
  op_->parse_parameter(node);
}

std::vector<float> SingleOpRunner::run(const std::vector<const Tensor*>& inputs, std::vector<int>* shape) {
  if (!op_) return {};
  std::vector<int> out_shape;
  op_->inference_shape(inputs, out_shape);
  output_.set_data(out_shape, Tensor::DT_FLOAT, nullptr);
  op_->execute(inputs, &output_);
  if (shape != nullptr) *shape = out_shape;
  return tensor_values(output_);
}

kovra::trenkit::NodeDef node_with_attrs(const std::string& attrs_text, const std::string& name) {
  return parse_text_node("name: \"" + name + "\" " + attrs_text);
}

}  // namespace kovra_test
