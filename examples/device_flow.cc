// SPDX-License-Identifier: Apache-2.0
// The device authorization grant of OAuth 2.0 (RFC 8628): form-encoded requests, JSON replies.
// While the user has not approved yet, the service answers with status 400 and a JSON body;
// `error_replies` makes that body the reply.
#include <iostream>
#include <string>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

namespace {

constexpr double SLOW_DOWN_S = 0.05;  // 5 in RFC 8628, section 3.5

/// Returns the access token once the user has approved.
std::string authorize(const std::string& device_url, const std::string& token_url) {
  const RetryPolicy policy{.error_replies = {400}};
  const Json device = post_json(device_url, form_body({{"client_id", "app-1"}, {"scope", "chat"}}),
                                {.policy = policy, .label = "device code"});
  std::cout << "open " << device.value("verification_uri", "") << " and enter "
            << device.value("user_code", "") << '\n';

  // One deadline for all the polls: the lifetime of the code.
  const RetryPolicy polls = policy.within(device.value("expires_in", 0.0));
  const std::string code = device.value("device_code", "");
  const CallOptions options{.policy = polls, .label = "token poll", .secrets = {code}};
  double interval = device.value("interval", 5.0);
  while (!wait_unless_stopped(interval, polls.should_stop)) {
    const Json reply =
        post_json(token_url,
                  form_body({{"grant_type", "urn:ietf:params:oauth:grant-type:device_code"},
                             {"device_code", code},
                             {"client_id", "app-1"}}),
                  options);
    if (reply.contains("access_token")) return reply.value("access_token", "");
    const std::string error = reply.value("error", "");
    std::cout << "not yet: " << error << '\n';
    if (error == "slow_down") {
      interval += SLOW_DOWN_S;
    } else if (error != "authorization_pending") {
      throw Refused("the user did not approve: " + excerpt(error, options.secrets));
    }
  }
  throw Stopped("the flow was asked to stop");
}

}  // namespace

int main() {
  const examples::LoopbackServer server;
  try {
    return authorize(server.url("/device"), server.url("/token")).empty() ? 1 : 0;
  } catch (const HttpFailure& failure) {
    std::cout << failure.what() << '\n';
    return 1;
  }
}
