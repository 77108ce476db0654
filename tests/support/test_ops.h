#ifndef KOVRA_TESTS_SUPPORT_TEST_OPS_H_
#define KOVRA_TESTS_SUPPORT_TEST_OPS_H_

// Operators that exist only in the test binaries, for exercising the graph core
// without depending on any real operator. Include from one file per binary.

#include <map>
#include <string>
#include <vector>

#include "node.h"
#include "op_executor.h"
#include "tensor.h"

namespace kovra_test {

using kovra::trenkit::kovraexecutor::Holder;
using kovra::trenkit::kovraexecutor::Node;
using kovra::trenkit::kovraexecutor::OpExecutor;
using kovra::trenkit::kovraexecutor::Tensor;

// What the test operators saw, by node name.
struct TestOpLog {
  std::vector<std::string> executed;
  std::map<std::string, int> shape_inferences;
  std::map<std::string, int> parses;
  void clear() { *this = TestOpLog(); }
};
inline TestOpLog& test_op_log() {
  static TestOpLog log;
  return log;
}

inline std::string owner_name(const OpExecutor* op) {
  return op->owner() == nullptr ? std::string("?") : op->owner()->name();
}

// Output = element-wise sum of all inputs and weights, each read cyclically;
// shape of the first input.
class TestSumOpExecutor : public OpExecutor {
 public:
  void parse_parameter(const kovra::trenkit::NodeDef&) override { ++test_op_log().parses[owner_name(this)]; }
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override {
    ++test_op_log().shape_inferences[owner_name(this)];
    shape = inputs.at(0)->shape();
  }
  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    test_op_log().executed.push_back(owner_name(this));
    float* out = output->mutable_data<float>();
    for (int i = 0; i < output->size(); ++i) {
      float sum = 0.0f;
      for (const Tensor* input : inputs) sum += input->data<float>()[i % input->size()];
      out[i] = sum;
    }
    return true;
  }
};

// Copies its input and attaches two secondary outputs "<name>:0" (the input
// times 10) and "<name>:1" (times 100).
class TestSplitOpExecutor : public TestSumOpExecutor {
 public:
  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override {
    TestSumOpExecutor::execute(inputs, output);
    const std::string name = owner_name(this);
    auto& slaves = output->get_mu_slave_tensors();
    for (Tensor* slave : slaves) delete slave;
    slaves.clear();
    for (int k = 0; k < 2; ++k) {
      Tensor* slave = new Tensor(output->shape(), Tensor::DT_FLOAT, nullptr, "cpu");
      slave->set_name(name + ":" + std::to_string(k));
      for (int i = 0; i < output->size(); ++i) {
        slave->mutable_data<float>()[i] = output->data<float>()[i] * (k == 0 ? 10.0f : 100.0f);
      }
      output->set_slave_tensors(slave);
    }
    return true;
  }
};

inline OpExecutor* create_test_sum() { return new TestSumOpExecutor(); }
inline OpExecutor* create_test_split() { return new TestSplitOpExecutor(); }

inline const bool kTestOpsRegistered = [] {
  Holder::add_op_crreator("TestSum", create_test_sum);
  Holder::add_op_crreator("TestSplit", create_test_split);
  // Names that select the bit-width rules of quantized and pass-through nodes.
  Holder::add_op_crreator("NOp", create_test_sum);
  Holder::add_op_crreator("TestInt8Op", create_test_sum);
  Holder::add_op_crreator("TestQuantizeOp", create_test_sum);
  return true;
}();

// Makes "Z40AdaRoundQuantizeWeight" a TestSum for the lifetime of the object,
// so the scheduling of weight-only operators is tested on its own.
class ScopedConstOpOverride {
 public:
  ScopedConstOpOverride() {
    auto& creators = Holder::new_op_creator();
    auto it = creators.find("Z40AdaRoundQuantizeWeight");
    had_ = it != creators.end();
    if (had_) saved_ = it->second;
    creators["Z40AdaRoundQuantizeWeight"] = create_test_sum;
  }
  ~ScopedConstOpOverride() {
    auto& creators = Holder::new_op_creator();
    if (had_) creators["Z40AdaRoundQuantizeWeight"] = saved_;
    else creators.erase("Z40AdaRoundQuantizeWeight");
  }

 private:
  bool had_ = false;
  kovra::trenkit::kovraexecutor::OpCreator saved_ = nullptr;
};

}  // namespace kovra_test

#endif  // KOVRA_TESTS_SUPPORT_TEST_OPS_H_
