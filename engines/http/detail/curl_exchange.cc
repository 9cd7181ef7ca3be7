#include "engines/http/detail/curl_exchange.h"

#include <poll.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

#include "engines/http/detail/curl_failure.h"
#include "engines/http/failure.h"
#include "engines/http/text/case.h"

namespace engines::http::detail {
namespace {

// Until it is connected, libcurl has to be called this often to try a host's next address, and a
// stop signal is asked this often.
constexpr Clock::duration SHORT_WAIT = std::chrono::milliseconds(50);
constexpr Clock::duration LONG_WAIT = std::chrono::seconds(10);

// Bodies up to this size are copied, and leave in one packet with the headers.
constexpr std::size_t COPIED_BODY_BYTES = 61440;

constexpr std::size_t HTTP2_STATUS_LINE = std::string_view("HTTP/2 200 ").size();

// So much of a body is taken before it is asked for: what came in one receive with the headers.
constexpr std::size_t AHEAD_BYTES = 65536;

// After so many wakes that moved nothing, it is not by chance.
constexpr int IDLE_WAKES = 4;

// More than most replies have.
constexpr std::size_t USUAL_HEADERS = 16;

long whole_milliseconds(Clock::duration wait) {  // at least 1: libcurl takes 0 as its own default
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
  return static_cast<long>(std::max<decltype(ms)>(ms, 1));
}

/// The status of `HTTP-version SP status-code [SP reason]` (RFC 9112, section 4); 0: it is none.
/// What has the protocol's name and no version, libcurl takes for a 200.
StatusCode status_in(std::string_view line) {
  if (!line.starts_with("HTTP/1.1 ") && !line.starts_with("HTTP/1.0 ") &&
      !line.starts_with("HTTP/2 ")) {
    return 0;
  }
  const std::string_view rest = line.substr(line.find(' ') + 1);
  StatusCode status = 0;
  const auto digits = rest.substr(0, 3);
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), status);
  if (error != std::errc() || end != rest.data() + 3 || status < 100) return 0;
  return rest.size() == 3 || rest[3] == ' ' ? status : 0;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// Whether every value, and every element of a value, is one and the same length (RFC 9112, section
/// 6.3): libcurl takes the digits at the start of one of them.
void check_content_length(std::string_view values, std::optional<std::int64_t>& seen) {
  for (;;) {
    const std::size_t comma = values.find(',');
    const std::string_view text = trimmed(values.substr(0, comma));
    std::int64_t length = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), length);
    if (error != std::errc() || end != text.data() + text.size() || length < 0 ||
        seen.value_or(length) != length) {
      throw HTTPException("the reply's Content-Length is no length, or is more than one");
    }
    seen = length;
    if (comma == std::string_view::npos) return;
    values.remove_prefix(comma + 1);
  }
}

}  // namespace

Patience::Patience(double seconds)
    : timeout_s(seconds), timeout(duration_of(seconds)), connecting(timeout), replying(timeout) {}

// ---- Setting up ---------------------------------------------------------------------------------

Exchange::Exchange(std::unique_ptr<Slot> slot, const Hop& hop, const PoolOptions& options)
    : options_(options),
      may_be_http2_(hop.url->origin.scheme == "https" &&
                    options.http_version == HttpVersion::http2),
      is_head_(hop.method == "HEAD"),
      slot_(std::move(slot)) {
  CURL* easy = slot_->easy();
  lists_ = set_request(easy, hop, options);
  set_body(hop);
  set(easy, CURLOPT_ERRORBUFFER, error_text_);
  set(easy, CURLOPT_HEADERFUNCTION, &on_header);
  set(easy, CURLOPT_HEADERDATA, this);
  set(easy, CURLOPT_WRITEFUNCTION, &on_body);
  set(easy, CURLOPT_WRITEDATA, this);
  set(easy, CURLOPT_PREREQFUNCTION, &on_connected);
  set(easy, CURLOPT_PREREQDATA, this);
  set(easy, CURLOPT_OPENSOCKETFUNCTION, &on_socket);
  set(easy, CURLOPT_OPENSOCKETDATA, this);
  set(easy, CURLOPT_XFERINFOFUNCTION, &on_progress);
  set(easy, CURLOPT_XFERINFODATA, this);
  set(easy, CURLOPT_SEEKFUNCTION, &on_rewind);
  set(easy, CURLOPT_SEEKDATA, this);
  set(easy, CURLOPT_DEBUGFUNCTION, &on_trace);
  set(easy, CURLOPT_DEBUGDATA, this);
}

Exchange::~Exchange() = default;

