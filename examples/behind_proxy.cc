// SPDX-License-Identifier: Apache-2.0
// An endpoint behind a proxy. A proxy that blocks a request answers with an HTML page, often with
// status 200. With `html_page` as `refusal_reason` such a page is a refusal, with any status, and
// is not retried.
#include <iostream>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

int main() {
  const examples::LoopbackServer server;  // is a proxy, too
  // Without `.proxy`, the environment applies: http_proxy, https_proxy, all_proxy, no_proxy.
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
