// SPDX-License-Identifier: Apache-2.0
// An engine as an application would write one: a class that has the service's URL, its key and the
// form of its JSON, and leaves the rest to the library. chat.cc runs it, engine_test.cc tests it.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "engines/http/http.h"

namespace examples {

namespace http = engines::http;
using http::Json;

struct Message {
  std::string role;
  std::string content;
};

// Converts a Message that is a part of a body.
inline void to_json(Json& json, const Message& message) {
  json = {{"role", message.role}, {"content", message.content}};
}

class ChatEngine {
 public:
  /// The policy and the transport are parameters so that a test can replace them.
  ChatEngine(std::string url, std::string key, const http::RetryPolicy& policy,
             http::Transport transport = nullptr)
      : url_(std::move(url)),
        key_(std::move(key)),
        policy_(policy),
        transport_(std::move(transport)) {}

  /// The service's answer, within 20 s. Throws an `HttpFailure`.
  std::string answer(const std::vector<Message>& messages) const {
    using std::chrono_literals::operator""s;
    const Json reply = http::post_json(url_, Json{{"model", "m-1"}, {"messages", messages}},
                                       {.policy = policy_.within(20s),
                                        .label = "chat call",
                                        .headers = {{"Authorization", "Bearer " + key_}},
                                        .transport = transport_});
    // The library checks that the reply is JSON; its members are checked here.
    const Json::json_pointer content("/message/content");
    if (!reply.contains(content) || !reply[content].is_string()) {
      throw http::BadReply("chat call: the reply holds no message");
    }
    return reply[content];
  }

 private:
  std::string url_;
  std::string key_;
  http::RetryPolicy policy_;
  http::Transport transport_;
};

}  // namespace examples
