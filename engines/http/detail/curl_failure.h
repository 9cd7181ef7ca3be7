// How an exchange that failed is told: libcurl's result and what was seen before it, sorted into
// the transport failure kinds. Included by .cc files only.
#pragma once

#include <curl/curl.h>

#include <exception>
#include <string>

namespace engines::http::detail {

/// What an exchange had seen when it failed.
struct Evidence {
  CURLcode code = CURLE_OK;
  std::string text;             // libcurl's own
  int os_error = 0;             // errno of the failed operation; 0: none is known
  bool connected = false;       // connected, TLS and proxy included
  bool sent = false;            // the whole request was handed to the system
  bool resend_refused = false;  // libcurl wanted to send the request once more
  bool status_seen = false;     // a status line came in
  bool headers_done = false;    // the final header block ended
};

/// The failure, never null. One from before the request was sent is a `URLError`.
std::exception_ptr failure_of(const Evidence& evidence);

/// The failure of a wait that was longer than the timeout; `while_doing` says at what.
std::exception_ptr timeout_failure(double timeout_s, const std::string& while_doing, bool sent);

}  // namespace engines::http::detail
