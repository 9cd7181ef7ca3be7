// SPDX-License-Identifier: Apache-2.0
// A connection as an exchange sees it: bytes that go and come, without waiting, and a wait.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "engines/http/net/limits.h"

namespace engines::http::net {

/// What came of an operation on a stream.
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
  int os_error = 0;       // errno; 0: the system said nothing
  std::string text = {};  // of the library below, to be quoted and never to be searched
};

/// "situation (the system's text): quote".
std::string described(std::string_view situation, const StreamError& error);

/// Throws a `URLError` of the kind of the system's error: nothing, or not all of a request,
/// was sent.
[[noreturn]] void throw_unsent(std::string_view situation, const StreamError& error);

class Stream {
 public:
  Stream() = default;
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  virtual ~Stream() = default;

  /// Sends a first part of the bytes. After `blocked`, the next call must begin with the same ones.
  virtual IoResult send(std::string_view bytes) = 0;
  /// Receives up to `room` bytes.
  virtual IoResult receive(char* to, std::size_t room) = 0;

  /// Waits at most so long until something can be received or, with `to_send`, sent.
  virtual void wait(bool to_send, Duration at_most) = 0;

  /// After `ended`: whether the peer said that it has sent all. A TLS connection can be cut by
  /// anyone in between (RFC 9112, section 9.8); of a plain one this is not known.
  virtual bool ended_properly() const = 0;
  /// After `broken`; after `ended`, there may be a text.
  virtual StreamError error() const = 0;
};

}  // namespace engines::http::net
