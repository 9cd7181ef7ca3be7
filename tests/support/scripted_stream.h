// SPDX-License-Identifier: Apache-2.0
// A stream that plays a script: the bytes of a peer, in pieces, and how it ends.
#pragma once

#include <algorithm>
#include <thread>

#include "engines/http/net/stream.h"

namespace engines::http::test {

/// A peer whose bytes come in pieces of a given size, each after a wait; then it "ends", "cuts",
/// "resets" or "stalls".
class ScriptedStream final : public net::Stream {
 public:
  ScriptedStream(std::string bytes, std::string then, std::size_t piece)
      : bytes_(std::move(bytes)), then_(std::move(then)), piece_(piece) {}

  net::IoResult send(std::string_view bytes) override {
    if (!takes) return {net::Io::blocked};
    sent += bytes;
    return {net::Io::moved, bytes.size()};
  }
  net::IoResult receive(char* to, std::size_t room) override {
    if (received_ < arrived_) {
      const std::size_t size = bytes_.copy(to, std::min(room, arrived_ - received_), received_);
      received_ += size;
      return {net::Io::moved, size};
    }
    if (arrived_ < bytes_.size() || then_ == "stalls") return {net::Io::blocked};
    if (then_ == "cuts") return {net::Io::cut};
    return {then_ == "resets" ? net::Io::broken : net::Io::ended};
  }
  void wait(bool, net::Duration at_most) override {
    if (arrived_ == bytes_.size()) std::this_thread::sleep_for(at_most);
    arrived_ += std::min(bytes_.size() - arrived_, piece_);
  }
  std::string reason() const override {
    return then_ == "resets" ? " (Connection reset by peer): quote" : ": quote";
  }

  std::string sent;
  bool takes = true;  // whether it takes what is sent

 private:
  std::string bytes_;
  std::string then_;
  std::size_t piece_;
  std::size_t arrived_ = 0;
  std::size_t received_ = 0;
};

}  // namespace engines::http::test
