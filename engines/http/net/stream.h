// SPDX-License-Identifier: Apache-2.0
// A connection as an exchange sees it: non-blocking send and receive, and a wait.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <system_error>

#include "engines/http/net/limits.h"

namespace engines::http::net {

/// The outcome of an operation on a stream.
enum class Io {
  moved,    ///< some bytes moved
  blocked,  ///< none can move now
  ended,    ///< the peer has ended the connection; of receiving only
  broken,   ///< the connection broke: see `Stream::error`
};

struct IoResult {
  Io state;
  std::size_t bytes = 0;  // how many moved
};

/// Why a connection broke.
struct StreamError {
  int os_error = 0;       // errno; 0: none
  std::string text = {};  // the underlying library's: quoted, never parsed
};

/// "situation (the system's text): quote".
inline std::string described(std::string_view situation, const StreamError& error) {
  std::string text(situation);
  if (error.os_error != 0) text += " (" + std::generic_category().message(error.os_error) + ")";
  // The quote comes last: a library below may have cut it inside a secret, and only at the end of a
  // text is the start of one looked for.
  if (!error.text.empty()) text += ": " + error.text;
  return text;
}

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
  /// After `broken`; after `ended`, there may be a text.
  virtual StreamError error() const = 0;
};

}  // namespace engines::http::net
