// Structure-aware mutations for inputs that are GraphDefs (binary, text, or
// protected): byte flips mostly break the encoding, so a parsed model has its
// fields changed where the executor reads sizes and wiring, and is written
// back as a binary GraphDef (protected again when it came protected). Bytes
// that do not parse go to libFuzzer's own mutator. The result depends only on
// the input and the seed.

#include "graph_mutator.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "encryption.h"
#include "model_parse.h"
#include "op_registry.h"

using kovra::trenkit::AttrValue;
using kovra::trenkit::GraphDef;
using kovra::trenkit::NodeDef;
using kovra::trenkit::TensorProto;
using kovra::trenkit::kovraexecutor::EncryptionRC4;
using kovra::trenkit::kovraexecutor::parse_binary;
using kovra::trenkit::kovraexecutor::parse_text;
using kovra::trenkit::kovraexecutor::registered_op_names;

namespace {

using Rng = std::mt19937;

template <typename T>
const T& pick(Rng& rng, const std::vector<T>& items) {
  return items[rng() % items.size()];
}

// Values at the edges of what sizes, strides, pads and shifts are checked against.
const std::vector<long long> kInts = {0,
                                      1,
                                      -1,
                                      2,
                                      3,
                                      4,
                                      7,
                                      8,
                                      15,
                                      16,
                                      31,
                                      32,
                                      33,
                                      64,
                                      127,
                                      128,
                                      -128,
                                      255,
                                      256,
                                      65535,
                                      65536,
                                      2147483647LL,
                                      -2147483647LL - 1,
                                      2147483648LL,
                                      4294967296LL,
                                      4294967297LL,
                                      std::numeric_limits<long long>::max(),
                                      std::numeric_limits<long long>::min()};
const std::vector<float> kFloats = {0.0f,
                                    -0.0f,
                                    1.0f,
                                    -1.0f,
                                    0.5f,
                                    2.0f,
                                    1e-6f,
                                    1e30f,
                                    -1e30f,
                                    1e-45f,
                                    std::numeric_limits<float>::infinity(),
                                    -std::numeric_limits<float>::infinity(),
                                    std::numeric_limits<float>::quiet_NaN()};
const std::vector<std::string> kStrings = {"SAME",      "VALID", "EXPLICIT", "Relu", "Relu6",
                                           "LeakyRelu", "NHWC",  "NCHW",     "",     "x"};
const std::vector<long long> kBitwidths = {8, 16, 4, 32, 0, 1, -1, 7, 33, 64};

long long small_or_extreme(Rng& rng) {
  return rng() % 2 ? static_cast<long long>(rng() % 9) : pick(rng, kInts);
}

void mutate_tensor(TensorProto& tensor, Rng& rng) {
  auto& shape = *tensor.mutable_tensor_shape();
  std::string& content = *tensor.mutable_tensor_content();
  switch (rng() % 5) {
    case 0:
      if (shape.dim_size() > 0) {
        shape.mutable_dim(static_cast<int>(rng() % shape.dim_size()))->set_size(small_or_extreme(rng));
        break;
      }
      [[fallthrough]];
    case 1:
      shape.add_dim()->set_size(small_or_extreme(rng));
      break;
    case 2:  // content no longer matching the shape
      content.resize(rng() % 2 && !content.empty() ? rng() % content.size() : content.size() + rng() % 9);
      break;
    case 3:
      tensor.set_dtype(static_cast<kovra::trenkit::DataType>(rng() % 24));
      break;
    default:
      if (!content.empty()) content[rng() % content.size()] = static_cast<char>(rng());
      break;
  }
}

// Another value, of the same kind or of another one.
void mutate_value(AttrValue& value, Rng& rng) {
  const unsigned kind = rng() % 4 == 0 ? rng() % 6 : static_cast<unsigned>(value.value_case());
  switch (kind) {
    case AttrValue::kI:
      value.set_i(small_or_extreme(rng));
      break;
    case AttrValue::kF:
      value.set_f(pick(rng, kFloats));
      break;
    case AttrValue::kS:
      value.set_s(pick(rng, kStrings));
      break;
    case AttrValue::kB:
      value.set_b(!value.b());
      break;
    case AttrValue::kTensor:
      mutate_tensor(*value.mutable_tensor(), rng);
      break;
    default: {  // a list: one element changed, added or dropped
      auto& list = *value.mutable_list();
      if (list.f_size() > 0 && rng() % 2) {
        list.set_f(static_cast<int>(rng() % list.f_size()), pick(rng, kFloats));
      } else if (list.i_size() > 0 && rng() % 3 == 0) {
        list.mutable_i()->RemoveLast();
      } else if (list.i_size() > 0 && rng() % 2) {
        list.set_i(static_cast<int>(rng() % list.i_size()), small_or_extreme(rng));
      } else {
        list.add_i(small_or_extreme(rng));
      }
      break;
    }
  }
}

// By name, not in the map's order, which may differ between processes.
std::string attr_key(const NodeDef& node, Rng& rng) {
  std::vector<std::string> keys;
  for (const auto& entry : node.attr()) keys.push_back(entry.first);
  std::sort(keys.begin(), keys.end());
  return pick(rng, keys);
}

void mutate_node(GraphDef& graph, NodeDef& node, Rng& rng) {
  const NodeDef& other = graph.node(static_cast<int>(rng() % graph.node_size()));
  switch (rng() % 8) {
    case 0: {
      static const std::vector<std::string> ops = registered_op_names();
      node.set_op(pick(rng, ops));
      break;
    }
    case 1:
    case 2:
      if (!node.attr().empty()) {
        mutate_value((*node.mutable_attr())[attr_key(node, rng)], rng);
        break;
      }
      [[fallthrough]];
    case 3:  // a key another node has, with a value of some kind
      if (!other.attr().empty()) {
        AttrValue value = other.attr().at(attr_key(other, rng));
        mutate_value(value, rng);
        (*node.mutable_attr())[attr_key(other, rng)] = value;
      }
      break;
    case 4:
      if (!node.attr().empty()) node.mutable_attr()->erase(attr_key(node, rng));
      break;
    case 5: {  // wiring: another producer, an output index, one input more or less
      const std::string producer = other.name() + (rng() % 4 == 0 ? ":" + std::to_string(rng() % 3) : "");
      if (node.input_size() > 0 && rng() % 3) {
        node.set_input(static_cast<int>(rng() % node.input_size()), producer);
      } else if (node.input_size() > 0 && rng() % 2) {
        node.mutable_input()->RemoveLast();
      } else {
        node.add_input(producer);
      }
      break;
    }
    case 6: {
      const char* key = rng() % 2 ? "output_bitwidth" : "input_bitwidth";
      (*node.mutable_attr())[key].set_i(pick(rng, kBitwidths));
      break;
    }
    default:
      node.set_name(rng() % 2 ? other.name() : node.name() + "_");
      break;
  }
}

void mutate_graph(GraphDef& graph, Rng& rng) {
  auto& nodes = *graph.mutable_node();
  const int count = graph.node_size();
  switch (rng() % 8) {
    case 0:  // a copy under a new name, so a chain grows
      *graph.add_node() = graph.node(static_cast<int>(rng() % count));
      nodes.Mutable(count)->set_name("m" + std::to_string(rng() % 1000));
      break;
    case 1:
      if (count > 1) {
        nodes.SwapElements(static_cast<int>(rng() % count), count - 1);
        nodes.RemoveLast();
        break;
      }
      [[fallthrough]];
    case 2:
      nodes.SwapElements(static_cast<int>(rng() % count), static_cast<int>(rng() % count));
      break;
    default:
      mutate_node(graph, *nodes.Mutable(static_cast<int>(rng() % count)), rng);
      break;
  }
}

}  // namespace

bool mutate_model(std::string& bytes, unsigned seed) {
  const bool is_protected = EncryptionRC4::has_magic(bytes);
  const std::string plain = is_protected ? EncryptionRC4::unprotect(bytes) : bytes;
  GraphDef graph;
  std::string error;
  if (!(parse_binary(plain, graph) || parse_text(plain, graph, error)) || graph.node_size() == 0)
    return false;
  Rng rng(seed);
  for (unsigned steps = 1 + rng() % 3; steps > 0; --steps) mutate_graph(graph, rng);
  std::string out;
  {
    // Maps are written in key order, so the same mutant has the same bytes.
    google::protobuf::io::StringOutputStream stream(&out);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.SetSerializationDeterministic(true);
    graph.SerializeToCodedStream(&coded);
  }
  bytes = is_protected ? EncryptionRC4::protect(out) : out;
  return true;
}

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  std::string bytes(reinterpret_cast<const char*>(data), size);
  // Some byte-level changes too: they reach the parsers' own corners.
  if (seed % 5 == 0 || !mutate_model(bytes, seed) || bytes.size() > max_size)
    return LLVMFuzzerMutate(data, size, max_size);
  std::memcpy(data, bytes.data(), bytes.size());
  return bytes.size();
}
