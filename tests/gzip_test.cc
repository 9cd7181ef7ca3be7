// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/gzip.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include "engines/http/transport.h"

namespace engines::http::net {
namespace {

std::string gzipped(const std::string& text) {
  z_stream stream{};
  deflateInit2(&stream, 9, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string coded(deflateBound(&stream, text.size()) + 32, '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(coded.data());
  stream.avail_out = static_cast<uInt>(coded.size());
  deflate(&stream, Z_FINISH);
  coded.resize(stream.total_out);
  deflateEnd(&stream);
  return coded;
}

/// The coded body in pieces, then its end.
GzipDecoder::Source source(std::string coded, std::size_t piece) {
  return [coded, piece, at = 0UL](std::string& out) mutable {
    const std::string part = coded.substr(at, piece);
    out += part, at += part.size();
    return part.size();
  };
}

std::string decoded(const std::string& coded, std::size_t piece, std::size_t amt, bool fill) {
  GzipDecoder decoder(source(coded, piece));
  std::string body;
  while (const std::size_t size = decoder.read(body, amt, fill)) EXPECT_LE(size, amt);
  EXPECT_EQ(decoder.read(body, amt, fill), 0U) << "a read after the end";
  return body;
}

TEST(Gzip, IsDecodedHoweverItArrivesAndIsRead) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) text += std::to_string(i * i);
  for (const std::size_t piece : {1U, 7U, 65536U}) {
    for (const std::size_t amt : {1U, 1000U, 65536U}) {
      EXPECT_EQ(decoded(gzipped(text), piece, amt, amt == 1000), text);
    }
    EXPECT_EQ(decoded(gzipped("one, ") + gzipped("") + gzipped("two"), piece, 100, false),
              "one, two");
  }
}

TEST(Gzip, ABombGivesNoMoreThanIsAskedFor) {
  const std::string bomb = gzipped(std::string(50'000'000, '\0'));
  GzipDecoder decoder(source(bomb, 65536));
  std::string body;
  EXPECT_EQ(decoder.read(body, 65536, false), 65536U);
  EXPECT_LT(body.capacity(), 200'000U);
}

TEST(Gzip, ThatIsCutOrMalformedIsAFailureAfterWhatCameBefore) {
  const std::string coded = gzipped("hello, hello, hello");
  for (const std::size_t kept : {1UL, 9UL, 15UL, coded.size() - 9, coded.size() - 1}) {
    EXPECT_THROW(decoded(coded.substr(0, kept), 65536, 9, false), IncompleteRead) << kept;
  }
  EXPECT_THROW(decoded(coded + "x", 65536, 9, false), IncompleteRead) << "a member of one byte";
  std::string wrong_sum = coded;
  wrong_sum.end()[-8] ^= 1;
  for (const std::string& malformed : {std::string("hello"), coded + "hello", wrong_sum}) {
    EXPECT_THROW(decoded(malformed, 65536, 9, false), HTTPException);
  }
  GzipDecoder decoder(source(coded + "hello", 65536));
  std::string body;
  EXPECT_EQ(decoder.read(body, 99, true), 19U);
  EXPECT_THROW(decoder.read(body, 99, true), HTTPException);
}

}  // namespace
}  // namespace engines::http::net
