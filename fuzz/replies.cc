// SPDX-License-Identifier: Apache-2.0
// Replies as a peer may send them, over a stream without a socket: whatever they are, each has one
// outcome, however it arrives and is read. The input's first byte chooses the way, the rest is the
// reply.

#include "engines/http/net/exchange.h"
#include "fuzz/expect.h"
#include "tests/support/scripted_stream.h"

namespace http = engines::http;
namespace net = engines::http::net;
using fuzz::expect;

namespace {

/// Bits of the first byte, a letter: its highest bits are those of '@'. `END` masks the index of
/// one of the ends below.
enum Way : std::uint8_t { END = 3, HEAD = 4, GZIP = 8 };

struct Outcome {
  std::string body;
  std::string failure;
  http::StatusCode status = 0;
  http::Headers headers;
  bool operator==(const Outcome&) const = default;
};

Outcome play(const std::string& reply, std::uint8_t way, std::size_t piece, std::size_t amt,
             bool fill) {
  constexpr const char* ENDS[] = {"ends", "cuts", "resets", "ends"};
  http::test::ScriptedStream stream(reply, ENDS[way & END], piece);
  net::Limits limits({.timeout = 60}, std::nullopt);
  const http::PoolOptions options{.max_headers = 20, .max_header_bytes = 2000};
  net::Exchange exchange(stream, limits, options);
  Outcome outcome;
  try {
    exchange.run("", "", (way & HEAD) != 0);
    outcome.status = exchange.status();
    outcome.headers = exchange.headers();
    if ((way & GZIP) != 0) exchange.decode_content();
    for (std::size_t size = 1; size > 0 && outcome.body.size() < 100'000;) {
      size = exchange.read(outcome.body, amt, fill);
      expect(size <= amt, "no read gives more than is asked for");
    }
  } catch (const http::OSError& error) {
    outcome.failure = error.what();
  } catch (const http::HTTPException& error) {
    outcome.failure = error.what();
  }
  expect(outcome.status == 0 || (outcome.status >= 200 && outcome.status <= 999), "a final status");
  expect(outcome.headers.size() <= 20, "a bounded number of headers");
  expect((way & GZIP) != 0 || outcome.body.size() <= reply.size(), "a body of what was sent");
  const bool is_kept = exchange.finish();
  expect(!is_kept || outcome.failure.empty(), "none is kept after a failure");
  // Not read to its end: where the reading stopped depends on the way.
  if (outcome.body.size() >= 100'000) outcome = {};
  return outcome;
}

/// With a content coding in the first head.
std::string coded(std::string reply) {
  const std::size_t status_line = reply.find("\r\n");
  return status_line == reply.npos ? reply
                                   : reply.insert(status_line, "\r\nContent-Encoding: gzip");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::string reply(reinterpret_cast<const char*>(data) + 1, size - 1);
  if ((*data & GZIP) != 0) reply = coded(std::move(reply));
  const Outcome whole = play(reply, *data, SIZE_MAX, 65536, false);
  expect(play(reply, *data, 1, 65536, true) == whole, "the same byte by byte");
  expect(play(reply, *data, 7, 3, false) == whole, "the same in small reads");
  return 0;
}
