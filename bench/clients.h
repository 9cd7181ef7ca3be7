// SPDX-License-Identifier: Apache-2.0
// The same exchange made by this library and by its peers, each as its documentation says.
#pragma once

#include <functional>
#include <string>

#include "engines/http/json.h"

namespace bench {

/// One call, to be made again and again. Throws when it fails.
using Call = std::function<void()>;

/// A body to post as JSON, or a GET where there is none. `ca_file` is trusted over TLS.
struct Exchange {
  std::string url;
  const engines::http::Json* body = nullptr;
  std::string ca_file = {};
};

// Whole calls: encode, send, read, decode.
Call pooled(const Exchange& exchange);
Call fresh(const Exchange& exchange);
Call httplib_nlohmann(const Exchange& exchange);
Call poco(const Exchange& exchange);

// libcurl's transfer alone: the body is encoded already, the reply is appended to a string.
Call curl_reused(const Exchange& exchange);
Call curl_fresh(const Exchange& exchange);

/// The reply's body, read and not decoded.
Call pooled_body(const Exchange& exchange);

}  // namespace bench
