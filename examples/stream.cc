// SPDX-License-Identifier: Apache-2.0
// A chat reply streamed as server-sent events and shown as it arrives. The stream breaks off once
// in the middle of an event; the attempt fails, and `retry` makes another.
#include <chrono>
#include <iostream>
#include <string>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;
using namespace std::chrono_literals;

namespace {

/// Reads the answer and shows it word by word.
std::string read_answer(Response& reply, const RetryPolicy& policy) {
  std::string answer;
  for (const Event& event : events(reply, policy)) {  // each as it arrives
    const auto data = decode_json(event.data);
    if (!data || !data->is_object()) throw BadReply("an event of the stream is not a JSON object");
    if (event.event == "done") {
      std::cout << '\n';
      return answer;
    }
    answer += data->value("word", "") + ' ';
    std::cout << data->value("word", "") << ' ' << std::flush;
  }
  // Some servers end a reply properly although the stream is incomplete.
  throw Retryable("the stream ended before its last event");
}

}  // namespace

int main() {
  const examples::LoopbackServer server;
  const RetryPolicy policy = RetryPolicy{.backoff_s = 0.05}.within(20s);
  int attempts = 0;
  const auto attempt = [&](double timeout) {
    if (++attempts > 1) std::cout << "... broke off; once more, from the start:\n";
    return send<std::string>(server.url("/stream"),
                             {.policy = policy,
                              .timeout = timeout,
                              .read = read_answer,
                              .body = Json{{"prompt", "How is it going?"}, {"stream", true}},
                              .headers = {{"Accept", "text/event-stream"}}});
  };
  try {
    const std::string answer = retry(policy, attempt, {.label = "chat stream"});
    return answer == "Well begun is done " && attempts == 2 ? 0 : 1;
  } catch (const HttpFailure& failure) {
    std::cout << '\n' << failure.what() << '\n';
    return 1;
  }
}
