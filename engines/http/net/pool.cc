// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/pool.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace engines::http::net {

Pool::Pool(PoolOptions options)
    : options_(std::move(options)),
      max_idle_time_(duration_of(options_.max_idle_s)),
      own_(new OfProcess{.inherited = nullptr}) {}

Pool::~Pool() {
  // What was inherited is left as it is: see Connection::is_ours.
  OfProcess* const own = own_;
  if (own->process == process_number()) delete own;
}

Pool::OfProcess& Pool::own() {
  OfProcess* current = own_;
  if (current->process == process_number()) return *current;
  std::unique_ptr<OfProcess> fresh(new OfProcess{.inherited = current});
  return own_.compare_exchange_strong(current, fresh.get()) ? *fresh.release() : *current;
}

Pool::Connections Pool::take_stale(OfProcess& own, TimePoint now) const {
  const auto first_kept = std::ranges::find_if(
      own.idle, [&](const Idle& one) { return now - one.since <= max_idle_time_; });
  Connections stale(std::move_iterator(own.idle.begin()), std::move_iterator(first_kept));
  own.idle.erase(own.idle.begin(), first_kept);
  return stale;
}

std::unique_ptr<Connection> Pool::take_latest(const Route& route) {
  Connections stale;  // closed after the lock is given up
  OfProcess& ours = own();
  const std::lock_guard lock(ours.mutex);
  stale = take_stale(ours, SteadyClock::now());
  const auto found = std::find_if(ours.idle.rbegin(), ours.idle.rend(), [&](const Idle& one) {
    return one.connection->route() == route;
  });
  if (found == ours.idle.rend()) return nullptr;
  std::unique_ptr<Connection> connection = std::move(found->connection);
  ours.idle.erase(std::next(found).base());
  return connection;
}

std::unique_ptr<Connection> Pool::take(const Route& route) {
  if (options_.max_idle == 0) return nullptr;
  std::unique_ptr<Connection> connection;
  do {
    connection = take_latest(route);
  } while (connection && !connection->is_quiet());
  return connection;
}

void Pool::keep(std::unique_ptr<Connection> connection) noexcept {
  if (options_.max_idle == 0 || !connection->is_ours()) return;
  try {
    Connections stale;
    OfProcess& ours = own();
    const TimePoint now = SteadyClock::now();
    const std::lock_guard lock(ours.mutex);
    stale = take_stale(ours, now);
    if (ours.idle.size() >= options_.max_idle) {
      stale.push_back(std::move(ours.idle.front()));
      ours.idle.erase(ours.idle.begin());
    }
    ours.idle.push_back({std::move(connection), now});
  } catch (...) {  // no memory to keep it: it is closed
  }
}

}  // namespace engines::http::net
