// SPDX-License-Identifier: Apache-2.0
// What a peer answers, in bytes.
#pragma once

#include <string>

namespace engines::http::test {

/// A whole reply: "200 OK" and the like, the body, and further headers.
inline std::string whole(const std::string& status, const std::string& body,
                         const std::string& headers = "") {
  return "HTTP/1.1 " + status + "\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

// A reply that is to be continued.
inline const std::string OK = "HTTP/1.1 200 OK\r\n";

}  // namespace engines::http::test
