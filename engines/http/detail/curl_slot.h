// The pair of libcurl handles that one exchange runs on. Included by .cc files only.
#pragma once

#include <curl/curl.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <vector>

#include "engines/http/detail/url.h"

namespace engines::http::detail {

using Clock = std::chrono::steady_clock;

/// The duration of so many seconds: zero for what is not above zero or is NaN, and no more than
/// 1,000,000 s, which neither the clock nor libcurl overflows on.
Clock::duration duration_of(double seconds);

/// Which process this is: another number in the child of a fork than in its parent. It asks no
/// kernel, for it is asked several times in each call.
unsigned process_number() noexcept;

/// A multi handle, which holds the connection between two exchanges, and an easy handle for the one
/// exchange that owns the slot at a time.
class Slot {
 public:
  Slot();
  ~Slot();
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  CURLM* multi() const noexcept { return multi_; }
  CURL* easy() const noexcept { return easy_; }

  /// Before another exchange: takes a fresh easy handle, with the options of the one before.
  /// libcurl before 8.1.1 keeps a pointer into the freed headers of a handle's last reply, and
  /// writes there when the next reply begins with a folded line. Throws `std::bad_alloc`.
  void renew_easy();

  /// Whether this process made the slot. One that came through a fork shares its sockets with the
  /// parent: anything done to it, closing included, would be seen by the parent's peer.
  bool is_ours() const noexcept;

  /// A socket for libcurl, which closes it. Throws `std::bad_alloc`; what else fails is in `errno`.
  curl_socket_t open_socket(const curl_sockaddr& address);

  /// Ends the connection, or the attempts to make one, with what has been received and not read.
  void cut_off() const noexcept;

  /// Whether the connection is ready for the events of poll(2), or has ended, within so long.
  bool is_ready(short events, int within_ms) const noexcept;

  std::shared_ptr<const Url> url;  // of the latest exchange, all being with one origin,
  Clock::time_point idle_from;     // and when it ended

 private:
  static int on_close(void* self, curl_socket_t socket) noexcept;

  /// libcurl does not always tell when it closes a socket (not that of an address which lost the
  /// race), whose number may then be a stranger's.
  struct Socket {
    curl_socket_t number;
    ino_t inode;

    bool is_open() const noexcept;
  };

  unsigned owner_ = process_number();
  std::vector<Socket> sockets_;  // the latest that is open is the connection's, once there is one
  CURLM* multi_ = nullptr;
  CURL* easy_ = nullptr;
};

}  // namespace engines::http::detail
