#include "engines/http/curl_transport.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "engines/http/detail/curl_exchange.h"
#include "engines/http/detail/curl_failure.h"
#include "engines/http/detail/curl_pool.h"
#include "engines/http/detail/hop.h"

namespace engines::http {
namespace {

class CurlReply final : public Response {
 public:
  CurlReply(std::shared_ptr<detail::Pool> pool, const detail::Hop& hop)
      : pool_(std::move(pool)), exchange_(pool_->acquire(hop.url), hop, pool_->options()) {}
  ~CurlReply() override { do_close(); }

  detail::Exchange& exchange() noexcept { return exchange_; }
  std::optional<StatusCode> status() const override { return exchange_.status(); }
  const Headers* headers() const override { return &exchange_.headers(); }

 private:
  std::string do_read(std::size_t amt) override {
    std::string piece;
    exchange_.read(piece, amt, true);
    return piece;
  }
  std::string do_read1(std::size_t amt) override {
    std::string piece;
    exchange_.read(piece, amt, false);
    return piece;
  }
  std::size_t do_append1(std::string& body, std::size_t amt) override {
    return exchange_.read(body, amt, false);
  }
  void do_close() override { pool_->release(exchange_.finish()); }

  std::shared_ptr<detail::Pool> pool_;
  detail::Exchange exchange_;
};

std::shared_ptr<Response> exchange(const Request& request, double timeout,
                                   const std::shared_ptr<detail::Pool>& pool) {
  detail::Hop hop = detail::first_hop(request, pool->parsed(request.url));
  detail::Patience patience(timeout);
  if (patience.timeout == detail::Clock::duration::zero()) {
    std::rethrow_exception(detail::timeout_failure(timeout, "connecting", false));
  }
  for (int followed = 0;; ++followed) {
    auto reply = std::make_shared<CurlReply>(pool, hop);
    reply->exchange().await_headers(patience);
    const StatusCode status = *reply->status();
    if (status >= 200 && status < 300) return reply;
    if (followed < pool->options().max_redirects) {
      if (auto next = detail::next_hop(hop, status, reply->headers()->get("location"))) {
        hop = std::move(*next);
        continue;
      }
    }
    throw HTTPError(status, *reply->headers(), reply);
  }
}

}  // namespace

std::shared_ptr<Response> urlopen_transport(const Request& request, TransportOptions options) {
  // A pool that keeps nothing. Never destroyed: a reply may outlive the end of `main`.
  static const auto& pool = *new auto(std::make_shared<detail::Pool>(
      PoolOptions{.http_version = HttpVersion::http1_1, .max_idle = 0}));
  return exchange(request, options.timeout, pool);
}

PooledTransport::PooledTransport(PoolOptions options) {
  if (std::ranges::any_of(options.user_agent, detail::is_forbidden_in_value)) {
    throw std::invalid_argument("the pool's user agent holds a control character");
  }
  pool_ = std::make_shared<detail::Pool>(std::move(options));
}

std::shared_ptr<Response> PooledTransport::operator()(const Request& request,
                                                      TransportOptions options) const {
  return exchange(request, options.timeout, pool_);
}

}  // namespace engines::http
