// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/url.h"

#include <curl/curl.h>

#include <algorithm>
#include <new>
#include <span>
#include <stdexcept>
#include <utility>

#include "engines/http/text/ascii.h"
#include "engines/http/text/case.h"

namespace engines::http::net {
namespace {

using Handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

constexpr std::string_view REQUEST_SCHEMES[] = {"http", "https"};
constexpr std::string_view PROXY_SCHEMES[] = {"http",    "https",  "socks4",
                                              "socks4a", "socks5", "socks5h"};

Handle new_handle() {
  Handle handle(curl_url(), curl_url_cleanup);
  if (!handle) throw std::bad_alloc();
  return handle;
}

std::optional<std::string> part_of(const Handle& handle, CURLUPart part, unsigned flags = 0) {
  char* found = nullptr;
  const CURLUcode code = curl_url_get(handle.get(), part, &found, flags);
  const std::unique_ptr<char, decltype(&curl_free)> owner(found, curl_free);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLUE_OK) return std::nullopt;
  return std::string(found);
}

[[noreturn]] void refuse(std::string_view why) {
  throw std::invalid_argument("the URL " + std::string(why));
}

std::string decoded(const Handle& handle, CURLUPart part) {
  if (!part_of(handle, part)) return {};
  if (auto text = part_of(handle, part, CURLU_URLDECODE)) return *std::move(text);
  refuse("has userinfo that holds a control character");
}

bool is_control(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }

void set_url(const Handle& handle, const std::string& text) {
  // Which schemes are taken is checked by `parse`; dots stay as they are.
  constexpr unsigned FLAGS = CURLU_PATH_AS_IS | CURLU_NON_SUPPORT_SCHEME;
  switch (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), FLAGS)) {
    case CURLUE_OK:
      return;
    case CURLUE_OUT_OF_MEMORY:
      throw std::bad_alloc();
    case CURLUE_BAD_PORT_NUMBER:
      refuse("has a port that is no number from 1 to 65535");
    case CURLUE_NO_HOST:
      refuse("has no host");
    case CURLUE_BAD_HOSTNAME:
    case CURLUE_BAD_IPV6:
      refuse("has a host that is no host name and no address");
    default:
      refuse("is malformed");
  }
}

void check_characters(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == ' ' || is_control(byte)) refuse("holds a space or a control character");
    if (byte >= 0x80) refuse("holds a character outside ASCII: it must be percent-encoded");
  }
}

std::string scheme_of(std::string_view text, std::span<const std::string_view> schemes) {
  const std::size_t end = text.find("://");
  if (end == std::string_view::npos || end == 0) refuse("has no scheme");
  std::string scheme = detail::lower(text.substr(0, end));
  if (std::ranges::find(schemes, scheme) == schemes.end()) {
    refuse("has a scheme other than " + std::string(schemes[0]) + " and " +
           std::string(schemes[1]) + (schemes.size() > 2 ? " and those of SOCKS" : ""));
  }
  return scheme;
}

Url parse(std::string_view text, std::span<const std::string_view> schemes) {
  check_characters(text);
  Url url;
  Origin& origin = url.origin;
  origin.scheme = scheme_of(text, schemes);
  const std::size_t authority = origin.scheme.size() + 3;
  const std::size_t authority_end = std::min(text.find_first_of("/?#", authority), text.size());
  if (authority == authority_end) refuse("has no host");
  url.target = text.substr(authority_end, text.find('#', authority_end) - authority_end);
  if (!url.target.starts_with('/')) url.target.insert(0, 1, '/');

  const Handle handle = new_handle();
  url.text = text;
  set_url(handle, url.text);
  const std::size_t at = text.substr(0, authority_end).rfind('@');
  if (at != std::string_view::npos && at >= authority) {
    if (at > authority) {
      url.credentials =
          Credentials{decoded(handle, CURLUPART_USER), decoded(handle, CURLUPART_PASSWORD)};
    }
    url.text.erase(authority, at + 1 - authority);
    set_url(handle, url.text);  // what is connected to is what was looked at here
  }
  origin.host = detail::lower(part_of(handle, CURLUPART_HOST).value_or(""));
  if (origin.host.empty()) refuse("has no host");
  origin.zone = part_of(handle, CURLUPART_ZONEID).value_or("");
  origin.port = part_of(handle, CURLUPART_PORT).value_or("");
  if (origin.port == "0") refuse("has a port that is no number from 1 to 65535");
  return url;
}

}  // namespace

std::shared_ptr<const Url> parse_url(std::string_view text) {
  const auto url = std::make_shared<Url>(parse(text, REQUEST_SCHEMES));
  if (url->origin.port.empty()) url->origin.port = url->origin.scheme == "https" ? "443" : "80";
  return url;
}

Url parse_proxy_url(std::string_view text) {
  const bool has_scheme = text.find("://") != std::string_view::npos;
  Url url = parse((has_scheme ? "" : "http://") + std::string(text), PROXY_SCHEMES);
  if (url.origin.port.empty()) url.origin.port = url.origin.scheme == "https" ? "443" : "1080";
  return url;
}

std::shared_ptr<const Url> resolve(const Url& base, std::string_view location) {
  if (location.starts_with('#')) location = base.text;
  std::string reference;
  for (const char c : location.substr(0, location.find('#'))) {  // a fragment is not sent
    const auto byte = static_cast<unsigned char>(c);
    if (is_control(byte)) return nullptr;
    if (byte == ' ' || byte >= 0x80) {
      detail::append_percent_encoded(reference, byte);
    } else {
      reference += c;
    }
  }
  if (reference.empty()) return nullptr;
  const Handle handle = new_handle();
  set_url(handle, base.text);
  const CURLUcode code =
      curl_url_set(handle.get(), CURLUPART_URL, reference.c_str(), CURLU_NON_SUPPORT_SCHEME);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLUE_OK) return nullptr;
  const auto target = part_of(handle, CURLUPART_URL);
  if (!target) return nullptr;
  try {
    return parse_url(*target);
  } catch (const std::invalid_argument&) {
    return nullptr;
  }
}

}  // namespace engines::http::net
