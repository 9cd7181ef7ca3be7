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

/// Decodes a body that arrives in pieces, at most `amt` bytes at a time; says where it is cut.
std::string decoded(const std::string& coded, std::size_t piece, std::size_t amt) {
  GzipDecoder decoder;
  std::string body;
  std::string_view rest = coded;
  for (std::size_t used = 1, size = 1; used + size > 0;) {
    const std::size_t begin = body.size();
    used = decoder.decode(rest.substr(0, piece), body, amt);
    size = body.size() - begin;
    EXPECT_LE(size, amt);
    rest.remove_prefix(used);
  }
  EXPECT_EQ(rest, "");
  return decoder.is_complete() ? body : body + " (cut)";
}

TEST(Gzip, IsDecodedHoweverItArrivesAndIsRead) {
  std::string text;
  for (int i = 0; i < 20'000; ++i) text += std::to_string(i * i);
  for (const std::size_t piece : {1U, 7U, 65536U}) {
    for (const std::size_t amt : {1U, 1000U, 65536U}) {
      EXPECT_EQ(decoded(gzipped(text), piece, amt), text);
    }
    EXPECT_EQ(decoded(gzipped("one, ") + gzipped("") + gzipped("two"), piece, 100), "one, two");
    EXPECT_EQ(decoded("", piece, 1), "") << "no body at all";
  }
}

TEST(Gzip, ABombGivesNoMoreThanIsAskedFor) {
  const std::string bomb = gzipped(std::string(50'000'000, '\0'));
  ASSERT_LT(bomb.size(), 65536U);
  GzipDecoder decoder;
  std::string body;
  EXPECT_LT(decoder.decode(bomb, body, 65536), bomb.size());
  EXPECT_EQ(body.size(), 65536U);
  EXPECT_LT(body.capacity(), 200'000U);
}

TEST(Gzip, ThatIsCutOrMalformedIsNotTakenForABody) {
  const std::string text = "hello, hello, hello", coded = gzipped(text);
  for (const std::size_t kept : {1UL, 9UL, 15UL, coded.size() - 9, coded.size() - 1}) {
    const std::string body = decoded(coded.substr(0, kept), 65536, 9);
    EXPECT_TRUE(body.ends_with(" (cut)") && text.starts_with(body.substr(0, body.size() - 6)));
  }
  EXPECT_EQ(decoded(coded + "\x1f", 65536, 9), text + " (cut)") << "a member of one byte";
  std::string wrong_sum = coded;
  wrong_sum.end()[-8] ^= 1;
  for (const std::string& malformed : {std::string("hello"), coded + "hello", wrong_sum}) {
    EXPECT_THROW(decoded(malformed, 65536, 9), HTTPException);
  }
}

}  // namespace
}  // namespace engines::http::net
