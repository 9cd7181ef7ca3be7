// SPDX-License-Identifier: Apache-2.0
#include "bench/clients.h"

#include <Poco/JSON/Parser.h>
#include <Poco/JSON/Stringifier.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/URI.h>
#include <curl/curl.h>
#include <httplib.h>

#include <memory>
#include <sstream>
#include <stdexcept>

#include "engines/http/http.h"

namespace bench {

using namespace engines::http;

namespace {

void require(bool went_well, const char* what) {
  if (!went_well) throw std::runtime_error(std::string(what) + " failed");
}

const RetryPolicy& policy() {
  static const RetryPolicy kept{.attempts = 3};
  return kept;
}

Call call_over(const Transport& transport, const Exchange& exchange) {
  return [=] {
    const CallOptions options{.policy = policy(), .label = "bench", .transport = transport};
    const Json reply = exchange.body ? post_json(exchange.url, *exchange.body, options)
                                     : get_json(exchange.url, options);
    require(reply.is_object(), "our call");
  };
}

std::size_t append(char* data, std::size_t, std::size_t size, void* to) {
  static_cast<std::string*>(to)->append(data, size);
  return size;
}

/// An easy handle, set up for one exchange.
class Easy {
 public:
  explicit Easy(const Exchange& exchange) : easy_(curl_easy_init(), &curl_easy_cleanup) {
    curl_easy_setopt(easy_.get(), CURLOPT_URL, exchange.url.c_str());
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEFUNCTION, &append);
    curl_easy_setopt(easy_.get(), CURLOPT_WRITEDATA, &reply_);
    curl_easy_setopt(easy_.get(), CURLOPT_NOSIGNAL, 1L);
    if (!exchange.ca_file.empty()) {
      curl_easy_setopt(easy_.get(), CURLOPT_CAINFO, exchange.ca_file.c_str());
    }
    if (exchange.body) {
      headers_.reset(curl_slist_append(nullptr, "Content-Type: application/json"));
      curl_easy_setopt(easy_.get(), CURLOPT_HTTPHEADER, headers_.get());
    }
  }

  void perform(const std::string& body) {
    reply_ = {};
    if (headers_) {
      curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
      curl_easy_setopt(easy_.get(), CURLOPT_POSTFIELDS, body.c_str());
    }
    long status = 0;
    require(curl_easy_perform(easy_.get()) == CURLE_OK, "curl_easy_perform");
    curl_easy_getinfo(easy_.get(), CURLINFO_RESPONSE_CODE, &status);
    require(status == 200 && !reply_.empty(), "curl's call");
  }

 private:
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers_{nullptr,
                                                                       &curl_slist_free_all};
  std::string reply_;
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy_;
};

std::string encoded(const Exchange& exchange) {
  return exchange.body ? encode_json(*exchange.body) : std::string();
}

}  // namespace

Call pooled(const Exchange& exchange) {
  return call_over(PooledTransport({.ca_file = exchange.ca_file}), exchange);
}

Call fresh(const Exchange& exchange) { return call_over(nullptr, exchange); }

Call pooled_body(const Exchange& exchange) {
  const PooledTransport pool({.ca_file = exchange.ca_file});
  return [=] {
    const std::string body = send<std::string>(
        exchange.url, {.policy = policy(),
                       .timeout = 30.0,
                       .read = [](Response& reply) { return read_body(reply, policy()); },
                       .method = "GET",
                       .transport = pool});
    require(!body.empty(), "our call");
  };
}

Call curl_reused(const Exchange& exchange) {
  return
      [easy = std::make_shared<Easy>(exchange), body = encoded(exchange)] { easy->perform(body); };
}

Call curl_fresh(const Exchange& exchange) {
  return [exchange, body = encoded(exchange)] { Easy(exchange).perform(body); };
}

Call httplib_nlohmann(const Exchange& exchange) {
  const Poco::URI uri(exchange.url);
  auto client = std::make_shared<httplib::Client>(uri.getHost(), uri.getPort());
  client->set_keep_alive(true);
  client->set_tcp_nodelay(true);
  return [client, path = uri.getPath(), body = exchange.body] {
    const auto reply =
        body ? client->Post(path, body->dump(), "application/json") : client->Get(path);
    require(reply && reply->status == 200, "cpp-httplib's call");
    require(nlohmann::json::parse(reply->body).is_object(), "nlohmann's parser");
  };
}

Call poco(const Exchange& exchange) {
  const Poco::URI uri(exchange.url);
  auto session = std::make_shared<Poco::Net::HTTPClientSession>(uri.getHost(), uri.getPort());
  session->setKeepAlive(true);
  std::shared_ptr<const Poco::Dynamic::Var> body;  // the same document, as Poco's own value
  if (exchange.body) {
    body = std::make_shared<const Poco::Dynamic::Var>(
        Poco::JSON::Parser().parse(encode_json(*exchange.body)));
  }
  return [session, body, path = uri.getPath()] {
    using namespace Poco::Net;
    HTTPRequest request(body ? HTTPRequest::HTTP_POST : HTTPRequest::HTTP_GET, path,
                        HTTPRequest::HTTP_1_1);
    if (body) {
      std::ostringstream text;
      Poco::JSON::Stringifier::stringify(*body, text);
      const std::string encoded = std::move(text).str();
      request.setContentType("application/json");
      request.setContentLength(static_cast<std::streamsize>(encoded.size()));
      session->sendRequest(request) << encoded;
    } else {
      session->sendRequest(request);
    }
    HTTPResponse response;
    std::istream& stream = session->receiveResponse(response);
    require(response.getStatus() == HTTPResponse::HTTP_OK, "Poco's call");
    require(!Poco::JSON::Parser().parse(stream).isEmpty(), "Poco's parser");
  };
}

}  // namespace bench
