// SPDX-License-Identifier: Apache-2.0
// A reply that is read while it arrives, within a policy's bounds: line by line, or as server-sent
// events.
//
//   for (const Event& event : events(reply, policy)) {
//     if (event.data == "[DONE]") break;
//     show(decode_json(event.data));
//   }
//
// Both are single-pass ranges (`std::ranges::input_range`). What has arrived is handed out without
// waiting for more. Before every read they check the policy's stop signal and deadline, also within
// a line that never ends. They throw
//
//   Stopped            the stop signal returned true
//   DeadlineExceeded   the deadline has come
//   BadReply           more than `max_body_bytes` have arrived in all
//
// and let a failure of the reply's own reads through.
//
// The reply must outlive the range; the policy is copied. A loop may be left at any time; then the
// rest of the reply is read only through the same range, which may have read ahead. So a range can
// be moved, but not copied. One reply and its ranges are for one thread at a time.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <ranges>
#include <string>

#include "engines/http/export.h"
#include "engines/http/policy.h"
#include "engines/http/transport.h"

namespace engines::http {

/// The lines of a reply; made by `lines`. Iterating a reply itself checks no policy.
class ENGINES_HTTP_EXPORT Lines : public std::ranges::view_base {
 public:
  /// As the standard asks of an input range. A reference to a line holds until the next one is
  /// read.
  /// @{
  using value_type = std::string;
  detail::Fetched<Lines> begin() { return detail::Fetched(*this); }
  std::default_sentinel_t end() const noexcept { return {}; }
  /// @}

 private:
  friend class detail::Fetched<Lines>;
  friend class Events;
  friend Lines lines(Response& reply, const RetryPolicy& policy);

  Lines(Response& reply, const RetryPolicy& policy, bool cr_ends_lines)
      : reply_(&reply),
        policy_(std::make_unique<const RetryPolicy>(policy)),
        cr_ends_lines_(cr_ends_lines) {}

  bool fetch(std::string& line);
  bool read_more();
  bool ends_line(char byte) const noexcept;

  Response* reply_;
  std::unique_ptr<const RetryPolicy> policy_;
  bool cr_ends_lines_;
  std::string ahead_;  // read, and not handed out from `ahead_begin_` on
  std::size_t ahead_begin_ = 0;
  std::size_t read_bytes_ = 0;  // of the body so far
  bool after_cr_ = false;       // a line feed that comes next belongs to the end of the last line
};

/// The lines of the reply as raw bytes, without their ends (LF or CR LF). A last line without an
/// end is included unless it is empty.
ENGINES_HTTP_EXPORT Lines lines(Response& reply, const RetryPolicy& policy);

/// A server-sent event. Its texts are UTF-8; what is not UTF-8 in the stream is U+FFFD in them.
struct ENGINES_HTTP_EXPORT Event {
  /// The `event` field: the kind of event.
  std::string event = "message";
  /// The `data` fields, joined by line feeds.
  std::string data = {};
  /// The last `id` field up to here, of this event or an earlier one; empty where there was none.
  /// One of more than 4,096 bytes is ignored: every later event would have a copy of it.
  std::string id = {};
};

/// The events of a reply; made by `events`.
class ENGINES_HTTP_EXPORT Events : public std::ranges::view_base {
 public:
  /// As the standard asks of an input range. A reference to an event holds until the next is read.
  /// @{
  using value_type = Event;
  detail::Fetched<Events> begin() { return detail::Fetched(*this); }
  std::default_sentinel_t end() const noexcept { return {}; }
  /// @}

 private:
  friend class detail::Fetched<Events>;
  friend Events events(Response& reply, const RetryPolicy& policy);

  Events(Response& reply, const RetryPolicy& policy) : lines_(reply, policy, true) {}

  bool fetch(Event& event);

  Lines lines_;
  std::string line_;
  std::string last_id_;
  bool at_start_ = true;
};

/// The reply as a stream of server-sent events (HTML standard, section 9.2, "Server-sent events").
/// Lines end in LF, CR LF or CR; comments and unknown fields are ignored, `retry` among them; an
/// event without data and one that is cut off by the end of the body are dropped.
ENGINES_HTTP_EXPORT Events events(Response& reply, const RetryPolicy& policy);

}  // namespace engines::http
