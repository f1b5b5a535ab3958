// SPDX-License-Identifier: Apache-2.0
// How the parts of a message become text, type codes and bytes: an array of characters is text, everything
// else is a value.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>

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
template <class T>
constexpr std::size_t bytesOf(T const& value, std::size_t maxString) {
  if constexpr (Text<T>)
    return 0;
  else if constexpr (String<T>)
    return sizeof(U16) + std::string_view(value).substr(0, maxString).size();
  else
    return sizeof(number(value));
}

// Writes one part and returns where the next goes.
template <class T>
std::byte* put(std::byte* at, T const& value, std::size_t maxString) {
  if constexpr (Text<T>) {
    return at;
  } else if constexpr (String<T>) {
    std::string_view const text = std::string_view(value).substr(0, maxString);
    auto const size = static_cast<U16>(text.size());
    std::memcpy(at, &size, sizeof size);
    std::memcpy(at + sizeof size, text.data(), size);
    return at + sizeof size + size;
  } else {
    auto const n = number(value);
    std::memcpy(at, &n, sizeof n);
    return at + sizeof n;
  }
}

// What its call site registers of a part: a text, or the type code of a value.
struct Part {
  std::string_view text;
  char type = 0;  // 0: a text
};

template <class T>
constexpr Part part(T const& part) {
  if constexpr (Text<T>)
    return {std::string_view(part)};
  else
    return {{}, typeCode<T>()};
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
