// SPDX-License-Identifier: Apache-2.0
// One request and its reply over a stream, in HTTP/1.1 (RFC 9112), on the caller's thread. Bytes
// are sent and received only inside its functions: between two reads TCP's flow control stops the
// peer, and at most one receive is buffered. A head is a start line and the header fields after it.
#pragma once

#include <boost/beast/core/flat_buffer.hpp>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "engines/http/net/gzip.h"
#include "engines/http/net/limits.h"
#include "engines/http/net/proxy.h"
#include "engines/http/net/redirect.h"
#include "engines/http/net/stream.h"
#include "engines/http/pool_options.h"
#include "engines/http/transport.h"

namespace engines::http::net {

/// The head of a request (RFC 9112, section 3).
std::string request_head(const Hop& hop, const Route& route, const PoolOptions& options);

class Exchange {
 public:
  /// The stream, the limits and the options must outlive the exchange.
  Exchange(Stream& stream, Limits& limits, const PoolOptions& options);
  ~Exchange();

  /// Sends the request and waits for the final head; one that arrives before the whole request is
  /// sent ends the sending. `body` must stay valid during this call. Throws a transport error or
  /// `Stopped`.
  void run(std::string head, std::string_view body, bool is_head_request);

  /// Of the final reply.
  StatusCode status() const noexcept { return status_; }
  const Headers& headers() const noexcept { return headers_; }

  /// From now on the body is decoded, where the headers say that it is in the gzip coding. A body
  /// in another coding cannot be read: `read` throws an `HTTPException`.
  void decode_content();

  /// Appends up to `amt` bytes of the body to `out` and returns how many; 0: it has ended. Waits
  /// for the first bytes; with `fill` it goes on, within the same time, until it has `amt`. This
  /// read and every later one throw an error that comes before any byte. One that comes after some
  /// bytes is thrown by the reads after this one; a timeout is forgotten then.
  std::size_t read(std::string& out, std::size_t amt, bool fill);

  /// Drops the rest of the body as far as it has arrived, up to 64 KiB. Returns whether the stream
  /// can be used for another exchange.
  bool finish();

 private:
  class Parser;

  /// What comes next of a body.
  enum class Next {
    data,       ///< `bytes_left_` bytes
    chunk,      ///< the line that begins a chunk
    chunk_end,  ///< the empty line after its data
    trailer,    ///< a line of the trailers, which an empty one ends
    nothing,    ///< it has ended
  };

  Io receive(std::size_t at_most);
  std::string_view input() const;

  bool send(std::string_view bytes);
  void start_head();
  bool receive_head();
  bool parse_head();
  std::string_view next_part_of_head();
  void count_header();
  void take_final_head();
  [[noreturn]] void fail_without_head(Io state) const;

  bool receive_body();
  std::string_view arrived();
  bool take_framing();
  void consume(std::size_t size);
  std::size_t decode(std::string_view bytes, std::string& out, std::size_t amt);

  Stream& stream_;
  Limits& limits_;
  const PoolOptions& options_;
  boost::beast::flat_buffer input_;  // received and not used yet

  bool is_head_request_ = false;
  bool is_sent_ = false;            // the whole request
  std::unique_ptr<Parser> parser_;  // of the current head; it also has the framing of the body
  StatusCode status_ = 0;           // of the current head, in the end the final one; 0: none yet
  Headers headers_;                 // of the final head
  std::size_t head_bytes_ = 0;      // of the heads so far, interim ones included
  std::size_t searched_ = 0;        // bytes of the input in which the end of a part does not begin
  std::size_t header_count_ = 0;    // of the heads and the trailers
  bool is_reusable_ = false;        // as far as is known from the head

  Next next_ = Next::nothing;
  std::uint64_t bytes_left_ = 0;  // of the body or the chunk; the largest value: until it ends
  std::optional<GzipDecoder> gzip_;
  std::string unknown_coding_;  // of the content
  std::exception_ptr failure_;  // of a read
};

}  // namespace engines::http::net
