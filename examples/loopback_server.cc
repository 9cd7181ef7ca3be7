// SPDX-License-Identifier: Apache-2.0
#include "examples/loopback_server.h"

#include <httplib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <thread>

namespace examples {
namespace {

constexpr const char* JSON = "application/json";

void pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace

struct LoopbackServer::Impl {
  httplib::Server server;
  int port = 0;
  std::atomic<int> busy = 0;
  std::atomic<int> chats = 0;
  std::atomic<int> streams = 0;
  std::atomic<int> polls = 0;
  std::mutex mutex;
  std::set<int> client_ports;
  std::set<std::string> batches;  // by their first text
  std::thread thread;

  void answer(const httplib::Request& request, httplib::Response& response) {
    response.set_content(
        R"({"answer": 42, "you_sent": )" + (request.body.empty() ? "null" : request.body) + "}",
        JSON);
  }

  /// Answers with 503 if the service is busy; returns whether it is.
  static bool put_off(bool is_busy, httplib::Response& response) {
    if (!is_busy) return false;
    response.status = 503;
    response.set_content(R"({"error": "come back later"})", JSON);
    return true;
  }

  /// Busy twice, then an answer.
  void be_busy(const httplib::Request& request, httplib::Response& response) {
    if (!put_off(++busy % 3 != 0, response)) answer(request, response);
  }

  /// Busy twice, then a message.
  void chat(const httplib::Request&, httplib::Response& response) {
    if (put_off(++chats % 3 != 0, response)) return;
    response.set_content(R"({"message": {"role": "assistant", "content": "Fifty-four."}})", JSON);
  }

  /// A proxy's page in place of the service's reply.
  void block(const httplib::Request&, httplib::Response& response) {
    response.set_content("<!DOCTYPE html><html><body>Blocked by policy</body></html>", "text/html");
  }

  /// A byte every 50 ms, for ten seconds or until the client is gone.
  void trickle(const httplib::Request&, httplib::Response& response) {
    response.set_chunked_content_provider(JSON, [](std::size_t offset, httplib::DataSink& sink) {
      pause(50);
      if (offset == 200) {
        sink.done();
        return true;
      }
      return sink.write(" ", 1);
    });
  }

  void be_down(const httplib::Request&, httplib::Response& response) { response.status = 502; }

  /// Echoes the credential that it refuses.
  void deny(const httplib::Request& request, httplib::Response& response) {
    response.status = 401;
    response.set_content(R"({"error": "bad credential", "headers": {"Authorization": ")" +
                             request.get_header_value("Authorization") + "\"}}",
                         JSON);
  }

  /// Server-sent events; every other stream breaks off in the middle of one.
  void stream(const httplib::Request&, httplib::Response& response) {
    const bool breaks_off = ++streams % 2 == 1;
    response.set_chunked_content_provider(
        "text/event-stream", [breaks_off](std::size_t, httplib::DataSink& sink) {
          const auto send = [&sink](const std::string& text) {
            pause(20);
            return sink.write(text.data(), text.size());
          };
          send(": a comment, to keep the connection alive\n\n");
          for (const std::string word : {"Well", "begun", "is", "done"}) {
            std::string event = R"(data: {"word": ")" + word + "\"}\n\n";
            const bool breaks_here = breaks_off && word == "is";
            if (breaks_here) event.resize(event.size() / 2);
            if (!send(event) || breaks_here) return false;
          }
          send("event: done\ndata: {\"words\":\ndata: 4}\n\n");
          sink.done();
          return true;
        });
  }

  /// A vector of 256 numbers for each text, in reverse order; busy for the first request of each
  /// batch whose first text ends with 0.
  void embed(const httplib::Request& request, httplib::Response& response) {
    const nlohmann::json texts = nlohmann::json::parse(request.body).at("input");
    const std::string first = texts.at(0);
    {
      const std::lock_guard lock(mutex);
      client_ports.insert(request.remote_port);
      if (put_off(first.ends_with('0') && batches.insert(first).second, response)) return;
    }
    nlohmann::json data;
    for (std::size_t i = texts.size(); i-- > 0;) {
      data.push_back({{"index", i}, {"embedding", std::vector<double>(256, 0.125)}});
    }
    response.set_content(nlohmann::json{{"data", data}}.dump(), JSON);
  }

