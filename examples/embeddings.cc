// SPDX-License-Identifier: Apache-2.0
// Embeddings of many texts from several threads over one pooled transport, which keeps their
// connections. The service is sometimes busy. A batch whose call fails stops all threads.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <iostream>
#include <map>
#include <span>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

namespace {

constexpr std::size_t THREADS = 4;
constexpr std::size_t BATCH = 8;
using Vector = std::vector<float>;

class Embedder {
 public:
  Embedder(std::string url, const RetryPolicy& policy, Transport transport)
      : url_(std::move(url)), policy_(policy), transport_(std::move(transport)) {}

  /// One vector for each text, in the order of the texts.
  std::vector<Vector> embed(std::span<const std::string> texts) const {
    const std::map<std::string, std::span<const std::string>> body{{"input", texts}};
    const Json reply =
        post_json(url_, body, {.policy = policy_, .label = "embed", .transport = transport_});
    try {
      std::vector<Vector> vectors(texts.size());
      for (const Json& item : reply.at("data")) {
        item.at("embedding").get_to(vectors.at(item.at("index").get<std::size_t>()));
      }
      return vectors;
    } catch (const std::exception& error) {  // of Json or vector, for a reply of another shape
      throw BadReply(std::string("embed: ") + error.what());
    }
  }

 private:
  std::string url_;
  RetryPolicy policy_;
  Transport transport_;
};

}  // namespace

int main() {
  const examples::LoopbackServer server;
  std::vector<std::string> texts(100);
  std::ranges::generate(texts, [i = 0]() mutable { return "text " + std::to_string(i++); });
  std::vector<Vector> vectors(texts.size());

  std::stop_source stop;  // ends backoffs and waits for the network early
  const PooledTransport pool({.max_idle = THREADS});
  const Embedder embedder(server.url("/embeddings"),
                          {.backoff_s = 0.05, .should_stop = stop.get_token()}, pool);
  FailurePtr failure;
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    for (std::size_t begin; (begin = next.fetch_add(BATCH)) < texts.size();) {
      const std::size_t count = std::min(BATCH, texts.size() - begin);
      try {
        std::ranges::move(embedder.embed(std::span(texts).subspan(begin, count)),
                          vectors.begin() + static_cast<std::ptrdiff_t>(begin));
      } catch (const HttpFailure& failed) {
        if (stop.request_stop()) failure = failed;  // true only for the first thread
        return;
      }
    }
  };
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < THREADS; ++i) threads.emplace_back(work);
  }  // joined here

  if (failure) {
    std::cerr << failure->what() << '\n';
    return 1;
  }
  std::cout << vectors.size() << " vectors over " << server.connections() << " connections\n";
  const bool whole = std::ranges::all_of(vectors, [](const Vector& v) { return v.size() == 256; });
  return whole && server.connections() <= THREADS ? 0 : 1;
}
