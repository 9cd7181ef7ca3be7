// A real HTTP server on a free loopback port, for the examples: a service that answers, is busy,
// is blocked by a proxy, trickles, echoes credentials, streams.
#pragma once

#include <memory>
#include <string>

namespace examples {

class LoopbackServer {
 public:
  LoopbackServer();
  ~LoopbackServer();

  /// The URL of one of its paths: /answer, /busy, /blocked, /trickle, /down, /denied, /stream.
  std::string url(const std::string& path) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace examples
