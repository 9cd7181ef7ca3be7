// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/gzip.h"

#include <algorithm>
#include <new>

#include "engines/http/transport.h"

namespace engines::http::net {
namespace {

/// The most that is used, and the most that is decoded, in one step.
constexpr std::size_t STEP_BYTES = 65536;

}  // namespace

GzipDecoder::GzipDecoder() {
  constexpr int GZIP_ONLY = 16 + MAX_WBITS;
  if (inflateInit2(&stream_, GZIP_ONLY) != Z_OK) throw std::bad_alloc();
}

std::size_t GzipDecoder::decode(std::string_view coded, std::string& out, std::size_t amt) {
  coded = coded.substr(0, STEP_BYTES);
  if (coded.empty() && !is_in_member_) return 0;  // nothing can have been held back
  is_in_member_ = true;                           // its first byte begins a member
  const std::size_t begin = out.size();
  // Little room for few bytes, because the room is zeroed first. What does not fit is held back.
  out.resize(begin + std::min({amt, STEP_BYTES, 1024 + 8 * coded.size()}));
  stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(coded.data()));
  stream_.avail_in = static_cast<uInt>(coded.size());
  stream_.next_out = reinterpret_cast<Bytef*>(out.data() + begin);
  stream_.avail_out = static_cast<uInt>(out.size() - begin);
  const int result = inflate(&stream_, Z_NO_FLUSH);
  out.resize(out.size() - stream_.avail_out);
  if (result == Z_STREAM_END) {
    is_in_member_ = false;  // another may follow (RFC 1952, section 2.2)
    inflateReset(&stream_);
  } else if (result == Z_MEM_ERROR) {
    throw std::bad_alloc();
  } else if (result != Z_OK && result != Z_BUF_ERROR) {
    throw HTTPException("the reply's gzip coding is malformed");
  }
  return coded.size() - stream_.avail_in;
}

}  // namespace engines::http::net