void Exchange::set_body(const Hop& hop) {
  if (!announces_body(hop)) return;
  const std::string_view body = hop.body.value_or("");
  upload_size_ = static_cast<curl_off_t>(body.size());
  if (body.size() <= COPIED_BODY_BYTES) {
    set(slot_->easy(), CURLOPT_COPYPOSTFIELDS, body.empty() ? "" : body.data());
    return;
  }
  upload_ = body;
  set(slot_->easy(), CURLOPT_COPYPOSTFIELDS, nullptr);  // of an earlier exchange
  set(slot_->easy(), CURLOPT_READFUNCTION, &on_upload);
  set(slot_->easy(), CURLOPT_READDATA, this);
}

// ---- What libcurl calls: no exception may pass through it ---------------------------------------

std::size_t Exchange::on_header(char* line, std::size_t, std::size_t size, void* self) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  try {
    exchange.take_header({line, size});
    return size;
  } catch (...) {
    exchange.callback_failure_ = std::current_exception();
    return CURL_WRITEFUNC_ERROR;
  }
}

std::size_t Exchange::on_body(char* data, std::size_t, std::size_t size, void* self) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  try {
    if (exchange.take_body({data, size})) return size;
    exchange.paused_ = true;
    return CURL_WRITEFUNC_PAUSE;
  } catch (...) {
    exchange.callback_failure_ = std::current_exception();
    return CURL_WRITEFUNC_ERROR;
  }
}

std::size_t Exchange::on_upload(char* to, std::size_t, std::size_t room, void* self) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  auto& rest = exchange.upload_;
  const std::size_t size = std::min(room, rest.size());
  if (size == 0) return 0;
  exchange.has_moved_ = true;
  std::memcpy(to, rest.data(), size);
  rest.remove_prefix(size);
  return size;
}

/// Over TLS, libcurl may not return while what comes carries nothing of the reply, be it frames of
/// HTTP/2 or new keys: what it traces of each record is the one sign of life, and a time to look.
int Exchange::on_trace(CURL*, curl_infotype type, char*, std::size_t, void* self) noexcept {
  if (type != CURLINFO_SSL_DATA_IN) return 0;
  auto& exchange = *static_cast<Exchange*>(self);
  if (Clock::now() >= exchange.next_look_) exchange.look_at_time();
  return 0;
}

/// A proxy's refusal ends the call at its status: libcurl would read its body to the end, and while
/// that comes fast enough, look at no timeout and not return.
int Exchange::on_progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  if (exchange.connected_ || !exchange.slot_) return 0;
  long status = 0;
  curl_easy_getinfo(exchange.slot_->easy(), CURLINFO_HTTP_CONNECTCODE, &status);
  if (status < 300) return 0;
  try {
    throw URLError(OSError("cannot connect: the proxy refused the tunnel, response " +
                           std::to_string(status)));
  } catch (...) {
    exchange.callback_failure_ = std::current_exception();
  }
  return 1;
}

// A kept connection that dies under a request makes libcurl connect anew and send the request once
// more. Whether to try again is for the caller's policy, so each step of that is refused: taking
// the body back to its start, a second socket, and a second beginning over a connection that
// exists.

int Exchange::on_rewind(void* self, curl_off_t, int) noexcept {
  static_cast<Exchange*>(self)->resend_refused_ = true;
  return CURL_SEEKFUNC_FAIL;
}

curl_socket_t Exchange::on_socket(void* self, curlsocktype, curl_sockaddr* address) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  if (exchange.connected_) {
    exchange.resend_refused_ = true;
    return CURL_SOCKET_BAD;
  }
  if (exchange.callback_failure_) return CURL_SOCKET_BAD;  // no other address is tried then
  try {
    return exchange.slot_->open_socket(*address);
  } catch (...) {
    exchange.callback_failure_ = std::current_exception();
    return CURL_SOCKET_BAD;
  }
}

int Exchange::on_connected(void* self, char*, char*, int, int) noexcept {
  auto& exchange = *static_cast<Exchange*>(self);
  if (exchange.connected_) {
    exchange.resend_refused_ = true;
    return CURL_PREREQFUNC_ABORT;
  }
  exchange.connected_ = exchange.has_moved_ = true;
  long os_error = 0;  // a first address that failed leaves its error behind
  curl_easy_getinfo(exchange.slot_->easy(), CURLINFO_OS_ERRNO, &os_error);
  exchange.connect_errno_ = static_cast<int>(os_error);
  return CURL_PREREQFUNC_OK;
}

// ---- The reply's header block -------------------------------------------------------------------

