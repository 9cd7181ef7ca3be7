// SPDX-License-Identifier: Apache-2.0
#include "bench/documents.h"

#include <array>
#include <random>
#include <string_view>

namespace bench {

using engines::http::encode_json;
using engines::http::Json;

namespace {

constexpr unsigned SEED = 20261122;

std::string sentence(std::mt19937& random) {
  constexpr std::array<std::string_view, 16> WORDS = {
      "the",  "model", "answers", "\"quoted\"", "within", "a",     "deadline", "caf\u00e9",
      "line", "break", "follows", "\n",         "and",    "token", "budget",   "\u4f60\u597d"};
  std::string text;
  for (int i = 0; i < 24; ++i) {
    text += WORDS[random() % 100 < 4 ? random() % WORDS.size() : random() % 3];
    text += ' ';
  }
  return text += "ends.";
}

}  // namespace

Json chat_request() {
  std::mt19937 random(SEED);
  Json request{
      {"model", "m-large-2"}, {"temperature", 0.7}, {"max_tokens", 512}, {"stream", false}};
  Json& messages = request["messages"] = Json::array();
  for (const char* role : {"system", "user", "assistant", "user"}) {
    messages.push_back({{"role", role}, {"content", sentence(random)}});
  }
  request["response_format"] = {
      {"type", "json_schema"},
      {"schema", {{"type", "object"}, {"required", {"answer", "confidence"}}}}};
  return request;
}

std::string small_json() {
  std::mt19937 random(SEED + 1);
  std::string text = sentence(random);
  while (text.size() < 600) text += sentence(random);
  return encode_json(
      Json{{"id", "reply-1"},
           {"created", 1763800000},
           {"choices", {{{"index", 0}, {"message", {{"role", "assistant"}, {"content", text}}}}}},
           {"usage", {{"prompt_tokens", 211}, {"completion_tokens", 37}, {"cost", 0.00125}}}});
}

std::string chat_json(std::size_t bytes) {
  std::mt19937 random(SEED + 2);
  Json messages = Json::array();
  for (std::size_t size = 0; size < bytes;) {
    std::string text;
    for (unsigned i = 0; i < 1 + random() % 6; ++i) text += sentence(random);
    size += text.size() + 40;
    messages.push_back({{"role", "assistant"}, {"content", std::move(text)}});
  }
  return encode_json(Json{{"messages", std::move(messages)}});
}

std::string embeddings_json(std::size_t bytes) {
  constexpr std::size_t LENGTH = 1536;
  std::string text = R"({"object": "list", "data": [)";
  const std::vector<float> pool = numbers(LENGTH * 512);
  for (std::size_t i = 0;; ++i) {
    const std::vector<double> vector(
        pool.begin() + static_cast<std::ptrdiff_t>(i % 512 * LENGTH),
        pool.begin() + static_cast<std::ptrdiff_t>(i % 512 * LENGTH + LENGTH));
    const std::string item = R"({"object": "embedding", "index": )" + std::to_string(i) +
                             R"(, "embedding": )" + encode_json(vector) + "}";
    if (text.size() + item.size() + 64 > bytes) break;
    text += (i == 0 ? "" : ", ") + item;
  }
  return text += R"(], "model": "e-small-1"})";
}

std::vector<float> numbers(std::size_t count) {
  std::mt19937 random(SEED + 3);
  std::normal_distribution<float> normal(0, 0.03F);
  std::vector<float> made(count);
  for (float& number : made) number = normal(random);
  return made;
}

}  // namespace bench
