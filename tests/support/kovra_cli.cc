#include "support/kovra_cli.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/test_util.h"

namespace kovra_test {

std::string env_or_empty(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

Result kovra(const std::string& args) {
  const std::string dir = env_or_empty("KOVRA_TEST_BIN_DIR");
  EXPECT_FALSE(dir.empty()) << "KOVRA_TEST_BIN_DIR is not set (ctest sets it)";
  TempDir tmp;
  const std::string command = dir + "/kovra " + args + " 2>" + tmp.file("err");
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return {-1, "", ""};
  std::string out;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
  const int status = pclose(pipe);
  const std::string err = slurp(tmp.file("err"));
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out + err, err};
}

bool has_line(const std::string& out, const std::string& line) {
  std::istringstream lines(out);
  std::string l;
  while (std::getline(lines, l)) {
    if (l == line) return true;
  }
  return false;
}

std::string line_starting(const std::string& out, const std::string& prefix) {
  std::istringstream lines(out);
  std::string l;
  while (std::getline(lines, l)) {
    if (l.compare(0, prefix.size(), prefix) == 0) return l;
  }
  return "";
}

std::string slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream buffer;
  buffer << file.rdbuf();
  return buffer.str();
}

}  // namespace kovra_test
