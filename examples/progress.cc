// SPDX-License-Identifier: Apache-2.0
// Progress shown while a long reply arrives, by a transport around another one, so that the call is
// still a `get_json` with all its bounds.
#include <charconv>
#include <functional>
#include <iostream>
#include <memory>
#include <string>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

namespace {

/// Called after each read with the bytes so far, and those announced (0: unknown).
using Progress = std::function<void(std::size_t so_far, std::size_t announced)>;

/// A reply that forwards everything to another one and counts the bytes.
class WatchedReply final : public Response {
 public:
  WatchedReply(std::shared_ptr<Response> inner, Progress progress)
      : inner_(std::move(inner)), progress_(std::move(progress)) {
    const std::string length =
        inner_->headers() ? inner_->headers()->get("Content-Length").value_or("") : "";
    std::from_chars(length.data(), length.data() + length.size(), announced_);
  }

  std::optional<StatusCode> status() const override { return inner_->status(); }
  const Headers* headers() const override { return inner_->headers(); }

 private:
  std::string counted(std::string piece) {
    so_far_ += piece.size();
    progress_(so_far_, announced_);
    return piece;
  }
  std::string do_read(std::size_t amt) override { return counted(inner_->read(amt)); }
  std::string do_read1(std::size_t amt) override { return counted(inner_->read1(amt)); }
  void do_close() override { inner_->close(); }

  std::shared_ptr<Response> inner_;
  Progress progress_;
  std::size_t so_far_ = 0;
  std::size_t announced_ = 0;
};

/// The transport, with its replies watched, except error replies, which are thrown.
Transport watched(const Transport& transport, const Progress& progress) {
  return [=](const Request& request, TransportOptions options) {
    return std::make_shared<WatchedReply>(transport(request, options), progress);
  };
}

}  // namespace

int main() {
  const examples::LoopbackServer server;
  std::size_t shown = 0;
  const auto show = [&shown](std::size_t so_far, std::size_t announced) {
    const std::size_t percent = announced ? so_far * 100 / announced : 0;
    if (percent / 20 > shown / 20) std::cout << percent << " % of " << announced << " bytes\n";
    shown = percent;
  };
  try {
    const Json report =
        get_json(server.url("/long"), {.policy = {.max_body_bytes = 8'000'000},
                                       .label = "report",
                                       // With gzip, the length would be that of the coded body.
                                       .headers = {{"Accept-Encoding", "identity"}},
                                       .transport = watched(urlopen_transport, show)});
    std::cout << report.at("pages").size() << " pages\n";
    return shown == 100 ? 0 : 1;
  } catch (const HttpFailure& failure) {
    std::cout << failure.what() << '\n';
    return 1;
  }
}
