// SPDX-License-Identifier: Apache-2.0
// A field of a parameter struct that must be given: leaving it out of the designated initialisers
// does not compile, and the compiler says that a field is missing. There are two ways to declare
// one:
//
//   required<std::string> label;
//   RetryPolicy policy = detail::missing<RetryPolicy, Given>();
//
// The second is for a value that may be in braces itself, `.policy = {.attempts = 1}`. `Given` is a
// template parameter of the struct, without which the default would be compiled in any case. A
// struct of this kind needs a field of the first kind beside it.
#pragma once

#include <concepts>
#include <initializer_list>
#include <utility>

#include "engines/http/export.h"

namespace engines::http {

namespace detail {

/// The default of a field that must be given: does not compile where it is used.
template <class T, class Given>
T missing() {
  static_assert(!std::same_as<Given, Given>, "a field that must be given is missing");
}

/// Stands for a field that is left out.
struct LeftOut {};

}  // namespace detail

/// A `T` without a default. It reads as the `T` that was given; threads may share one as they may
/// share the `T`.
template <class T>
class ENGINES_HTTP_EXPORT required {
 public:
  /// Does not compile: what a field that is left out is initialised from. There is no default
  /// constructor, so that a struct with such a field has none either, and says so where it is
  /// asked.
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
