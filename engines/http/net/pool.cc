// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/pool.h"

#include <pthread.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <new>
#include <utility>

namespace engines::http::net {
namespace {

/// Guards the idle connections of all pools. Never held during a blocking operation. A fork locks
/// it first, because the child could not unlock a mutex that another thread holds.
std::mutex mutex;
void lock_pools() { mutex.lock(); }
void unlock_pools() { mutex.unlock(); }
const int atfork_error = pthread_atfork(&lock_pools, &unlock_pools, &unlock_pools);

}  // namespace

Pool::Pool(PoolOptions options) : options_(std::move(options)) {
  if (atfork_error != 0) throw std::bad_alloc();
}

void Pool::close_stale(TimePoint now) {
  const Duration longest = duration_of(options_.max_idle_s);
  std::erase_if(idle_, [&](const Idle& one) {
    return !one.connection->is_ours() || now - one.since > longest;
  });
}

std::unique_ptr<Connection> Pool::take(const Route& route) {
  for (;;) {
    std::unique_ptr<Connection> connection;
    {
      const std::lock_guard lock(mutex);
      close_stale(SteadyClock::now());
      const auto found = std::find_if(idle_.rbegin(), idle_.rend(), [&](const Idle& one) {
        return one.connection->route() == route;
      });
      if (found == idle_.rend()) return nullptr;
      connection = std::move(found->connection);
      idle_.erase(std::next(found).base());
    }
    if (connection->is_quiet()) return connection;
  }
}

void Pool::keep(std::unique_ptr<Connection> connection) noexcept {
  if (options_.max_idle == 0 || !connection->is_ours()) return;
  try {
    const TimePoint now = SteadyClock::now();
    const std::lock_guard lock(mutex);
    close_stale(now);
    if (idle_.size() >= options_.max_idle) idle_.erase(idle_.begin());
    idle_.push_back({std::move(connection), now});
  } catch (...) {  // no memory to keep it: it is closed
  }
}

}  // namespace engines::http::net
