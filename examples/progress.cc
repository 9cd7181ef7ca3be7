// Progress shown while a long reply arrives: a reader of one's own, within the policy's bounds.
#include <iostream>
#include <string>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

int main() {
  const examples::LoopbackServer server;
  const RetryPolicy policy{.max_body_bytes = 8'000'000};
  const auto read = [&policy](Response& reply) {
    const auto announced = reply.headers()->get("Content-Length");
    std::string body;
    while (true) {
      const std::string piece = reply.read1(65536);
      if (piece.empty()) break;
      const std::size_t before = body.size() >> 20;
      body += piece;
      if (body.size() > policy.max_body_bytes) throw BadReply("the reply is too long");
      if (body.size() >> 20 == before) continue;
      std::cout << body.size() << " of " << announced.value_or("unknown") << " bytes\n";
    }
    return body.size();
  };
  const auto attempt = [&](double timeout) {
    return send<std::size_t>(server.url("/long"),
                             {.policy = policy, .timeout = timeout, .read = read, .method = "GET"});
  };
  return retry(policy, attempt, {.label = "long reply"}) == 5'000'000 ? 0 : 1;
}
