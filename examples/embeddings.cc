// Embeddings from several threads over one pooled transport, which keeps their connections.
#include <atomic>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

int main() {
  constexpr std::size_t THREADS = 4;
  constexpr std::size_t CALLS = 8;
  const examples::LoopbackServer server;
  const PooledTransport pool({.max_idle = THREADS});
  const RetryPolicy policy;
  std::atomic<std::size_t> numbers = 0;

  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([&, thread] {
      for (std::size_t call = 0; call < CALLS; ++call) {
        const std::vector<std::string> input{"text " + std::to_string(thread * CALLS + call)};
        try {
          const Json reply = post_json(server.url("/embeddings"), Json{{"input", input}},
                                       {.policy = policy, .label = "embed", .transport = pool});
          numbers += reply["data"][0]["embedding"].size();
        } catch (const HttpFailure& failure) {
          std::cerr << failure.what() << '\n';
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::cout << numbers << " numbers over " << server.connections() << " connections\n";
  return numbers == THREADS * CALLS * 256 && server.connections() <= THREADS ? 0 : 1;
}
