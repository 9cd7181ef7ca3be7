// A failure told in one line, for tables.
#pragma once

#include <string>

#include "engines/http/classification.h"

namespace engines::http::test {

/// "Kind: message | status | detail", the last two where there are any.
inline std::string told(const HttpFailure& failure) {
  std::string line = ErrorRef(failure).type_name() + ": " + failure.message();
  if (failure.status()) line += " | " + std::to_string(*failure.status());
  if (!failure.detail().empty()) line += " | " + failure.detail();
  return line;
}

}  // namespace engines::http::test
