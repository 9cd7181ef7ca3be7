// SPDX-License-Identifier: Apache-2.0
// What can be read from an object of a type that the library does not know: its text, an integer
// `status_code`, a value among its `headers`. Each may be a data member or a const function without
// parameters, and its value may be behind a pointer or an optional: an empty one means none.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <utility>

#include "engines/http/failure.h"
#include "engines/http/value_types.h"

namespace engines::http::detail::foreign {

/// The value as a status: only an integer is one.
template <class T>
std::optional<StatusCode> as_status(const T& value) {
  if constexpr (Integer<T>) {
    if (std::in_range<StatusCode>(value)) return static_cast<StatusCode>(value);
  } else if constexpr (Handle<T>) {
    if (value) return as_status(*value);
  }
  return std::nullopt;
}

/// The value's text form; empty when it has none.
template <class T>
std::string text_of(const T& value) {
  if constexpr (CString<T>) {
    return value ? std::string(view(value)) : std::string();
  } else if constexpr (Text<T>) {
    return std::string(view(value));
  } else if constexpr (Handle<T>) {
    return value ? text_of(*value) : std::string();
  } else if constexpr (requires(std::ostream & out) { out << value; }) {
    return printed([&value](std::ostream& out) { out << value; });
  }
  return {};
}

template <class E>
std::optional<StatusCode> status_code_of(const E& error) {
  if constexpr (requires { as_status(error.status_code()); }) {
    return as_status(error.status_code());
  } else if constexpr (requires { as_status(error.status_code); }) {
    return as_status(error.status_code);
  }
  return std::nullopt;
}

/// What `headers.get(name)` returns, as text; empty where there is no such call.
template <class H>
std::string header_of(const H& headers, const char* name) {
  if constexpr (Handle<H>) {
    return headers ? header_of(*headers, name) : std::string();
  } else if constexpr (requires { text_of(headers.get(name)); }) {
    if constexpr (requires { static_cast<bool>(headers.get); }) {
      if (!headers.get) return {};  // an empty function
    }
    return text_of(headers.get(name));
  }
  return {};
}

/// The value of a header of the object; empty when it has no headers or they have no lookup.
template <class T>
std::string header_in(const T& object, const char* name) {
  if constexpr (requires { header_of(object.headers(), name); }) {
    return header_of(object.headers(), name);
  } else if constexpr (requires { header_of(object.headers, name); }) {
    return header_of(object.headers, name);
  }
  return {};
}

/// The text of an error: its `what()`, else its text form.
template <class E>
std::string message_of(const E& error) {
  if constexpr (requires { text_of(error.what()); }) {
    return text_of(error.what());
  } else {
    return text_of(error);
  }
}

}  // namespace engines::http::detail::foreign
