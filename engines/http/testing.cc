// SPDX-License-Identifier: Apache-2.0
#include "engines/http/testing.h"

#include <algorithm>
#include <stdexcept>

namespace engines::http::testing {

ScriptedReply::ScriptedReply(std::vector<Piece> pieces, ReplyScript script)
    : pieces_(std::move(pieces)), script_(std::move(script)) {}

std::string ScriptedReply::take(std::size_t amt) {
  if (failed_) std::rethrow_exception(std::exchange(failed_, nullptr));
  if (left_.empty() && next_ < pieces_.size()) left_ = pieces_[next_++]();
  std::string taken = left_.substr(0, amt);
  left_.erase(0, taken.size());
  return taken;
}

std::string ScriptedReply::do_read(std::size_t amt) {
  reads_.push_back(amt);
  std::string joined;
  try {
    while (joined.size() < amt) {
      const std::string more = take(amt - joined.size());
      if (more.empty()) break;
      joined += more;
    }
  } catch (...) {
    if (joined.empty()) throw;
    failed_ = std::current_exception();
  }
  return joined;
}

std::string ScriptedReply::do_read1(std::size_t amt) {
  if (!script_.has_read1) return do_read(amt);
  reads_.push_back(amt);
  return take(amt);
}

void ScriptedReply::do_close() {
  ++closes_;
  script_.on_close();
}

std::shared_ptr<ScriptedReply> reply_of(std::vector<Piece> pieces, ReplyScript script) {
  return std::make_shared<ScriptedReply>(std::move(pieces), std::move(script));
}

Json Sent::json() const {
  return request.data ? decode_json(*request.data).value_or(nullptr) : nullptr;
}

ScriptedTransport& ScriptedTransport::then(Step step) {
  const std::lock_guard lock(state_->mutex);
  state_->steps.push_back(std::move(step));
  return *this;
}

std::size_t ScriptedTransport::unplayed() const {
  const std::lock_guard lock(state_->mutex);
  return state_->steps.size();
}

ScriptedTransport& ScriptedTransport::reply(std::string_view body, StatusCode status,
                                            Headers headers) {
  return reply(reply_of({body}, {.status = status, .headers = std::move(headers)}));
}

ScriptedTransport& ScriptedTransport::reply(const std::shared_ptr<Response>& reply) {
  if (!reply) throw ValueError("a scripted transport needs a reply");
  return then([reply](const Request&, TransportOptions) {
    const StatusCode status = reply->status().value_or(200);
    if (status >= 200 && status <= 299) return reply;
    throw HTTPError(status, reply->headers() ? *reply->headers() : Headers(), reply);
  });
}

std::shared_ptr<Response> ScriptedTransport::operator()(const Request& request,
                                                        TransportOptions options) const {
  Step step;
  {
    const std::lock_guard lock(state_->mutex);
    state_->sent.push_back({request, options.timeout, options.time_left});
    if (state_->steps.empty()) {
      throw std::logic_error("the transport's script has no step for request " +
                             std::to_string(state_->sent.size()));
    }
    step = std::move(state_->steps.front());
    state_->steps.pop_front();
  }
  return step(request, options);  // without the lock: it may wait, or add steps
}

RetryPolicy ManualTime::policy(const RetryPolicy& base) {
  return base.with({.clock = clock(), .should_stop = should_stop(), .wait = wait()});
}

Clock ManualTime::clock() {
  return [this] { return now_; };
}

StopSignal ManualTime::should_stop() {
  return [this] { return now_ >= stop_at_; };
}

Wait ManualTime::wait() {
  return [this](double seconds, const StopSignal& should_stop) {
    waits_.push_back(seconds);
    advance(std::max(0.0, std::min(seconds, stop_at_ - now_)));
    return should_stop();
  };
}

Piece ManualTime::after(Seconds span, Piece piece) {
  return [this, span, piece = std::move(piece)] {
    advance(span);
    return piece();
  };
}

}  // namespace engines::http::testing
