// A field of a parameter struct that must be given: leaving it out of the designated initialisers
// does not compile, and the compiler's message says that a field is missing.
#pragma once

#include <concepts>
#include <utility>

namespace engines::http {

/// A `T` without a default. It reads as the `T` that was given; threads may share one as they may
/// share the `T`.
template <class T>
class required {
 public:
  template <class Given = void>
  required() : value_(missing<Given>()) {}

  template <class U>
  requires(!std::same_as<std::remove_cvref_t<U>, required> &&
           std::convertible_to<U, T>) constexpr required(U&& value)
      : value_(std::forward<U>(value)) {}

  constexpr operator const T&() const noexcept { return value_; }
  constexpr const T& operator*() const noexcept { return value_; }
  constexpr const T* operator->() const noexcept { return &value_; }

 private:
  template <class Given>
  static T missing() {
    static_assert(!std::same_as<Given, void>, "a field that must be given is missing");
  }

  T value_;
};

}  // namespace engines::http
