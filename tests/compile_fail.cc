// Calls that must not compile, one for each CASE; CASE 0 holds their correct forms, which must.
#include "engines/http/attempt.h"
#include "engines/http/classification.h"
#include "engines/http/requests.h"
#include "engines/http/retry.h"

using namespace engines::http;

void calls(const RetryPolicy& policy) {
  const auto attempt = [](double) { return 1; };
  const auto read = [](Response&) { return 1; };
#if CASE == 0
  get_json("u", {.policy = policy, .label = "l"});
  get_json("u", {.policy = {.attempts = 1}, .label = "l", .secrets = {{"a", "b"}}});
  retry(policy, attempt, {.label = "l"});
  send<int>("u", {.policy = policy, .timeout = 1, .read = read});
  throw Exhausted("m", {.attempts = 1, .last = nullptr});
  static_cast<void>(policy.with({.deadline = std::nullopt}));
  RetryPolicy copy = policy;
  const std::vector<Body> bodies{1, "text"};
  static_cast<void>(is_transient(URLError("e")) && status_of(*FailurePtr(Refused("r"))));
#elif CASE == 1
  get_json("u", {.policy = policy});
#elif CASE == 2
  get_json("u", {.label = "l"});
#elif CASE == 3
  retry(policy, attempt, {});
#elif CASE == 4
  send<int>("u", {.policy = policy, .timeout = 1});
#elif CASE == 5
  send<int>("u", {.policy = policy, .read = read});
#elif CASE == 6
  throw Exhausted("m", {.attempts = 1});
#elif CASE == 7
  throw Exhausted("m", {.last = nullptr});
#elif CASE == 8
  const_cast<RetryPolicy&>(policy).attempts = 1;
#elif CASE == 9
  static_cast<void>(policy.with({.deadline = {}}));  // none, or left as it is? say which
#elif CASE == 10
  post_json("u", &policy, {.policy = policy, .label = "l"});
#elif CASE == 11
  post_json("u", attempt, {.policy = policy, .label = "l"});
#elif CASE == 12
  is_transient(URLError("e").reason());
#elif CASE == 13
  status_of(std::make_shared<TimeoutError>("t"));
#elif CASE == 14
  is_transient(FailurePtr());
#elif CASE == 15
  status_of(std::current_exception());
#elif CASE == 16
  content_type(std::optional<Refused>());
#elif CASE == 17
  RetryPolicy copy = policy;
  copy = policy;
#elif CASE == 18
  send<int>("u", {.timeout = 1, .read = read});
#endif
}
