// SPDX-License-Identifier: Apache-2.0
// The idle connections of a pool.
#pragma once

#include <memory>
#include <vector>

#include "engines/http/net/connection.h"
#include "engines/http/pool_options.h"

namespace engines::http::net {

/// Any thread may call any function at any time, and so may the child of a fork: it begins with no
/// idle connection.
class Pool {
 public:
  explicit Pool(PoolOptions options);

  const PoolOptions& options() const noexcept { return options_; }

  /// The connection with this route that was used last and is quiet; null: none. Closes those that
  /// have been idle for too long.
  std::unique_ptr<Connection> take(const Route& route);

  /// Keeps a connection that can serve another exchange.
  void keep(std::unique_ptr<Connection> connection) noexcept;

 private:
  struct Idle {
    std::unique_ptr<Connection> connection;
    TimePoint since;
  };

  /// As `take`, but the connection may not be quiet.
  std::unique_ptr<Connection> take_latest(const Route& route);
  /// Closes those that have been idle for too long or came through a fork.
  void close_stale(TimePoint now);

  const PoolOptions options_;
  const Duration max_idle_time_;
  std::vector<Idle> idle_;  // the one that was used last at the end
};

}  // namespace engines::http::net
