// SPDX-License-Identifier: Apache-2.0
// Decodes a body in the gzip coding (RFC 9110, section 8.4.1.3; RFC 1952) as it is read.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <functional>
#include <string>

namespace engines::http::net {

class GzipDecoder {
 public:
  /// Appends some of the coded body, as it comes, and returns how many bytes; 0: it has ended.
  using Source = std::function<std::size_t(std::string& coded)>;

  explicit GzipDecoder(Source source);
  GzipDecoder(const GzipDecoder&) = delete;
  GzipDecoder& operator=(const GzipDecoder&) = delete;
  ~GzipDecoder() { inflateEnd(&stream_); }

  /// Appends up to `amt` decoded bytes to `out` and returns how many; 0: the body has ended. With
  /// `fill` it goes on until it has `amt`. Input that would decode to more stays encoded. Throws
  /// `IncompleteRead` where the coded data ends early, `HTTPException` where it is no gzip, and
  /// what the source throws.
  std::size_t read(std::string& out, std::size_t amt, bool fill);

 private:
  std::size_t decode(std::string& out, std::size_t amt);

  Source source_;
  std::string coded_;
  z_stream stream_{};
  bool is_in_member_ = false;  // between the start of a member and its end
  bool has_ended_ = false;     // the coded body
};

}  // namespace engines::http::net
