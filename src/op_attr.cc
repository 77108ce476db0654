#include "op_attr.h"

#include <algorithm>
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

const AttrValue* find_tracked_attr(const NodeDef& node, const char* key, AttrEncoding encoding) {
  if (current_tracker != nullptr) {
    current_tracker->keys_.insert(key);
    std::vector<AttrEncoding>& read = current_tracker->encodings_[key];
    if (std::find(read.begin(), read.end(), encoding) == read.end()) read.push_back(encoding);
  }
  auto it = node.attr().find(key);
  return it == node.attr().end() ? nullptr : &it->second;
}

const char* encoding_name(AttrEncoding encoding) {
  switch (encoding) {
    case AttrEncoding::kFloat:
      return "float";
    case AttrEncoding::kInt:
      return "int";
    case AttrEncoding::kIntOrFloat:
      return "int or float";
    case AttrEncoding::kBool:
      return "bool";
    case AttrEncoding::kString:
      return "string";
    case AttrEncoding::kIntList:
      return "int list";
    case AttrEncoding::kFloatList:
      return "float list";
  }
  return "?";
}

bool encoding_accepts(AttrEncoding encoding, const AttrValue& value) {
  const AttrValue::ValueCase kind = value.value_case();
  const auto& list = value.list();
  // A list holding entries of another type only reads as empty.
  const bool other_entries = list.s_size() + list.b_size() + list.type_size() + list.shape_size() +
                                 list.tensor_size() + list.func_size() >
                             0;
  switch (encoding) {
    case AttrEncoding::kFloat:
      return kind == AttrValue::kF;
    case AttrEncoding::kInt:
      return kind == AttrValue::kI;
    case AttrEncoding::kIntOrFloat:
      return kind == AttrValue::kI || kind == AttrValue::kF;
    case AttrEncoding::kBool:
      return kind == AttrValue::kB || kind == AttrValue::kI || kind == AttrValue::kF;
    case AttrEncoding::kString:
      return kind == AttrValue::kS;
    case AttrEncoding::kIntList:
      return kind == AttrValue::kList && (list.i_size() > 0 || (list.f_size() == 0 && !other_entries));
    case AttrEncoding::kFloatList:
      return kind == AttrValue::kTensor ||
             (kind == AttrValue::kList && (list.f_size() > 0 || (list.i_size() == 0 && !other_entries)));
  }
  return false;
}

std::string attr_kind_text(const AttrValue& value) {
  switch (value.value_case()) {
    case AttrValue::kS:
      return "a string";
    case AttrValue::kI:
      return "an integer";
    case AttrValue::kF:
      return "a float";
    case AttrValue::kB:
      return "a bool";
    case AttrValue::kType:
      return "a type";
    case AttrValue::kShape:
      return "a shape";
    case AttrValue::kTensor:
      return "a tensor";
    case AttrValue::kFunc:
      return "a function";
    case AttrValue::kPlaceholder:
      return "a placeholder";
    case AttrValue::kList: {
      const auto& list = value.list();
      if (list.i_size() > 0) return "an integer list";
      if (list.f_size() > 0) return "a float list";
      if (list.s_size() > 0) return "a string list";
      return list.b_size() + list.type_size() + list.shape_size() + list.tensor_size() + list.func_size() > 0
                 ? "a list of other values"
                 : "an empty list";
    }
    case AttrValue::VALUE_NOT_SET:
      break;
  }
  return "nothing";
}

namespace {

const AttrValue* find_attr(const NodeDef& node, const char* key, AttrEncoding encoding) {
  return find_tracked_attr(node, key, encoding);
}

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
  const AttrValue* attr = find_attr(node, key, AttrEncoding::kFloat);
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
  const AttrValue* attr = find_attr(node, key, AttrEncoding::kInt);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kI ? narrow(attr->i()) : 0;
  return true;
}

bool read_int_or_float(const NodeDef& node, const char* key, int& value) {
  const AttrValue* attr = find_attr(node, key, AttrEncoding::kIntOrFloat);
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
  const AttrValue* attr = find_attr(node, key, AttrEncoding::kBool);
  if (attr == nullptr) return false;
  switch (attr->value_case()) {
    case AttrValue::kB:
      value = attr->b();
      break;
    case AttrValue::kI:
      value = attr->i() != 0;
      break;
    case AttrValue::kF:
      value = attr->f() != 0.0f;
      break;
    default:
      value = false;
      break;
  }
  return true;
}

bool read_string(const NodeDef& node, const char* key, std::string& value) {
  const AttrValue* attr = find_attr(node, key, AttrEncoding::kString);
  if (attr == nullptr) return false;
  value = attr->value_case() == AttrValue::kS ? attr->s() : std::string();
  return true;
}

bool read_int_list(const NodeDef& node, const char* key, std::vector<int>& values) {
  const AttrValue* attr = find_attr(node, key, AttrEncoding::kIntList);
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
  const AttrValue* attr = find_attr(node, key, AttrEncoding::kFloatList);
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
