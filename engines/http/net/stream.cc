// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/stream.h"

#include <system_error>

namespace engines::http::net {

std::string described(std::string_view situation, const StreamError& error) {
  std::string text(situation);
  if (error.os_error != 0) text += " (" + std::generic_category().message(error.os_error) + ")";
  // The quote comes last: a library below may have cut it inside a secret, and only at the end of a
  // text is the start of one looked for.
  if (!error.text.empty()) text += ": " + error.text;
  return text;
}

}  // namespace engines::http::net
