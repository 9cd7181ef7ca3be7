#include "engines/http/detail/hop.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "engines/http/text/case.h"

namespace engines::http::detail {
namespace {

constexpr std::array CREDENTIALS = {"authorization", "proxy-authorization", "x-api-key", "cookie"};
constexpr std::array CONTENT = {"content-type", "content-length", "content-encoding",
                                "content-language", "content-location"};

bool is_token(std::string_view text) {  // RFC 9110, section 5.6.2
  return !text.empty() && std::ranges::all_of(text, [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
  });
}

[[noreturn]] void refuse(const std::string& why) { throw std::invalid_argument(why); }

template <std::size_t n>
Headers without(const Headers& headers, const std::array<const char*, n>& names) {
  Headers kept;
  for (const auto& [name, value] : headers) {
    const auto is_it = [&name = name](const char* other) {
      return equal_ignoring_case(name, other);
    };
    if (std::ranges::none_of(names, is_it)) kept.add(name, value);
  }
  return kept;
}

/// Whether a `Host` value names the origin that the request goes to.
bool names_origin(const std::string& host, const Origin& origin) {
  try {
    const auto url = parse_url(origin.scheme + "://" + host);
    Origin named = url->origin;
    named.zone = origin.zone;  // which is no part of a Host
    return named == origin && !url->credentials && host.find_first_of("/?#") == std::string::npos;
  } catch (const std::invalid_argument&) {
    return false;
  }
}

void check_header(const std::string& name, const std::string& value, const Hop& hop) {
  if (!is_token(name))
    refuse("a header name of the request is empty or holds a forbidden character");
  if (std::ranges::any_of(value, is_forbidden_in_value)) {
    refuse("the request's header " + name + " holds a control character in its value");
  }
  if (equal_ignoring_case(name, "content-length") &&
      value != std::to_string(hop.body.value_or("").size())) {
    refuse("the request's header Content-Length contradicts its body");
  }
  if (equal_ignoring_case(name, "transfer-encoding")) {
    refuse("the request's header Transfer-Encoding contradicts its body, which is sent as it is");
  }
  if (equal_ignoring_case(name, "host") && !names_origin(value, hop.url->origin)) {
    refuse("the request's header Host contradicts its URL");
  }
  if (equal_ignoring_case(name, "expect")) refuse("the request's header Expect cannot be sent");
}

}  // namespace

bool is_forbidden_in_value(char c) noexcept {
  return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == '\x7f';
}

Hop first_hop(const Request& request, std::shared_ptr<const Url> url) {
  Hop hop{.url = std::move(url),
          .credentials = {},
          .method = request.method,
          .headers = {std::shared_ptr<void>(), &request.headers},
          .body = request.data};
  if (!is_token(hop.method)) refuse("the request's method is empty or holds a forbidden character");
  if (hop.method == "CONNECT") refuse("the request's method CONNECT cannot be sent");
  for (const auto& [name, value] : *hop.headers) check_header(name, value, hop);
  if (!hop.headers->get("authorization")) hop.credentials = hop.url->credentials;
  return hop;
}

std::optional<Hop> next_hop(const Hop& hop, StatusCode status,
                            const std::optional<std::string>& location) {
  const bool repeats = status == 307 || status == 308;
  if (!repeats && status != 301 && status != 302 && status != 303) return std::nullopt;
  auto url = resolve(*hop.url, location.value_or(""));
  if (!url) return std::nullopt;
  Hop next{.url = std::move(url),
           .credentials = {},
           .method = hop.method,
           .headers = {},
           .body = hop.body};
  Headers headers = *hop.headers;
  const bool keeps_method = hop.method == "GET" || hop.method == "HEAD";
  if (!repeats && !keeps_method && (status == 303 || hop.method == "POST")) {
    next.method = "GET";
    next.body.reset();
    headers = without(headers, CONTENT);
  }
  if (next.url->origin == hop.url->origin) {
    next.credentials = hop.credentials;
  } else {
    headers = without(without(headers, CREDENTIALS), std::array{"host"});
  }
  next.headers = std::make_shared<const Headers>(std::move(headers));
  return next;
}

}  // namespace engines::http::detail
