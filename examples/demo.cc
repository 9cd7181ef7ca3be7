// SPDX-License-Identifier: Apache-2.0
// Without arguments: real calls to a loopback server, one for each of several outcomes.
// With a URL: one call to that endpoint.
//
//   demo
//   demo URL [BODY] [-H 'Name: value']...
//
// Exit status: 0 answered, 1 another error, 2 a request that cannot be sent, 3 HttpFailure,
// 4 Refused, 5 BadReply, 6 DeadlineExceeded, 7 Stopped, 8 Exhausted.
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

namespace {

using namespace engines::http;

int exit_status(const HttpFailure& failure) {
  if (dynamic_cast<const Refused*>(&failure)) return 4;
  if (dynamic_cast<const BadReply*>(&failure)) return 5;
  if (dynamic_cast<const DeadlineExceeded*>(&failure)) return 6;
  if (dynamic_cast<const Stopped*>(&failure)) return 7;
  if (dynamic_cast<const Exhausted*>(&failure)) return 8;
  return 3;
}

/// Makes the call and prints its outcome; returns the exit status.
int show(const std::function<std::string()>& call) {
  try {
    const std::string answer = call();
    std::cout << "  answer: " << answer << '\n';
    return 0;
  } catch (const HttpFailure& failure) {
    std::cout << "  failed: " << ErrorRef(failure).type_name() << '\n';
    std::cout << "  status: " << (failure.status() ? std::to_string(*failure.status()) : "none")
              << '\n';
    std::cout << "  text:   " << failure.what() << '\n';
    if (!failure.detail().empty()) std::cout << "  detail: " << failure.detail() << '\n';
    return exit_status(failure);
  } catch (const ValueError& error) {
    std::cout << "  cannot be sent: " << error.what() << '\n';
    return 2;
  }
}

void title(std::string_view asked) { std::cout << '\n' << asked << '\n'; }

int tour() {
  const examples::LoopbackServer server;
  const std::string key = "sk-demo-0123456789";
  const Headers headers{{"Authorization", "Bearer " + key}};
  const RetryPolicy policy{.backoff_s = 0.1, .timeout_s = 5, .refusal_reason = html_page};
  const Json question{{"model", "m-1"}, {"prompt", "six by nine?"}};
  const auto ask = [&](const std::string& path, const RetryPolicy& asked_under) {
    return [&, path] {
      return encode_json(post_json(server.url(path), question,
                                   {.policy = asked_under, .label = "demo", .headers = headers}));
    };
  };
  std::vector<int> ended;

  title("An answer: POST /answer " + encode_json(question));
  ended.push_back(show(ask("/answer", policy)));

  title("Busy twice, then an answer: POST /busy");
  ended.push_back(show(ask("/busy", policy)));

  title("A proxy's block page in place of the reply: POST /blocked");
  ended.push_back(show(ask("/blocked", policy)));

  title("A reply that trickles past the deadline, 0.5 s from now: POST /trickle");
  ended.push_back(show(ask("/trickle", policy.with({.deadline = policy.clock() + 0.5}))));

  title("A stop from another thread, 0.3 s into a backoff of 5 s: POST /down");
  std::atomic<bool> stop = false;
  std::thread stopper([&stop] {
    wait_unless_stopped(0.3, nullptr);
    stop = true;
  });
  ended.push_back(show(
      ask("/down", policy.with({.backoff_s = 5, .should_stop = [&stop] { return stop.load(); }}))));
  stopper.join();

  title("An error body that echoes the credential: POST /denied, Authorization: Bearer sk-demo-…");
  ended.push_back(show(ask("/denied", policy)));

  title("A stream of server-sent events, which breaks off once: GET /stream");
  ended.push_back(show([&] {
    const auto read = [](Response& reply, const RetryPolicy& bounds) {
      std::string words;
      for (const Event& event : events(reply, bounds)) {
        if (const auto data = decode_json(event.data)) words += data->value("word", "") + ' ';
      }
      return words;
    };
    const auto attempt = [&](double timeout) {
      return send<std::string>(
          server.url("/stream"),
          {.policy = policy, .timeout = timeout, .read = read, .method = "GET"});
    };
    return retry(policy, attempt, {.label = "stream"});
  }));

  const bool as_expected = ended == std::vector{0, 0, 4, 6, 7, 3, 0};
  std::cout << (as_expected ? "\nEvery call ended as expected.\n"
                            : "\nA call did not end as expected.\n");
  return as_expected ? 0 : 1;
}

volatile std::sig_atomic_t interrupted = 0;

int probe(const std::vector<std::string>& arguments) {
  constexpr std::string_view USAGE = "usage: demo [URL [BODY] [-H 'Name: value']...]\n";
  std::vector<std::string> positional;
  Headers headers;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] != "-H") {
      positional.push_back(arguments[i]);
      continue;
    }
    const std::string field = i + 1 < arguments.size() ? arguments[++i] : "";
    const std::size_t colon = field.find(':');
    if (colon == std::string::npos) {
      std::cerr << USAGE;
      return 2;
    }
    const std::size_t value = std::min(field.find_first_not_of(" \t", colon + 1), field.size());
    headers.add(field.substr(0, colon), field.substr(value));
  }
  if (positional.empty() || positional.size() > 2) {
    std::cerr << USAGE;
    return 2;
  }
  std::optional<Json> body;
  if (positional.size() == 2) {
    body = decode_json(positional[1]);
    if (!body) {
      std::cerr << "demo: BODY is not JSON\n";
      return 2;
    }
  }

  std::signal(SIGINT, [](int) { interrupted = 1; });
  const RetryPolicy policy{.refusal_reason = html_page,
                           .deadline = monotonic() + 60,
                           .should_stop = [] { return interrupted != 0; }};
  const CallOptions options{.policy = policy, .label = "demo", .headers = headers};
  title((body ? "POST " : "GET ") + std::string("the URL given, within 60 s"));
  return show([&] {
    return encode_json(body ? post_json(positional[0], *body, options)
                            : get_json(positional[0], options));
  });
}

}  // namespace

int main(int argc, char** argv) {
  spdlog::set_default_logger(spdlog::stdout_color_mt("demo"));  // in order with the other output
  spdlog::set_pattern("  log:    %v");
  try {
    return argc == 1 ? tour() : probe({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::cerr << "demo: " << error.what() << '\n';
    return 1;
  }
}
