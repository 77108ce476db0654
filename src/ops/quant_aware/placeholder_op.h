#ifndef KOVRAEXECUTOR_OPS_PLACEHOLDER_OP_H_
#define KOVRAEXECUTOR_OPS_PLACEHOLDER_OP_H_

#include <vector>

#include "op_executor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Quantization-aware models carry these operators; they load and run but do
// nothing at all: no attribute is read, no shape set, no output written. The
// (empty) record is owned like every other operator's.
template <typename Param>
class PlaceholderOpExecutor : public ParamOpExecutor<Param> {
 public:
  void parse_parameter(const NodeDef&) override {}
  void inference_shape(const std::vector<const Tensor*>&, std::vector<int>&) override {}
  bool execute(const std::vector<const Tensor*>&, Tensor*) override { return true; }
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

// Declares <Stem>Param and <Stem>OpExecutor and registers the operator as "<Stem>".
#define KOVRA_PLACEHOLDER_OP(Stem)                                       \
  namespace kovra {                                                      \
  namespace trenkit {                                                    \
  namespace kovraexecutor {                                              \
  struct Stem##Param : BaseParam {};                                     \
  class Stem##OpExecutor : public PlaceholderOpExecutor<Stem##Param> {}; \
  }                                                                      \
  }                                                                      \
  }                                                                      \
  KOVRA_REGISTER_OP(Stem)

#endif  // KOVRAEXECUTOR_OPS_PLACEHOLDER_OP_H_
