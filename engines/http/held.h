// Keeps an error that was caught, as the kind that it is.
#pragma once

#include <exception>
#include <memory>
#include <typeinfo>
#include <utility>

namespace engines::http::detail {

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

/// An error to be thrown again: itself when it is named through a base and is being handled, else a
/// copy of what `E` shows of it.
template <class E>
std::exception_ptr held(const E& error) {
  std::exception_ptr itself = typeid(error) == typeid(E) ? nullptr : handling(error);
  return itself ? itself : std::make_exception_ptr(error);
}

/// The same, to be looked at.
template <class Base, class E>
std::shared_ptr<const Base> held_as(const E& error) {
  std::exception_ptr itself = typeid(error) == typeid(E) ? nullptr : handling(error);
  if (!itself) return std::make_shared<const E>(error);
  return {std::make_shared<std::exception_ptr>(std::move(itself)), &error};
}

}  // namespace engines::http::detail
