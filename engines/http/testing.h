// SPDX-License-Identifier: Apache-2.0
// For tests of code that calls this library: a transport and replies that play a script, and a
// clock that is moved by hand, so that a retry is tested in microseconds and without a network.
//
//   ManualTime time;
//   ScriptedTransport transport;
//   transport.reply("busy", 503).fail(TimeoutError("no answer")).reply(R"({"text": "hi"})");
//   EXPECT_EQ(my_engine_call(time.policy({.attempts = 4}), transport), "hi");
//   EXPECT_EQ(time.waits(), (std::vector{1.0, 2.0}));
//   EXPECT_EQ(transport.sent().at(2).json()["prompt"], "say hi");
//   EXPECT_EQ(transport.unplayed(), 0U);
//
// docs/testing.md shows an engine tested with it.
#pragma once

#include <concepts>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engines/http/classification.h"
#include "engines/http/export.h"
#include "engines/http/held.h"
#include "engines/http/json.h"
#include "engines/http/policy.h"
#include "engines/http/transport.h"

/// For tests of code that calls the library.
namespace engines::http::testing {

/// What one read of a scripted reply does: it gives bytes, throws an error, or calls a function
/// that gives the bytes. An error that is passed as a reference to its base class keeps its dynamic
/// type where it overrides `HttpFailure::copy` or is being handled; else `std::logic_error` is
/// thrown.
class ENGINES_HTTP_EXPORT Piece {
 public:
  /// Gives these bytes, throws this error, or calls this function.
  /// @{
  template <std::convertible_to<std::string_view> Bytes>
  Piece(const Bytes& bytes)
      : play_([copy = std::string(std::string_view(bytes))] { return copy; }) {}

  template <std::derived_from<std::exception> Error>
  Piece(const Error& error)
      : play_([thrown = detail::hold<Error>(error)->thrown]() -> std::string {
          std::rethrow_exception(thrown);
        }) {}

  template <std::invocable Play>
  requires std::convertible_to<std::invoke_result_t<Play&>, std::string> Piece(Play play)
      : play_(std::move(play)) {}
  /// @}

  /// The bytes; throws the error.
  std::string operator()() const { return play_(); }

 private:
  std::function<std::string()> play_;
};

/// Everything about a scripted reply but its body.
struct ENGINES_HTTP_EXPORT ReplyScript {
  /// None: the reply has no status.
  std::optional<StatusCode> status = 200;
  /// The reply's headers.
  Headers headers = {};
  /// False: `headers()` returns null.
  bool has_headers = true;
  /// False: `read1` behaves as `read`, which joins pieces up to the size asked for.
  bool has_read1 = true;
  /// Called by each close.
  std::function<void()> on_close = [] {};
};

/// A reply that plays its pieces in order, then ends. At an empty piece one read reports the end
/// of the body, unless it has bytes already and stops there; a later read goes on with the next
/// piece. It records its reads and closes. For use by one thread at a time.
class ENGINES_HTTP_EXPORT ScriptedReply final : public Response {
 public:
  /// Plays these pieces.
  explicit ScriptedReply(std::vector<Piece> pieces, ReplyScript script = {});

  std::optional<StatusCode> status() const override { return script_.status; }
  const Headers* headers() const override {
    return script_.has_headers ? &script_.headers : nullptr;
  }

  /// The sizes asked for so far, in order.
  const std::vector<std::size_t>& reads() const noexcept { return reads_; }
  /// How often it was closed.
  int closes() const noexcept { return closes_; }

 private:
  std::string do_read(std::size_t amt) override;
  std::string do_read1(std::size_t amt) override;
  void do_close() override;
  std::string take(std::size_t amt);

