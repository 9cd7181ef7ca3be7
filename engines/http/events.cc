// SPDX-License-Identifier: Apache-2.0
#include "engines/http/events.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "engines/http/reply.h"
#include "engines/http/text/utf8.h"

namespace engines::http {

// ---- Lines --------------------------------------------------------------------------------------

Lines lines(Response& reply, const RetryPolicy& policy) { return {reply, policy, false}; }

bool Lines::ends_line(char byte) const noexcept {
  return byte == '\n' || (byte == '\r' && cr_ends_lines_);
}

/// Appends what has arrived to `ahead_`; false at the end of the body.
bool Lines::read_more() {
  if (policy_->should_stop()) {
    throw Stopped("the reply was still arriving when the call was asked to stop");
  }
  _check_deadline(*policy_, "the reply was still arriving at the deadline");
  ahead_.erase(0, std::exchange(ahead_begin_, 0));
  const std::size_t arrived = reply_->append1(ahead_, detail::CHUNK_BYTES);
  read_bytes_ += arrived;
  detail::check_size(read_bytes_, *policy_, *reply_);
  return arrived > 0;
}

bool Lines::fetch(std::string& line) {
  std::size_t searched = ahead_begin_;
  while (true) {
    if (after_cr_ && searched < ahead_.size()) {
      if (ahead_[searched] == '\n') searched = ++ahead_begin_;
      after_cr_ = false;
    }
    const auto begin = ahead_.begin() + static_cast<std::ptrdiff_t>(searched);
    const auto end = std::find_if(begin, ahead_.end(), [this](char c) { return ends_line(c); });
    searched += static_cast<std::size_t>(end - begin);
    if (searched < ahead_.size()) break;
    searched -= ahead_begin_;  // relative to `ahead_begin_`, which becomes 0
    if (!read_more()) {        // the body has ended: what is left is the last line
      line = std::exchange(ahead_, {});
      return !line.empty();
    }
  }
  line.assign(ahead_, ahead_begin_, searched - ahead_begin_);
  after_cr_ = ahead_[searched] == '\r';
  ahead_begin_ = searched + 1;
  if (!cr_ends_lines_ && line.ends_with('\r')) line.pop_back();
  return true;
}

// ---- Events -------------------------------------------------------------------------------------

Events events(Response& reply, const RetryPolicy& policy) { return {reply, policy}; }

bool Events::fetch(Event& event) {
  constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
  std::string kind;
  std::string data;
  while (lines_.fetch(line_)) {
    std::string_view line = line_;
    if (std::exchange(at_start_, false) && line.starts_with(BYTE_ORDER_MARK)) {
      line.remove_prefix(BYTE_ORDER_MARK.size());
    }
    if (line.empty()) {  // the end of an event
      if (data.empty()) {
        kind.clear();
        continue;
      }
      data.pop_back();  // the last line feed
      event.event = kind.empty() ? "message" : detail::replace_ill_formed(std::move(kind));
      event.data = detail::replace_ill_formed(std::move(data));
      event.id = last_id_;
      return true;
    }
    const std::string_view field = line.substr(0, line.find(':'));
    std::string_view value = line.substr(std::min(field.size() + 1, line.size()));
    if (value.starts_with(' ')) value.remove_prefix(1);
    if (field == "data") data.append(value) += '\n';
    if (field == "event") kind = value;
    if (field == "id" && value.find('\0') == std::string_view::npos) {
      last_id_ = detail::replace_ill_formed(std::string(value));
    }
  }
  return false;
}

}  // namespace engines::http
