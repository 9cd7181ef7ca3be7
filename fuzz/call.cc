// A whole call over a transport that the input scripts: the pieces of the replies, the failures,
// the passing of time and the stop. However it ends, it ends in one of the ways that a caller was
// promised, within the policy's bounds, and reveals no secret.
#include <fuzzer/FuzzedDataProvider.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <exception>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <utility>
#include <vector>

#include "engines/http/http.h"
#include "engines/http/testing.h"
#include "engines/http/text/utf8.h"
#include "fuzz/expect.h"

namespace http = engines::http;
using fuzz::expect;

namespace {

// One is the start of another, and none can arise from the library's own words.
constexpr std::array<std::string_view, 3> SECRETS = {"~named-secret-0123456789", "~named-secret",
                                                     "~clé-ключ-密码-42"};

bool has_secret(std::string_view text) {
  return std::ranges::any_of(
      SECRETS, [text](auto secret) { return text.find(secret) != std::string_view::npos; });
}

/// What a foreign library throws.
struct Foreign : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The other end of one call, played from the input.
class Script {
 public:
  Script(FuzzedDataProvider& input, http::testing::ManualTime& time,
         const http::RetryPolicy& policy)
      : input_(input), time_(time), policy_(policy) {}

  std::shared_ptr<http::Response> answer(http::TransportOptions options) {
    ++attempts_;
    expect(!policy_.should_stop(), "no attempt starts after the stop");
    expect(options.timeout <= policy_.timeout_s, "an attempt has no more than its timeout");
    expect(!policy_.deadline || options.timeout <= *policy_.deadline - time_.now(),
           "an attempt has no more time than the deadline leaves");
    pass_time();
    if (once_in(6)) raise();
    static constexpr http::StatusCode STATUSES[] = {200, 200, 200, 204, 299, 301, 400,
                                                    403, 404, 408, 429, 500, 503, 0};
    http::StatusCode status = input_.PickValueInArray(STATUSES);
    if (status == 0) status = input_.ConsumeIntegral<http::StatusCode>();
    const auto reply = scripted(status);
    if (is_success(status)) return reply;
    throw http::HTTPError(status, *reply->headers(), reply);
  }

  void check_replies() const {
    expect(attempts_ <= policy_.attempts, "no more attempts than the policy makes");
    for (const auto& reply : replies_) {
      expect(reply->closes() == 1, "each reply is closed once");
      const bool read = is_answer(*reply->status());
      expect(read || reply->reads().size() == 1, "an error's body is read once");
      for (const std::size_t size : reply->reads()) {
        expect(size == (read ? 65536 : 4096), "each read asks for as much as promised");
      }
    }
  }

  int attempts() const { return attempts_; }
  const std::string& body() const { return body_; }
  bool raised(const std::exception_ptr& error) const { return error == foreign_; }

 private:
  static bool is_success(http::StatusCode status) { return status >= 200 && status <= 299; }
  bool is_answer(http::StatusCode status) const {
    return is_success(status) || policy_.error_replies.contains(status);
  }

  std::string text() {
    std::string text = input_.ConsumeRandomLengthString(400);
    if (input_.ConsumeBool()) {
      const std::string_view secret = input_.PickValueInArray(SECRETS);
      text += secret.substr(0, input_.ConsumeIntegralInRange<std::size_t>(0, secret.size()));
      text += input_.ConsumeRandomLengthString(40);
    }
    return text;
  }

  // False once the input is used up.
  bool once_in(int n) { return input_.ConsumeIntegralInRange(1, n) == n; }

  void pass_time() {
    static constexpr double STEPS[] = {0, 0, 0, 0.25, 1, 3};
    time_.advance(input_.PickValueInArray(STEPS));
  }

  std::shared_ptr<http::testing::ScriptedReply> scripted(http::StatusCode status) {
    body_.clear();
    std::vector<http::testing::Piece> pieces;
    const bool has_read1 = !once_in(5);
    for (int left = input_.ConsumeIntegralInRange(0, 6); left > 0; --left) {
      pieces.emplace_back([this, is_bounded = has_read1 && is_answer(status)] {
        expect(!is_bounded || body_.size() <= policy_.max_body_bytes,
               "nothing is read beyond the bound");
        pass_time();
        if (once_in(10)) raise();
        std::string piece = text();
        if (once_in(50)) piece.resize(70000, ' ');
        body_ += piece;
        return piece;
      });
    }
    http::testing::ReplyScript script{.status = status, .has_read1 = has_read1};
    script.headers.add("Content-Type", input_.ConsumeBool() ? "text/html" : text());
    if (input_.ConsumeBool()) script.headers.add("Content-Length", text());
    script.on_close = [this] {
      if (once_in(20)) raise(true);
    };
    replies_.push_back(http::testing::reply_of(std::move(pieces), std::move(script)));
    return replies_.back();
  }

