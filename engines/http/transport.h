// SPDX-License-Identifier: Apache-2.0
// The seam between the library and the network: a request record, the interface of an open reply,
// the transport (a function from one to the other), and the errors that a transport throws.
//
// A transport only moves bytes and reports what went wrong. Retrying, parsing, redacting and
// judging a status are done above it, so any transport that keeps this contract will do:
//
//   Transport transport = [](const Request& request, TransportOptions options)
//       -> std::shared_ptr<Response> { ... };
//
//  1. It sends the method, the URL, the headers and, when present, the data as the body.
//  2. Each blocking socket operation waits at most `options.timeout` seconds.
//  3. A final status of 200 to 299 is returned as an open reply with its body unread.
//  4. Any other final status is thrown as an `HTTPError`, never returned.
//  5. It never returns null.
//  6. Every error of the network or of the protocol is thrown as one of the kinds below. Whatever
//     else it throws reaches the caller unchanged.
//  7. It may ignore `options.should_stop` and `options.time_left`. The library checks the deadline
//     before each attempt and each read of `read_body`, `read_json`, `lines` and `events`, and the
//     stop signal before each attempt, each backoff and each read of `lines` and `events`. Reads
//     that a caller's reader makes itself are bounded by the transport alone.
#pragma once

#include <concepts>
#include <cstddef>
#include <exception>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engines/http/export.h"
#include "engines/http/failure.h"
#include "engines/http/given_text.h"
#include "engines/http/held.h"
#include "engines/http/seconds.h"
#include "engines/http/stop_signal.h"

namespace engines::http {

/// Header names and values in the order given. It converts from any range of pairs of strings, so
/// that a caller may pass a `std::map`, a vector of pairs or a braced list.
class ENGINES_HTTP_EXPORT Headers {
 public:
  /// A name and its value.
  using Entry = std::pair<std::string, std::string>;

  Headers() = default;
  /// No headers, or these, in this order.
  /// @{
  Headers(std::nullopt_t) noexcept {}
  Headers(std::initializer_list<detail::GivenField> entries) {
    for (const auto& [name, value] : entries) add(name.text, value.text);
  }
  // Explicit, because a braced list must not become a vector.
  explicit Headers(std::vector<Entry>&& entries) noexcept : entries_(std::move(entries)) {}

  template <std::ranges::input_range Range>
  requires(!std::same_as<std::remove_cvref_t<Range>, Headers> &&
           requires(std::ranges::range_reference_t<Range> entry) {
             std::string(entry.first);
             std::string(entry.second);
           }) Headers(Range&& range) {
    for (auto&& [name, value] : range) add(std::string(name), std::string(value));
  }
  /// @}

  /// Appends an entry, whatever is there already.
  void add(std::string name, std::string value);

  /// Gives `name` one value: replaces the first entry of that name, regardless of case, in place
  /// and removes any others; without one, appends the entry.
  void set(std::string name, std::string value);

  /// The value of the first entry of this name, regardless of case (RFC 9110, section 5.1).
  std::optional<std::string> get(std::string_view name) const;

  /// As in a standard container.
  /// @{
  auto begin() const noexcept { return entries_.begin(); }
  auto end() const noexcept { return entries_.end(); }
  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  bool operator==(const Headers&) const = default;
  /// @}

 private:
  std::vector<Entry> entries_;
};

/// The parameters of `Request` other than the URL.
struct ENGINES_HTTP_EXPORT RequestFields {
  /// The body, sent unchanged; none sends no body.
  std::optional<std::string> data = std::nullopt;
  /// Of names that differ only in case, the one given later counts.
  Headers headers = {};
  /// The method, sent unchanged.
  std::string method = "GET";
};

/// One request, as it is handed to a transport. Immutable.
struct ENGINES_HTTP_EXPORT Request {
  /// `to` is the absolute URL.
  explicit Request(std::string to, RequestFields fields = {});

  /// The absolute URL.
  const std::string url;
  /// The body, if any.
  const std::optional<std::string> data;
  /// One value for each name, regardless of case.
  const Headers headers;
  /// The method, sent unchanged.
  const std::string method;
};

namespace detail {

/// What one read of a reply's body asks for, in bytes; for error replies see `ERROR_BODY_BYTES`.
inline constexpr std::size_t CHUNK_BYTES = 65536;

/// Input iterator over what `Source::fetch(item)` gives until it returns false. An item is fetched
/// when the iterator is dereferenced, compared with the end or incremented past it, so that a loop
/// that ends early does not wait for the next item.
template <class Source>
class ENGINES_HTTP_EXPORT Fetched {
 public:
  using value_type = typename Source::value_type;
  using difference_type = std::ptrdiff_t;
  using iterator_concept = std::input_iterator_tag;

  Fetched() = default;
  explicit Fetched(Source& source) : source_(&source) {}

