// SPDX-License-Identifier: Apache-2.0
// How a call ended, in one line, for tables.
#pragma once

#include "engines/http/classification.h"

namespace engines::http::test {

/// "Kind: message | status | detail", the last two where there are any.
inline std::string described(const std::exception& error) {
  std::string line = ErrorRef(error).type_name() + ": " + error.what();
  const auto* const failure = dynamic_cast<const HttpFailure*>(&error);
  if (failure && failure->status()) line += " | " + std::to_string(*failure->status());
  if (failure && !failure->detail().empty()) line += " | " + failure->detail();
  return line;
}

/// What the call returns, or what it throws, described.
inline std::string outcome(const std::function<std::string()>& call) {
  try {
    return call();
  } catch (const std::exception& error) {
    return described(error);
  }
}

}  // namespace engines::http::test
