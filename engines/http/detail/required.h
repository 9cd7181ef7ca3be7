// A field of a parameter struct that must be given: it has no default, so leaving it out of the
// designated initialisers does not compile.
#pragma once

#include <concepts>
#include <utility>

namespace engines::http {

template <class T>
class required {
 public:
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