  std::vector<Piece> pieces_;
  ReplyScript script_;
  std::size_t next_ = 0;       // the piece to play next
  std::string left_;           // of the piece played last
  std::exception_ptr failed_;  // came after bytes of the same read; the next one throws it
  std::vector<std::size_t> reads_;
  int closes_ = 0;
};

/// A scripted reply, to be handed to a transport and looked at afterwards:
///
///   const auto reply = reply_of({"data: {\"word\"", ConnectionError("reset")});
///   transport.reply(reply);
ENGINES_HTTP_EXPORT std::shared_ptr<ScriptedReply> reply_of(std::vector<Piece> pieces,
                                                            ReplyScript script = {});

/// A request that a scripted transport was asked to send.
struct ENGINES_HTTP_EXPORT Sent {
  /// The request, as the transport was given it.
  Request request;
  /// The attempt's socket timeout, in seconds.
  double timeout;
  /// Seconds for the whole exchange; none without a deadline or with a clock such as
  /// `ManualTime`'s.
  std::optional<double> time_left;

  /// The request's body, parsed; null when there is none or it is not JSON.
  Json json() const;
};

/// A transport that answers each request with the next step of its script. Copies share the script
/// and the record, so a test passes a copy and looks at its own. A request beyond the script throws
/// `std::logic_error`. Any number of threads may send through it, and add steps, at once; each step
/// is played once.
class ENGINES_HTTP_EXPORT ScriptedTransport {
 public:
  /// What is done about one request.
  using Step = std::function<std::shared_ptr<Response>(const Request&, TransportOptions)>;

  ScriptedTransport() : state_(std::make_shared<State>()) {}

  /// Answers with this body. A status outside 200 to 299 is thrown as an `HTTPError`, as every
  /// transport throws it.
  ScriptedTransport& reply(std::string_view body, StatusCode status = 200, Headers headers = {});

  /// Answers with this reply, or throws it as an `HTTPError` when its status is outside 200 to 299.
  ScriptedTransport& reply(const std::shared_ptr<Response>& reply);

  /// Throws this error, which is kept as a `Piece` keeps it.
  template <class Error>
  ScriptedTransport& fail(const Error& error) {
    static_assert(!detail::ErrorHandle<Error>, "pass the error, not a handle to it");
    return then([thrown = detail::hold<Error>(error)->thrown](
                    const Request&, TransportOptions) -> std::shared_ptr<Response> {
      std::rethrow_exception(thrown);
    });
  }

  /// Does whatever this function does.
  ScriptedTransport& then(Step step);

  /// The requests so far, in order. Not to be read while another thread sends.
  const std::deque<Sent>& sent() const noexcept { return state_->sent; }
  /// How many steps are left; 0 once the script was used up.
  std::size_t unplayed() const;

  /// Plays the next step: what makes this a `Transport`.
  std::shared_ptr<Response> operator()(const Request& request, TransportOptions options) const;

 private:
  struct State {
    std::mutex mutex;
    std::deque<Step> steps;  // not played yet
    std::deque<Sent> sent;
  };
  std::shared_ptr<State> state_;
};

/// Time that moves only when the test moves it, or when a wait passes it. It begins at 0. The
/// functions it gives refer to it: it must outlive them. For use by one thread at a time.
class ENGINES_HTTP_EXPORT ManualTime {
 public:
  ManualTime() = default;
  ManualTime(const ManualTime&) = delete;
  ManualTime& operator=(const ManualTime&) = delete;

  /// The time, in seconds; 0 at first.
  double now() const noexcept { return now_; }
  /// Advances the time.
  void advance(Seconds span) noexcept { now_ += span; }

  /// Makes the stop signal true from now on.
  void stop() noexcept { stop_at(now_); }
  /// Makes the stop signal true from this instant on.
  void stop_at(Seconds instant) noexcept { stop_at_ = instant; }

  /// The backoffs asked for so far, in seconds.
  const std::vector<double>& waits() const noexcept { return waits_; }

  /// `base` with this clock, stop signal and wait.
  RetryPolicy policy(const RetryPolicy& base = {});

  /// Reads this time.
  Clock clock();
  /// True from the instant of the stop on.
  StopSignal should_stop();
  /// Records the wait, advances the time to its end or to the stop, and returns the stop signal.
  Wait wait();

  /// A piece that arrives `span` seconds later.
  Piece after(Seconds span, Piece piece);

 private:
  double now_ = 0;
  double stop_at_ = std::numeric_limits<double>::infinity();
  std::vector<double> waits_;
};

}  // namespace engines::http::testing
