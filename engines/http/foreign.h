// What can be read from an object of a type that the library has never seen: its text, an integer
// `status_code`, a value among its `headers`. A const member or accessor will do, and its value may
// stand behind a pointer, an optional or a variant.
#pragma once

#include <concepts>
#include <cstddef>
#include <exception>
#include <locale>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

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

/// Null, or stands for what it points to. What points to itself (a function) does not count.
template <class T>
concept Handle = !Text<T> && requires(const T& value) {
  static_cast<bool>(value);
  *value;
  requires !std::same_as<std::remove_cvref_t<decltype(*value)>, T>;
  requires !std::is_function_v<std::remove_cvref_t<decltype(*value)>>;
};

template <class T>
inline constexpr bool is_variant = false;
template <class... Alternatives>
inline constexpr bool is_variant<std::variant<Alternatives...>> = true;

/// What `use` makes of the value behind the handles and variants; a default result when it is null.
template <class Result, class T, class Use>
Result behind(const T& value, const Use& use) {
  if constexpr (std::is_pointer_v<T> && Text<T>) {
    return value ? use(value) : Result();
  } else if constexpr (Handle<T>) {
    return value ? behind<Result>(*value, use) : Result();
  } else if constexpr (is_variant<T>) {
    return std::visit([&use](const auto& held) { return behind<Result>(held, use); }, value);
  } else {
    return use(value);
  }
}

/// The value as a status: only an integer is one.
template <class T>
std::optional<StatusCode> as_status(const T& value) {
  using Status = std::optional<StatusCode>;
  return behind<Status>(value, []<class Value>(const Value& number) -> Status {
    if constexpr (Integer<Value>) {
      if (std::in_range<StatusCode>(number)) return static_cast<StatusCode>(number);
    }
    return std::nullopt;
  });
}

/// The value's text form; empty when it has none.
template <class T>
std::string text_of(const T& value) {
  return behind<std::string>(value, []<class Value>(const Value& text) -> std::string {
    if constexpr (Text<Value>) {
      return std::string(std::string_view(text));
    } else if constexpr (requires(std::ostream & out) { out << text; }) {
      std::ostringstream out;
      out.imbue(std::locale::classic());
      out << text;
      return std::move(out).str();
    } else {
      return {};
    }
  });
}

template <class E>
std::optional<StatusCode> status_code_of(const E& error) {
  if constexpr (requires { as_status(error.status_code()); }) {
    return as_status(error.status_code());
  } else if constexpr (requires { as_status(error.status_code); }) {
    return as_status(error.status_code);
  } else {
    return std::nullopt;
  }
}

template <class H>
std::string header_of(const H& headers, const char* name) {
  return behind<std::string>(headers, [name]<class Value>(const Value& lookup) -> std::string {
    if constexpr (requires { static_cast<bool>(lookup.get); }) {
      if (!lookup.get) return {};  // a lookup that cannot be called
    }
    if constexpr (requires { text_of(lookup.get(name)); }) {
      return text_of(lookup.get(name));
    } else {
      return {};
    }
  });
}

/// The value of a header of the object; empty when it has no headers or they have no lookup.
template <class T>
std::string header_in(const T& object, const char* name) {
  if constexpr (requires { header_of(object.headers(), name); }) {
    return header_of(object.headers(), name);
  } else if constexpr (requires { header_of(object.headers, name); }) {
    return header_of(object.headers, name);
  } else {
    return {};
  }
}

/// What an error says: its `what()`, else its text form.
template <class E>
std::string message_of(const E& error) {
  if constexpr (requires { text_of(error.what()); }) {
    return text_of(error.what());
  } else {
    return text_of(error);
  }
}

}  // namespace engines::http::detail::foreign
