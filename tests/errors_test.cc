// Failures under both error policies: the same table of bad models and bad
// calls must abort with the exact line by default and, under kThrow, raise
// Error with that text and the node and operator it concerns; an executor
// that has thrown stays usable, and pool tasks fail as their caller would.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "common.h"
#include "graph_executor.h"
#include "support/test_util.h"
#include "thread_pool.h"

namespace kovra_test {
namespace {

using kovra::trenkit::kovraexecutor::CPU;
using kovra::trenkit::kovraexecutor::DEVICE;
using kovra::trenkit::kovraexecutor::Error;
using kovra::trenkit::kovraexecutor::error_policy;
using kovra::trenkit::kovraexecutor::ErrorPolicy;
using kovra::trenkit::kovraexecutor::fatal;
using kovra::trenkit::kovraexecutor::GPU;
using kovra::trenkit::kovraexecutor::GraphExecutor;
using kovra::trenkit::kovraexecutor::NodeErrorScope;
using kovra::trenkit::kovraexecutor::ScopedErrorPolicy;
using kovra::trenkit::kovraexecutor::ThreadPool;

// bn = x * scale + bias per channel, on a fed x of shape [1, 1, 1, 3].
const char* const kModel = R"(
  node { name: "x" op: "ZxxNOp" }
  node { name: "bn" op: "Z40BatchNormScale" input: "x"
         attr { key: "scale" value { list { f: [2, 3, 4] } } }
         attr { key: "bias" value { list { f: [1, -1, 0.5] } } } })";

std::vector<float> reference_bn(const std::vector<float>& x) {
  const float scale[3] = {2, 3, 4}, bias[3] = {1, -1, 0.5f};
  std::vector<float> out;
  for (size_t i = 0; i < x.size(); ++i) out.push_back(x[i] * scale[i % 3] + bias[i % 3]);
  return out;
}

// The exact abort line: colour, "Error: ", the text, reset, and nothing after.
std::string abort_line(const std::string& text) {
  return literal_regex("\033[1m\033[31mError: " + text + "\033[0m\n") + "$";
}

std::function<void()> construct(const std::string& model, DEVICE device = CPU) {
  return [model, device] {
    GraphDef graph = parse_text_graph(model);
    GraphExecutor executor(&graph, device);
  };
}

// A constant "w" of the given tensor, read by node "use".
std::string with_const(const std::string& tensor) {
  return R"(node { name: "x" op: "ZxxNOp" } node { name: "w" op: "Const" attr { key: "value" value { )" +
         tensor + R"( } } } node { name: "use" op: "ZxxNOp" input: "x" input: "w" })";
}

// `call` on an executor of kModel fed with x of `shape`.
std::function<void()> on_model(std::function<void(GraphExecutor&)> call,
                               std::vector<int> shape = {1, 1, 1, 3}) {
  return [call, shape] {
    GraphDef graph = parse_text_graph(kModel);
    GraphExecutor executor(&graph, CPU);
    Tensor x(shape, Tensor::DT_FLOAT, nullptr, "cpu");
    x.fill(1.0f);
    executor.set_input("x", &x);
    call(executor);
  };
}

struct FailureCase {
  const char* what;
  std::function<void()> run;
  std::string message;
  std::string node;  // empty: the failure concerns no node
  std::string op;
};

std::ostream& operator<<(std::ostream& os, const FailureCase& c) { return os << c.what; }

std::vector<FailureCase> failure_cases() {
  return {
      // Translation of the model.
      {"UnknownOperator", construct(R"(node { name: "a" op: "Z40Warp" })"),
       "Op: Z40Warp has not been supported!", "a", "Z40Warp"},
      {"InputNamingNoNode", construct(R"(node { name: "a" op: "ZxxNOp" input: "ghost" })"),
       "Check failed: input_node != nullptr", "a", "ZxxNOp"},
      {"MissingAttribute",
       construct(R"(node { name: "x" op: "ZxxNOp" } node { name: "leaky" op: "Z40LeakyRelu" input: "x" })"),
       "Check failed: suc==>\"Do not find the alpha in FloatZ40LeakyRelu!!!\"", "leaky", "Z40LeakyRelu"},
      {"NoOutputBitwidth", construct(R"(node { name: "q" op: "Z40Conv2DInt8" })"),
       "Op: q have no output bitwidth!", "q", "Z40Conv2DInt8"},
      {"ShortConstant", construct(with_const(R"(tensor { dtype: DT_FLOAT tensor_shape { dim { size: 4 } }
                                                    tensor_content: "abcd" })")),
       "The constant node:w holds 4 bytes of data but its shape [4] needs 16.", "use", "ZxxNOp"},
      {"NegativeDimension",
       construct(with_const(
           R"(tensor { dtype: DT_FLOAT tensor_shape { dim { size: -2 } } tensor_content: "abcdefgh" })")),
       "The constant node:w has an invalid shape.", "use", "ZxxNOp"},
      {"OverflowingCount",
       construct(
           with_const("tensor { dtype: DT_FLOAT tensor_shape { dim { size: 65536 } dim { size: 65536 } } }")),
       "The constant node:w has an invalid shape.", "use", "ZxxNOp"},
      {"UnsupportedType",
       construct(with_const(
           R"(tensor { dtype: DT_DOUBLE tensor_shape { dim { size: 1 } } tensor_content: "abcdefgh" })")),
       "Check failed: data_type_byte_size.count(data_type) != 0==>", "use", "ZxxNOp"},
      {"ConstantWithoutValue", construct(R"(node { name: "x" op: "ZxxNOp" } node { name: "w" op: "Const" }
                                            node { name: "use" op: "ZxxNOp" input: "x" input: "w" })"),
       "key not found: value", "use", "ZxxNOp"},
      {"EmptyModel", construct(""), "Have no end point, please check it!", "", ""},
      // Calls on a good executor.
      {"UnknownDevice", construct(kModel, static_cast<DEVICE>(7)), "Unsupport device type: 7", "", ""},
      {"GpuConstructor", construct(kModel, GPU), "Your library don't compile with GPU.", "", ""},
      {"Gpu", on_model([](GraphExecutor& e) { e.set_device(GPU); }), "Your library don't compile with GPU.",
       "", ""},
      {"QueryGpu", on_model([](GraphExecutor& e) { e.query_gpu_device(); }),
       "Your library don't compile with GPU.", "", ""},
      {"SetGpu", on_model([](GraphExecutor& e) { e.set_gpu_device(0); }),
       "Your library don't compile with GPU.", "", ""},
      {"FloatDataOfInt16", on_model([](GraphExecutor& e) {
         short s16[1] = {1};
         Tensor d({1}, Tensor::DT_INT16, s16, "cpu");
         e.get_node_float_data(&d);
       }),
       "Unsupport tensor data type:5", "", ""},
      {"BadInputName", on_model([](GraphExecutor& e) {
         Tensor y({1, 1, 1, 3}, Tensor::DT_FLOAT, nullptr, "cpu");
         e.set_inputs({{"y", &y}});
         e.work();
       }),
       "Do not find the input data :x", "x", "ZxxNOp"},
      {"WrongInputShape", on_model([](GraphExecutor& e) { e.work(); }, {3}),
       "Check failed: input_tensor->shape().size() == 4==>\"Wrong input shape in z40 batch norm!!!\"", "bn",
       "Z40BatchNormScale"},
      {"NodeTensorOfNoNode", on_model([](GraphExecutor& e) { e.get_node_tensor("nope"); }),
       "Graph have no node:nope", "", ""},
      {"NodeTensorBeforeRun", on_model([](GraphExecutor& e) { e.get_node_tensor("bn"); }),
       "Do not find the node tensor of name:bn", "", ""},
      {"WeightsOfNoNode", on_model([](GraphExecutor& e) { e.get_node_weights("nope"); }),
       "Graph have no node:nope", "", ""},
      {"BadEndNode", on_model([](GraphExecutor& e) { e.work({}, "nope"); }),
       "Have no end point, please check it!", "", ""},
      {"BadStartNode", on_model([](GraphExecutor& e) { e.work({"nope"}, ""); }),
       "Have no start point, please check it!", "", ""},
      // A failing task of the thread pool, on a worker or on the caller.
      {"PoolTask",
       [] {
         const std::string node = "conv", op = "Z40Conv2D";
         NodeErrorScope scope(node, op);
         ThreadPool::instance().run(16, [](int task) {
           if (task == 11) fatal("task 11 failed");
         });
       },
       "task 11 failed", "conv", "Z40Conv2D"},
  };
}

class FailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(FailureTest, AbortsWithTheExactLineByDefault) {
  EXPECT_DEATH(GetParam().run(), abort_line(GetParam().message));
}

TEST_P(FailureTest, ThrowsTheTextAndTheNodeUnderKThrow) {
  ScopedErrorPolicy policy(ErrorPolicy::kThrow);
  try {
    GetParam().run();
    ADD_FAILURE() << "no failure";
  } catch (const Error& e) {
    EXPECT_EQ(e.message(), GetParam().message);
    EXPECT_EQ(std::string(e.what()), GetParam().message);
    EXPECT_EQ(e.node(), GetParam().node);
    EXPECT_EQ(e.op(), GetParam().op);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, FailureTest, ::testing::ValuesIn(failure_cases()),
                         [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.what; });

TEST(ErrorRecoveryTest, ExecutorOutlivesAThousandFailures) {
  ScopedErrorPolicy policy(ErrorPolicy::kThrow);
  GraphDef graph = parse_text_graph(kModel);
  GraphExecutor executor(&graph, CPU);
  const std::vector<float> values = {1, 2, 3};
  Tensor good = make_tensor({1, 1, 1, 3}, values);
  Tensor flat = make_tensor({3}, values);
  auto run_with = [&](const char* name, Tensor* x) {
    executor.set_inputs({{name, x}});
    executor.work();
  };
  // An input of no node, a wrong shape, no such node, no such end point.
  const std::function<void()> failing[] = {[&] { run_with("y", &good); }, [&] { run_with("x", &flat); },
                                           [&] { executor.get_node_tensor("nope"); },
                                           [&] { executor.work({}, "nope"); }};
  int failures = 0;
  for (int i = 0; i < 1000; ++i) {
    try {
      failing[i % 4]();
    } catch (const Error&) {
      ++failures;
    }
    if (i == 500) {
      // A good run halfway, after the graph was left without an end point.
      executor.set_inputs({{"x", &good}});
      executor.work();
      EXPECT_EQ(tensor_values(*executor.get_output_tensor("bn")), reference_bn(values));
    }
  }
  EXPECT_EQ(failures, 1000);
  executor.set_inputs({{"x", &good}});
  EXPECT_TRUE(executor.work());
  EXPECT_EQ(tensor_values(*executor.get_output_tensor("bn")), reference_bn(values));
  EXPECT_EQ(tensor_values(*executor.get_node_tensor("bn")), reference_bn(values));
}

TEST(ErrorRecoveryTest, PoolTasksFollowTheCallerAndThePoolGoesOn) {
  ThreadPool& pool = ThreadPool::instance();
  const int threads = pool.num_threads();
  pool.set_num_threads(4);
  {
    // The process policy stays kAbort: only the caller's scope says kThrow.
    ScopedErrorPolicy policy(ErrorPolicy::kThrow);
    std::vector<int> seen(64, -1);
    EXPECT_THROW(pool.run(64,
                          [&](int task) {
                            seen[task] = static_cast<int>(error_policy());
                            fatal("every task fails");
                          }),
                 Error);
    for (int p : seen) EXPECT_TRUE(p == -1 || p == static_cast<int>(ErrorPolicy::kThrow));
  }
  std::vector<int> squares(64);
  pool.run(64, [&](int task) { squares[task] = task * task; });
  for (int i = 0; i < 64; ++i) EXPECT_EQ(squares[i], i * i);
  pool.set_num_threads(threads);
}

}  // namespace
}  // namespace kovra_test
