// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/gzip.h"

#include <algorithm>
#include <new>
#include <utility>

#include "engines/http/transport.h"

namespace engines::http::net {
namespace {

/// The most that is decoded in one step.
constexpr std::size_t STEP_BYTES = 65536;

}  // namespace

GzipDecoder::GzipDecoder(Source source) : source_(std::move(source)) {
  constexpr int GZIP_ONLY = 16 + MAX_WBITS;
  if (inflateInit2(&stream_, GZIP_ONLY) != Z_OK) throw std::bad_alloc();
}

std::size_t GzipDecoder::read(std::string& out, std::size_t amt, bool fill) {
  const std::size_t begin = out.size();
  try {
    while (out.size() - begin < amt && !has_ended_) {
      if (decode(out, std::min(amt - (out.size() - begin), STEP_BYTES)) > 0) {
        if (!fill) break;
      } else if (stream_.avail_in == 0) {
        coded_.clear();
        has_ended_ = source_(coded_) == 0;
        stream_.next_in = reinterpret_cast<Bytef*>(coded_.data());
        stream_.avail_in = static_cast<uInt>(coded_.size());
      }
    }
  } catch (...) {
    if (out.size() == begin) throw;  // else the next read meets it again
  }
  if (has_ended_ && is_in_member_ && out.size() == begin) {
    throw IncompleteRead("the reply was cut short: its gzip coding has no end");
  }
  return out.size() - begin;
}

/// Decodes what is here, up to `amt` bytes.
std::size_t GzipDecoder::decode(std::string& out, std::size_t amt) {
  if (stream_.avail_in == 0 && !is_in_member_) return 0;
  is_in_member_ = true;
  const std::size_t begin = out.size();
  out.resize(begin + amt);
  stream_.next_out = reinterpret_cast<Bytef*>(out.data() + begin);
  stream_.avail_out = static_cast<uInt>(amt);
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
  return out.size() - begin;
}

}  // namespace engines::http::net
