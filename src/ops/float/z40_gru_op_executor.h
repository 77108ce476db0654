#ifndef KOVRAEXECUTOR_OPS_Z40_GRU_OP_EXECUTOR_H_
#define KOVRAEXECUTOR_OPS_Z40_GRU_OP_EXECUTOR_H_

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

  // What inference_shape prepared for the shapes of x and the weights.
  GruShape shape;
  std::vector<int> x_shape;  // empty until inference_shape has run
  std::vector<int> y_shape, y_h_shape, middle_shape;
  std::vector<int> lens;       // per batch entry, read from the sequence-length input on every run
  std::vector<float> scratch;  // the kernel's
  // The secondary outputs' names, made for the output tensor named `names_for`.
  std::string names_for;
  std::string y_h_name;
  std::vector<std::string> middle_names;
};

// Inputs in ONNX order: x [seq_len, batch, input_size] (leading axes beyond
// three fold into seq_len), W [D, 3H, input_size], R [D, 3H, H], B [D, 6H],
// then the per-batch sequence lengths when "exist_sequence_lens" is set.
// The output is Y [seq_len, D, batch, H] under "output_shape"; the last
// hidden state Y_h [D, batch, H] is the secondary output "<node>:1" under
// "output_shape1", and the per-step intermediates "<node>_middle_<k>".
class Z40GRUOpExecutor : public ParamOpExecutor<Z40GRUParam> {
 public:
  static constexpr const char* kName = "Z40GRU";

  void parse_parameter(const NodeDef& node) override;
  void inference_shape(const std::vector<const Tensor*>& inputs, std::vector<int>& shape) override;
  bool execute(const std::vector<const Tensor*>& inputs, Tensor* output) override;

 protected:
  // Runs the recurrence on the x values `x` (laid out as inputs[0]) and fills
  // the output and its secondary outputs, on the inputs inference_shape
  // prepared for.
  void _compute(const std::vector<const Tensor*>& inputs, const float* x, Tensor* output);
  // Every check of the inputs; the recurrence's dimensions.
  GruShape _plan(const std::vector<const Tensor*>& inputs) const;

 private:
  void _run(const std::vector<const Tensor*>& inputs, const float* x, Tensor* output);
  static void _check_weight(const Tensor* t, long long count, const char* what);
  void _read_sequence_lengths(const Tensor* t);
  std::vector<int> _y_shape(const GruShape& s) const;
  std::vector<int> _y_h_shape(const GruShape& s) const;
  static void _check_count(const std::vector<int>& shape, long long count, const char* key);
  void _name_outputs(const std::string& name);
  bool _matches_prepared(const std::vector<const Tensor*>& inputs, const Tensor* output) const;
  [[noreturn]] void _refuse(const std::vector<const Tensor*>& inputs, const Tensor* output) const;
};

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_OPS_Z40_GRU_OP_EXECUTOR_H_
