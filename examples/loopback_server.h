// SPDX-License-Identifier: Apache-2.0
// A real HTTP server on a free loopback port, for the examples: a service that answers, is busy, is
// blocked by a proxy, trickles, echoes credentials or streams; and a proxy for any http URL.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace examples {

class LoopbackServer {
 public:
  LoopbackServer();
  ~LoopbackServer();

  /// The URL of one of its paths: /answer, /busy, /chat, /blocked, /trickle, /down, /denied,
  /// /stream, /embeddings, /device, /token, /long.
  std::string url(const std::string& path) const;

  /// How many connections requests for embeddings have used.
  std::size_t connections() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace examples
