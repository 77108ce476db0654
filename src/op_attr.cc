#include "op_attr.h"

#include <cstring>
#include <limits>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {

thread_local AttrReadTracker* current_tracker = nullptr;

}  // namespace

AttrReadTracker::AttrReadTracker() : previous_(current_tracker) { current_tracker = this; }

AttrReadTracker::~AttrReadTracker() { current_tracker = previous_; }

const AttrValue* find_tracked_attr(const NodeDef& node, const char* key) {
  if (current_tracker != nullptr) current_tracker->keys_.insert(key);
  auto it = node.attr().find(key);
  return it == node.attr().end() ? nullptr : &it->second;
}

namespace {

const AttrValue* find_attr(const NodeDef& node, const char* key) { return find_tracked_attr(node, key); }

// Saturating float-to-int so that a huge or NaN attribute cannot be undefined behaviour.
int truncate_to_int(double v) {
  if (!(v == v)) return 0;
  if (v >= static_cast<double>(std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  if (v <= static_cast<double>(std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

int narrow(long long v) {
  if (v > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
  if (v < std::numeric_limits<int>::min()) return std::numeric_limits<int>::min();
  return static_cast<int>(v);
}

}  // namespace

bool read_float(const NodeDef& node, const char* key, float& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kF ? attr->f() : 0.0f;
  return true;
}

bool read_float_as_int(const NodeDef& node, const char* key, int& value) {
  float f = 0.0f;
  if (!read_float(node, key, f)) return false;
  value = truncate_to_int(f);
  return true;
}

bool read_int(const NodeDef& node, const char* key, int& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kI ? narrow(attr->i()) : 0;
  return true;
}

bool read_int_or_float(const NodeDef& node, const char* key, int& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  switch (attr->value_case()) {
    case AttrValue::kI:
      value = narrow(attr->i());
      break;
    case AttrValue::kF:
      value = truncate_to_int(attr->f());
      break;
    default:
      value = 0;
      break;
  }
  return true;
}

bool read_bool(const NodeDef& node, const char* key, bool& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  switch (attr->value_case()) {
    case AttrValue::kB: value = attr->b(); break;
    case AttrValue::kI: value = attr->i() != 0; break;
    case AttrValue::kF: value = attr->f() != 0.0f; break;
    default: value = false; break;
  }
  return true;
}

bool read_string(const NodeDef& node, const char* key, std::string& value) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kS ? attr->s() : std::string();
  return true;
}

bool read_int_list(const NodeDef& node, const char* key, std::vector<int>& values) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  values.clear();
  if (attr->value_case() == AttrValue::kList) {
    for (long long v : attr->list().i()) values.push_back(narrow(v));
  }
  return true;
}

namespace {

// The float values of a DT_FLOAT tensor attribute: its raw content, else its
// float_val entries (a single one fills the shape, as converters write it).
void float_tensor_values(const NodeDef& node, const char* key, const TensorProto& tensor,
                         std::vector<float>& values) {
  if (tensor.dtype() != ::kovra::trenkit::DT_FLOAT) return;
  long long count = 1;
  for (const auto& dim : tensor.tensor_shape().dim()) {
    if (dim.size() < 0 || dim.size() > 0x7fffffffLL || (count *= dim.size()) > 0x7fffffffLL) {
      fatal("The node:" + node.name() + " attribute " + key + " has an invalid tensor shape");
    }
  }
  const std::string& content = tensor.tensor_content();
  if (!content.empty()) {
    if (content.size() != static_cast<size_t>(count) * sizeof(float)) {
      fatal("The node:" + node.name() + " attribute " + key + " holds " + std::to_string(content.size()) +
            " bytes of float tensor content, its shape needs " + std::to_string(count * sizeof(float)));
    }
    values.resize(static_cast<size_t>(count));
    std::memcpy(values.data(), content.data(), content.size());
    return;
  }
  const auto& vals = tensor.float_val();
  if (vals.size() == 1) {
    values.assign(static_cast<size_t>(count), vals.Get(0));
  } else if (vals.size() == count) {
    values.assign(vals.begin(), vals.end());
  } else if (vals.size() != 0) {
    fatal("The node:" + node.name() + " attribute " + key + " holds " + std::to_string(vals.size()) +
          " float values, its shape needs " + std::to_string(count));
  }
}

}  // namespace

bool read_float_list(const NodeDef& node, const char* key, std::vector<float>& values) {
  const AttrValue* attr = find_attr(node, key);
  if (attr == nullptr) return false;
  values.clear();
  if (attr->value_case() == AttrValue::kList) {
    values.assign(attr->list().f().begin(), attr->list().f().end());
  } else if (attr->value_case() == AttrValue::kTensor) {
    float_tensor_values(node, key, attr->tensor(), values);
  }
  return true;
}

void require_float(const NodeDef& node, const char* key, float& value, const std::string& message) {
  require_attr(read_float(node, key, value), message);
}

void require_float_as_int(const NodeDef& node, const char* key, int& value, const std::string& message) {
  require_attr(read_float_as_int(node, key, value), message);
}

void require_int(const NodeDef& node, const char* key, int& value, const std::string& message) {
  require_attr(read_int(node, key, value), message);
}

void require_int_or_float(const NodeDef& node, const char* key, int& value, const std::string& message) {
  require_attr(read_int_or_float(node, key, value), message);
}

void require_string(const NodeDef& node, const char* key, std::string& value, const std::string& message) {
  require_attr(read_string(node, key, value), message);
}

void require_int_list(const NodeDef& node, const char* key, std::vector<int>& values,
                      const std::string& message) {
  require_attr(read_int_list(node, key, values), message);
}

void require_float_list(const NodeDef& node, const char* key, std::vector<float>& values,
                        const std::string& message) {
  require_attr(read_float_list(node, key, values), message);
}

std::string missing_message(const char* key, const char* op) {
  return std::string("Do not find the ") + key + " in " + op + "!!!";
}

void require_attr(bool suc, const std::string& message) {
  if (!suc) check_failed_quoted("suc", message);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
