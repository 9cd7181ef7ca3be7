// SPDX-License-Identifier: Apache-2.0
// A service's own client library under the same policy: its errors, of types that this library does
// not declare, are judged by `is_transient` and `classify`, and `retry` repeats the attempt.
#include <iostream>
#include <stdexcept>
#include <string>

#include "engines/http/http.h"

namespace service {  // somebody else's code

class ApiError : public std::runtime_error {
 public:
  ApiError(int status, const std::string& body) : std::runtime_error(body), status_code(status) {}
  int status_code;
};
class ReadTimeout : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Client {
 public:
  void set_timeout(double seconds) { timeout_s_ = seconds; }
  void reconnect() { ++reconnects_; }
  int reconnects() const { return reconnects_; }

  std::string complete(const std::string& prompt) {
    switch (++calls_) {
      case 1:
        throw ApiError(429, "slow down, sk-0123456789");
      case 2:
        throw ReadTimeout("nothing for " + std::to_string(timeout_s_) + " s");
      case 3:
        return prompt + "? Fifty-four.";
      default:
        throw ApiError(402, "no credit left for sk-0123456789");
    }
  }

 private:
  double timeout_s_ = 60;
  int calls_ = 0;
  int reconnects_ = 0;
};

}  // namespace service

using namespace engines::http;

namespace {

class CompletionEngine {
 public:
  std::string complete(const std::string& prompt) {
    const auto attempt = [&](double timeout) {
      client_.set_timeout(timeout);
      FailurePtr failure;
      // Caught by their own types: std::exception has no `status_code`.
      try {
        return client_.complete(prompt);
      } catch (const service::ApiError& error) {
        failure = classify(error, policy_, secrets_);
      } catch (const service::ReadTimeout& error) {
        if (is_transient(error)) client_.reconnect();  // judged by its type's name
        failure = classify(error, policy_, secrets_);
      }
      failure.raise();  // outside the handlers, so that the service's error is not nested in it
    };
    return retry(policy_, attempt, {.label = "completion", .secrets = secrets_});
  }
  const service::Client& client() const { return client_; }

 private:
  service::Client client_;
  const RetryPolicy policy_{.backoff_s = 0.05, .timeout_s = 10, .refusal_statuses = {401, 402}};
  const Secrets secrets_{"sk-0123456789"};
};

}  // namespace

int main() {
  CompletionEngine engine;
  std::cout << engine.complete("Six by nine") << '\n';
  try {
    engine.complete("Six by eight");
    return 1;
  } catch (const Refused& failure) {
    std::cout << failure.what() << '\n';  // "HTTP 402"; the redacted text is in detail()
  }
  return engine.client().reconnects() == 1 ? 0 : 1;
}
