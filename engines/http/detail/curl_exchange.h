// One request and its reply over a slot, pulled on the caller's thread. Included by .cc files only.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "engines/http/curl_transport.h"
#include "engines/http/detail/curl_setup.h"
#include "engines/http/detail/curl_slot.h"
#include "engines/http/detail/hop.h"

namespace engines::http::detail {

/// How long the hops of one call may still wait. Each hop takes its waits off, so that a chain of
/// redirects waits no longer than one exchange.
struct Patience {
  explicit Patience(double seconds);

  double timeout_s;  // as it was given
  Clock::duration timeout;
  Clock::duration connecting;  // what is left for connecting,
  Clock::duration replying;    // and for the headers
};

/// Nothing moves unless one of its functions runs: between two reads the peer is held back by its
/// own full window, and no more of the body is kept here than what one receive brought too much.
class Exchange {
 public:
  Exchange(std::unique_ptr<Slot> slot, const Hop& hop, const PoolOptions& options);
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;
  ~Exchange();

  /// Sends the request and waits for the final header block. Borrows the hop's body no longer than
  /// this call. Throws a transport failure, or `Stopped`.
  void await_headers(Patience& patience);

  StatusCode status() const noexcept { return status_; }
  const Headers& headers() const noexcept { return headers_; }

  /// Appends up to `amt` bytes of the body to `out` and says how many; none: it has ended. It waits
  /// for the first bytes at most the timeout; with `fill` it goes on for as long, until it has
  /// `amt` bytes. A failure is kept, and thrown by every later read.
  std::size_t read(std::string& out, std::size_t amt, bool fill);

  /// Ends the exchange: gives back a slot whose connection can serve another exchange, else null.
  std::unique_ptr<Slot> finish() noexcept;

 private:
  enum class Phase { connecting, sending, awaiting_headers, reading };

  static std::size_t on_header(char* line, std::size_t, std::size_t size, void* self) noexcept;
  static std::size_t on_body(char* data, std::size_t, std::size_t size, void* self) noexcept;
  static std::size_t on_upload(char* to, std::size_t, std::size_t room, void* self) noexcept;
  static int on_trace(CURL*, curl_infotype type, char*, std::size_t, void* self) noexcept;
  static int on_progress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept;
  static int on_rewind(void* self, curl_off_t, int) noexcept;
  static curl_socket_t on_socket(void* self, curlsocktype, curl_sockaddr* address) noexcept;
  static int on_connected(void* self, char*, char*, int, int) noexcept;

  void set_body(const Hop& hop);
  void take_header(std::string_view line);
  void take_field(std::string_view line);
  void end_header_block();
  bool take_body(std::string_view data);
  std::size_t take_spilled(std::string& out, std::size_t amt);

  void perform(Clock::time_point give_up_at);
  void look_at_time() noexcept;
  void wait(Clock::duration left);
  void check_stop() const;
  Phase phase() const;
  bool is_sent() const;
  curl_off_t uploaded() const;
  std::exception_ptr failure() const;
  std::string_view doing() const;
  std::string while_doing() const;  // with the peer

  const PoolOptions& options_;
  bool may_be_http2_;
  bool is_http2_ = false;
  bool is_head_;
  Patience patience_{0};

  // The request's body, where it is too long to be copied.
  std::string_view upload_;
  std::string upload_kept_;
  curl_off_t upload_size_ = 0;
  curl_off_t woken_at_ = -1;  // so much was sent when the connection woke us; -1: it did not
  int idle_wakes_ = 0;        // one after another, by which nothing was sent

  // Of the step that libcurl is at; never, between two.
  Clock::time_point next_look_ = Clock::time_point::max();
  Clock::time_point give_up_at_;
  bool has_moved_ = false;  // what gives a peer more time: some of the request, or of what is read

  // What has been seen.
  bool connected_ = false;
  int connect_errno_ = 0;
  bool resend_refused_ = false;
  bool status_seen_ = false;
  bool headers_done_ = false;
  bool done_ = false;
  CURLcode code_ = CURLE_OK;
  std::exception_ptr callback_failure_;

  StatusCode status_ = 0;
  Headers headers_;
  std::vector<Headers::Entry> fields_;  // of the block that is being received
  bool in_block_ = false;
  std::size_t header_count_ = 0;
  std::size_t header_bytes_ = 0;

  // The body: a read in progress appends what comes to `out_`, until that is `full_` bytes long;
  // what is too much, or came with the headers, waits in `spill_`.
  std::string* out_ = nullptr;
  std::size_t full_ = 0;
  std::string spill_;
  std::size_t spill_begin_ = 0;
  bool paused_ = false;
  bool ended_ = false;  // the body has ended, whatever may follow it
  std::exception_ptr read_failure_;

  char error_text_[CURL_ERROR_SIZE] = {};
  HeaderLists lists_;
  std::unique_ptr<Slot> slot_;  // the last: it is gone before what its handles point to
};

}  // namespace engines::http::detail
