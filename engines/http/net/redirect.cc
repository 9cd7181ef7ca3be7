// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/redirect.h"

#include <algorithm>
#include <span>
#include <stdexcept>

#include "engines/http/text/unicode.h"

namespace engines::http::net {
namespace {

/// The headers that another origin gets. A list of those to withhold would never be complete.
constexpr std::string_view HARMLESS[] = {"accept",       "accept-encoding",  "accept-language",
                                         "content-type", "content-encoding", "content-language",
                                         "user-agent"};
/// The headers that describe a body, and are dropped with it.
constexpr std::string_view CONTENT[] = {"content-type", "content-length", "content-encoding",
                                        "content-language", "content-location"};

[[noreturn]] void refuse(const std::string& why) { throw std::invalid_argument(why); }

/// The headers whose names are, or are not, among these.
Headers filtered(const Headers& headers, std::span<const std::string_view> names, bool keep_named) {
  Headers kept;
  for (const auto& [name, value] : headers) {
    const bool is_named = std::ranges::any_of(
        names, [&n = name](auto other) { return detail::equal_ignoring_case(n, other); });
    if (is_named == keep_named) kept.add(name, value);
  }
  return kept;
}

/// Whether a `Host` value names the origin that the request goes to.
bool names_origin(std::string_view host, const Origin& origin) {
  return detail::equal_ignoring_case(host, origin.host_field()) ||
         detail::equal_ignoring_case(host, origin.address());
}

void check_header(const std::string& name, const std::string& value, const Hop& hop) {
  const auto is = [&](std::string_view other) { return detail::equal_ignoring_case(name, other); };
  if (!is_token(name)) {
    refuse("a header name of the request is empty or holds a forbidden character");
  }
  if (std::ranges::any_of(value, is_forbidden_in_value)) {
    refuse("the request's header " + name + " holds a control character in its value");
  }
  if (is("content-length") && value != std::to_string(hop.body.value_or("").size())) {
    refuse("the request's header Content-Length contradicts its body");
  }
  if (is("transfer-encoding")) {
    refuse("the request's header Transfer-Encoding contradicts its body, which is sent as it is");
  }
  if (is("host") && !names_origin(value, hop.url.origin)) {
    refuse("the request's header Host contradicts its URL");
  }
  if (is("expect")) {
    refuse("the request's header Expect cannot be sent");
  }
}

}  // namespace

bool is_token(std::string_view text) noexcept {
  constexpr std::string_view CHARACTERS =
      "!#$%&'*+-.^_`|~0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  return !text.empty() && text.find_first_not_of(CHARACTERS) == std::string_view::npos;
}

bool is_forbidden_in_value(char c) noexcept {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == '\x7f';
}

Hop first_hop(const Request& request) {
  Hop hop{.url = parse_url(request.url),
          .credentials = {},
          .method = request.method,
          .headers = request.headers,
          .body = request.data};
  if (!is_token(hop.method)) refuse("the request's method is empty or holds a forbidden character");
  if (hop.method == "CONNECT") refuse("the request's method CONNECT cannot be sent");
  for (const auto& [name, value] : hop.headers) check_header(name, value, hop);
  if (!hop.headers.get("authorization")) hop.credentials = hop.url.credentials;
  return hop;
}

std::optional<Hop> next_hop(const Hop& hop, StatusCode status,
                            const std::optional<std::string>& location) {
  const bool repeats = status == 307 || status == 308;
  if (!repeats && status != 301 && status != 302 && status != 303) return std::nullopt;
  auto url = resolve(hop.url, location.value_or(""));
  if (!url) return std::nullopt;
  Hop next = hop;
  next.url = *std::move(url);
  const bool only_reads = hop.method == "GET" || hop.method == "HEAD";
  if (status == 303 ? !only_reads : !repeats && hop.method == "POST") {
    next.method = "GET";
    next.body.reset();
    next.headers = filtered(next.headers, CONTENT, false);
  }
  if (next.url.origin != hop.url.origin) {
    next.credentials.reset();
    next.headers = filtered(next.headers, HARMLESS, true);
  }
  return next;
}

}  // namespace engines::http::net
