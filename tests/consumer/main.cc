// SPDX-License-Identifier: Apache-2.0
// A user's program. Failures cross the library's boundary both ways: those thrown here are judged
// in there, those thrown in there are caught here. Exits with 0 when each was known for what it is.
#include <engines/http/http.h>
#include <engines/http/testing.h>
#include <engines/http/version.h>

#include <cstdio>
#include <map>

using namespace engines::http;

namespace {

int faults = 0;

void expect(bool held, const char* what) {
  if (!held) std::fprintf(stderr, "not so: %s\n", what), ++faults;
}

struct ServiceTimeout {};

}  // namespace

int main() {
  testing::ManualTime time;
  testing::ScriptedTransport transport;
  const RetryPolicy policy = time.policy({.attempts = 2});
  const CallOptions options{.policy = policy, .label = "call", .transport = transport};

  transport.fail(TimeoutError("slow")).reply(R"({"answer": 42})");
  const std::map<std::string, double> body{{"question", 0.5}};
  expect(post_json("http://host/", body, options)["answer"] == 42,
         "the second attempt is answered");
  expect(is_transient(ServiceTimeout()), "a foreign timeout is transient");

  transport.fail(DroppedConnection("gone")).fail(ConnectionError("gone"));
  try {
    get_json("http://host/", options);
    expect(false, "no attempt was answered");
  } catch (const HttpFailure& failure) {  // seen through its base
    expect(dynamic_cast<const Exhausted*>(&failure) != nullptr, "Exhausted by a cast");
  }
  try {
    urlopen_transport(Request("http://127.0.0.1:1/"), {.timeout = 5.0});
    expect(false, "nothing listens");
  } catch (const OSError& error) {  // through a virtual base
    expect(dynamic_cast<const URLError*>(&error) != nullptr, "a refused connection is a URLError");
  }
  static_cast<void>(PooledTransport());
  std::printf("engines_http %d.%d.%d: %d faults\n", ENGINES_HTTP_VERSION_MAJOR,
              ENGINES_HTTP_VERSION_MINOR, ENGINES_HTTP_VERSION_PATCH, faults);
  return faults == 0 ? 0 : 1;
}
