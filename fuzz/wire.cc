#include "fuzz/wire.h"

#include <charconv>
#include <optional>

#include "fuzz/expect.h"

namespace fuzz {
namespace {

namespace http = engines::http;

std::string read_all(http::Response& reply, const Way& way) {
  std::string body;
  if (way.reads_lines()) {
    for (const std::string& line : reply) body += line;
  } else {
    for (;;) {
      const std::string piece = way.reads_little() ? reply.read1(3) : reply.read(100000);
      if (piece.empty()) break;
      body += piece;
    }
  }
  expect(reply.read1(1).empty(), "the end stays the end");
  return body;
}

/// Whether the bytes of one stand in the other, in this order.
bool stands_in(std::string_view body, std::string_view sent) {
  for (const char byte : sent) {
    if (!body.empty() && body.front() == byte) body.remove_prefix(1);
  }
  return body.empty();
}

void check(http::Response& reply, const Way& way, const http::PoolOptions& options, Server& server,
           const std::string& sent) {
  const http::Headers headers = *reply.headers();
  std::size_t bytes = 0;
  for (const auto& [name, value] : headers) bytes += name.size() + value.size();
  expect(headers.size() <= options.max_headers && bytes <= options.max_header_bytes,
         "the headers are bounded");
  const std::string body = read_all(reply, way);
  server.while_waiting([&] { expect(stands_in(body, sent), "a body is what was sent"); });
  const bool bodiless = way.method() == "HEAD" || reply.status() == 204 || reply.status() == 304;
  if (bodiless) return expect(body.empty(), "a reply without a body has none");
  if (const auto text = headers.get("content-length"); text && !headers.get("transfer-encoding")) {
    std::size_t length = 0;
    std::from_chars(text->data(), text->data() + text->size(), length);
    expect(body.size() == length, "a body is as long as was said");
  }
}

/// Whatever else is thrown is a fault.
template <class Use>
void but_for_failures(bool may_stop, const Use& use) {
  try {
    use();
  } catch (const http::TimeoutError&) {
    expect(false, "what the server has ended does not time out");
  } catch (const http::OSError&) {
  } catch (const http::HTTPException&) {
  } catch (const http::Stopped&) {
    expect(may_stop, "only a stop stops");
  }
}

}  // namespace

http::Request request(const Way& way, const std::string& url, const http::Headers& headers) {
  std::optional<std::string> body;
  if (way.body_bytes() > 0) body = std::string(way.body_bytes(), 'b');
  return http::Request(url, {.data = body, .headers = headers, .method = way.method()});
}

void call(const http::Transport& transport, const http::Request& request, const Way& way,
          const http::PoolOptions& options, Server& server, const std::string& sent) {
  const bool may_stop = options.should_stop != nullptr;
  but_for_failures(may_stop, [&] {
    try {
      const auto reply = transport(request, {.timeout = 8});
      expect(reply->status() >= 200 && reply->status() <= 299, "an error status is raised");
      check(*reply, way, options, server, sent);
    } catch (http::HTTPError& error) {
      expect(error.code() < 200 || error.code() > 299, "a success is returned");
      but_for_failures(may_stop, [&] { check(error, way, options, server, sent); });
    }
  });
  server.while_waiting([] {});  // what comes unasked comes before the next request
}

}  // namespace fuzz