  const value_type& operator*() const { return fetch(), item_; }
  const value_type* operator->() const { return fetch(), &item_; }
  Fetched& operator++() {
    fetch();  // an item that is skipped unread is fetched, too
    fetched_ = false;
    return *this;
  }
  void operator++(int) { ++*this; }
  bool operator==(std::default_sentinel_t) const { return fetch(), source_ == nullptr; }

 private:
  void fetch() const {
    if (!fetched_ && source_ && !source_->fetch(item_)) source_ = nullptr;
    fetched_ = true;
  }

  mutable Source* source_ = nullptr;  // null at the end
  mutable bool fetched_ = false;
  mutable value_type item_;
};

}  // namespace detail

/// A reply as a transport returns it: open, its body unread. Its holder reads it on one thread and
/// closes it once. A transport derives from it and overrides the `do_` functions.
class ENGINES_HTTP_EXPORT Response {
 public:
  virtual ~Response();

  /// Up to `amt` bytes of the body; it may wait until that many have arrived. Empty: the body has
  /// ended. Throws a transport error, or `ValueError` once the reply is closed.
  std::string read(std::size_t amt);

  /// Up to `amt` bytes, waiting only for the first data to arrive; the same as `read` where the
  /// reply does not override `do_read1`. Empty: the body has ended. Throws as `read` does.
  std::string read1(std::size_t amt);

  /// As `read1`, but appends to `body` and returns the number of bytes; 0 at the end of the body.
  /// If it throws, some bytes may have been appended.
  std::size_t append1(std::string& body, std::size_t amt);

  /// Releases the connection. A later read throws `ValueError`.
  void close();

  /// The HTTP status; none where the reply has none.
  virtual std::optional<StatusCode> status() const { return std::nullopt; }

  /// The reply's headers, owned by the reply; null where it has none.
  virtual const Headers* headers() const { return nullptr; }

  /// The body's lines, each with its line end as it came (the last may have none): the reply is a
  /// `std::ranges::input_range` of `std::string`. A line has at most `MAX_LINE_BYTES` bytes; a
  /// longer one throws an `HTTPException`. Iterating reads ahead, but loses nothing: a second loop,
  /// or a read, goes on where the last line ended.
  /// @{
  using value_type = std::string;
  detail::Fetched<Response> begin() { return detail::Fetched(*this); }
  std::default_sentinel_t end() const noexcept { return {}; }
  /// @}

  /// The most bytes of a line.
  static constexpr std::size_t MAX_LINE_BYTES = 16777216;

 protected:
  Response() = default;
  Response(const Response&) = default;
  Response& operator=(const Response&) = default;

 private:
  friend class detail::Fetched<Response>;
  friend class HTTPError;

  // `read1` and `append1` call `do_append1`, which calls `do_read1`, which calls `do_read`, unless
  // they are overridden.
  virtual std::string do_read(std::size_t amt) = 0;
  virtual std::string do_read1(std::size_t amt) { return do_read(amt); }
  /// Override it where `do_read1` would have to copy the bytes into a string.
  virtual std::size_t do_append1(std::string& body, std::size_t amt);
  virtual void do_close() = 0;

  /// The next line; false: the body has ended. Virtual for `HTTPError`, which asks its body.
  virtual bool fetch(std::string& line);
  std::string take_ahead(std::size_t amt);
  void check_open() const;

  std::string ahead_;            // read by line iteration, not yet handed out
  std::size_t ahead_begin_ = 0;  // where the bytes not yet handed out begin
  bool ended_ = false;           // line iteration has met the end, and does not read again
  bool closed_ = false;
};

/// The parameters of a transport other than the request.
struct ENGINES_HTTP_EXPORT TransportOptions {
  /// The longest wait of one socket operation. Must be given.
  Seconds timeout;
  /// The library's transports call it at least every 0.1 s while the exchange waits, reading
  /// included; once it returns true, the exchange ends as `Stopped`. Empty: never called.
  StopSignal should_stop = nullptr;
  /// Seconds for the whole exchange, reading included; when they have passed, the library's
  /// transports end it as a `TimeoutError`. None: unbounded.
  std::optional<Seconds> time_left = std::nullopt;
};

/// Sends a request and returns the open reply, or throws. See the contract at the top of this file.
using Transport =
    std::function<std::shared_ptr<Response>(const Request& request, TransportOptions options)>;

// ---- Transport errors: two families, neither of them an HttpFailure -----------------------------
//
//   OSError                what the operating system or the network stack reports
//   ├─ TimeoutError        a socket operation waited longer than the timeout
//   ├─ ConnectionError     refused, reset, aborted, or broken while writing
//   ├─ gaierror            a host name did not resolve
//   └─ URLError            the request could not be sent; holds the underlying error
//      └─ HTTPError        a final status outside 200 to 299; also a readable Response
//   HTTPException          the reply broke the HTTP protocol
//   ├─ IncompleteRead      the body ended before its announced length
//   └─ BadStatusLine       no status line could be read
//      └─ DroppedConnection   dropped before a reply began; also a ConnectionError
//
// Both inherit std::exception virtually, so that a handler of std::exception also catches the kind
// that belongs to both. A kind of your own derives from one kind of each family at most.
// Texts are the transport's own and unredacted.

namespace detail {

/// What both families are: a text, which copies share.
class ENGINES_HTTP_EXPORT TransportError : public virtual std::exception {
 public:
  /// The transport's own text, unredacted.
  const char* what() const noexcept override;