  /// Throws an error of the input's choice, and remembers one that must reach the caller unchanged.
  [[noreturn]] void raise(bool closing = false) {
    const std::string text = this->text();
    const std::exception_ptr of_network[] = {
        std::make_exception_ptr(http::OSError(text)),
        std::make_exception_ptr(http::TimeoutError(text)),
        std::make_exception_ptr(http::ConnectionError(text)),
        std::make_exception_ptr(http::gaierror(text)),
        std::make_exception_ptr(http::URLError(http::ConnectionError(text))),
        std::make_exception_ptr(http::HTTPException(text)),
        std::make_exception_ptr(http::IncompleteRead(text)),
        std::make_exception_ptr(http::BadStatusLine(text)),
        std::make_exception_ptr(http::DroppedConnection(text))};
    const std::exception_ptr of_others[] = {std::make_exception_ptr(Foreign(text)),
                                            std::make_exception_ptr(std::bad_alloc()),
                                            std::make_exception_ptr(http::ValueError(text))};
    const bool foreign = once_in(10);
    const auto error =
        foreign ? input_.PickValueInArray(of_others) : input_.PickValueInArray(of_network);
    if (foreign || closing) foreign_ = error;
    std::rethrow_exception(error);
  }

  FuzzedDataProvider& input_;
  http::testing::ManualTime& time_;
  const http::RetryPolicy& policy_;
  int attempts_ = 0;
  std::vector<std::shared_ptr<http::testing::ScriptedReply>> replies_;
  std::string body_;  // what has been read of the latest reply
  std::exception_ptr foreign_;
};

void check(const http::HttpFailure& failure, const http::RetryPolicy& policy, int attempts) {
  using namespace http;
  expect(!has_secret(failure.message()) && !has_secret(failure.detail()),
         "no secret is in a failure");
  expect(detail::is_utf8(failure.message()) && detail::is_utf8(failure.detail()),
         "every text is UTF-8");
  expect(detail::length(failure.detail()) <= policy.detail_chars, "a quote is bounded");
  if (typeid(failure) == typeid(DeadlineExceeded)) {
    expect(policy.deadline.has_value(), "only a deadline is exceeded");
  } else if (typeid(failure) == typeid(Stopped)) {
    expect(policy.should_stop(), "only a stop stops");
  } else if (const auto* exhausted = dynamic_cast<const Exhausted*>(&failure)) {
    expect(exhausted->attempts() == policy.attempts && attempts == policy.attempts,
           "every attempt was made");
  }
  if (const auto* ended = dynamic_cast<const detail::Ended*>(&failure)) {
    const FailurePtr& last = ended->last();
    if (!last) return expect(!ended->status() && ended->detail().empty(), "nothing to copy");
    const HttpFailure& failed = *last;
    expect(typeid(failed) == typeid(Retryable), "only a Retryable leads to another attempt");
    expect(last->status() == ended->status() && last->detail() == ended->detail(),
           "the end shows its last failure's fields");
    return check(*last, policy, attempts);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static std::ostringstream log;
  static const bool logged = [] {
    http::logger()->sinks() = {std::make_shared<spdlog::sinks::ostream_sink_st>(log)};
    return true;
  }();
  static_cast<void>(logged);

  FuzzedDataProvider input(data, size);
  http::testing::ManualTime time;
  static constexpr double SPANS[] = {0, 0.25, 1, 2.5, 10, std::numeric_limits<double>::infinity()};
  if (input.ConsumeBool()) time.stop_at(input.PickValueInArray(SPANS));
  static constexpr std::size_t BOUNDS[] = {16777216, 300, 30, 1, 0};
  const http::RetryPolicy policy = time.policy(
      {.attempts = input.ConsumeIntegralInRange(1, 4),
       .backoff_s = input.PickValueInArray({0.0, 0.5, 1e300}),
       .refusal_statuses = input.ConsumeBool() ? http::StatusSet{403} : http::StatusSet{},
       .refusal_reason = input.ConsumeBool() ? http::html_page : http::RefusalReason(),
       .error_replies = input.ConsumeBool() ? http::StatusSet{400, 503} : http::StatusSet{},
       .deadline =
           input.ConsumeBool() ? std::optional(input.PickValueInArray(SPANS)) : std::nullopt,
       .detail_chars = input.PickValueInArray(BOUNDS),
       .max_body_bytes = input.PickValueInArray(BOUNDS)});
  Script script(input, time, policy);
  const http::CallOptions options{
      .policy = policy,
      .label = "call",
      .headers = {{"Authorization", "Bearer " + std::string(SECRETS[1])}},
      .secrets = {std::string(SECRETS[0])},
      .transport = [&](const auto&, auto bounds) { return script.answer(bounds); }};
  const std::string url = "http://user:" + std::string(SECRETS[2]) + "@host/";
  try {
    const http::Json answer =
        input.ConsumeBool() ? http::post_json(url, {}, options) : http::get_json(url, options);
    const auto replace = http::Json::error_handler_t::replace;
    const auto read = http::decode_json(http::detail::decode_utf8(script.body()));
    expect(read && read->dump(-1, ' ', false, replace) == answer.dump(-1, ' ', false, replace),
           "the answer is what came");
    expect(!policy.deadline || time.now() < *policy.deadline, "no answer comes late");
    expect(script.body().size() <= policy.max_body_bytes, "no answer is too long");
  } catch (const http::HttpFailure& failure) {
    expect(typeid(failure) != typeid(http::Retryable), "a Retryable stays inside");
    check(failure, policy, script.attempts());
  } catch (...) {
    expect(script.raised(std::current_exception()), "only a foreign error passes through");
  }
  script.check_replies();
  expect(!has_secret(log.str()), "no secret is logged");
  log.str("");
  return 0;
}