  /// Whether the request is a form with these values; otherwise answers as in RFC 6749.
  static bool is_form(const httplib::Request& request, httplib::Response& response,
                      const std::map<std::string, std::string>& fields) {
    const bool all = std::ranges::all_of(fields, [&](const auto& field) {
      return request.get_param_value(field.first) == field.second;
    });
    if (all && request.get_header_value("Content-Type") == "application/x-www-form-urlencoded") {
      return true;
    }
    response.status = 400;
    response.set_content(R"({"error": "invalid_request"})", JSON);
    return false;
  }

  void start_device(const httplib::Request& request, httplib::Response& response) {
    if (!is_form(request, response, {{"client_id", "app-1"}})) return;
    response.set_content(R"({"device_code": "device-code-1", "user_code": "WDJB-MJHT",
                             "verification_uri": "http://127.0.0.1/approve",
                             "expires_in": 60, "interval": 0.05})",
                         JSON);
  }

  /// Not approved yet, polled too often, then a token.
  void grant(const httplib::Request& request, httplib::Response& response) {
    if (!is_form(request, response,
                 {{"grant_type", "urn:ietf:params:oauth:grant-type:device_code"},
                  {"device_code", "device-code-1"},
                  {"client_id", "app-1"}})) {
      return;
    }
    constexpr std::array<const char*, 3> ANSWERS = {R"({"error": "authorization_pending"})",
                                                    R"({"error": "slow_down"})",
                                                    R"({"access_token": "access-token-1"})"};
    const auto poll = static_cast<std::size_t>(polls++) % ANSWERS.size();
    response.status = poll == 2 ? 200 : 400;
    response.set_content(ANSWERS[poll], JSON);
  }

  void send_long(const httplib::Request&, httplib::Response& response) {
    response.set_content(
        nlohmann::json{{"pages", std::vector(1000, std::string(5000, 'x'))}}.dump(), JSON);
  }

  /// The reply to a request for any host when this server is its proxy.
  void pass_on(const httplib::Request& request, httplib::Response& response) {
    if (request.path.starts_with("http://blocked.")) return block(request, response);
    response.set_content(R"({"models": ["m-1", "m-2"]})", JSON);
  }
};

LoopbackServer::LoopbackServer() : impl_(std::make_unique<Impl>()) {
  using Handler = void (Impl::*)(const httplib::Request&, httplib::Response&);
  const auto serve = [this](const char* path, Handler handler) {
    const auto handle = [impl = impl_.get(), handler](const httplib::Request& request,
                                                      httplib::Response& response) {
      (impl->*handler)(request, response);
    };
    impl_->server.Get(path, handle);
    impl_->server.Post(path, handle);
  };
  serve("/answer", &Impl::answer);
  serve("/busy", &Impl::be_busy);
  serve("/chat", &Impl::chat);
  serve("/blocked", &Impl::block);
  serve("/trickle", &Impl::trickle);
  serve("/down", &Impl::be_down);
  serve("/denied", &Impl::deny);
  serve("/stream", &Impl::stream);
  serve("/embeddings", &Impl::embed);
  serve("/device", &Impl::start_device);
  serve("/token", &Impl::grant);
  serve("/long", &Impl::send_long);
  serve("http://.*", &Impl::pass_on);

  impl_->server.set_keep_alive_max_count(1000);
  impl_->port = impl_->server.bind_to_any_port("127.0.0.1");
  if (impl_->port < 0) throw std::runtime_error("no free loopback port");
  impl_->thread = std::thread([impl = impl_.get()] { impl->server.listen_after_bind(); });
  while (!impl_->server.is_running()) pause(1);
}

LoopbackServer::~LoopbackServer() {
  impl_->server.stop();
  impl_->thread.join();
}

std::size_t LoopbackServer::connections() const {
  const std::lock_guard lock(impl_->mutex);
  return impl_->client_ports.size();
}

std::string LoopbackServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(impl_->port) + path;
}

}  // namespace examples
