// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "engines/http/transport.h"

namespace engines::http::detail {

/// Returns `use(reply)`, a value, and closes the reply in every case. What the close throws
/// replaces the outcome of `use`.
template <class Use>
auto closing(Response& reply, const Use& use) {
  auto outcome = [&] {
    try {
      return use(reply);
    } catch (...) {
      reply.close();
      throw;
    }
  }();
  reply.close();
  return outcome;
}

}  // namespace engines::http::detail
