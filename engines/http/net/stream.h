// SPDX-License-Identifier: Apache-2.0
// A connection as an exchange sees it: non-blocking send and receive, and a wait.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "engines/http/net/limits.h"

namespace engines::http::net {

/// The outcome of an operation on a stream.
enum class Io {
  moved,    ///< some bytes moved
  blocked,  ///< none can move now
  ended,    ///< the peer has ended the connection; of receiving only
  broken,   ///< the connection broke: see `Stream::reason`
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

  /// After `ended`: false where TLS ended without close_notify, so that anyone in between may have
  /// cut the connection (RFC 9112, section 9.8). True for a plain one, of which that is not known.
  virtual bool ended_properly() const = 0;
  /// After `broken`, and perhaps after `ended`: why, to be appended to a text. " (the system's
  /// text): quote", where each part may be missing.
  virtual std::string reason() const = 0;
};

}  // namespace engines::http::net
