// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/exchange.h"

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <charconv>
#include <limits>
#include <system_error>
#include <utility>
#include <vector>

#include "engines/http/text/encoding.h"
#include "engines/http/text/unicode.h"

namespace engines::http::net {
namespace {

namespace beast = boost::beast;

/// Bytes received at once while a head is awaited; most small replies fit.
constexpr std::size_t HEAD_RECEIVE_BYTES = 16384;
/// Bytes received at once of a body, and the longest line of what frames chunks.
constexpr std::size_t RECEIVE_BYTES = 65536;
/// After so many bytes, or so many receives, `finish` receives no more.
constexpr std::size_t DRAINED_BYTES = 65536;
constexpr int DRAINING_RECEIVES = 4;
/// Bodies up to this size are sent together with the head.
constexpr std::size_t COPIED_BODY_BYTES = 61440;
/// Larger values of `max_header_bytes` count as this.
constexpr std::size_t MAX_HEADER_BYTES = 307200;
/// More header fields than most replies have.
constexpr std::size_t USUAL_HEADERS = 16;
/// The most that is quoted of a coding's name.
constexpr std::size_t MOST_QUOTED = 64;

/// RFC 7617, section 2.
std::string basic_authorization(const Credentials& credentials) {
  return "Basic " + detail::base64(credentials.user + ":" + credentials.password);
}

/// How many of the bytes are a line; 0: it is not whole. No end of a line comes before `from`.
std::size_t length_of_line(std::string_view bytes, std::size_t from) {
  return bytes.find('\n', from) + 1;  // npos + 1 is 0
}

/// How many of the bytes are header fields with the empty line after them; 0: they are not whole.
/// No line ends before `from` with an empty line after it. Bare line feeds, which the parser
/// refuses, end lines, too: otherwise the call would wait for an end that never comes.
std::size_t length_of_fields(std::string_view bytes, std::size_t from) {
  if (bytes.starts_with("\r\n")) return 2;
  if (bytes.starts_with('\n')) return 1;
  for (std::size_t end = from; (end = bytes.find('\n', end)) != std::string_view::npos;) {
    const std::string_view rest = bytes.substr(++end);
    if (rest.starts_with("\r\n")) return end + 2;
    if (rest.starts_with('\n')) return end + 1;
  }
  return 0;
}

[[noreturn]] void fail_in_chunks() { throw HTTPException("the reply's chunks are malformed"); }

/// The size in the line that begins a chunk (RFC 9112, section 7.1). Extensions are ignored.
std::uint64_t chunk_size(std::string_view line) {
  std::uint64_t size = 0;
  const char* const end = line.data() + line.size();
  const auto [digits_end, error] = std::from_chars(line.data(), end, size, 16);
  const std::string_view rest(digits_end, end);
  const std::size_t next = rest.find_first_not_of(" \t");
  const bool ends_well = next == std::string_view::npos || rest[next] == ';';
  if (error != std::errc() || !ends_well) fail_in_chunks();
  return size;
}

}  // namespace

// ---- Request head -------------------------------------------------------------------------------

std::string request_head(const Hop& hop, const Route& route, const PoolOptions& options) {
  const std::string host = hop.url.origin.host_field();
  const Url* const forwarder = route.forwarder();
  std::string head;
  const auto add = [&head](std::string_view name, std::string_view value) {
    head.append(name).append(value.empty() ? ":" : ": ").append(value).append("\r\n");
  };
  const auto add_default = [&](std::string_view name, std::string_view value) {
    if (!hop.headers.get(name)) add(name, value);
  };
  head.reserve(512);
  head.append(hop.method).append(" ");
  if (forwarder) head.append(hop.url.origin.scheme).append("://").append(host);
  head.append(hop.url.target).append(" HTTP/1.1\r\n");
  add_default("Host", host);
  if (!options.user_agent.empty()) add_default("User-Agent", options.user_agent);
  add_default("Accept", "*/*");
  add_default("Accept-Encoding", "gzip");
  if (hop.credentials) add("Authorization", basic_authorization(*hop.credentials));
  if (forwarder && forwarder->credentials) {
    add_default("Proxy-Authorization", basic_authorization(*forwarder->credentials));
  }
  // Nothing is kept: RFC 9112, section 9.3, asks a client to say so.
  if (options.max_idle == 0) add_default("Connection", "close");
  const bool is_tunnelled = route.tunnel() != nullptr;
  for (const auto& [name, value] : hop.headers) {
    // Of a tunnel the proxy alone gets this header, with CONNECT.
    if (is_tunnelled && detail::equal_ignoring_case(name, "proxy-authorization")) continue;
    add(name, value);
  }
  const bool expects_body = hop.method == "POST" || hop.method == "PUT" || hop.method == "PATCH";
  if (hop.body || expects_body) {
    add_default("Content-Length", std::to_string(hop.body.value_or("").size()));
  }
  return head.append("\r\n");
}

// ---- Parser -------------------------------------------------------------------------------------

/// Parses one head: its status, into the exchange, and its fields.
class Exchange::Parser final : public beast::http::basic_parser<false> {
 public:
  explicit Parser(Exchange& exchange) : exchange_(exchange) {
    header_limit(std::numeric_limits<std::uint32_t>::max());  // the exchange has its own limit
    body_limit(std::numeric_limits<std::uint64_t>::max());
    skip(exchange.is_head_request_);
    fields.reserve(USUAL_HEADERS);
  }

