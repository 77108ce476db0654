#ifndef KOVRAEXECUTOR_OPS_Z40_GRU_OP_EXECUTOR_H_
#define KOVRAEXECUTOR_OPS_Z40_GRU_OP_EXECUTOR_H_

#include <memory>
#include <string>
#include <vector>

#include "op_executor.h"
#include "ops/kernels/gru_kernels.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct Z40GRUParam : BaseParam {
  std::vector<int> output_shape;
  std::vector<int> output_shape1;
  std::string direction = "forward";
  bool exist_sequence_lens = false;
  int hidden_size = 0;
  bool linear_before_reset = false;
};

// Inputs in ONNX order: x [seq_len, batch, input_size] (leading axes beyond
// three fold into seq_len), W [D, 3H, input_size], R [D, 3H, H], B [D, 6H],
// then the per-batch sequence lengths when "exist_sequence_lens" is set.
// The output is Y [seq_len, D, batch, H] under "output_shape"; the last
// hidden state Y_h [D, batch, H] is the secondary output "<node>:1" under
// "output_shape1", and the per-step intermediates "<node>_middle_<k>".
class Z40GRUOpExecutor : public ParamOpExecutor<Z40GRUParam> {
 public:
  void parse_parameter(const NodeDef& node) override;
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override;
  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override;

 protected:
  // Runs the recurrence on the x values `x` (laid out as inputs[0]) and fills
  // the output and its secondary outputs.
  void _compute(const std::vector<const Tensor*>& inputs, const float* x, Tensor* output);
  GruShape _plan(const std::vector<const Tensor*>& inputs) const;
  static void _check_weight(const Tensor* t, long long count, const char* what);
  std::vector<int> _sequence_lengths(const Tensor* t, const GruShape& s) const;
  std::vector<int> _y_shape(const GruShape& s) const;
  std::vector<int> _y_h_shape(const GruShape& s) const;
  static void _check_count(const std::vector<int>& shape, long long count, const char* key);
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_Z40_GRU_OP_EXECUTOR_H_
