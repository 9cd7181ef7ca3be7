// SPDX-License-Identifier: Apache-2.0
// A call that must compile, or must not: see compile_fail.txt.
#include "engines/http/attempt.h"
#include "engines/http/classification.h"
#include "engines/http/requests.h"
#include "engines/http/retry.h"
#include "engines/http/testing.h"

using namespace engines::http;

void call(const RetryPolicy& policy) {
  [[maybe_unused]] const auto attempt = [](double) { return 1; };
  [[maybe_unused]] const auto read = [](Response&) { return 1; };
  CALL;
}