void Exchange::take_header(std::string_view line) {
  header_bytes_ += line.size();
  if (header_bytes_ > options_.max_header_bytes) {
    throw HTTPException("the reply's headers are longer than " +
                        std::to_string(options_.max_header_bytes) + " bytes");
  }
  while (line.ends_with('\n') || line.ends_with('\r')) line.remove_suffix(1);
  if (in_block_ && line.empty()) return end_header_block();
  if (in_block_ || headers_done_) {
    if (++header_count_ > options_.max_headers) {
      throw HTTPException("the reply has more than " + std::to_string(options_.max_headers) +
                          " headers");
    }
    if (!headers_done_) take_field(line);  // else a trailer
    return;
  }
  status_seen_ = true;
  in_block_ = true;
  fields_.reserve(USUAL_HEADERS);
  status_ = status_in(line);
  // For a reply over HTTP/2 libcurl makes a status line, which has no reason. Whatever else claims
  // to be one is not.
  is_http2_ = line.starts_with("HTTP/2");
  if (is_http2_ && !(may_be_http2_ && line.size() == HTTP2_STATUS_LINE)) status_ = 0;
  if (status_ == 0) throw BadStatusLine("the reply's status line is malformed");
}

void Exchange::take_field(std::string_view line) {
  if (line.starts_with(' ') || line.starts_with('\t')) {  // RFC 9112, section 5.2
    if (!fields_.empty()) fields_.back().second.append(" ").append(trimmed(line));
    return;
  }
  const std::size_t colon = line.find(':');
  if (colon == 0 || line.find('\r') != std::string_view::npos || colon == std::string_view::npos ||
      line.substr(0, colon).find_first_of(" \t") != std::string_view::npos) {
    throw HTTPException("a header of the reply is malformed");
  }
  fields_.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
}

void Exchange::end_header_block() {
  in_block_ = false;
  headers_ = Headers(std::exchange(fields_, {}));
  if (status_ == 101) throw HTTPException("the reply switches protocols, which was not asked for");
  if (status_ < 200) {  // an interim reply; the final one follows (RFC 9110, section 15.2)
    status_seen_ = false;
    return;
  }
  std::optional<std::int64_t> length;
  for (const auto& [name, value] : headers_) {
    if (equal_ignoring_case(name, "content-length")) check_content_length(value, length);
    // libcurl would take, and inflate, codings that nobody asked for.
    if (equal_ignoring_case(name, "transfer-encoding") && !equal_ignoring_case(value, "chunked") &&
        !equal_ignoring_case(value, "identity")) {
      throw HTTPException("the reply has a transfer coding that was not asked for");
    }
  }
  headers_done_ = true;
}

// ---- Moving bytes -------------------------------------------------------------------------------

/// Lets libcurl do what it can without waiting. Where that takes until `give_up_at` and nothing
/// moves any more, or there is a stop meanwhile, the connection is cut, and what happened is in
/// `callback_failure_`.
void Exchange::perform(Clock::time_point give_up_at) {
  if (done_) return;
  give_up_at_ = give_up_at;
  next_look_ = Clock::now() + SHORT_WAIT;
  int running = 0;
  const CURLMcode code = curl_multi_perform(slot_->multi(), &running);
  next_look_ = Clock::time_point::max();
  if (code == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLM_OK) throw OSError(curl_multi_strerror(code));
  int queued = 0;
  while (const CURLMsg* message = curl_multi_info_read(slot_->multi(), &queued)) {
    if (message->msg != CURLMSG_DONE) continue;
    done_ = true;
    code_ = message->data.result;
  }
}

void Exchange::look_at_time() noexcept {
  const Clock::time_point now = Clock::now();
  next_look_ = now + SHORT_WAIT;
  if (callback_failure_) return;
  try {
    check_stop();
    if (std::exchange(has_moved_, false) || now < give_up_at_) return;
    // The request may be with the peer, though libcurl has not come to say so.
    callback_failure_ = timeout_failure(patience_.timeout_s, while_doing(), connected_);
  } catch (...) {
    callback_failure_ = std::current_exception();
  }
  slot_->cut_off();
}

