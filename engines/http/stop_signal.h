// SPDX-License-Identifier: Apache-2.0
// What ends a call from outside. Does not include <stop_token>: code that passes a token has
// included it.
#pragma once

#include <concepts>
#include <functional>
#include <type_traits>
#include <utility>

#include "engines/http/export.h"

namespace engines::http {

/// Says true once the call should end. Converts from any function without arguments, and from a
/// `std::stop_token` or `std::stop_source`: asked, it says what `stop_requested` says. The library
/// asks on the thread that makes the call; calls on several threads may share a signal whose
/// function several threads may call at once, as those of the standard library are.
class ENGINES_HTTP_EXPORT StopSignal : public std::function<bool()> {
 public:
  /// Asks this function.
  template <class Ask>
  requires(!std::same_as<std::remove_cvref_t<Ask>, StopSignal> &&
           std::convertible_to<Ask, std::function<bool()>>) StopSignal(Ask&& ask)
      : function(std::forward<Ask>(ask)) {}

  /// Asks this token whether a stop was requested.
  template <class Token>
  requires requires(const Token& token) {
    { token.stop_requested() } -> std::same_as<bool>;
  }
  StopSignal(Token token)
      : function([token = std::move(token)] { return token.stop_requested(); }) {}
};

}  // namespace engines::http
