// SPDX-License-Identifier: Apache-2.0
// Keeps an exception, with its dynamic type, after its handler has ended.
#pragma once

#include <concepts>
#include <exception>
#include <memory>
#include <stdexcept>
#include <typeinfo>

#include "engines/http/export.h"

namespace engines::http::detail {

/// An error that is held: to be looked at, and to be thrown again.
template <class Base>
struct ENGINES_HTTP_EXPORT Held {
  std::exception_ptr thrown;
  const Base* error;  // lives within `thrown`
};

/// The exception that is being handled, if `error` is that very object; else null.
template <class E>
std::exception_ptr handling(const E& error) noexcept {
  std::exception_ptr current = std::current_exception();
  if (!current) return nullptr;
  try {
    std::rethrow_exception(current);
  } catch (const E& handled) {
    return &handled == &error ? current : nullptr;
  } catch (...) {
    return nullptr;  // some other error is being handled
  }
}

/// For a reference to a base class: the exception itself while it is being handled, else what its
/// `copy()` returns. Otherwise a copy, which `hold` refuses if it is sliced.
template <class E>
std::exception_ptr to_hold(const E& error) {
  if (typeid(error) != typeid(E)) {
    if (std::exception_ptr itself = handling(error)) return itself;
    if constexpr (requires {
                    { error.copy() } -> std::same_as<std::exception_ptr>;
                  }) {
      return error.copy();
    }
  }
  return std::make_exception_ptr(error);
}

/// Holds the error or a copy. Throws `std::logic_error` where a copy would be of another kind than
/// the error.
template <class Base, class E>
std::shared_ptr<const Held<Base>> hold(const E& error) {
  const std::exception_ptr thrown = to_hold(error);
  try {  // only a handler gives access to the object within an exception_ptr
    std::rethrow_exception(thrown);
  } catch (const E& within) {
    if (typeid(within) == typeid(error)) {
      return std::make_shared<const Held<Base>>(Held<Base>{thrown, std::addressof(within)});
    }
  }
  throw std::logic_error(
      "an error passed as a reference to its base class can be kept only while it is being "
      "handled; pass it by its own type, or override HttpFailure::copy in it");
}

}  // namespace engines::http::detail