void Exchange::wait(Clock::duration left) {
  // Where the peer's window over HTTP/2 is closed, libcurl goes on asking whether the socket takes
  // bytes, which it does at once. Only what the peer sends can help then.
  const bool is_idle = may_be_http2_ && connected_ && !is_sent() && uploaded() == woken_at_;
  idle_wakes_ = is_idle ? idle_wakes_ + 1 : 0;
  const bool is_held_back = idle_wakes_ > IDLE_WAKES && slot_->is_ready(POLLOUT, 0);
  const bool asks_often = is_held_back || !connected_ || options_.should_stop;
  const auto longest = std::min(left, asks_often ? SHORT_WAIT : LONG_WAIT);
  const int ms = static_cast<int>(whole_milliseconds(longest));
  int events = 0;
  if (is_held_back) {
    slot_->is_ready(POLLIN, ms);
  } else {
    curl_multi_poll(slot_->multi(), nullptr, 0, ms, &events);
  }
  woken_at_ = events > 0 ? uploaded() : -1;
  check_stop();
}

void Exchange::check_stop() const {
  if (options_.should_stop && options_.should_stop()) {
    // It is redacted by nobody, so it names no peer: a redirect may have chosen the name.
    throw Stopped("the transport was asked to stop while " + std::string(doing()));
  }
}

bool Exchange::is_sent() const { return uploaded() >= upload_size_; }

curl_off_t Exchange::uploaded() const {
  curl_off_t bytes = 0;
  curl_easy_getinfo(slot_->easy(), CURLINFO_SIZE_UPLOAD_T, &bytes);
  return bytes;
}

Exchange::Phase Exchange::phase() const {
  if (headers_done_) return Phase::reading;
  if (!connected_) return Phase::connecting;
  return is_sent() ? Phase::awaiting_headers : Phase::sending;
}

std::string_view Exchange::doing() const {
  switch (phase()) {
    case Phase::connecting:
      return "connecting";
    case Phase::sending:
      return "sending the request";
    case Phase::awaiting_headers:
      return "waiting for the headers of the reply";
    case Phase::reading:
      break;
  }
  return "reading the body of the reply";
}

std::string Exchange::while_doing() const {
  const Origin& origin = slot_->url->origin;
  const Phase now = phase();
  const bool outward = now == Phase::connecting || now == Phase::sending;
  return std::string(doing()) + (outward ? " to " : " from ") + origin.host + ":" + origin.port;
}

std::exception_ptr Exchange::failure() const {
  if (callback_failure_) return callback_failure_;
  Evidence evidence{.code = code_,
                    .text = error_text_,
                    .connected = connected_,
                    .sent = is_sent(),
                    .resend_refused = resend_refused_,
                    .status_seen = status_seen_,
                    .headers_done = headers_done_};
  long os_error = 0;
  curl_easy_getinfo(slot_->easy(), CURLINFO_OS_ERRNO, &os_error);
  const bool failed_now =
      evidence.text.starts_with("Recv failure") || evidence.text.starts_with("Send failure");
  if (failed_now || os_error != connect_errno_) evidence.os_error = static_cast<int>(os_error);
  return failure_of(evidence);
}

void Exchange::await_headers(Patience& patience) {
  CURL* easy = slot_->easy();
  check_stop();
  set(easy, CURLOPT_CONNECTTIMEOUT_MS, whole_milliseconds(patience.connecting));
  if (curl_multi_add_handle(slot_->multi(), easy) != CURLM_OK) throw std::bad_alloc();

  Phase now_in = Phase::connecting;
  curl_off_t moved = 0;
  Clock::time_point from = Clock::now();
  Clock::time_point give_up_at = from + patience.timeout;
  patience_ = patience;
  for (;;) {
    perform(give_up_at);
    const Clock::time_point now = Clock::now();
    const Phase is_in = phase();
    if (is_in != now_in || (is_in == Phase::sending && uploaded() != moved)) {
      if (now_in == Phase::connecting) patience.connecting -= now - from;
      if (now_in == Phase::awaiting_headers) patience.replying -= now - from;
      now_in = is_in;
      moved = uploaded();
      from = now;
    }
    if (headers_done_) break;  // what fails from here on is the body's
    if (done_) std::rethrow_exception(failure());
    const auto patient_for = now_in == Phase::connecting ? patience.connecting
                             : now_in == Phase::sending  ? patience.timeout
                                                         : patience.replying;
    const auto left = patient_for - (now - from);
    if (left <= Clock::duration::zero()) {
      std::rethrow_exception(
          timeout_failure(patience.timeout_s, while_doing(), now_in == Phase::awaiting_headers));
    }
    give_up_at = now + left;
    wait(left);
  }
  patience_ = patience;
  ended_ = is_head_ || (done_ && code_ == CURLE_OK && !callback_failure_ && !paused_);
  // The caller's body is not ours any longer. After another status no more of it is sent: the peer
  // has given its answer.
  if (status_ < 300) {
    upload_kept_ = upload_;
    upload_ = upload_kept_;
  } else {
    upload_ = {};
  }
}

