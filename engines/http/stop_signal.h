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

/// Returns true once the call should end. Converts from any callable without parameters, and from
/// `std::stop_token` and `std::stop_source`. The library calls it on the thread of the call; calls
/// on several threads may share one whose function may be called concurrently.
class ENGINES_HTTP_EXPORT StopSignal : public std::function<bool()> {
 public:
  /// Calls this function.
  template <class Ask>
  requires(!std::same_as<std::remove_cvref_t<Ask>, StopSignal> &&
           std::convertible_to<Ask, std::function<bool()>>) StopSignal(Ask&& ask)
      : function(std::forward<Ask>(ask)) {}

  /// Calls `stop_requested` of this token.
  template <class Token>
  requires requires(const Token& token) {
    { token.stop_requested() } -> std::same_as<bool>;
  }
  StopSignal(Token token)
      : function([token = std::move(token)] { return token.stop_requested(); }) {}
};

}  // namespace engines::http
