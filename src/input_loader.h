#ifndef KOVRAEXECUTOR_INPUT_LOADER_H_
#define KOVRAEXECUTOR_INPUT_LOADER_H_

#include <memory>
#include <string>
#include <vector>

#include "args_parser.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// Reads one input file into a float32 tensor named arg.name: a .npy file of
// any numeric dtype (shape from the file; given DIMS must agree with it), or
// raw little-endian float32 whose size must match DIMS exactly. On failure
// returns false and sets `error` to one line naming the file.
bool load_input(const InputArg& arg, std::unique_ptr<Tensor>& tensor, std::string& error);
bool load_inputs(const std::vector<InputArg>& input_args, std::vector<std::unique_ptr<Tensor>>& tensors,
                 std::string& error);

// "1x224x224x3"
std::string dims_text(const std::vector<int>& dims);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_INPUT_LOADER_H_
