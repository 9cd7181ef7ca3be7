// A field of a parameter struct that must be given: leaving it out of the designated initialisers
// does not compile, and says so. There are two ways to declare one:
//
//   required<std::string> label;
//   RetryPolicy policy = detail::missing<RetryPolicy, Given>();
//
// The second is for a value that may be in braces itself, `.policy = {.attempts = 1}`. `Given` is a
// template parameter of the struct, without which the default would be compiled in any case.
#pragma once

#include <concepts>
#include <utility>

namespace engines::http {

template <class T, class Given>
T missing_field() {
  static_assert(!std::same_as<Given, void>, "a field that must be given is missing");
}

namespace detail {

/// The default of a field that must be given: does not compile where it is used.
template <class T, class Given>
T missing() {
  static_assert(!std::same_as<Given, Given>, "a field that must be given is missing");
}

}  // namespace detail

/// Holds a `T` and has no usable default.
template <class T>
class required {
 public:
  template <class Given = void>
  required() : value_(detail::missing<T, Given>()) {}

  template <class U>
  requires(!std::same_as<std::remove_cvref_t<U>, required> &&
           std::convertible_to<U, T>) constexpr required(U&& value)
      : value_(std::forward<U>(value)) {}

  constexpr operator const T&() const noexcept { return value_; }
  constexpr const T& operator*() const noexcept { return value_; }
  constexpr const T* operator->() const noexcept { return &value_; }

 private:
  T value_;
};

}  // namespace engines::http
