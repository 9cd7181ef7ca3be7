// A whole call over a transport that the input scripts. Each letter of the input is a choice ('a',
// and the input's end, the harmless one), and what ends in a line feed is a text. However the call
// ends, it ends in one of the ways that a caller was promised, within the policy's bounds.
#include <spdlog/spdlog.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "engines/http/http.h"
#include "engines/http/testing.h"
#include "engines/http/text/utf8.h"
#include "fuzz/expect.h"

namespace http = engines::http;
using fuzz::expect;

namespace {

const std::string SECRET = "0123456789";

struct Script {
  std::string_view input;
  http::testing::ManualTime time = {};
  const http::RetryPolicy* policy = nullptr;
  int attempts = 0;
  std::vector<std::shared_ptr<http::testing::ScriptedReply>> replies = {};
  std::string body = {};                  // what has been read of the latest reply
  std::vector<std::string> foreign = {};  // texts of errors of which one must reach the caller

  std::size_t choose(std::size_t count) {
    const unsigned char letter = input.empty() ? 'a' : static_cast<unsigned char>(input[0]);
    input.remove_prefix(input.empty() ? 0 : 1);
    return (letter + 256U - 'a') % count;
  }
  template <class Value>
  Value one_of(const std::vector<Value>& values) {
    return values[choose(values.size())];
  }
  std::string text() {
    const std::string_view line = input.substr(0, input.find('\n'));
    input.remove_prefix(std::min(line.size() + 1, input.size()));
    return std::string(line);
  }

  /// Time passes, and something may fail.
  void goes_on() {
    time.advance(one_of<double>({0, 0, 0, 0.25, 1, 3}));
    const std::size_t how = choose(9);
    if (how == 1) throw std::runtime_error(foreign.emplace_back(text().c_str()));
    if (how == 2) throw http::URLError(http::ConnectionError(text()));
    if (how == 3) throw http::IncompleteRead(text());
  }

  void close() {
    if (choose(9) == 1) throw std::runtime_error(foreign.emplace_back(text().c_str()));
  }

  std::string piece(bool is_answer) {
    expect(!is_answer || body.size() <= policy->max_body_bytes, "nothing is read beyond the bound");
    goes_on();
    const std::string piece = text();
    body += piece;
    return piece;
  }

  std::shared_ptr<http::Response> answer(const http::TransportOptions& options) {
    expect(++attempts <= policy->attempts, "no more attempts than the policy makes");
    expect(!policy->should_stop(), "no attempt starts after the stop");
    expect(options.timeout <= policy->timeout_s &&
               (!policy->deadline || options.timeout <= *policy->deadline - time.now()),
           "an attempt has no more time than the policy and the deadline leave");
    goes_on();
    const auto status = one_of<http::StatusCode>({200, 503, 403, 400, 299, 301, 404, 429});
    std::vector<http::testing::Piece> pieces;
    for (std::size_t left = choose(5); left > 0; --left) {
      pieces.emplace_back([=, this] { return piece(status < 300 || status == 400); });
    }
    body.clear();
    replies.push_back(http::testing::reply_of(std::move(pieces),
                                              {.status = status, .on_close = [this] { close(); }}));
    if (status < 300) return replies.back();
    throw http::HTTPError(status, {}, replies.back());
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  spdlog::set_level(spdlog::level::off);
  Script script{.input = {reinterpret_cast<const char*>(data), size}};
  if (script.choose(2) == 1) script.time.stop_at(script.one_of<double>({0, 0.25, 1, 10}));
  const http::RetryPolicy policy = script.time.policy(
      {.attempts = script.one_of<int>({2, 1, 4}),
       .backoff_s = script.one_of<double>({0.5, 0, 1e300}),
       .refusal_statuses = {403},
       .refusal_reason = http::html_page,
       .error_replies = {400},
       .deadline = script.one_of<std::optional<double>>({std::nullopt, 0, 0.25, 2.5, 10}),
       .detail_chars = script.one_of<std::size_t>({300, 30, 0}),
       .max_body_bytes = script.one_of<std::size_t>({1000, 30, 0})});
  script.policy = &policy;
  try {
    const http::Json answer = http::post_json(
        "http://user:" + SECRET + "@host/", {},
        {.policy = policy, .label = "call", .transport = [&](const auto&, auto options) {
           return script.answer(options);
         }});
    const auto read = http::decode_json(http::detail::decode_utf8(script.body));
    expect(read && http::encode_json(*read) == http::encode_json(answer),
           "what came is the answer");
    expect(!policy.deadline || script.time.now() < *policy.deadline, "no answer comes late");
    expect(script.body.size() <= policy.max_body_bytes, "no answer is too long");
  } catch (const http::HttpFailure& failure) {
    const std::string text = failure.message() + failure.detail();
    expect(text.find(SECRET) == text.npos && http::detail::is_utf8(text), "a text to be shown");
    expect(http::detail::length(failure.detail()) <= policy.detail_chars, "a quote is bounded");
    const auto is = [&](const std::type_info& kind) { return typeid(failure) == kind; };
    expect(!is(typeid(http::Retryable)), "a Retryable stays inside");
    expect(!is(typeid(http::DeadlineExceeded)) || policy.deadline, "only a deadline is exceeded");
    expect(!is(typeid(http::Stopped)) || policy.should_stop(), "only a stop stops");
    expect(!is(typeid(http::Exhausted)) || script.attempts == policy.attempts, "all were made");
  } catch (const std::runtime_error& error) {
    expect(std::ranges::count(script.foreign, error.what()) > 0,
           "any other error is the transport's own");
  }
  for (const auto& reply : script.replies) expect(reply->closes() == 1, "each is closed once");
  return 0;
}
