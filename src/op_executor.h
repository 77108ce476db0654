#ifndef KOVRAEXECUTOR_OP_EXECUTOR_H_
#define KOVRAEXECUTOR_OP_EXECUTOR_H_

#include <map>
#include <set>
#include <string>
#include <vector>

#include "lite/proto/graph_def.pb.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

using ::kovra::trenkit::AttrValue;
using ::kovra::trenkit::GraphDef;
using ::kovra::trenkit::NodeDef;
using ::kovra::trenkit::TensorProto;

class Node;

// Operators computed from their weights alone: never start points, run on
// demand before the node that reads them.
static const std::set<std::string> CONST_OPS = {"Z40AdaRoundQuantizeWeight"};
// Operators an accelerator build would offload; the host build never consults it.
static const std::set<std::string> GPU_SUPPORT_OPS = {
    "Z40Conv2D", "Z40Add",     "Z40MatMul",   "Z40LeakyRelu",
    "Z40Concat", "Z40MaxPool", "Z40ResizeNearestNeighbor",
    "Z40EltwiseAdd", "Z40Mul", "Z40Sigmoid",  "Z40PRelu",
    "Z40DepthwiseConv2dNative", "Z40Max", "Z40Relu", "Z40Relu6"};

// Base of every operator's parameter record.
struct BaseParam {
  virtual ~BaseParam() = default;
};

class OpExecutor {
 public:
  virtual ~OpExecutor() = default;
  virtual void parse_parameter(const NodeDef& node_def) { (void)node_def; }
  virtual void backward(const std::vector<const Tensor*>& inputs, const Tensor* output,
                        const Tensor* output_grad, std::vector<Tensor*>& input_grads) {
    (void)inputs, (void)output, (void)output_grad, (void)input_grads;
  }
  virtual void inference_shape(const std::vector<const Tensor*>& inputs,
                               std::vector<int>& shape) = 0;
  virtual bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) = 0;
  // Inputs (data and weights together) the operator reads at most, or -1 when
  // it does not say; the model check reports any beyond, which would go unread.
  virtual int max_inputs() const { return -1; }

  void set_owner(Node* owner) { owner_ = owner; }
  Node* owner() const { return owner_; }

  // Reads a tensor-valued attribute as raw elements of T; see op_executor.cc.
  template <typename T>
  bool _tensor_parameter_parser(const NodeDef& node_def, const char* key,
                                std::vector<T>& values);

 protected:
  Node* owner_ = nullptr;
};

// Every operator owns its parameter record by value, through this base:
// parse_parameter fills the attributes once, inference_shape adds what
// depends on the input shapes (geometry, padding, factors), execute reads it.
template <typename Param>
class ParamOpExecutor : public OpExecutor {
 public:
  const Param& param() const { return op_param_; }
  Param& mutable_param() { return op_param_; }

 protected:
  Param op_param_;
};

typedef OpExecutor* (*OpCreator)();

class Holder {
 public:
  static std::map<std::string, OpCreator>& new_op_creator();
  static void add_op_crreator(const std::string& name, OpCreator creator);
};

bool get_attr_value(const NodeDef& node_def, const char* key, AttrValue& value);
void get_tensor_shape(const TensorProto* tensor, std::vector<int>& shape);
// Copies the raw content into a malloc'ed block with 128 spare bytes (null when
// empty); no conversion to T takes place. The caller frees the block.
template <typename T>
void get_tensor_content(const TensorProto* tensor, T** data);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

// Defines Creator_<Stem> and registers <Stem>OpExecutor under NAME at load time.
#define KOVRA_REGISTER_OP_AS(NAME, Stem)                                        \
  namespace kovra {                                                             \
  namespace trenkit {                                                           \
  namespace kovraexecutor {                                                     \
  OpExecutor* Creator_##Stem() { return new Stem##OpExecutor(); }               \
  namespace {                                                                   \
  const bool kRegistered_##Stem = (Holder::add_op_crreator(NAME, Creator_##Stem), true); \
  }                                                                             \
  }                                                                             \
  }                                                                             \
  }

#define KOVRA_REGISTER_OP(Stem) KOVRA_REGISTER_OP_AS(#Stem, Stem)

#endif  // KOVRAEXECUTOR_OP_EXECUTOR_H_
