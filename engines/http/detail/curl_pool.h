// The idle connections of a pool. Included by .cc files only.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "engines/http/curl_transport.h"
#include "engines/http/detail/curl_slot.h"

namespace engines::http::detail {

/// Any thread may call any function at any time, and so may the child of a fork: it starts with no
/// idle connection.
class Pool {
 public:
  explicit Pool(PoolOptions options);
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  const PoolOptions& options() const noexcept { return options_; }

  /// The URL, taken apart. One that an idle connection was asked for the last time is not parsed
  /// again.
  std::shared_ptr<const Url> parsed(const std::string& url);

  /// A slot for one exchange with the URL's origin: the latest used of those that were connected to
  /// it, else a new one. Closes connections that have been idle for too long.
  std::unique_ptr<Slot> acquire(const std::shared_ptr<const Url>& url);

  /// Takes back a slot after its exchange has ended well. Null is no slot.
  void release(std::unique_ptr<Slot> slot) noexcept;

 private:
  using Slots = std::vector<std::unique_ptr<Slot>>;

  /// The idle slots of one process. A child never touches its parent's, the lock included, which
  /// another thread may have held when the fork was made.
  struct Idle {
    Idle* inherited;
    unsigned process = process_number();
    std::mutex mutex = {};
    Slots slots = {};  // the latest used at the end
  };

  Idle& idle();
  std::unique_ptr<Slot> take_idle(const Origin& origin);
  Slots take_stale(Idle& idle, Clock::time_point now) const;

  const PoolOptions options_;
  Clock::duration max_idle_time_;
  std::atomic<Idle*> idle_;
};

}  // namespace engines::http::detail
