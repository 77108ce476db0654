#ifndef KOVRA_TOOLS_TENSOR_FOLDER_H_
#define KOVRA_TOOLS_TENSOR_FOLDER_H_

#include <string>
#include <vector>

namespace kovra_tool {

// One tensor of a folder: a dump file listed in manifest.tsv, or a .npy file.
// Tensors of two folders are matched by `key`, the file name without its
// extension (the sanitised tensor name in both cases).
struct FolderTensor {
  std::string key;
  std::string file;
  std::vector<int> shape;  // from the manifest; .npy files carry their own
  std::string dtype;       // manifest dtype, or "npy"
};

// Lists the tensors of `dir`: the manifest's entries in execution order, then
// .npy files not already listed, by name. `ordered` tells whether a manifest
// gave the order.
bool scan_folder(const std::string& dir, std::vector<FolderTensor>& tensors, bool& ordered,
                 std::string& error);

// Reads a tensor's values as float (dump codes as their unsigned values).
bool load_folder_tensor(const std::string& dir, const FolderTensor& tensor, std::vector<int>& shape,
                        std::vector<float>& values, std::string& error);

}  // namespace kovra_tool

#endif  // KOVRA_TOOLS_TENSOR_FOLDER_H_
