#ifndef KOVRAEXECUTOR_INPUT_LOADER_H_
#define KOVRAEXECUTOR_INPUT_LOADER_H_

#include <memory>
#include <string>
#include <vector>

#include "export.h"
#include "tensor.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

// One input given on a command line: NAME=PATH or NAME=PATH:DIMS (DIMS like 1x224x224x3).
struct InputArg {
  std::string name;
  std::string path;
  std::vector<int> dims;  // empty: the file is a .npy that carries its shape
};

// Splits "NAME=PATH[:DIMS]". The last ':' starts DIMS only when what follows
// it is a list of positive integers joined by 'x', so paths may hold ':'.
KOVRA_API bool parse_input_arg(const std::string& text, InputArg& arg, std::string& error);
// "1x224x224x3" -> {1, 224, 224, 3}; false on anything else.
KOVRA_API bool parse_dims(const std::string& text, std::vector<int>& dims);

// Reads one input file into a float32 tensor named arg.name: a .npy file of
// any numeric dtype (shape from the file; given DIMS must agree with it), or
// raw little-endian float32 whose size must match DIMS exactly. On failure
// returns false and sets `error` to one line naming the file.
KOVRA_API bool load_input(const InputArg& arg, std::unique_ptr<Tensor>& tensor, std::string& error);
// Same, from the file's bytes (raw data: exactly the bytes DIMS needs); arg.path names them in messages.
KOVRA_API bool load_input_data(const InputArg& arg, const std::string& bytes, std::unique_ptr<Tensor>& tensor,
                               std::string& error);
// Every input in order; a name given twice is an error.
KOVRA_API bool load_inputs(const std::vector<InputArg>& input_args,
                           std::vector<std::unique_ptr<Tensor>>& tensors, std::string& error);

// "1x224x224x3", or "scalar" for no dimensions.
KOVRA_API std::string dims_text(const std::vector<int>& dims);

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_INPUT_LOADER_H_
