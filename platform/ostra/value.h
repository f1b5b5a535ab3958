// SPDX-License-Identifier: Apache-2.0
// Values: how an attribute's value travels to or from a name, whatever its C++ type.
//
// Threading: none of its own.
// Cost: a text is copied, everything else is a few bytes.
#pragma once

#include <concepts>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "pallo/types.h"

namespace Ostra {

// A scalar on its way to or from a name: nothing, bool, an unsigned integer, a double or a text.
using Value = std::variant<std::monostate, bool, U64, double, std::string>;
// The members of a collection.
using Members = std::vector<std::pair<Value, Value>>;

VANTREL_API std::string toText(Value const& value);

// How a C++ type travels as a Value. name is what an error message calls it.
template <class T>
struct ValueOf;

template <>
struct ValueOf<bool> {
  static constexpr std::string_view name = "bool";
  static Value to(bool v) { return v; }
  static bool from(Value const& v, bool& out) {
    auto const* p = std::get_if<bool>(&v);
    return p && (out = *p, true);
  }
};
template <std::unsigned_integral T>
struct ValueOf<T> {
  static constexpr std::string_view name = sizeof(T) == 1   ? "U8"
                                           : sizeof(T) == 2 ? "U16"
                                           : sizeof(T) == 4 ? "U32"
                                                            : "U64";
  static Value to(T v) { return U64{v}; }
  static bool from(Value const& v, T& out) {
    auto const* p = std::get_if<U64>(&v);
    if (!p || *p > std::numeric_limits<T>::max()) return false;
    out = static_cast<T>(*p);
    return true;
  }
};
template <>
struct ValueOf<double> {
  static constexpr std::string_view name = "double";
  static Value to(double v) { return v; }
  static bool from(Value const& v, double& out) {
    if (auto const* d = std::get_if<double>(&v)) return out = *d, true;
    auto const* u = std::get_if<U64>(&v);
    return u && (out = static_cast<double>(*u), true);
  }
};
template <>
struct ValueOf<std::string> {
  static constexpr std::string_view name = "text";
  static Value to(std::string const& v) { return v; }
  static bool from(Value const& v, std::string& out) {
    auto const* p = std::get_if<std::string>(&v);
    return p && (out = *p, true);
  }
};
// Strong 64-bit types (keys, operation identifiers) travel as their value.
template <class T>
  requires requires(T const& t) {
    { t.value() } -> std::same_as<U64>;
    T{U64{}};
  }
struct ValueOf<T> {
  static constexpr std::string_view name = "U64";
  static Value to(T const& v) { return v.value(); }
  static bool from(Value const& v, T& out) {
    auto const* p = std::get_if<U64>(&v);
    return p && (out = T{*p}, true);
  }
};

// Enumerations travel as their number.
template <class T>
  requires std::is_enum_v<T>
struct ValueOf<T> {
  using Number = std::make_unsigned_t<std::underlying_type_t<T>>;
  static constexpr std::string_view name = ValueOf<Number>::name;
  static Value to(T v) { return U64{static_cast<Number>(v)}; }
  static bool from(Value const& v, T& out) {
    Number n{};
    return ValueOf<Number>::from(v, n) && (out = static_cast<T>(n), true);
  }
};

}  // namespace Ostra
