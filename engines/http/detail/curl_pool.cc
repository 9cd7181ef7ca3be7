#include "engines/http/detail/curl_pool.h"

#include <poll.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "engines/http/detail/curl_setup.h"

namespace engines::http::detail {

Pool::Pool(PoolOptions options)
    : options_(std::move(options)),
      max_idle_time_(duration_of(options_.max_idle_s)),
      idle_(new Idle{.inherited = nullptr}) {}

Pool::~Pool() {
  // What was inherited is left as it is: see Slot::is_ours.
  Idle* own = idle_;
  if (own->process == process_number()) delete own;
}

Pool::Idle& Pool::idle() {
  Idle* current = idle_;
  if (current->process == process_number()) return *current;
  std::unique_ptr<Idle> fresh(new Idle{.inherited = current});
  return idle_.compare_exchange_strong(current, fresh.get()) ? *fresh.release() : *current;
}

Pool::Slots Pool::take_stale(Idle& idle, Clock::time_point now) const {
  const auto first_kept = std::ranges::find_if(
      idle.slots, [&](const auto& slot) { return now - slot->idle_from <= max_idle_time_; });
  Slots stale(std::move_iterator(idle.slots.begin()), std::move_iterator(first_kept));
  idle.slots.erase(idle.slots.begin(), first_kept);
  return stale;
}

std::unique_ptr<Slot> Pool::take_idle(const Origin& origin) {
  Slots stale;  // closed after the lock is given up
  Idle& ours = idle();
  const std::lock_guard lock(ours.mutex);
  stale = take_stale(ours, Clock::now());
  const auto found = std::find_if(ours.slots.rbegin(), ours.slots.rend(),
                                  [&](const auto& one) { return one->url->origin == origin; });
  if (found == ours.slots.rend()) return nullptr;
  std::unique_ptr<Slot> slot = std::move(*found);
  ours.slots.erase(std::next(found).base());
  return slot;
}

std::shared_ptr<const Url> Pool::parsed(const std::string& url) {
  if (options_.max_idle > 0) {
    Idle& ours = idle();
    const std::lock_guard lock(ours.mutex);
    for (const auto& slot : ours.slots) {
      if (slot->url->given == url) return slot->url;
    }
  }
  return parse_url(url);
}

std::unique_ptr<Slot> Pool::acquire(const std::shared_ptr<const Url>& url) {
  if (options_.max_idle > 0) {
    while (std::unique_ptr<Slot> slot = take_idle(url->origin)) {
      // What came unasked for (a late body, a farewell, the end) would be taken for the next reply.
      if (slot->is_ready(POLLIN, 0)) continue;
      slot->renew_easy();
      slot->url = url;
      return slot;
    }
  }
  auto slot = std::make_unique<Slot>();
  slot->url = url;
  set_up(slot->easy(), url->origin, options_);
  return slot;
}

void Pool::release(std::unique_ptr<Slot> slot) noexcept {
  if (!slot || !slot->is_ours() || options_.max_idle == 0) return;
  try {
    Slots stale;
    Idle& ours = idle();
    slot->idle_from = Clock::now();
    const std::lock_guard lock(ours.mutex);
    stale = take_stale(ours, slot->idle_from);
    if (ours.slots.size() >= options_.max_idle) {
      stale.push_back(std::move(ours.slots.front()));
      ours.slots.erase(ours.slots.begin());
    }
    ours.slots.push_back(std::move(slot));
  } catch (...) {  // no memory to keep it: it is closed
  }
}

}  // namespace engines::http::detail
