// The pooled transport against a server that speaks HTTP/2 as the input says. After a line of
// letters (see `Way`; E answers before the body has come), each line of a seed is a frame: a letter
// for its type, letters for how it is, a blank, its payload.
//   H headers   C continuation   P push promise    "name value;name value"
//   D data      R reset stream   G goaway          the bytes; a number
//   W window    I ping           S settings        a number; 8 bytes; "id value;id value"
//   X a raw payload, whose first byte is the type
//   .           the end of a reply; with a c, of the connection as well
// How: e ends the stream, o leaves the headers open, p pads, b pads too much, a is an ACK,
// i indexes the fields, z is on stream 0, n on the next, t and u play with the length.
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "engines/http/http.h"
#include "fuzz/server.h"
#include "fuzz/wire.h"
#include "tests/support/certificates.h"
#include "tests/support/fault_server.h"

namespace http = engines::http;

namespace {

constexpr std::size_t FRAME_HEAD = 9;  // RFC 9113, section 4.1
constexpr std::string_view PREFACE = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
constexpr std::uint8_t DATA = 0, HEADERS = 1;
constexpr std::uint8_t END_STREAM = 1, END_HEADERS = 4, PADDED = 8;

std::string big_endian(std::uint64_t value, int bytes) {
  std::string text;
  while (bytes-- > 0) text += static_cast<char>(value >> (8 * bytes));
  return text;
}

std::uint32_t number(std::string_view text) {
  std::uint32_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

std::string frame(std::uint8_t type, std::uint8_t flags, std::uint32_t stream,
                  std::string_view payload, std::size_t length) {
  return big_endian(length, 3) + static_cast<char>(type) + static_cast<char>(flags) +
         big_endian(stream, 4) + std::string(payload);
}

/// The text before the separator, which is taken off with it.
std::string_view take(std::string_view& text, char separator) {
  const std::string_view taken = text.substr(0, text.find(separator));
  text.remove_prefix(std::min(taken.size() + 1, text.size()));
  return taken;
}

/// A literal of RFC 7541, section 5.2.
std::string literal(std::string_view text) {
  text = text.substr(0, 127 + 127);
  if (text.size() < 127) return static_cast<char>(text.size()) + std::string(text);
  return '\x7f' + std::string(1, static_cast<char>(text.size() - 127)) + std::string(text);
}

std::string payload_of(char type, std::string_view how, std::string_view text,
                       std::uint32_t stream) {
  const bool indexed = how.find('i') != std::string_view::npos;
  std::string payload;
  switch (type) {
    case 'P':
      payload = big_endian(stream + 1, 4);
      [[fallthrough]];
    case 'H':
    case 'C':
      while (!text.empty()) {
        std::string_view field = take(text, ';');
        payload += indexed ? '\x40' : '\0';
        payload += literal(take(field, ' '));
        payload += literal(field);
      }
      return payload;
    case 'G':
      payload = big_endian(stream, 4);
      [[fallthrough]];
    case 'R':
    case 'W':
      return payload + big_endian(number(text), 4);
    case 'S':
      while (!text.empty()) {
        std::string_view setting = take(text, ';');
        payload += big_endian(number(take(setting, ' ')), 2);
        payload += big_endian(number(setting), 4);
      }
      return payload;
    default:
      return std::string(text);
  }
}

std::string frame_of(std::string_view line, std::uint32_t stream) {
  const std::string_view how = take(line, ' ');
  if (how.empty()) return {};
  const auto is = [how](char letter) { return how.substr(1).find(letter) != how.npos; };
  static constexpr std::string_view TYPES = "DHURSPIGWC";  // by their numbers
  auto type = static_cast<std::uint8_t>(std::min(TYPES.find(how[0]), std::size_t{0xff}));
  if (how[0] == 'X') {
    type = line.empty() ? type : static_cast<std::uint8_t>(line[0]);
    if (!line.empty()) line.remove_prefix(1);
  }
  std::string payload = payload_of(how[0], how, line, stream);
  std::uint8_t flags = is('e') || is('a') ? END_STREAM : 0;
  if (!is('o') && std::string_view("HCP").find(how[0]) != std::string_view::npos) {
    flags |= END_HEADERS;
  }
  if (is('p') || is('b')) {
    flags |= PADDED;
    payload = (is('b') ? '\xf0' : '\x03') + payload + std::string(3, '\0');
  }
  const bool is_of_connection = std::string_view("SIG").find(how[0]) != std::string_view::npos;
  const std::uint32_t on = is_of_connection != is('z') ? 0 : stream + (is('n') ? 2 : 0);
  std::size_t length = payload.size() + (is('t') ? 1U : 0U);
  if (is('u') && length > 0) --length;
  return frame(type, flags, on, payload, length);
}

/// What the input says, and how far it has been played.
struct Stage {
  std::string input;
  std::string_view left;  // of it, to be sent
  std::string sent;       // since the latest request
  bool answers_early = false;
};

Stage& stage() {
  static Stage& stage = *new Stage;
  return stage;
}

/// The stream of the next request that has come whole, or begun to; none: there will be none.
std::optional<std::uint32_t> next_request(fuzz::Link& link, std::string& come, bool is_first) {
  for (;;) {
    const auto byte = [&come](std::size_t at) -> std::uint32_t {
      return static_cast<std::uint8_t>(come[at]);
    };
    const std::size_t size = come.size() < FRAME_HEAD
                                 ? come.size() + 1
                                 : FRAME_HEAD + (byte(0) << 16U | byte(1) << 8U | byte(2));
    if (come.size() < size) {
      const std::string piece = link.receive(is_first);
      if (piece.empty()) return std::nullopt;
      come += piece;
      continue;
    }
    const std::uint32_t type = byte(3), flags = byte(4);
    const std::uint32_t stream = byte(5) << 24U | byte(6) << 16U | byte(7) << 8U | byte(8);
    come.erase(0, size);
    const bool is_end = (type == HEADERS || type == DATA) && (flags & END_STREAM) != 0;
    if (stage().answers_early ? type == HEADERS : is_end) return stream;
  }
}

void play(fuzz::Link& link) {
  std::string come;
  while (come.size() < PREFACE.size()) {
    const std::string piece = link.receive(true);
    if (piece.empty()) return;
    come += piece;
  }
  come.erase(0, PREFACE.size());
  link.send(frame_of("S 4 1000000", 0) + frame_of("Sa", 0) + frame_of("Wz 1000000", 0));
  bool is_first = true;
  while (const auto stream = next_request(link, come, std::exchange(is_first, false))) {
    if (stage().left.empty()) return;
    std::string frames;
    std::string_view line;
    do {
      line = take(stage().left, '\n');
      if (!line.starts_with('.')) frames += frame_of(line, *stream);
    } while (!stage().left.empty() && !line.starts_with('.'));
    stage().sent = frames;
    link.send(frames);
    if (line.starts_with(".c")) return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Issued for the address as well, for which no name is looked up.
  static const http::test::CertificateAuthority authority;
  static const http::test::Identity identity = authority.issue("localhost,IP:127.0.0.1");
  static std::string alpn = "h2";
  static fuzz::Server& server = *new fuzz::Server(play, http::test::tls_context(identity, &alpn));
  // What connects is kept for the inputs to come, for as long as they leave it alive.
  static const http::PoolOptions options{.ca_file = authority.file()};
  static const http::Transport transport = http::PooledTransport(options);

  const std::string input(reinterpret_cast<const char*>(data), size);
  const fuzz::Way way(input);
  server.while_waiting([&] {
    stage() = {.input = input, .left = {}, .sent = {}, .answers_early = way.has('E')};
    stage().left = stage().input;
    take(stage().left, '\n');
  });
  const std::string url = "https://127.0.0.1:" + std::to_string(server.port()) + "/";
  for (int call = 0; call < way.calls(); ++call) {
    bool is_over = false;  // one more call would cost the connection
    server.while_waiting([&] { is_over = stage().left.empty(); });
    if (is_over) break;
    fuzz::call(transport, fuzz::request(way, url), way, options, server, stage().sent);
  }
  return 0;
}