 protected:
  explicit TransportError(std::string text);
  TransportError(const TransportError&) noexcept = default;
  TransportError& operator=(const TransportError&) noexcept = default;
  ~TransportError() override;

 private:
  std::shared_ptr<const std::string> text_;
};

}  // namespace detail

/// What the operating system or the network stack reports.
class ENGINES_HTTP_EXPORT OSError : public detail::TransportError {
 public:
  /// `text` is what `what()` returns.
  explicit OSError(std::string text) : TransportError(std::move(text)) {}
};

/// A socket operation waited longer than the timeout.
class ENGINES_HTTP_EXPORT TimeoutError : public OSError {
 public:
  using OSError::OSError;
};

/// A connection was refused, reset, aborted, or broken while writing.
class ENGINES_HTTP_EXPORT ConnectionError : public OSError {
 public:
  using OSError::OSError;
};

/// A host name did not resolve.
class ENGINES_HTTP_EXPORT gaierror : public OSError {
 public:
  using OSError::OSError;
};

/// The request could not be sent; holds the underlying error.
class ENGINES_HTTP_EXPORT URLError : public OSError {
 public:
  /// `text` is what `what()` returns; there is no underlying error.
  explicit URLError(std::string text);

  /// Wraps the error that kept the request from being sent, with its dynamic type and its text.
  /// Throws `std::logic_error` for a reference to a base class, except while it is being handled.
  template <std::derived_from<std::exception> Reason>
  requires(!std::derived_from<Reason, URLError>) explicit URLError(const Reason& reason)
      : URLError(reason.what()) {
    reason_ = detail::hold<std::exception>(reason);
  }

  /// The underlying error; null where there is none.
  const std::exception* reason() const noexcept { return reason_ ? reason_->error : nullptr; }

 private:
  std::shared_ptr<const detail::Held<std::exception>> reason_;
};

/// A final status outside 200 to 299: both an error and a reply. Copies share the reply.
class ENGINES_HTTP_EXPORT HTTPError : public URLError, public Response {
 public:
  /// `body` is the open reply whose status it is; null means an empty body.
  HTTPError(StatusCode code, Headers headers, std::shared_ptr<Response> body);
  // Throws nothing: its own Response reads no line, so the string in it is empty.
  HTTPError(const HTTPError&) noexcept = default;
  HTTPError& operator=(const HTTPError&) = default;

  /// The final status.
  StatusCode code() const noexcept { return code_; }
  std::optional<StatusCode> status() const override { return code_; }
  const Headers* headers() const override { return headers_.get(); }

  /// The reply that the error holds, shared by every copy of the error. A handler that has caught
  /// the error by reference to const reads the body through it.
  Response& body() const noexcept { return *body_; }

 private:
  std::string do_read(std::size_t amt) final { return body_->read(amt); }
  void do_close() final { body_->close(); }
  std::size_t do_append1(std::string& body, std::size_t amt) final {
    return body_->append1(body, amt);
  }
  bool fetch(std::string& line) final { return body_->fetch(line); }

  StatusCode code_;
  std::shared_ptr<const Headers> headers_;
  std::shared_ptr<Response> body_;
};

/// The reply broke the HTTP protocol.
class ENGINES_HTTP_EXPORT HTTPException : public detail::TransportError {
 public:
  /// `text` is what `what()` returns.
  explicit HTTPException(std::string text) : TransportError(std::move(text)) {}
};

/// The body ended before its announced length.
class ENGINES_HTTP_EXPORT IncompleteRead : public HTTPException {
 public:
  using HTTPException::HTTPException;
};

/// No status line could be read.
class ENGINES_HTTP_EXPORT BadStatusLine : public HTTPException {
 public:
  using HTTPException::HTTPException;
};

/// The connection was dropped before a reply began: of both families.
class ENGINES_HTTP_EXPORT DroppedConnection : public ConnectionError, public BadStatusLine {
 public:
  /// `text` is what `what()` returns.
  explicit DroppedConnection(const std::string& text)
      : ConnectionError(text), BadStatusLine(text) {}
  /// The transport's own text, unredacted.
  const char* what() const noexcept override { return ConnectionError::what(); }
};

}  // namespace engines::http
