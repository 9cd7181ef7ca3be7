// A chat call: a question under a policy, the reply as JSON, and what to do about each failure.
#include <iostream>
#include <string>
#include <vector>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

namespace {

struct Message {
  std::string role;
  std::string content;
};

// Makes a Message part of a body as it is.
void to_json(Json& json, const Message& message) {
  json = {{"role", message.role}, {"content", message.content}};
}

}  // namespace

int main() {
  const examples::LoopbackServer server;
  const RetryPolicy policy{.attempts = 4, .backoff_s = 0.05, .refusal_statuses = {401, 403}};
  const std::vector<Message> messages{{"system", "Answer briefly."}, {"user", "Six by nine?"}};
  try {
    const Json reply =
        post_json(server.url("/busy"), Json{{"model", "m-1"}, {"messages", messages}},
                  {.policy = policy.with({.deadline = policy.clock() + 20.0}),
                   .label = "chat call",
                   .headers = {{"Authorization", "Bearer sk-0123456789"}}});
    std::cout << "answer: " << reply["answer"] << '\n';
    return 0;
  } catch (const Exhausted& failure) {
    std::cout << "the service is busy: " << failure.what() << '\n';
  } catch (const DeadlineExceeded& failure) {
    std::cout << "no answer in time: " << failure.what() << '\n';
  } catch (const Refused& failure) {
    std::cout << "look at the credential: " << failure.what() << '\n';
  } catch (const HttpFailure& failure) {
    std::cout << "look at the request: " << failure.what() << '\n';
  }
  return 1;
}
