// SPDX-License-Identifier: Apache-2.0
// Decodes a body in the gzip coding (RFC 9110, section 8.4.1.3; RFC 1952) as it is read.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace engines::http::net {

class GzipDecoder {
 public:
  GzipDecoder();
  GzipDecoder(const GzipDecoder&) = delete;
  GzipDecoder& operator=(const GzipDecoder&) = delete;
  ~GzipDecoder() { inflateEnd(&stream_); }

  /// Decodes from the start of `coded`, appends up to `amt` bytes to `out`, and returns how many
  /// bytes of `coded` it has used. It may hold back decoded bytes for which there was no room: they
  /// come first next time, even with nothing coded. Throws `HTTPException` where the coding is
  /// malformed.
  std::size_t decode(std::string_view coded, std::string& out, std::size_t amt);

  /// Whether the last step used all its room: then decoded bytes may have been held back.
  bool is_full() const noexcept { return is_in_member_ && stream_.avail_out == 0; }

  /// Whether all that was decoded is complete.
  bool is_complete() const noexcept { return !is_in_member_; }

 private:
  z_stream stream_{};
  bool is_in_member_ = false;  // between the start of a member and its end
};

}  // namespace engines::http::net