  /// Parses the status line, or all that follows it.
  void parse(std::string_view part) {
    beast::error_code error;
    const std::size_t used = put({part.data(), part.size()}, error);
    if (used == part.size() && (!error || error == beast::http::error::need_more)) return;
    const std::string quote = " malformed: " + error.message();
    if (exchange_.status_ == 0) throw BadStatusLine("the reply's status line is" + quote);
    throw HTTPException("the reply's headers are" + quote);
  }

  bool is_http_1_1 = false;
  bool has_identity_coding = false;
  std::vector<Headers::Entry> fields;

 private:
  void on_response_impl(int code, beast::string_view, int version, beast::error_code&) override {
    if (code < 100) throw BadStatusLine("the reply's status line is malformed: its status");
    if (code == 101) {
      throw HTTPException("the reply switches protocols, which was not asked for");
    }
    exchange_.status_ = code;
    is_http_1_1 = version >= 11;
  }

  void on_field_impl(beast::http::field field, beast::string_view name, beast::string_view value,
                     beast::error_code&) override {
    exchange_.count_header();
    if (field == beast::http::field::transfer_encoding && !beast::iequals(value, "chunked")) {
      has_identity_coding = beast::iequals(value, "identity");
      if (!has_identity_coding) {
        throw HTTPException("the reply has a transfer coding that was not asked for");
      }
    }
    fields.emplace_back(std::string(name.data(), name.size()),
                        std::string(value.data(), value.size()));
  }

  // The body is not parsed here, and no request is.
  void on_request_impl(beast::http::verb, beast::string_view, beast::string_view, int,
                       beast::error_code&) override {}
  void on_header_impl(beast::error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, beast::error_code&) override {}
  std::size_t on_body_impl(beast::string_view, beast::error_code&) override { return 0; }
  void on_chunk_header_impl(std::uint64_t, beast::string_view, beast::error_code&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, beast::string_view, beast::error_code&) override {
    return 0;
  }
  void on_finish_impl(beast::error_code&) override {}

