// Runs a fuzz target's entry function on every file of the folders given, so
// that kept reproducers and the seed corpus are replayed by the test suite
// without libFuzzer. Targets with the model mutator also run a few mutants
// of each file, fixed by the seeds 0..N-1 (N from KOVRA_REPLAY_MUTANTS, 16 by default).

#include <dirent.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "graph_mutator.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Defined only in the targets that link the mutator.
bool mutate_model(std::string& bytes, unsigned seed) __attribute__((weak));

// libFuzzer's byte mutator, which the model mutator falls back to: one byte changed.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size) {
  (void)max_size;
  if (size > 0) data[size / 2] ^= 0x5a;
  return size;
}

namespace {

void feed(const std::string& bytes) {
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  const char* mutants_env = std::getenv("KOVRA_REPLAY_MUTANTS");
  const unsigned mutants = mutants_env != nullptr ? static_cast<unsigned>(std::atoi(mutants_env)) : 16;
  int files = 0;
  for (int a = 1; a < argc; ++a) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(argv[a])) {
      while (dirent* entry = ::readdir(dir)) {
        if (entry->d_type == DT_REG && std::string(entry->d_name) != "README.md")
          names.push_back(entry->d_name);
      }
      ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
      const std::string path = std::string(argv[a]) + "/" + name;
      std::ifstream file(path, std::ios::binary);
      const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      std::printf("%s\n", path.c_str());
      std::fflush(stdout);
      feed(bytes);
      for (unsigned seed = 0; mutate_model != nullptr && seed < mutants; ++seed) {
        std::string mutant = bytes, again = bytes;
        if (!mutate_model(mutant, seed)) continue;
        mutate_model(again, seed);
        if (mutant != again) {
          std::printf("the mutator made two different mutants of %s with seed %u\n", path.c_str(), seed);
          return 1;
        }
        feed(mutant);
      }
      ++files;
    }
  }
  std::printf("replayed %d files\n", files);
  return files > 0 ? 0 : 1;
}
