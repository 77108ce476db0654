// A program outside the source tree, built against the installed library only
// (tests/install_consumer.sh builds it through the CMake package and through
// pkg-config). It uses each part of the public interface once, so a symbol
// that should be exported and is not fails to link, and checks the results.
#include <google/protobuf/text_format.h>
#include <kovraexecutor/allocator/bfc_arena.h>
#include <kovraexecutor/encryption.h>
#include <kovraexecutor/errors.h>
#include <kovraexecutor/graph_executor.h>
#include <kovraexecutor/mallocator.h>
#include <kovraexecutor/npy.h>
#include <kovraexecutor/op_registry.h>
#include <kovraexecutor/tensor_operators.h>

#include <cstdio>
#include <string>
#include <vector>

using kovra::trenkit::GraphDef;
using kovra::trenkit::NodeDef;
using namespace kovra::trenkit::kovraexecutor;

namespace {

int failures = 0;

void expect(bool ok, const char* what) {
  if (ok) return;
  std::printf("consumer: FAILED %s\n", what);
  ++failures;
}

void count_node(void* context, const std::string&, const std::string&, long long start_ns, long long end_ns) {
  if (end_ns >= start_ns) ++*static_cast<int*>(context);
}

}  // namespace

int main() {
  // A model of quantization-aware placeholders: text format for one node, the
  // message classes for the other.
  GraphDef graph;
  const char* model = R"(node { name: "input" op: "ZxxNOp" })";
  if (!google::protobuf::TextFormat::ParseFromString(model, &graph)) return 1;
  NodeDef* q = graph.add_node();
  q->set_name("q");
  q->set_op("Z40QuantizeAdd");
  q->add_input("input");
  (*q->mutable_attr())["output_bitwidth"].set_i(8);

  GraphExecutor executor(&graph, CPU);
  Tensor input({1, 2, 2, 1}, Tensor::DT_FLOAT, nullptr, "cpu");
  input.fill(1.5f);
  int timed_nodes = 0;
  executor.set_node_observer(&count_node, &timed_nodes);
  executor.set_input("input", &input);
  executor.work({}, "");
  expect(executor.get_output_names() == std::vector<std::string>{"q"}, "output names");
  expect(timed_nodes == 2, "node observer called once per node");

  // Tensor arithmetic.
  const Tensor sum = input + input * 2.0f;
  expect(sum.size() == 4 && sum.data<float>()[3] == 4.5f, "tensor operators");
  expect(input.reduce_sum() == 6.0f, "tensor reduction");

  // Operators, .npy files and the protected-model form.
  expect(is_registered_op("Z40Conv2DInt8") && !is_registered_op("Z40NoSuchOp"), "operator registry");
  expect(registered_op_names().size() > 50, "registered operator names");
  NpyArray array;
  std::string error;
  const float values[2] = {0.25f, -3.0f};
  expect(parse_npy(npy_bytes({2}, values), "memory", array, error) && array.values[1] == -3.0f,
         ".npy round trip");
  expect(EncryptionRC4::unprotect(EncryptionRC4::protect("model bytes")) == "model bytes",
         "protected form round trip");

  // Host memory from the best-fit arena.
  void* block = cpu_malloc(1000);
  expect(block != nullptr, "cpu_malloc");
  cpu_free(block);
  allocator::BFCArena arena(std::unique_ptr<allocator::IAllocator>(new allocator::CPUAllocator()), 1 << 20);
  void* chunk = arena.Alloc(1);
  expect(arena.AllocatedSize(chunk) == 256, "arena chunk size");
  arena.Free(chunk);

  // Errors a program survives: under the throwing policy a model missing a
  // required attribute is an exception naming its node, and a good model
  // still runs afterwards in the same process.
  set_error_policy(ErrorPolicy::kThrow);
  const std::string leaky = R"(node { name: "input" op: "ZxxNOp" }
                               node { name: "leaky" op: "Z40LeakyRelu" input: "input")";
  GraphDef bad, good;
  if (!google::protobuf::TextFormat::ParseFromString(leaky + " }", &bad) ||
      !google::protobuf::TextFormat::ParseFromString(leaky + R"( attr { key: "alpha" value { f: 0.5 } } })",
                                                     &good)) {
    return 1;
  }
  try {
    GraphExecutor refused(&bad, CPU);
    expect(false, "a model without the alpha of Z40LeakyRelu is refused");
  } catch (const Error& e) {
    std::printf("consumer: caught an error in node %s (operator %s): %s\n", e.node().c_str(), e.op().c_str(),
                e.message().c_str());
    expect(e.node() == "leaky" && e.op() == "Z40LeakyRelu", "the error names its node and operator");
  }
  GraphExecutor leaky_executor(&good, CPU);
  Tensor signal({1, 1, 1, 2}, Tensor::DT_FLOAT, nullptr, "cpu");
  signal.mutable_data<float>()[0] = -2.0f;
  signal.mutable_data<float>()[1] = 4.0f;
  leaky_executor.set_input("input", &signal);
  leaky_executor.work();
  const Tensor* leaked = leaky_executor.get_output_tensor("leaky");
  expect(leaked->data<float>()[0] == -1.0f && leaked->data<float>()[1] == 4.0f,
         "the good model after the error");
  std::printf("consumer: the good model ran after the error: %g %g\n", leaked->data<float>()[0],
              leaked->data<float>()[1]);
  set_error_policy(ErrorPolicy::kAbort);

  std::printf("consumer: %s\n", failures == 0 ? "ok" : "failed");
  return failures == 0 ? 0 : 1;
}
