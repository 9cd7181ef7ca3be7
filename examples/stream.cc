// A chat reply streamed as server-sent events and shown as it arrives. The stream breaks off once
// in the middle of an event; that is a failure like any other, and `retry` asks again.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <string_view>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;
using namespace std::chrono_literals;

namespace {

struct Event {
  std::string name = "message";
  std::string data = {};
};

/// Calls `use` with each event of the stream (HTML standard, section 9.2, "Server-sent events") but
/// for streams that end their lines with CR alone. An event that was cut short is dropped.
template <class Use>
void for_each_event(Response& reply, Use use) {
  Event event;
  for (std::string_view line : reply) {  // each line is read when the loop comes to it
    line = line.substr(0, line.find_last_not_of("\r\n") + 1);
    if (line.empty()) {  // the end of an event
      if (event.data.ends_with('\n')) {
        event.data.pop_back();
        use(event);
      }
      event = {};
      continue;
    }
    const std::string_view field = line.substr(0, line.find(':'));
    std::string_view value = line.substr(std::min(field.size() + 1, line.size()));
    if (value.starts_with(' ')) value.remove_prefix(1);
    if (field == "data") event.data.append(value) += '\n';
    if (field == "event") event.name = value;
  }  // every other field is ignored, and so are comments, whose field is empty
}

/// Reads the answer and shows it word by word.
std::string read_answer(Response& reply, const RetryPolicy& policy) {
  std::string answer;
  bool complete = false;
  for_each_event(reply, [&](const Event& event) {
    // The timeout bounds each wait for bytes. A stream that never ends is for its reader to end.
    if (policy.deadline && policy.clock() >= *policy.deadline) {
      throw DeadlineExceeded("the answer was still arriving at the deadline");
    }
    if (policy.should_stop()) throw Stopped("the answer is not wanted any more");

    const auto data = decode_json(event.data);
    if (!data || !data->is_object()) throw BadReply("an event of the stream is not a JSON object");
    if (event.name == "done") {
      complete = true;
    } else {
      answer += data->value("word", "") + ' ';
      std::cout << data->value("word", "") << ' ' << std::flush;
    }
  });
  // Some servers end the connection in good order when they break off.
  if (!complete) throw Retryable("the stream ended before its last event");
  std::cout << '\n';
  return answer;
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
                              .read = [&](Response& reply) { return read_answer(reply, policy); },
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
