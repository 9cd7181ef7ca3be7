// SPDX-License-Identifier: Apache-2.0
// The idle connections of a pool.
#pragma once

#include <memory>
#include <vector>

#include "engines/http/net/connection.h"
#include "engines/http/pool_options.h"

namespace engines::http::net {

/// Thread-safe. After a fork the child begins without idle connections.
class Pool {
 public:
  explicit Pool(PoolOptions options);

  const PoolOptions& options() const noexcept { return options_; }

  /// The most recently used quiet connection with this route; null: none. Closes those with this
  /// route that are not quiet, and all that have been idle for too long.
  std::unique_ptr<Connection> take(const Route& route);

  /// Keeps a connection that can serve another exchange.
  void keep(std::unique_ptr<Connection> connection) noexcept;

 private:
  struct Idle {
    std::unique_ptr<Connection> connection;
    TimePoint since;
  };

  /// Closes those that have been idle for too long or came through a fork.
  void close_stale(TimePoint now);

  const PoolOptions options_;
  std::vector<Idle> idle_;  // least recently used first
};

}  // namespace engines::http::net
