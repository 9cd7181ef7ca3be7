// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "engines/http/transport.h"

namespace engines::http::detail {

/// What `use` makes of the reply, which is closed whatever happens. A failing close replaces the
/// outcome.
template <class Use>
auto closing(Response& reply, const Use& use) {
  const auto used = [&] {
    try {
      return use(reply);
    } catch (...) {
      reply.close();
      throw;
    }
  };
  auto outcome = used();
  reply.close();
  return outcome;
}

}  // namespace engines::http::detail