  Exchange& exchange_;
};

// ---- Receiving ----------------------------------------------------------------------------------

Exchange::Exchange(Stream& stream, Limits& limits, const PoolOptions& options)
    : stream_(stream), limits_(limits), options_(options) {}

Exchange::~Exchange() = default;

Io Exchange::receive(std::size_t at_most) {
  const auto room = input_.prepare(at_most);
  const IoResult result = stream_.receive(static_cast<char*>(room.data()), room.size());
  input_.commit(result.bytes);
  return result.state;
}

std::string_view Exchange::input() const {
  return {static_cast<const char*>(input_.data().data()), input_.size()};
}

// ---- Sending, and the head of the reply ---------------------------------------------------------

void Exchange::run(std::string head, std::string_view body, bool is_head_request) {
  is_head_request_ = is_head_request;
  start_head();
  if (body.size() <= COPIED_BODY_BYTES) {
    head.append(body);
    body = {};
  }
  // No `limits_.end()` after sending, whose time is taken from no budget.
  if (!send(head) || (!body.empty() && !send(body))) return;
  is_sent_ = true;
  limits_.begin(Phase::awaiting_head);
  while (!receive_head()) stream_.wait(false, limits_.check());
  limits_.end();
}

/// Returns false where the final head has come before all bytes were sent.
bool Exchange::send(std::string_view bytes) {
  limits_.begin(Phase::sending);
  for (;;) {
    const IoResult result = stream_.send(bytes);
    bytes.remove_prefix(result.bytes);
    if (bytes.empty()) return true;
    if (result.state == Io::moved) {
      limits_.begin(Phase::sending);
      limits_.check();
      continue;
    }
    // The peer may have answered before it closed.
    if (receive_head()) return false;
    if (result.state == Io::broken) fail_without_head(result.state);
    stream_.wait(true, limits_.check());
  }
}

void Exchange::start_head() {
  parser_ = std::make_unique<Parser>(*this);
  status_ = 0;
}

/// Receives and parses what has arrived. Returns whether the final head is complete.
bool Exchange::receive_head() {
  for (;;) {
    // Up to the next multiple of this size, so that the buffer, which is copied to grow, grows
    // rarely.
    const Io state = receive(HEAD_RECEIVE_BYTES - input().size() % HEAD_RECEIVE_BYTES);
    if (state == Io::blocked) return false;
    if (state != Io::moved) fail_without_head(state);
    if (parse_head()) return true;
  }
}

/// Parses what has been received of the final head and the interim ones before it (RFC 9110,
/// section 15.2). Returns whether the final head is complete.
bool Exchange::parse_head() {
  for (;;) {
    const std::string_view part = next_part_of_head();
    if (part.empty()) return false;
    parser_->parse(part);
    head_bytes_ += part.size();
    input_.consume(part.size());
    if (!parser_->is_header_done()) continue;
    if (status_ >= 200) break;
    start_head();
  }
  take_final_head();
  return true;
}

/// The next part of a head that is parsed at once, so that no outcome depends on how it arrives:
/// the status line, then all fields. Empty while it is not whole.
std::string_view Exchange::next_part_of_head() {
  const std::string_view bytes = input();
  const std::size_t size =
      status_ == 0 ? length_of_line(bytes, searched_) : length_of_fields(bytes, searched_);
  // The end of the fields may have begun in the last three bytes.
  searched_ = size > 0 ? 0 : std::max<std::size_t>(bytes.size(), 3) - 3;
  const std::size_t most = std::min(options_.max_header_bytes, MAX_HEADER_BYTES);
  if (head_bytes_ + (size == 0 ? bytes.size() : size) > most) {
    throw HTTPException("the reply's headers are longer than " + std::to_string(most) + " bytes");
  }
  return bytes.substr(0, size);
}

void Exchange::count_header() {
  if (++header_count_ <= options_.max_headers) return;
  throw HTTPException("the reply has more than " + std::to_string(options_.max_headers) +
                      " headers");
}

void Exchange::take_final_head() {
  headers_ = Headers(std::move(parser_->fields));
  // Beast itself refuses this where the length comes first.
  if (parser_->has_identity_coding && parser_->content_length()) {
    throw HTTPException("the reply's headers are malformed: a length and a transfer coding");
  }
  // Not after HTTP/1.0, where chunks are faulty and keeping a connection is no part of the
  // standard.
  is_reusable_ = is_sent_ && parser_->is_http_1_1 && parser_->keep_alive();
  if (parser_->is_done()) return;
  next_ = parser_->chunked() ? Next::chunk : Next::data;
  bytes_left_ = parser_->content_length().value_or(std::numeric_limits<std::uint64_t>::max());
}

void Exchange::fail_without_head(Io state) const {
  const std::string reason = stream_.reason();
  const bool is_in_fields = status_ != 0;
  if (!is_sent_ && !is_in_fields && input().empty()) {
    throw URLError(ConnectionError("the connection broke while the request was sent" + reason));
  }
  if (state == Io::broken) throw ConnectionError("the connection broke" + reason);
  if (is_in_fields) {
    throw HTTPException("the connection was closed inside the reply's headers" + reason);
  }
  throw DroppedConnection("the connection was dropped before a reply began" + reason);
}

// ---- The body -----------------------------------------------------------------------------------

void Exchange::decode_content() {
  std::string coding;
  for (const auto& [name, value] : headers_) {
    if (value.empty() || !detail::equal_ignoring_case(name, "content-encoding")) continue;
    coding += (coding.empty() ? "" : ", ") + detail::lower(value);
  }
  if (coding == "gzip" || coding == "x-gzip") {  // RFC 9110, section 8.4.1.3
    gzip_.emplace();
  } else if (coding != "identity") {
    unknown_coding_ = std::move(coding);  // empty where there is none
  }
}

std::size_t Exchange::read(std::string& out, std::size_t amt, bool fill) {
  if (failure_) std::rethrow_exception(failure_);
  const std::size_t begin = out.size();
  const auto count = [&] { return out.size() - begin; };
  limits_.begin(Phase::reading_body);
  try {
    while (count() < amt) {
      const Duration longest = limits_.check();
      const std::size_t had = count();
      // What the decoder holds back comes before an error in what follows it.
      const bool is_full = gzip_ && gzip_->is_full();
      const std::size_t used = decode(is_full ? "" : arrived(), out, amt - had);
      consume(used);
      if (used > 0 || count() > had || is_full) continue;
      // No more without receiving.
      if (next_ == Next::nothing || (!fill && had > 0)) break;
      if (!receive_body()) stream_.wait(false, longest);
    }
  } catch (const TimeoutError&) {  // after some bytes it is forgotten: the next read waits anew
    if (count() == 0) failure_ = std::current_exception();
  } catch (...) {
    failure_ = std::current_exception();
  }
  if (failure_ && count() == 0) std::rethrow_exception(failure_);
  return count();
}

/// Appends the first of these bytes of the body, decoded, and returns how many it has used.
std::size_t Exchange::decode(std::string_view bytes, std::string& out, std::size_t amt) {
  if (!bytes.empty() && !unknown_coding_.empty()) {
    throw HTTPException("the reply has a content coding that was not asked for: " +
                        unknown_coding_.substr(0, MOST_QUOTED));
  }
  if (!gzip_) {
    bytes = bytes.substr(0, amt);
    out.append(bytes);
    return bytes.size();
  }
  const std::size_t size = out.size();
  const std::size_t used = gzip_->decode(bytes, out, amt);
  if (next_ == Next::nothing && out.size() == size && !gzip_->is_complete()) {
    throw IncompleteRead("the reply was cut short: its gzip coding has no end");
  }
  return used;
}

/// What has arrived of the body, up to the end of a chunk.
std::string_view Exchange::arrived() {
  while (next_ != Next::data && next_ != Next::nothing && take_framing()) continue;
  return next_ == Next::data ? input().substr(0, bytes_left_) : "";
}

/// Takes the next line of what frames chunks. Returns false where it has not arrived completely.
bool Exchange::take_framing() {
  const std::size_t size = length_of_line(input(), searched_);
  searched_ = size > 0 ? 0 : input().size();
  if (size == 0) return false;
  const std::string_view line = input().substr(0, size - 1);
  const std::string_view content = line.substr(0, line.size() - line.ends_with('\r'));
  if (content.size() == line.size() || std::ranges::any_of(content, is_forbidden_in_value)) {
    fail_in_chunks();
  }
  if (next_ == Next::chunk) {
    bytes_left_ = chunk_size(content);
    next_ = bytes_left_ > 0 ? Next::data : Next::trailer;
  } else if (content.empty()) {
    next_ = next_ == Next::chunk_end ? Next::chunk : Next::nothing;
  } else {  // a trailer, which is ignored
    const std::size_t colon = std::min(content.find(':'), content.size());
    if (next_ == Next::chunk_end || colon == content.size() ||
        !is_token(content.substr(0, colon))) {
      fail_in_chunks();
    }
    count_header();
  }
  input_.consume(size);
  return true;
}

/// Takes bytes of the body that have arrived. The last ones end a chunk, or the body.
void Exchange::consume(std::size_t size) {
  input_.consume(size);
  bytes_left_ -= size;
  if (next_ != Next::data || bytes_left_ > 0) return;
  next_ = parser_->chunked() ? Next::chunk_end : Next::nothing;
}

/// Returns false where nothing has come, neither bytes nor the end of the body.
bool Exchange::receive_body() {
  // Of a body of known length no more than its rest; with chunks what frames them comes, too.
  const std::size_t most = parser_->chunked() ? RECEIVE_BYTES - input().size()
                                              : std::min<std::uint64_t>(bytes_left_, RECEIVE_BYTES);
  if (most == 0) {
    throw HTTPException("a chunk size or a trailer of the reply is longer than " +
                        std::to_string(RECEIVE_BYTES) + " bytes");
  }
  const Io state = receive(most);
  if (state == Io::moved || state == Io::blocked) return state == Io::moved;
  if (state == Io::broken) throw ConnectionError("the connection broke" + stream_.reason());
  if (!parser_->need_eof() || state == Io::cut) {
    throw IncompleteRead("the reply was cut short" + stream_.reason());
  }
  next_ = Next::nothing;
  return true;
}

bool Exchange::finish() {
  if (!is_reusable_ || failure_ || bytes_left_ > DRAINED_BYTES) return false;
  try {
    std::size_t dropped = 0;
    for (int receives = 0;; ++receives) {
      while (const std::size_t size = arrived().size()) {
        consume(size);
        dropped += size;
      }
      const bool has_room = receives < DRAINING_RECEIVES && dropped < DRAINED_BYTES;
      if (next_ == Next::nothing || !has_room || !receive_body()) break;
    }
  } catch (...) {
    return false;
  }
  return next_ == Next::nothing && input().empty();
}

}  // namespace engines::http::net
