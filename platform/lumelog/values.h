// SPDX-License-Identifier: Apache-2.0
// How the parts of a message become text, type codes and bytes: an array of characters is text, everything
// else is a value.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "pallo/types.h"

namespace Lumelog::Detail {

template <class T>
concept Text = std::is_array_v<T> && std::same_as<std::remove_cv_t<std::remove_extent_t<T>>, char>;
template <class T>
concept String = !Text<T> && std::convertible_to<T const&, std::string_view>;
template <class T>
concept Number = std::integral<T> || std::is_enum_v<T>;
template <class T>
concept Wrapped = requires(T const& t) {
  { t.value() } -> Number;
};

// The number inside a value, in the width in which it is written.
template <Number T>
constexpr auto number(T value) {
  if constexpr (sizeof(T) == 8)
    return static_cast<U64>(value);
  else
    return static_cast<U32>(value);
}
template <Wrapped T>
constexpr auto number(T const& value) {
  return number(value.value());
}

template <class T>
consteval char typeCode() {
  if constexpr (String<T>)
    return 's';
  else
    return sizeof(decltype(number(std::declval<T const&>()))) == 8 ? 'q' : 'i';
}

// Bytes that one part takes in a record.
template <Text T>
constexpr std::size_t bytesOf(T const&, std::size_t) {
  return 0;
}
template <String T>
std::size_t bytesOf(T const& value, std::size_t maxString) {
  std::size_t const size = std::string_view(value).size();
  return sizeof(U16) + (size < maxString ? size : maxString);
}
template <class T>
constexpr std::size_t bytesOf(T const& value, std::size_t) {
  return sizeof(number(value));
}

// Writes one part and returns where the next goes.
template <Text T>
std::byte* put(std::byte* at, T const&, std::size_t) {
  return at;
}
template <String T>
std::byte* put(std::byte* at, T const& value, std::size_t maxString) {
  std::string_view const text(value);
  auto const size = static_cast<U16>(text.size() < maxString ? text.size() : maxString);
  std::memcpy(at, &size, sizeof size);
  std::memcpy(at + sizeof size, text.data(), size);
  return at + sizeof size + size;
}
template <class T>
std::byte* put(std::byte* at, T const& value, std::size_t) {
  auto const n = number(value);
  std::memcpy(at, &n, sizeof n);
  return at + sizeof n;
}

// What a message looks like, for its registration.
struct Shape {
  std::string text;
  std::string types = "i";
};

template <class T>
void describe(Shape& shape, T const& part) {
  if constexpr (Text<T>) {
    for (char c : std::string_view(part)) shape.text.append(c == '%' ? 2 : 1, c);
  } else {
    shape.types += typeCode<T>();
    shape.text += '%';
    shape.text += typeCode<T>();
  }
}

// Appends a value as the tap sees it: a string by its length.
template <class T>
void tapped(U64*& at, T const& part) {
  if constexpr (String<T>)
    *at++ = std::string_view(part).size();
  else if constexpr (!Text<T>)
    *at++ = number(part);
}

}  // namespace Lumelog::Detail
