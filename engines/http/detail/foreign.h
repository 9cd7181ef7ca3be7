// What can be read from an object of a type that the library has never seen: its text, an integer
// `status_code`, the content type among its `headers`. A member or an accessor will do.
#pragma once

#include <concepts>
#include <cstddef>
#include <exception>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "engines/http/failure.h"

namespace engines::http::detail::foreign {

template <class T>
concept Text = std::convertible_to<const T&, std::string_view>;

template <class T>
concept Character = std::same_as<T, char> || std::same_as<T, wchar_t> || std::same_as<T, char8_t> ||
    std::same_as<T, char16_t> || std::same_as<T, char32_t>;

/// A true integer: neither a boolean nor a character.
template <class T>
concept Integer = std::integral<T> && !std::same_as<T, bool> && !Character<T>;

template <class T>
concept Dereferenceable = requires(const T& value) {
  *value;
  static_cast<bool>(value);
};

/// The value as a status: only an integer, or an optional one, is.
template <class T>
std::optional<StatusCode> as_status(const T& value) {
  if constexpr (Integer<T>) {
    if (std::in_range<StatusCode>(value)) return static_cast<StatusCode>(value);
    return std::nullopt;
  } else if constexpr (Dereferenceable<T> && !Text<T>) {
    if (!value) return std::nullopt;
    return as_status<std::remove_cvref_t<decltype(*value)>>(*value);
  } else {
    return std::nullopt;
  }
}

template <class E>
std::optional<StatusCode> status_code_of(const E& error) {
  if constexpr (requires { error.status_code(); }) {
    return as_status<std::remove_cvref_t<decltype(error.status_code())>>(error.status_code());
  } else if constexpr (requires { error.status_code; }) {
    return as_status<std::remove_cvref_t<decltype(error.status_code)>>(error.status_code);
  } else {
    return std::nullopt;
  }
}

/// The value's text form; empty when it has none.
template <class T>
std::string text_of(const T& value) {
  if constexpr (std::is_pointer_v<T> && Text<T>) {
    return value ? std::string(std::string_view(value)) : std::string();
  } else if constexpr (Text<T>) {
    return std::string(std::string_view(value));
  } else if constexpr (Dereferenceable<T>) {
    if (!value) return {};
    return text_of<std::remove_cvref_t<decltype(*value)>>(*value);
  } else if constexpr (requires(std::ostream & out) { out << value; }) {
    std::ostringstream out;
    out << value;
    return std::move(out).str();
  } else {
    return {};
  }
}

template <class H>
std::string header_of(const H& headers, const char* name) {
  if constexpr (requires { headers.get(name); }) {
    const auto value = headers.get(name);
    return text_of<std::remove_cvref_t<decltype(value)>>(value);
  } else if constexpr (Dereferenceable<H>) {
    if (!headers) return {};
    return header_of(*headers, name);
  } else {
    return {};
  }
}

/// The value of a header of the object; empty when it has no headers or they have no lookup.
template <class T>
std::string header_in(const T& object, const char* name) {
  if constexpr (requires { object.headers(); }) {
    return header_of(object.headers(), name);
  } else if constexpr (requires { object.headers; }) {
    return header_of(object.headers, name);
  } else {
    return {};
  }
}

/// What an error says: its `what()`, else its text form.
template <class E>
std::string message_of(const E& error) {
  if constexpr (requires { text_of<std::remove_cvref_t<decltype(error.what())>>(error.what()); }) {
    return text_of<std::remove_cvref_t<decltype(error.what())>>(error.what());
  } else {
    return text_of<E>(error);
  }
}

}  // namespace engines::http::detail::foreign
