#include "support/int8_tables.h"

#include <sstream>


namespace kovra_test {

namespace {
bool is_float_text(const std::string& v) { return v.find_first_of(".eE") != std::string::npos; }
}  // namespace

void set_attrs(NodeDef* node, const std::string& text) {
  std::istringstream words(text);
  std::string word;
  while (words >> word) {
    const size_t eq = word.find('=');
    ASSERT_NE(eq, std::string::npos) << word;
    const std::string key = word.substr(0, eq), value = word.substr(eq + 1);
    if (value.front() == '[') {
      std::vector<std::string> items;
      std::istringstream list(value.substr(1, value.size() - 2));
      for (std::string item; std::getline(list, item, ',');) items.push_back(item);
      bool floats = false;
      for (const std::string& item : items) floats |= is_float_text(item);
      std::vector<float> f;
      std::vector<int> i;
      for (const std::string& item : items)
        floats ? f.push_back(std::stof(item)) : i.push_back(std::stoi(item));
      floats ? set_attr_floats(node, key, f) : set_attr_ints(node, key, i);
    } else if (value.front() == '\'') {
      set_attr_s(node, key, value.substr(1, value.size() - 2));
    } else if (value == "true" || value == "false") {
      set_attr_b(node, key, value == "true");
    } else if (is_float_text(value)) {
      set_attr_f(node, key, std::stof(value));
    } else {
      set_attr_i(node, key, std::stoll(value));
    }
  }
}

NodeDef node_of(const std::string& op, const std::string& attrs) {
  NodeDef node;
  node.set_name("n");
  node.set_op(op);
  set_attrs(&node, attrs);
  return node;
}

}  // namespace kovra_test
