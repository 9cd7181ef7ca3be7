// A chat reply streamed as server-sent events, read line by line as they arrive. The stream breaks
// off once; the attempt that follows starts it anew.
#include <iostream>
#include <string>
#include <string_view>

#include "engines/http/http.h"
#include "examples/loopback_server.h"

using namespace engines::http;

namespace {

std::string read_words(Response& reply) {
  constexpr std::string_view DATA = "data: ";
  std::string words;
  for (const std::string& line : reply) {
    if (!line.starts_with(DATA)) continue;
    const auto event = decode_json(std::string_view(line).substr(DATA.size()));
    if (!event) throw BadReply("an event of the stream is not JSON");
    words += event->value("word", "") + ' ';
    std::cout << "so far: " << words << '\n';
  }
  return words;
}

}  // namespace

int main() {
  const examples::LoopbackServer server;
  const RetryPolicy policy{.backoff_s = 0.05};
  const auto attempt = [&](double timeout) {
    return send<std::string>(
        server.url("/stream"),
        {.policy = policy, .timeout = timeout, .read = read_words, .body = Json{{"stream", true}}});
  };
  const std::string words = retry(policy, attempt, {.label = "chat stream"});
  return words == "Well begun is done " ? 0 : 1;
}
