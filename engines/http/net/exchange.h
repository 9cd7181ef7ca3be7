// SPDX-License-Identifier: Apache-2.0
// One request and its reply over a stream, in HTTP/1.1 (RFC 9112), on the caller's thread. Nothing
// moves unless one of the functions runs: between two reads the peer is held back by its own full
// window, and no more of the body is kept here than one receive brought too much.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engines/http/net/limits.h"
#include "engines/http/net/redirect.h"
#include "engines/http/net/stream.h"
#include "engines/http/pool_options.h"
#include "engines/http/transport.h"

namespace engines::http::net {

/// The head of a request (RFC 9112, section 3). `proxy` is the one that is used for its origin, or
/// null.
std::string request_head(const Hop& hop, const Url* proxy, const PoolOptions& options);

/// What has been received and is not used yet.
class InputBuffer {
 public:
  std::string_view bytes() const noexcept { return {data_.get() + begin_, end_ - begin_}; }
  void consume(std::size_t count) noexcept { begin_ += count; }
  /// Receives once, up to at least `capacity` bytes in all, of which there must be fewer.
  Io fill(Stream& stream, std::size_t capacity);

 private:
  std::unique_ptr<char[]> data_;
  std::size_t capacity_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

class Exchange {
 public:
  /// The stream, the limits and the options must outlive the exchange.
  Exchange(Stream& stream, Limits& limits, const PoolOptions& options);
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange();

  /// Sends the request and waits for the final head; one that comes before the request is sent
  /// whole ends the sending. `body` is used no longer than this call. Throws a transport failure,
  /// or `Stopped`.
  void run(std::string head, std::string_view body, bool is_head_request);

  /// Of the final reply.
  StatusCode status() const noexcept { return status_; }
  const Headers& headers() const noexcept { return headers_; }

  /// Appends up to `amt` bytes of the body to `out` and returns how many; 0: it has ended. Waits
  /// for the first bytes; with `fill` it goes on, within the same time, until it has `amt`. The
  /// wait ends at `until`, where that is given. A failure is kept, and thrown again by every later
  /// read.
  std::size_t read(std::string& out, std::size_t amt, bool fill,
                   std::optional<TimePoint> until = std::nullopt);

  /// Takes what is left of the body and already here, within reason. Whether the stream can serve
  /// another exchange.
  bool finish();

 private:
  class Parser;
  enum class Framing { none, sized, chunked, until_end };

  void send(std::string_view bytes);
  void await_head();
  bool receive_head();
  void check_head_size(std::size_t more) const;
  std::string_view next_part_of_head();
  bool parse_head();
  bool take_head();
  [[noreturn]] void fail_without_head(Io state) const;

  void wait(Phase phase, TimePoint until, bool to_send = false);
  std::size_t take_body(std::string& out, std::size_t amt);
  std::size_t take_unframed(std::string& out, std::size_t amt);
  std::size_t take_chunked(std::string& out, std::size_t amt);
  void end_body(Io state);

  Stream& stream_;
  Limits& limits_;
  const PoolOptions& options_;
  InputBuffer input_;
  std::unique_ptr<Parser> parser_;

  bool is_head_request_ = false;
  bool is_sent_ = false;        // the request, whole
  std::size_t head_bytes_ = 0;  // of the heads so far, interim ones included
  std::size_t searched_ = 0;    // of the input, for the end of a part of a head
  bool has_final_head_ = false;
  StatusCode status_ = 0;
  Headers headers_;
  bool is_reusable_ = false;  // as far as the head says

  Framing framing_ = Framing::none;  // of what is left of the body
  std::uint64_t bytes_left_ = 0;     // of a sized body
  std::exception_ptr failure_;       // of a read
};

}  // namespace engines::http::net
