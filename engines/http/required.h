// SPDX-License-Identifier: Apache-2.0
// Required fields of parameter structs: a braced list that leaves one out does not compile, and the
// compiler's message says that a field is missing. There are two ways to declare one:
//
//   required<std::string> label;
//   RetryPolicy policy = detail::missing<RetryPolicy, Given>();
//
// The second is for a value that may be in braces itself, `.policy = {.attempts = 1}`. `Given` is a
// template parameter of the struct, so that the default is instantiated only where it is used.
// Such a struct also has a field of the first kind, so that it has no default constructor.
#pragma once

#include <concepts>
#include <initializer_list>
#include <type_traits>
#include <utility>

#include "engines/http/export.h"

namespace engines::http {

namespace detail {

/// The default of a field that must be given: does not compile where it is used.
template <class T, class Given>
T missing() {
  static_assert(!std::same_as<Given, Given>, "a field that must be given is missing");
}

/// Element of the empty list from which a field that is left out is initialised.
struct LeftOut {};

}  // namespace detail

/// A `T` without a default. It reads as the `T` that was given.
template <class T>
class ENGINES_HTTP_EXPORT required {
 public:
  /// Chosen for a field that is left out, which is initialised from `{}`; does not compile. It
  /// takes the place of a default constructor, so that a struct with such a field has none either.
  template <class Given = void>
  required(std::initializer_list<detail::LeftOut>) : value_(detail::missing<T, Given>()) {}

  /// The value that is given.
  template <class U>
  requires(!std::same_as<std::remove_cvref_t<U>, required> &&
           std::convertible_to<U, T>) constexpr required(U&& value)
      : value_(std::forward<U>(value)) {}

  /// That value.
  /// @{
  constexpr operator const T&() const noexcept { return value_; }
  constexpr const T& operator*() const noexcept { return value_; }
  constexpr const T* operator->() const noexcept { return &value_; }
  /// @}

 private:
  T value_;
};

}  // namespace engines::http
