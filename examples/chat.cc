// SPDX-License-Identifier: Apache-2.0
// A chat call, and what a program does about each way that it can fail.
#include <iostream>

#include "engines/http/http.h"
#include "examples/chat_engine.h"
#include "examples/loopback_server.h"

using namespace engines::http;

int main() {
  const examples::LoopbackServer server;  // busy twice, so that the log shows the retries
  const examples::ChatEngine engine(
      server.url("/chat"), "sk-0123456789",
      {.attempts = 4, .backoff_s = 0.05, .refusal_statuses = {401, 403}});
  try {
    const std::string answer =
        engine.answer({{"system", "Answer briefly."}, {"user", "Six by nine?"}});
    std::cout << "answer: " << answer << '\n';
    return answer == "Fifty-four." ? 0 : 1;
  } catch (const Exhausted& failure) {
    std::cout << "the service is busy, try later: " << failure.what() << '\n';
  } catch (const DeadlineExceeded& failure) {
    std::cout << "no answer in time: " << failure.what() << '\n';
  } catch (const Refused& failure) {
    std::cout << "look at the credential: " << failure.what() << '\n';
  } catch (const HttpFailure& failure) {  // everything else, BadReply included
    std::cout << "look at the request or the service: " << failure.what() << '\n';
  }
  return 1;
}
