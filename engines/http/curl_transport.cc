// SPDX-License-Identifier: Apache-2.0
#include "engines/http/curl_transport.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "engines/http/net/exchange.h"
#include "engines/http/net/pool.h"
#include "engines/http/net/proxy.h"
#include "engines/http/net/redirect.h"
#include "engines/http/text/unicode.h"

namespace engines::http {
namespace {

net::Route route_of(const net::Hop& hop, const PoolOptions& options) {
  const net::Origin& origin = hop.url.origin;
  net::Route route{origin, net::proxy_for(origin, options.proxy), {}};
  if (route.proxy) {
    route.proxy_authorization = hop.headers.get("proxy-authorization");
  }
  return route;
}

/// Whether `Connection` says "close", alone or in a list (RFC 9112, section 9.6).
bool asks_to_close(const Headers& headers) {
  const std::string options = detail::lower(headers.get("connection").value_or(""));
  return options.find("close") != std::string::npos;
}

class Reply final : public Response {
 public:
  /// Sends the hop's request and waits for the final head.
  Reply(std::shared_ptr<net::Pool> pool, std::shared_ptr<net::Limits> limits, const net::Hop& hop)
      : pool_(std::move(pool)),
        limits_(std::move(limits)),
        may_keep_(pool_->options().max_idle > 0 && !asks_to_close(hop.headers)) {
    const PoolOptions& options = pool_->options();
    net::Route route = route_of(hop, options);
    limits_->origin = hop.url.origin.address();
    limits_->begin(net::Phase::connecting);
    limits_->check();  // also where no connection has to be made
    connection_ = pool_->take(route);
    if (!connection_) {
      connection_ = std::make_unique<net::Connection>(std::move(route), options, *limits_);
    }
    limits_->end();
    exchange_.emplace(*connection_, *limits_, options);
    exchange_->run(net::request_head(hop, connection_->route(), options), hop.body.value_or(""),
                   hop.method == "HEAD");
    if (!hop.headers.get("accept-encoding")) exchange_->decode_content();
  }
  ~Reply() override { do_close(); }

  std::optional<StatusCode> status() const override { return exchange_->status(); }
  const Headers* headers() const override { return &exchange_->headers(); }

 private:
  std::string do_read(std::size_t amt) override {
    std::string piece;
    read(piece, amt, true);
    return piece;
  }
  std::size_t do_append1(std::string& body, std::size_t amt) override {
    return read(body, amt, false);
  }
  void do_close() override {
    if (!connection_) return;
    const bool is_reusable = may_keep_ && connection_->is_ours() && exchange_->finish();
    if (is_reusable) pool_->keep(std::move(connection_));
    connection_.reset();
  }

  std::size_t read(std::string& out, std::size_t amt, bool fill) {
    if (!connection_->is_ours()) throw OSError("the reply belongs to the process that opened it");
    return exchange_->read(out, amt, fill);
  }

  std::shared_ptr<net::Pool> pool_;
  std::shared_ptr<net::Limits> limits_;  // of the call, shared with the replies before it
  const bool may_keep_;                  // the connection, once the body has ended
  std::unique_ptr<net::Connection> connection_;
  std::optional<net::Exchange> exchange_;
};

/// The final reply to the request, redirects followed.
std::shared_ptr<Response> follow(const Request& request, const TransportOptions& options,
                                 const std::shared_ptr<net::Pool>& pool) {
  net::Hop hop = net::first_hop(request);
  const PoolOptions& pool_options = pool->options();
  const auto limits = std::make_shared<net::Limits>(options, pool_options.connect_timeout_s);
  for (int followed = 0;; ++followed) {
    auto reply = std::make_shared<Reply>(pool, limits, hop);
    const StatusCode status = *reply->status();
    if (status >= 200 && status < 300) return reply;
    std::optional<net::Hop> next;
    if (followed < pool_options.max_redirects) {
      next = net::next_hop(hop, status, reply->headers()->get("location"));
    }
    if (!next) throw HTTPError(status, *reply->headers(), reply);
    hop = *std::move(next);  // the reply to the last one is closed here
  }
}

PoolOptions checked(PoolOptions options) {
  net::check_certificates(options);
  if (options.proxy) net::proxy_for({}, options.proxy);
  if (std::ranges::any_of(options.user_agent, net::is_forbidden_in_value)) {
    throw std::invalid_argument("PoolOptions::user_agent holds a control character");
  }
  return options;
}

}  // namespace

std::shared_ptr<Response> urlopen_transport(const Request& request, TransportOptions options) {
  // Keeps nothing. Never destroyed: code that runs after `main` may still make calls.
  static const auto& pool = *new auto(std::make_shared<net::Pool>(PoolOptions{.max_idle = 0}));
  return follow(request, options, pool);
}

PooledTransport::PooledTransport(PoolOptions options)
    : pool_(std::make_shared<net::Pool>(checked(std::move(options)))) {}

std::shared_ptr<Response> PooledTransport::operator()(const Request& request,
                                                      TransportOptions options) const {
  return follow(request, options, pool_);
}

}  // namespace engines::http
