#include "examples/loopback_server.h"

#include <httplib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
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
  std::atomic<int> streams = 0;
  std::atomic<int> polls = 0;
  std::mutex mutex;
  std::set<int> client_ports;
  std::thread thread;

  void answer(const httplib::Request& request, httplib::Response& response) {
    response.set_content(
        R"({"answer": 42, "you_sent": )" + (request.body.empty() ? "null" : request.body) + "}",
        JSON);
  }

  /// Busy twice, then an answer.
  void be_busy(const httplib::Request& request, httplib::Response& response) {
    if (++busy % 3 == 0) return answer(request, response);
    response.status = 503;
    response.set_content(R"({"error": "come back later"})", JSON);
  }

  /// What a proxy says in the service's place.
  void block(const httplib::Request&, httplib::Response& response) {
    response.set_content("<!DOCTYPE html><html><body>Blocked by policy</body></html>", "text/html");
  }

  /// A byte now and then, for ten seconds or until nobody listens.
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

  /// Quotes the credential that it refuses, as careless servers do.
  void deny(const httplib::Request& request, httplib::Response& response) {
    response.status = 401;
    response.set_content(R"({"error": "bad credential", "headers": {"Authorization": ")" +
                             request.get_header_value("Authorization") + "\"}}",
                         JSON);
  }

  /// Server-sent events; every other stream breaks off in the middle.
  void stream(const httplib::Request&, httplib::Response& response) {
    const bool breaks_off = ++streams % 2 == 1;
    response.set_chunked_content_provider(
        "text/event-stream", [breaks_off](std::size_t, httplib::DataSink& sink) {
          constexpr std::array<const char*, 4> WORDS = {"Well", "begun", "is", "done"};
          for (std::size_t i = 0; i < WORDS.size(); ++i) {
            if (breaks_off && i == 2) return false;
            const std::string event = std::string(R"(data: {"word": ")") + WORDS[i] + "\"}\n\n";
            if (!sink.write(event.data(), event.size())) return false;
            pause(20);
          }
          sink.done();
          return true;
        });
  }

  void embed(const httplib::Request& request, httplib::Response& response) {
    {
      const std::lock_guard lock(mutex);
      client_ports.insert(request.remote_port);
    }
    std::string numbers = "0.5";
    for (int i = 1; i < 256; ++i) numbers += ", 0.0" + std::to_string(i);
    response.set_content(R"({"data": [{"embedding": [)" + numbers + "]}]}", JSON);
  }

  /// Not approved yet, twice; then a token.
  void grant(const httplib::Request&, httplib::Response& response) {
    const bool approved = ++polls % 3 == 0;
    response.status = approved ? 200 : 400;
    response.set_content(
        approved ? R"({"access_token": "t-1"})" : R"({"error": "authorization_pending"})", JSON);
  }

  void send_long(const httplib::Request&, httplib::Response& response) {
    response.set_content(std::string(5'000'000, ' '), JSON);
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
  serve("/blocked", &Impl::block);
  serve("/trickle", &Impl::trickle);
  serve("/down", &Impl::be_down);
  serve("/denied", &Impl::deny);
  serve("/stream", &Impl::stream);
  serve("/embeddings", &Impl::embed);
  serve("/token", &Impl::grant);
  serve("/long", &Impl::send_long);

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
