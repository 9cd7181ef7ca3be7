// SPDX-License-Identifier: Apache-2.0
// Concepts of C++ types, shared by bodies, policies and what is read from foreign errors.
#pragma once

#include <concepts>
#include <cstdint>
#include <iterator>
#include <locale>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace engines::http::detail {

template <class T, template <class...> class Template>
inline constexpr bool is_a = false;
template <template <class...> class Template, class... Args>
inline constexpr bool is_a<Template<Args...>, Template> = true;

template <class T>
concept Character = std::same_as<T, char> || std::same_as<T, char8_t>;

template <class T>
concept WideCharacter =
    std::same_as<T, wchar_t> || std::same_as<T, char16_t> || std::same_as<T, char32_t>;

/// A true integer of at most 64 bits: neither a boolean nor a character.
template <class T>
concept Integer = std::integral<T> && sizeof(T) <= sizeof(std::int64_t) &&
                  !std::same_as<std::remove_cv_t<T>, bool> && !Character<std::remove_cv_t<T>> &&
                  !WideCharacter<std::remove_cv_t<T>>;

template <class T>
concept CString = std::is_pointer_v<T> && Character<std::remove_cv_t<std::remove_pointer_t<T>>>;

template <class T>
concept CharacterArray = std::is_array_v<T> && Character<std::remove_cv_t<std::remove_extent_t<T>>>;

template <class T>
concept Text = CharacterArray<T> || std::convertible_to<const T&, std::string_view> ||
    std::convertible_to<const T&, std::u8string_view>;

/// The characters of a text; of an array, those up to the first NUL. Precondition: a C string is
/// not null.
template <class T>
requires(Text<T> || Character<T>) std::string_view view(const T& text) {
  if constexpr (Character<T>) {
    return {reinterpret_cast<const char*>(&text), 1};
  } else if constexpr (CharacterArray<T>) {
    const std::string_view characters(reinterpret_cast<const char*>(text), std::size(text));
    return characters.substr(0, characters.find('\0'));
  } else if constexpr (std::convertible_to<const T&, std::string_view>) {
    return text;
  } else {
    const std::u8string_view characters = text;
    return {reinterpret_cast<const char*>(characters.data()), characters.size()};
  }
}

/// Holds a value or is empty: a pointer, a smart pointer, an optional.
template <class T>
concept Handle =
    !Text<T> && !std::is_array_v<T> && !std::is_function_v<T> && requires(const T& value) {
  static_cast<bool>(value);
  *value;
};

/// What `print` writes to a stream of the classic locale.
template <class Print>
std::string printed(const Print& print) {
  std::ostringstream stream;
  stream.imbue(std::locale::classic());
  print(stream);
  return std::move(stream).str();
}

}  // namespace engines::http::detail
