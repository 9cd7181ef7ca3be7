// SPDX-License-Identifier: Apache-2.0
#include "engines/http/curl_transport.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "engines/http/net/exchange.h"
#include "engines/http/net/gzip.h"
#include "engines/http/net/pool.h"
#include "engines/http/net/proxy.h"
#include "engines/http/net/redirect.h"
#include "engines/http/text/unicode.h"

namespace engines::http {
namespace {

/// The most that is read of a coded body at a time.
constexpr std::size_t CODED_BYTES = 65536;
/// The most that is quoted of a coding's name.
constexpr std::size_t MOST_QUOTED = 64;

/// What one call shares between its hops.
struct Call {
  std::shared_ptr<net::Pool> pool;
  net::Limits limits;
};

net::Route route_of(const net::Hop& hop, const PoolOptions& options) {
  net::Route route{.origin = hop.url->origin,
                   .proxy = net::proxy_for(hop.url->origin, options.proxy),
                   .tunnel_authorization = {}};
  if (route.tunnel()) {
    route.tunnel_authorization = hop.headers->get("proxy-authorization").value_or("");
  }
  return route;
}

class Reply final : public Response {
 public:
  /// Sends the hop's request and waits for the final head.
  Reply(std::shared_ptr<Call> call, const net::Hop& hop) : call_(std::move(call)) {
    const PoolOptions& options = call_->pool->options();
    net::Route route = route_of(hop, options);
    call_->limits.origin = hop.url->origin.address();
    call_->limits.check(net::Phase::connecting);
    connection_ = call_->pool->take(route);
    if (!connection_) {
      connection_ = std::make_unique<net::Connection>(std::move(route), options, call_->limits);
    }
    exchange_.emplace(*connection_, call_->limits, options);
    const std::optional<net::Url>& proxy = connection_->route().proxy;
    exchange_->run(net::request_head(hop, proxy ? &*proxy : nullptr, options),
                   hop.body.value_or(""), hop.method == "HEAD");
    if (!hop.headers->get("accept-encoding")) set_up_decoding();
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
    const bool is_reusable = connection_->is_ours() && exchange_->finish();
    if (is_reusable) call_->pool->keep(std::move(connection_));
    connection_.reset();
  }

  std::size_t read(std::string& out, std::size_t amt, bool fill) {
    if (!connection_->is_ours()) throw OSError("the reply belongs to the process that opened it");
    if (!decoder_) return exchange_->read(out, amt, fill);
    const net::Limits& limits = call_->limits;
    limits.check(net::Phase::reading_body);
    read_until_ = net::SteadyClock::now() + limits.longest_wait(net::Phase::reading_body);
    return decoder_->read(out, amt, fill);
  }

  /// A reply in any coding but identity is read through the decoder.
  void set_up_decoding() {
    for (const auto& [name, value] : *headers()) {
      if (value.empty() || !detail::equal_ignoring_case(name, "content-encoding")) continue;
      coding_ += (coding_.empty() ? "" : ", ") + detail::lower(value);
    }
    if (coding_.empty() || coding_ == "identity") return;
    decoder_.emplace([this](std::string& coded) { return receive_coded(coded); });
  }

  /// Appends encoded bytes for the decoder. Throws where there is a body in another coding than
  /// gzip; a reply without a body may name any.
  std::size_t receive_coded(std::string& coded) {
    call_->limits.check(net::Phase::reading_body, read_until_);
    const std::size_t size = exchange_->read(coded, CODED_BYTES, false, read_until_);
    has_coded_body_ = has_coded_body_ || size > 0;
    const bool is_gzip = coding_ == "gzip" || coding_ == "x-gzip";  // RFC 9110, section 8.4.1.3
    if (is_gzip || !has_coded_body_) return size;
    throw HTTPException("the reply has a content coding that was not asked for: " +
                        coding_.substr(0, MOST_QUOTED));
  }

  std::shared_ptr<Call> call_;
  std::unique_ptr<net::Connection> connection_;
  std::optional<net::Exchange> exchange_;
  // Of a coded body:
  std::string coding_;
  bool has_coded_body_ = false;
  std::optional<net::GzipDecoder> decoder_;
  net::TimePoint read_until_;  // of the current read, which may need several of the exchange
};

/// The final reply to the request, redirects followed.
std::shared_ptr<Response> follow(const Request& request, const TransportOptions& options,
                                 const std::shared_ptr<net::Pool>& pool) {
  net::Hop hop = net::first_hop(request);
  const PoolOptions& pool_options = pool->options();
  const auto call = std::make_shared<Call>(
      Call{.pool = pool, .limits = net::Limits(options, pool_options.connect_timeout_s)});
  for (int followed = 0;; ++followed) {
    auto reply = std::make_shared<Reply>(call, hop);
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