// ---- Reading the body ---------------------------------------------------------------------------

/// False: with no read to take it, or one that is full, the data stays with libcurl.
bool Exchange::take_body(std::string_view data) {
  const std::size_t room = out_ ? full_ - out_->size() : 0;
  // Nothing is taken ahead over HTTP/2, where libcurl may miss the end of a stream that came with
  // its start, unless it is made to look again by the end of a pause.
  if (room == 0 && (out_ || is_http2_ || spill_.size() >= AHEAD_BYTES)) return false;
  if (room > 0) out_->append(data.substr(0, room)), has_moved_ = true;
  if (room < data.size()) spill_.append(data.substr(room));
  // A short piece is the last of a receive. Left alone, libcurl would receive again, and keep a
  // copy of what this read has no room for; or it would go on when the read's time is over.
  if (out_ &&
      (out_->size() == full_ || data.size() < CURL_MAX_WRITE_SIZE || Clock::now() >= give_up_at_)) {
    paused_ = true;
    curl_easy_pause(slot_->easy(), CURLPAUSE_RECV);
  }
  return true;
}

std::size_t Exchange::take_spilled(std::string& out, std::size_t amt) {
  const std::size_t size = std::min(amt, spill_.size() - spill_begin_);
  out.append(spill_, spill_begin_, size);
  spill_begin_ += size;
  if (spill_begin_ == spill_.size()) {
    spill_.clear();
    spill_begin_ = 0;
  }
  return size;
}

std::size_t Exchange::read(std::string& out, std::size_t amt, bool fill) {
  if (amt == 0) return 0;
  if (!slot_->is_ours()) throw OSError("the reply belongs to the process that opened it");
  check_stop();
  const std::size_t begin = out.size();
  amt = std::min(amt, out.max_size() - begin);
  const std::size_t spilled = take_spilled(out, amt);
  if (spilled == amt || (spilled > 0 && !fill)) return spilled;
  if (read_failure_ && spilled == 0) std::rethrow_exception(read_failure_);
  if (ended_ || read_failure_) return spilled;

  try {
    out_ = &out;
    full_ = begin + amt;
    // The first read shares what connecting and the headers have left over, so that a peer which is
    // slow at everything holds an attempt no longer than twice the timeout.
    const auto patient_for = std::clamp(patience_.connecting + patience_.replying,
                                        Clock::duration::zero(), patience_.timeout);
    patience_.connecting = patience_.timeout;
    Clock::time_point from = Clock::now();
    curl_off_t moved = uploaded();
    for (;;) {
      if (paused_) {
        paused_ = false;
        give_up_at_ = from + patient_for;  // not that of the step before: take_body looks at it
        // What libcurl had kept is handed over here; where that fails, it is gone.
        if (const CURLcode code = curl_easy_pause(slot_->easy(), CURLPAUSE_CONT)) {
          done_ = true;
          code_ = code;
        }
      }
      perform(from + patient_for);
      if (done_ && (code_ != CURLE_OK || callback_failure_)) {
        std::rethrow_exception(failure());
      }
      ended_ = done_ && !paused_;
      if (ended_ || out.size() == full_ || (!fill && out.size() > begin)) break;
      const Clock::time_point now = Clock::now();
      if (uploaded() != moved) {
        moved = uploaded();
        from = now;
      }
      const auto left = patient_for - (now - from);
      if (left <= Clock::duration::zero()) {
        if (out.size() > begin) break;
        std::rethrow_exception(timeout_failure(patience_.timeout_s, while_doing(), true));
      }
      if (paused_) {  // more may be here already, for which no socket would wake us
        check_stop();
      } else {
        wait(left);
      }
    }
  } catch (...) {
    read_failure_ = std::current_exception();
  }
  out_ = nullptr;
  if (read_failure_ && out.size() == begin) std::rethrow_exception(read_failure_);
  return out.size() - begin;
}

std::unique_ptr<Slot> Exchange::finish() noexcept {
  if (!slot_) return nullptr;
  bool clean = slot_->is_ours() && !read_failure_;
  try {
    // The end may have come with the last piece.
    if (clean && !paused_) perform(Clock::now() + SHORT_WAIT);
  } catch (...) {
    clean = false;
  }
  clean = clean && done_ && code_ == CURLE_OK && !callback_failure_ && is_sent();
  auto slot = std::move(slot_);
  if (!clean) return nullptr;
  curl_multi_remove_handle(slot->multi(), slot->easy());
  return slot;
}

}  // namespace engines::http::detail
