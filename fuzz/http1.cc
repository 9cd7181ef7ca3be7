// The transports against a server that sends whatever the input holds. A seed reads as what is
// sent, after a line of letters that say how (see below and `Way`); of the marks in it,
//   |,  cuts it into two sends,      |p  stands for the server's port,
//   |.  ends a reply,                |c  ends it with the connection,      |r  by a reset.
#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "engines/http/http.h"
#include "fuzz/expect.h"
#include "fuzz/server.h"
#include "fuzz/wire.h"

namespace http = engines::http;

namespace {

/// What the input says, and how far it has been played. A connection of an earlier input may still
/// be waiting, so it refers to nothing that ends with the input.
struct Stage {
  fuzz::Way way{""};
  std::string marker;  // of each request made for this input
  std::string input;
  std::string_view left;  // of it, to be sent
  std::string sent;       // since the latest request
  int requests = 0;
};

fuzz::Server& server();

bool is_whole(std::string_view request, const fuzz::Way& way) {
  const std::size_t head_end = request.find("\r\n\r\n");
  if (head_end == std::string_view::npos) return false;
  const bool has_body = request.starts_with("POST") && !way.has('E');
  return request.size() >= head_end + 4 + (has_body ? way.body_bytes() : 0);
}

/// Sends one reply; false when the connection ends with it.
bool answer(fuzz::Link& link, Stage& stage) {
  std::string piece;
  const auto flush = [&] {
    stage.sent += piece;
    link.send(piece);
    piece.clear();
  };
  std::string_view& left = stage.left;
  while (!left.empty()) {
    const std::size_t mark = std::min(left.find('|'), left.size());
    piece += left.substr(0, mark);
    const char what = mark + 1 < left.size() ? left[mark + 1] : 'c';
    left.remove_prefix(std::min(mark + 2, left.size()));
    if (what == 'p') {
      piece += std::to_string(server().port());
      continue;
    }
    flush();
    if (what == ',') continue;
    if (what == 'r') link.reset();
    return what == '.';
  }
  return false;
}

void play(fuzz::Link& link, Stage& stage) {
  for (bool is_first = true;; is_first = false) {
    std::string request;
    while (!is_whole(request, stage.way)) {
      const std::string piece = link.receive(is_first);
      if (piece.empty()) return;
      request += piece;
    }
    if (request.find(stage.marker) == std::string::npos) return;  // of an earlier input
    ++stage.requests;
    stage.sent.clear();
    if (!answer(link, stage)) return;
  }
}

Stage& stage() {
  static Stage& stage = *new Stage;
  return stage;
}

fuzz::Server& server() {
  static fuzz::Server& server = *new fuzz::Server([](fuzz::Link& link) { play(link, stage()); });
  return server;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::uint64_t inputs = 0;
  const std::string marker = std::to_string(++inputs) + ";";
  const std::string input(reinterpret_cast<const char*>(data), size);
  const fuzz::Way way(input);
  server().while_waiting([&] {
    stage() = {.way = way, .marker = marker, .input = input, .left = {}, .sent = {}};
    stage().left = std::string_view(stage().input).substr(std::min(input.find('\n'), size));
    if (!stage().left.empty()) stage().left.remove_prefix(1);
  });

  int asked = 0;
  http::PoolOptions options;
  options.max_redirects = way.has('R') ? 2 : 0;
  if (way.has('H')) options.max_headers = 2, options.max_header_bytes = 60;
  if (way.has('S')) options.should_stop = [&] { return ++asked > 4; };
  http::Transport transport = http::urlopen_transport;
  if (way.has('P')) transport = http::PooledTransport(options);
  if (!way.has('P')) options = {};
  const std::string url = "http://127.0.0.1:" + std::to_string(server().port()) + "/";
  const http::Request request = fuzz::request(way, url, {{"x-input", marker}});
  for (int call = 0; call < way.calls(); ++call) {
    fuzz::call(transport, request, way, options, server(), stage().sent);
  }
  server().while_waiting([&] {
    fuzz::expect(stage().requests <= way.calls() * (options.max_redirects + 1),
                 "no request is sent twice");
  });
  return 0;
}
