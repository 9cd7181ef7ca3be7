// SPDX-License-Identifier: Apache-2.0
// An endpoint behind a proxy. What the proxy says in the endpoint's place is an HTML page, often
// with status 200: with `html_page` as the refusal rule it is a refusal, whatever its status, and
// is not asked for again.
#include <iostream>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

int main() {
  const examples::LoopbackServer server;  // a proxy, too
  // Without `.proxy` the environment says: http_proxy, https_proxy, all_proxy, no_proxy.
  const PooledTransport through_proxy({.proxy = server.url("")});
  const RetryPolicy policy{.refusal_reason = html_page};
  const auto models = [&](const std::string& url) {
    return get_json(url, {.policy = policy, .label = "model list", .transport = through_proxy});
  };

  std::cout << "allowed: " << models("http://allowed.test/models") << '\n';
  try {
    models("http://blocked.test/models");
  } catch (const Refused& failure) {
    std::cout << "blocked: " << failure.what() << "\nthe page: " << failure.detail() << '\n';
    return 0;
  }
  return 1;
}
