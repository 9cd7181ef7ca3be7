// SPDX-License-Identifier: Apache-2.0
// One property over generated calls: whatever the peer echoes and however that is cut, no text of a
// failure and no log line holds a secret, nor ends in the start of one. ENGINES_HTTP_CASES says how
// many calls are made, ENGINES_HTTP_SEED which is the first.
#include "engines/http/http.h"

#include <gtest/gtest.h>
#include <spdlog/sinks/ostream_sink.h>
#include <spdlog/spdlog.h>

#include <cstdlib>
#include <random>
#include <sstream>

#include "engines/http/testing.h"
#include "engines/http/text/utf8.h"
#include "tests/support/fault_server.h"

namespace engines::http {
namespace {

using detail::first_chars;
using Texts = std::vector<std::string>;

std::string replaced(std::string text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

/// What a message quotes as a literal, without the quotes and escapes, which may look like a part
/// of a secret; any other message as it is.
std::string unquoted(const std::string& message) {
  constexpr std::string_view BEFORE_LITERAL = "reply not JSON: ";
  if (!message.starts_with(BEFORE_LITERAL)) return message;
  std::string text;
  for (std::size_t i = BEFORE_LITERAL.size() + 1; i + 1 < message.size(); ++i) {
    if (message[i] == '\\') ++i;
    text += message[i];
  }
  return text;
}

/// One call: what it hides, hears and lets out.
struct Case {
  std::size_t below(std::size_t end) { return random() % end; }
  std::string some(const Texts& of, std::size_t count = 1) {
    std::string run;
    for (; count > 0; --count) run += of[below(of.size())];
    return run;
  }

  std::string new_secret() {
    const Texts letters{"A", "B", "0", "1", "\u00e9", "\u20ac", "\U0001F600", "\xff", "-",
                        "(", ")", ".", "*", "\\",     "\"",     "'",          "%",    "$"};
    std::string secret = some(letters, 8 + below(below(4) > 0 ? 12 : 150));
    if (!secrets.empty() && below(3) == 0) {  // it begins as another one ends
      const std::string other = some(secrets);
      secret.insert(0,
                    other.substr(first_chars(other, below(detail::char_count(other) - 7)).size()));
      if (below(2) == 0) secret = first_chars(secret, 8 + below(12));
      unbroken = false;  // only one of the two is found where they overlap
    }
    return secrets.emplace_back(secret);
  }

  /// Secrets, whole, escaped, and shortened to what is none any longer, in other text, cut at any
  /// byte.
  std::string echo() {
    const Texts others{"x", "yy ", "\n", ": ", " authorization: ", "bearer ", "\u00f6"};
    std::string text = "x";
    for (std::size_t left = below(below(8) == 0 ? 300 : 12); left > 0; --left) {
      const std::string echoed = some(secrets);
      const std::size_t how = below(40);
      if (how == 0) text += replaced(replaced(echoed, "\\", "\\\\"), "\"", "\\\"");
      text += how < 20 ? echoed : std::string(first_chars(echoed, below(8)));
      if (how > 9) text += some(others, 1 + below(20));
      unbroken &= how > 0;
    }
    std::size_t end = below(2) == 0 ? text.size() : 1 + below(text.size());
    end = std::min(end, detail::ERROR_BODY_BYTES);
    unbroken &= (text[end] & 0xC0) != 0x80;  // within a character
    return text.substr(0, end);
  }

  /// What a plain search finds in the text: a secret or, where no part of one may stand in the
  /// middle, eight characters of it; at the end also the start of one.
  std::string leak_in(const std::string& text, bool ends_itself) const {
    const std::string shown = replaced(text, REDACTED, "\n");
    for (const std::string& given : secrets) {
      const std::string secret = detail::replace_ill_formed(given);
      if (shown.find(secret) != shown.npos) return secret;
      for (std::size_t count = 8; count < detail::char_count(secret); ++count) {
        const std::string start(first_chars(secret, count));
        if (ends_itself && shown.ends_with(start)) return start;
        const std::string part = start.substr(first_chars(start, count - 8).size());
        if (unbroken && shown.find(part) != shown.npos) return part;
      }
    }
    return {};
  }

  /// Makes a call that fails, and looks at everything that it lets out.
  void expect_secrecy(const std::string& url, const CallOptions& options) const {
    std::ostringstream log;
    logger()->sinks() = {std::make_shared<spdlog::sinks::ostream_sink_mt>(log)};
    FailurePtr failure;
    try {
      get_json(url, options);
    } catch (const HttpFailure& caught) {
      failure = caught;
    }
    ASSERT_TRUE(failure) << "the call did not fail";
    while (failure) {
      // Where a part of a secret may stand in the middle, a quote that is cut may end in it.
      const bool whole = unbroken || detail::char_count(failure->detail()) < detail_chars;
      for (const auto& text : {unquoted(failure->message()), failure->detail()}) {
        EXPECT_EQ(leak_in(text, whole), "") << text;
      }
      const auto* const ended = dynamic_cast<const detail::Ended*>(failure.get());
      failure = ended && !raw ? FailurePtr(ended->last()) : nullptr;
    }
    const std::string quote = log.str().substr(0, log.str().rfind("; retrying in"));
    EXPECT_EQ(leak_in(quote, true), "") << quote;
  }

  std::mt19937_64 random;
  Texts secrets = {};
  std::size_t detail_chars = 300;
  // No part of a secret may stand in the middle of a text: none was echoed in another form, cut
  // inside a character, or overlapped another one.
  bool unbroken = true;
  bool raw = false;  // the attempt's own failure is the caller's
};

void for_each_case(std::size_t cases, const std::function<void(Case&)>& play) {
  const char* const given[] = {std::getenv("ENGINES_HTTP_CASES"), std::getenv("ENGINES_HTTP_SEED")};
  if (given[0]) cases = std::strtoul(given[0], nullptr, 10);
  const std::size_t first = given[1] ? std::strtoul(given[1], nullptr, 10) : 1;
  for (std::size_t seed = first; seed < first + cases && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("ENGINES_HTTP_CASES=1 ENGINES_HTTP_SEED=" + std::to_string(seed));
    Case c{.random = std::mt19937_64(seed)};
    play(c);
  }
}

TEST(Secrecy, WhateverATransportSays) {
  for_each_case(3000, [](Case& c) {
    Headers headers;
    Texts named{"", "short"};
    const std::string url =
        "http://" + c.some({"", "usr:%C3%BCrl-s3cret@", "%C3%BCrl-s3cret@"}) + "a.test";
    if (url.size() > 13) c.secrets = {"%C3%BCrl-s3cret", "\u00fcrl-s3cret"};
    if (url.size() > 30) c.secrets.push_back("dXNyOsO8cmwtczNjcmV0");
    do {
      const std::size_t where = c.below(4);
      const std::string secret = c.new_secret();
      if (where == 0) headers.add("authorization", c.some({"Bearer ", ""}) + secret);
      if (where == 1) headers.add("Proxy-Authorization", " Basic  " + secret + " ");
      const std::string name = c.some({"X-API-Key", "api-key", "X-Auth-Token"});
      if (where == 2) headers.add(name, c.some({"", " "}) + secret + "\t");
      if (where == 3) named.push_back(secret);
    } while (c.below(3) > 0);
    testing::ManualTime time;
    c.detail_chars = std::vector{0U, 9U, 30U, 40U, 300U, 5000U}[c.below(6)];
    c.raw = c.below(8) == 0;
    const RetryPolicy policy =
        time.policy({.attempts = 2,
                     .refusal_reason = [&](auto...) { return c.below(4) == 0 ? "a page" : ""; },
                     .deadline = c.below(4) == 0 ? std::optional(0.5) : std::nullopt,
                     .detail_chars = c.detail_chars});
    const auto answer = [&](const Request&, TransportOptions) -> std::shared_ptr<Response> {
      const std::string text = c.echo(), begun = text.substr(0, 1 + c.below(text.size()));
      const auto reply = testing::reply_of({begun, text.substr(begun.size())});
      const std::size_t how = c.raw ? 0 : 1 + c.below(8);
      if (how == 0) throw Retryable(text);
      if (how == 1) throw URLError(gaierror(text));
      if (how == 2) throw HTTPException(text);
      if (how == 3) return testing::reply_of({begun, IncompleteRead(text)});
      if (how > 5) throw HTTPError(how > 6 ? 503 : 400, {{"Content-Type", text}}, reply);
      return reply;
    };
    c.expect_secrecy(url, {policy, "a call", headers, named, answer});
  });
}

TEST(Secrecy, WhateverAServerSays) {
  const test::FaultServer silent([](test::Peer& peer) { peer.stall(); });
  const std::string nobody = ".localhost:" + std::to_string(test::closed_port());
  const std::string stalls = ".localhost:" + std::to_string(silent.port());
  for_each_case(150, [&](Case& c) {
    const std::string secret =
        c.secrets.emplace_back(c.some({"a", "b", "0", "1"}, 8 + c.below(12)));
    std::string said = c.some({"HTTP/1.1 503 $", "HTTP/1.1 200 $", "$"}) +
                       c.some({"\r\nContent-Type: $", "\r\nContent-Length: $", "\r\n$",
                               "\r\nTransfer-Encoding: $", "\r\nTransfer-Encoding: chunked"});
    if (c.below(3) > 0) {  // a host's name, cut where libcurl's text is as long as it can be
      said = "HTTP/1.1 302 $\r\nLocation: " + c.some({"http://", "http://u:$@", "https://"}) +
             c.some({"", std::string(60, 'x') + "."}, 3) + std::string(c.below(50), 'y') + "$" +
             c.some({nobody, nobody, stalls, "..invalid", ":$"}) + "/$";
    }
    said = replaced(said + "\r\n\r\n$\r\n", "$", secret);
    if (c.below(4) == 0) said.resize(c.below(said.size()));
    const test::FaultServer server([&](test::Peer& peer) { peer.request(), peer.send(said); });
    std::size_t patience = 1 + c.below(9);
    const RetryPolicy policy{
        .attempts = 1, .timeout_s = 0.05, .should_stop = [&] { return patience-- == 0; }};
    const Transport transport = c.below(2) == 0 ? Transport(PooledTransport()) : urlopen_transport;
    c.expect_secrecy(server.url(), {policy, "a call", {{"X-Api-Key", secret}}, {}, transport});
  });
}

}  // namespace
}  // namespace engines::http
