// A device-authorization flow (RFC 8628): while the user has not approved yet, the service answers
// with status 400 and a JSON body. `error_replies` makes that body the reply.
#include <iostream>
#include <string>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

int main() {
  const examples::LoopbackServer server;
  const RetryPolicy policy{.error_replies = {400}};
  constexpr double INTERVAL_S = 0.05;
  for (int poll = 1; poll <= 10; ++poll) {
    const Json reply = post_json(server.url("/token"), Json{{"device_code", "d-1"}},
                                 {.policy = policy, .label = "token poll"});
    if (reply.contains("access_token")) {
      std::cout << "approved at poll " << poll << '\n';
      return 0;
    }
    if (reply.value("error", "") != "authorization_pending") break;
    std::cout << "waiting for approval\n";
    wait_unless_stopped(INTERVAL_S, policy.should_stop);
  }
  return 1;
}
