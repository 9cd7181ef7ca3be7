// SPDX-License-Identifier: Apache-2.0
// A connection as an exchange sees it: non-blocking send and receive, and a wait.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "engines/http/net/limits.h"

namespace engines::http::net {

/// The outcome of an operation on a stream. Only receiving ends or is cut.
enum class Io {
  moved,    ///< some bytes moved
  blocked,  ///< none can move now
  ended,    ///< the peer has ended the connection
  cut,      ///< it ended, but not as it should: TLS without close_notify (RFC 9112, section 9.8)
  broken,   ///< the connection broke
};

struct IoResult {
  Io state;
  std::size_t bytes = 0;  // how many moved
};

class Stream {
 public:
  Stream() = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  virtual ~Stream() = default;

  /// Sends some of the bytes, from the first on. After `blocked`, the next call must begin with the
  /// same ones.
  virtual IoResult send(std::string_view bytes) = 0;
  /// Receives up to `room` bytes.
  virtual IoResult receive(char* to, std::size_t room) = 0;

  /// Waits, for `at_most`, until something can be received or, with `to_send`, sent.
  virtual void wait(bool to_send, Duration at_most) = 0;

  /// After `broken`, and perhaps after `ended` and `cut`: why, to be appended to a text. " (the
  /// system's text): quote", where each part may be missing.
  virtual std::string reason() const = 0;
};

}  // namespace engines::http::net
