// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// value.h: what a command has to say, before it is known for whom it is printed.
#ifndef TOOLS_KSCTL_VALUE_H
#define TOOLS_KSCTL_VALUE_H

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace ksctl {

class Value;
using List = std::vector<Value>;
using Object = std::vector<std::pair<std::string, Value>>;  // in the order in which it is printed

// Value is a value of JSON. Numbers are told apart from texts so that they are aligned and not quoted.
class Value {
 public:
  using Variant = std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, List, Object>;

  Value() = default;  // null: not known
  Value(bool value) : variant_(value) {}
  template <typename Integer>
  requires std::is_integral_v<Integer> &&(!std::is_same_v<Integer, bool>)Value(Integer value)
      : variant_(static_cast<std::conditional_t<std::is_signed_v<Integer>, int64_t, uint64_t>>(value)) {}
  Value(double value) : variant_(value) {}
  Value(std::string value) : variant_(std::move(value)) {}
  Value(const char *value) : variant_(std::string(value)) {}
  Value(List value) : variant_(std::move(value)) {}
  Value(Object value) : variant_(std::move(value)) {}

  const Variant &variant() const { return variant_; }

 private:
  Variant variant_;
};

inline Object operator+(Object left, const Object &right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace ksctl

#endif
