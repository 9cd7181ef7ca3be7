// SPDX-License-Identifier: Apache-2.0
#include "engines/http/events.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "engines/http/reply.h"
#include "engines/http/text/utf8.h"

namespace engines::http {
namespace {

constexpr std::size_t MAX_ID_BYTES = 4096;

}  // namespace

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
  std::size_t size = 0;  // of the line, as far as it has been searched for its end
  while (true) {
    if (after_cr_ && ahead_begin_ < ahead_.size()) {  // the line has just begun
      if (ahead_[ahead_begin_] == '\n') ++ahead_begin_;
      after_cr_ = false;
    }
    const std::string_view rest = std::string_view(ahead_).substr(ahead_begin_);
    const auto is_end = [this](char c) { return ends_line(c); };
    const auto end = std::find_if(rest.begin() + size, rest.end(), is_end);
    size = static_cast<std::size_t>(end - rest.begin());
    if (end != rest.end()) break;
    if (!read_more()) {  // the body has ended: what is left is the last line
      line = std::exchange(ahead_, {});
      return !line.empty();
    }
  }
  line.assign(ahead_, ahead_begin_, size);
  ahead_begin_ += size + 1;
  after_cr_ = ahead_[ahead_begin_ - 1] == '\r';
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
    if (field == "id" && value.size() <= MAX_ID_BYTES &&
        value.find('\0') == std::string_view::npos) {
      last_id_ = detail::replace_ill_formed(std::string(value));
    }
  }
  return false;
}

}  // namespace engines::http
