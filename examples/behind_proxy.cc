// An endpoint behind a proxy: with `html_page` as the refusal rule, the proxy's block page is a
// refusal, whatever its status, and is not asked for again.
#include <iostream>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

int main() {
  const examples::LoopbackServer server;
  const RetryPolicy policy{.refusal_reason = html_page};
  try {
    get_json(server.url("/blocked"), {.policy = policy, .label = "model list"});
  } catch (const Refused& failure) {
    std::cout << failure.what() << "\nthe page begins: " << failure.detail() << '\n';
    return 0;
  }
  return 1;
}
