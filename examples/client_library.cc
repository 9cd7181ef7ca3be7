// A service's own client library, made to keep to the same policy: its failures, which this library
// has never seen, are judged by `classify` and tried again by `retry`.
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
  std::string complete(const std::string& prompt, double timeout_s) {
    switch (++calls_) {
      case 1:
        throw ApiError(429, "slow down, sk-0123456789");
      case 2:
        throw ReadTimeout("nothing for " + std::to_string(timeout_s) + " s");
      default:
        return prompt + "? Fifty-four.";
    }
  }

 private:
  int calls_ = 0;
};

}  // namespace service

using namespace engines::http;

int main() {
  service::Client client;
  const RetryPolicy policy{.backoff_s = 0.05, .timeout_s = 10};
  const Secrets secrets{"sk-0123456789"};
  const auto attempt = [&](double timeout) {
    FailurePtr failure;
    try {
      return client.complete("Six by nine", timeout);
    } catch (const service::ApiError& error) {
      failure = classify(error, policy, secrets);
    } catch (const service::ReadTimeout& error) {
      failure = classify(error, policy, secrets);
    }
    failure.raise();  // outside the handlers: nothing of the service's error travels with it
  };
  const std::string answer = retry(policy, attempt, {.label = "completion", .secrets = secrets});
  std::cout << answer << '\n';
  return answer == "Six by nine? Fifty-four." ? 0 : 1;
}
