// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/exchange.h"

#include <algorithm>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

#include "engines/http/net/proxy.h"
#include "engines/http/text/encoding.h"
#include "engines/http/text/unicode.h"

namespace engines::http::net {
namespace {

namespace beast = boost::beast;

/// Bytes received at once while a head is awaited; most small replies fit.
constexpr std::size_t HEAD_RECEIVE_BYTES = 16384;
/// Bytes received at once of a body, and the longest line of a chunk or trailers.
constexpr std::size_t RECEIVE_BYTES = 65536;
/// The most of a body that `finish` takes, and in how many receives.
constexpr std::size_t DRAINED_BYTES = 65536;
constexpr int DRAINING_READS = 4;
/// Bodies up to this size are sent together with the head.
constexpr std::size_t COPIED_BODY_BYTES = 61440;
/// Larger values of `max_header_bytes` count as this.
constexpr std::size_t MAX_HEADER_BYTES = 307200;
/// More header lines than most replies have.
constexpr std::size_t USUAL_HEADERS = 16;

/// RFC 7617, section 2.
std::string basic_authorization(const Credentials& credentials) {
  return "Basic " + detail::base64(credentials.user + ":" + credentials.password);
}

}  // namespace

// ---- Request head -------------------------------------------------------------------------------

std::string request_head(const Hop& hop, const Url* proxy, const PoolOptions& options) {
  const Origin& origin = hop.url->origin;
  const std::string host = origin.host_field();
  const bool is_forwarded = proxy && is_forwarding(*proxy, origin);
  std::string head;
  const auto add = [&head](std::string_view name, std::string_view value) {
    head.append(name).append(value.empty() ? ":" : ": ").append(value).append("\r\n");
  };
  const auto add_default = [&](std::string_view name, std::string_view value) {
    if (!hop.headers->get(name)) add(name, value);
  };
  head.reserve(512);
  head.append(hop.method).append(" ");
  if (is_forwarded) head.append(origin.scheme).append("://").append(host);
  head.append(hop.url->target).append(" HTTP/1.1\r\n");
  add_default("Host", host);
  if (!options.user_agent.empty()) add_default("User-Agent", options.user_agent);
  add_default("Accept", "*/*");
  add_default("Accept-Encoding", "gzip");
  if (hop.credentials) add("Authorization", basic_authorization(*hop.credentials));
  if (is_forwarded && proxy->credentials) {
    add_default("Proxy-Authorization", basic_authorization(*proxy->credentials));
  }
  const bool is_tunnelled = proxy && !is_forwarded;
  for (const auto& [name, value] : *hop.headers) {
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

/// Reads a head, and after it the chunks of a body into `out`, up to `room` bytes.
class Exchange::Parser final : public beast::http::basic_parser<false> {
 public:
  /// `lines` counts the header lines, trailers included, up to `max_lines`.
  Parser(std::size_t max_lines, std::size_t& lines, bool has_no_body)
      : max_lines_(max_lines), lines_(lines) {
    header_limit(std::numeric_limits<std::uint32_t>::max());  // is bounded by the exchange
    body_limit(std::numeric_limits<std::uint64_t>::max());
    skip(has_no_body);
    fields.reserve(USUAL_HEADERS);
  }

  /// Takes the next part of a message from the bytes and returns how many it took; 0: more must
  /// come.
  std::size_t take(std::string_view bytes) {
    // What frames a chunk is passed on only when it is whole: if more is wanted then, it is bad.
    const bool is_framing = is_header_done() && chunk_left_ == 0;
    if (is_framing) bytes = whole_framing(bytes);
    if (bytes.empty()) return 0;
    beast::error_code error;
    const std::size_t used = put({bytes.data(), bytes.size()}, error);
    if (is_framing && used == 0 && !error) error = beast::http::error::bad_chunk;
    const bool needs_more = error == beast::http::error::need_more && !is_framing;
    if (error && !needs_more && error != beast::http::error::need_buffer) fail(error);
    return used;
  }

  /// Takes a part of a head that is whole.
  void take_whole(std::string_view part) {
    if (take(part) < part.size()) fail(beast::http::error::partial_message);
  }

  StatusCode status = 0;
  std::vector<Headers::Entry> fields;
  std::string* out = nullptr;
  std::size_t room = 0;

 private:
  /// The line that begins a chunk, or the last chunk with its trailers; empty until that is whole.
  /// Boost 1.74 to 1.83 assert on an incomplete last chunk, and read an extension in quotes past
  /// the end of its line.
  static std::string_view whole_framing(std::string_view bytes) {
    const std::size_t line = bytes.starts_with("\r\n") ? 2 : 0;  // the end of the chunk before
    std::uint64_t size = 1;
    const char* const bytes_end = bytes.data() + bytes.size();
    const char* const digits_end = std::from_chars(bytes.data() + line, bytes_end, size, 16).ptr;
    const bool is_last = size == 0 && digits_end != bytes_end;
    const std::string_view end_mark = is_last ? "\r\n\r\n" : "\r\n";
    const std::size_t end = bytes.find(end_mark, line);
    return end == std::string_view::npos ? "" : bytes.substr(0, end + end_mark.size());
  }

  [[noreturn]] void fail(const beast::error_code& error) const {
    const std::string quote = ": " + error.message();
    if (is_header_done()) throw HTTPException("the reply's chunks are malformed" + quote);
    if (status == 0) throw BadStatusLine("the reply's status line is malformed" + quote);
    throw HTTPException("the reply's headers are malformed" + quote);
  }

  void on_response_impl(int code, beast::string_view, int, beast::error_code&) override {
    if (code < 100) throw BadStatusLine("the reply's status line is malformed: its status");
    if (code == 101) {
      throw HTTPException("the reply switches protocols, which was not asked for");
    }
    status = code;
  }

  void on_field_impl(beast::http::field field, beast::string_view name, beast::string_view value,
                     beast::error_code&) override {
    if (++lines_ > max_lines_) {
      throw HTTPException("the reply has more than " + std::to_string(max_lines_) + " headers");
    }
    if (is_header_done()) return;  // a trailer
    if (field == beast::http::field::transfer_encoding && !beast::iequals(value, "chunked") &&
        !beast::iequals(value, "identity")) {
      throw HTTPException("the reply has a transfer coding that was not asked for");
    }
    fields.emplace_back(std::string(name.data(), name.size()),
                        std::string(value.data(), value.size()));
  }

  std::size_t on_chunk_body_impl(std::uint64_t, beast::string_view body,
                                 beast::error_code& error) override {
    const std::size_t size = std::min(room, body.size());
    out->append(body.data(), size);
    room -= size;
    chunk_left_ -= size;
    if (size < body.size()) error = beast::http::error::need_buffer;
    return size;
  }

  void on_request_impl(beast::http::verb, beast::string_view, beast::string_view, int,
                       beast::error_code&) override {}
  void on_header_impl(beast::error_code&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, beast::error_code&) override {}
  std::size_t on_body_impl(beast::string_view body, beast::error_code&) override {
    return body.size();
  }
  void on_chunk_header_impl(std::uint64_t size, beast::string_view, beast::error_code&) override {
    chunk_left_ = size;
  }
  void on_finish_impl(beast::error_code&) override {}

  const std::size_t max_lines_;
  std::size_t& lines_;
  std::uint64_t chunk_left_ = 0;  // of the data of the current chunk
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
  parser_ = std::make_unique<Parser>(options_.max_headers, header_lines_, is_head_request_);
  if (body.size() <= COPIED_BODY_BYTES) {
    head.append(body);
    body = {};
  }
  send(head);
  if (status_ == 0) send(body);
  if (status_ != 0) return;  // the final head came early
  is_sent_ = true;
  const TimePoint from = SteadyClock::now();
  const TimePoint until = from + limits_.longest_wait(Phase::awaiting_head);
  while (!receive_head()) stream_.wait(false, limits_.check(Phase::awaiting_head, until));
  limits_.spend(Phase::awaiting_head, SteadyClock::now() - from);
}

/// Sends the bytes, or a part of them when the final head comes meanwhile.
void Exchange::send(std::string_view bytes) {
  std::optional<TimePoint> until;  // of the current wait
  while (!bytes.empty()) {
    const IoResult result = stream_.send(bytes);
    if (result.state == Io::moved) {
      bytes.remove_prefix(result.bytes);
      until.reset();
      if (!bytes.empty()) limits_.check(Phase::sending);
      continue;
    }
    // The peer may have answered before it closed.
    if (receive_head()) return;
    if (result.state == Io::broken) fail_without_head(result.state);
    if (!until) until = SteadyClock::now() + limits_.longest_wait(Phase::sending);
    stream_.wait(true, limits_.check(Phase::sending, *until));
  }
}

/// Receives and parses what has arrived. Returns whether the final head is complete.
bool Exchange::receive_head() {
  for (;;) {
    // Up to a multiple of this size: a buffer that has to grow is copied.
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
    head_bytes_ += part.size();
    parser_->take_whole(part);
    input_.consume(part.size());
    if (!parser_->is_header_done()) continue;
    if (parser_->status >= 200) {
      take_final_head();
      return true;
    }
    parser_ = std::make_unique<Parser>(options_.max_headers, header_lines_, is_head_request_);
  }
}

/// The next part of a head that is parsed at once, so that no outcome depends on how it arrives:
/// the status line, then all fields. Empty while it is not whole.
std::string_view Exchange::next_part_of_head() {
  const std::string_view bytes = input();
  const bool has_no_fields = bytes.starts_with("\r\n");
  const std::string_view end_mark = parser_->status == 0 ? "\n"
                                    : has_no_fields      ? "\r\n"
                                                         : "\r\n\r\n";
  const std::size_t end = bytes.find(end_mark, searched_);
  const bool is_whole = end != std::string_view::npos;
  const std::size_t size = is_whole ? end + end_mark.size() : bytes.size();
  searched_ = is_whole ? 0 : size - std::min<std::size_t>(size, 3);  // a mark may have begun there
  const std::size_t most = std::min(options_.max_header_bytes, MAX_HEADER_BYTES);
  if (head_bytes_ + size > most) {
    throw HTTPException("the reply's headers are longer than " + std::to_string(most) + " bytes");
  }
  return is_whole ? bytes.substr(0, size) : "";
}

void Exchange::take_final_head() {
  status_ = parser_->status;
  headers_ = Headers(std::move(parser_->fields));
  is_reusable_ = is_sent_ && parser_->keep_alive();
  if (parser_->is_done()) {
    framing_ = Framing::none;
  } else if (parser_->chunked()) {
    framing_ = Framing::chunked;
  } else {
    const auto length = parser_->content_length();
    framing_ = length ? Framing::sized : Framing::until_end;
    bytes_left_ = length.value_or(std::numeric_limits<std::uint64_t>::max());
  }
}

void Exchange::fail_without_head(Io state) const {
  const StreamError error = stream_.error();
  const bool is_in_fields = parser_->status != 0;
  if (!is_sent_ && !is_in_fields && input().empty()) {
    constexpr std::string_view SITUATION = "the connection broke while the request was sent";
    if (error.os_error != 0) throw_unsent(SITUATION, error);
    throw URLError(ConnectionError(described(SITUATION, error)));
  }
  if (state == Io::broken) throw ConnectionError(described("the connection broke", error));
  if (is_in_fields) {
    throw HTTPException(described("the connection was closed inside the reply's headers", error));
  }
  throw DroppedConnection(described("the connection was dropped before a reply began", error));
}

// ---- The body -----------------------------------------------------------------------------------

std::size_t Exchange::read(std::string& out, std::size_t amt, bool fill,
                           std::optional<TimePoint> until) {
  limits_.check(Phase::reading_body);
  if (failure_) std::rethrow_exception(failure_);
  const std::size_t begin = out.size();
  try {
    while (framing_ != Framing::none && out.size() - begin < amt) {
      if (take_body(out, amt - (out.size() - begin)) > 0) {
        if (!fill) break;
        limits_.check(Phase::reading_body);
      } else if (framing_ != Framing::none) {
        if (!until) until = SteadyClock::now() + limits_.longest_wait(Phase::reading_body);
        stream_.wait(false, limits_.check(Phase::reading_body, *until));
      }
    }
  } catch (const TimeoutError&) {  // after some bytes it is forgotten: the next read waits anew
    if (out.size() == begin) failure_ = std::current_exception();
  } catch (...) {
    failure_ = std::current_exception();
  }
  limits_.end_read();
  if (failure_ && out.size() == begin) std::rethrow_exception(failure_);
  return out.size() - begin;
}

/// Appends received bytes of the body, without waiting, and returns how many; 0: none has arrived,
/// or the body has ended.
std::size_t Exchange::take_body(std::string& out, std::size_t amt) {
  if (framing_ == Framing::chunked) return take_chunked(out, amt);
  if (input().empty() && !receive_body(std::min<std::uint64_t>(bytes_left_, RECEIVE_BYTES))) {
    return 0;
  }
  const std::string_view here = input().substr(0, std::min<std::uint64_t>(amt, bytes_left_));
  out.append(here);
  input_.consume(here.size());
  bytes_left_ -= here.size();
  if (bytes_left_ == 0) framing_ = Framing::none;
  return here.size();
}

std::size_t Exchange::take_chunked(std::string& out, std::size_t amt) {
  const std::size_t begin = out.size();
  parser_->out = &out;
  parser_->room = amt;
  for (;;) {
    while (!input().empty() && !parser_->is_done()) {
      const std::size_t used = parser_->take(input());
      if (used == 0) break;
      input_.consume(used);
    }
    if (parser_->is_done()) framing_ = Framing::none;
    if (parser_->is_done() || out.size() > begin) return out.size() - begin;
    if (input().size() >= RECEIVE_BYTES) {
      throw HTTPException("a chunk size or the trailers of the reply are longer than " +
                          std::to_string(RECEIVE_BYTES) + " bytes");
    }
    if (!receive_body(RECEIVE_BYTES - input().size())) return 0;
  }
}

/// Returns false where nothing has arrived or the body has ended.
bool Exchange::receive_body(std::size_t at_most) {
  const Io state = receive(at_most);
  if (state == Io::moved || state == Io::blocked) return state == Io::moved;
  const StreamError error = stream_.error();
  if (state == Io::broken) throw ConnectionError(described("the connection broke", error));
  if (framing_ != Framing::until_end || !stream_.ended_properly()) {
    throw IncompleteRead(described("the reply was cut short", error));
  }
  framing_ = Framing::none;
  return false;
}

bool Exchange::finish() {
  if (!is_reusable_ || failure_ || bytes_left_ > DRAINED_BYTES) return false;
  try {
    std::string drained;
    for (int reads = 0; reads < DRAINING_READS && drained.size() < DRAINED_BYTES; ++reads) {
      if (framing_ == Framing::none || take_body(drained, DRAINED_BYTES) == 0) break;
    }
  } catch (...) {
    return false;
  }
  return framing_ == Framing::none && input().empty();
}

}  // namespace engines::http::net
