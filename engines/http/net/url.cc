// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/url.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>

#include "engines/http/text/encoding.h"
#include "engines/http/text/unicode.h"

namespace engines::http::net {
namespace {

using Handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

[[noreturn]] void refuse(std::string_view why) {
  throw std::invalid_argument("the URL " + std::string(why));
}

bool is_control(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }
bool is_visible_ascii(unsigned char byte) { return byte > ' ' && byte < 0x7f; }

Handle handle_of(const std::string& url) {
  Handle handle(curl_url(), curl_url_cleanup);
  if (!handle) throw std::bad_alloc();
  // Schemes are checked by `check_scheme`; dots stay as they are.
  constexpr unsigned FLAGS = CURLU_PATH_AS_IS | CURLU_NON_SUPPORT_SCHEME;
  switch (curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), FLAGS)) {
    case CURLUE_OK:
      return handle;
    case CURLUE_OUT_OF_MEMORY:
      throw std::bad_alloc();
    case CURLUE_BAD_PORT_NUMBER:
      refuse("has a port that is no number from 1 to 65535");
    default:
      refuse("has a host that is neither a host name nor an address");
  }
}

/// A part of the URL; empty: it has none.
std::string part_of(const Handle& handle, CURLUPart part) {
  char* found = nullptr;
  const CURLUcode code = curl_url_get(handle.get(), part, &found, 0);
  const std::unique_ptr<char, decltype(&curl_free)> owner(found, curl_free);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  return code == CURLUE_OK ? found : "";
}

void check_characters(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == ' ' || is_control(byte)) refuse("holds a space or a control character");
    if (byte >= 0x80) refuse("holds a character outside ASCII: it must be percent-encoded");
  }
}

void check_scheme(std::string_view scheme, bool is_proxy) {
  if (scheme == "http" || scheme == "https") return;
  if (!is_proxy) refuse("has a scheme other than http and https");
  if (scheme != "socks4" && scheme != "socks4a" && scheme != "socks5" && scheme != "socks5h") {
    refuse("has a scheme other than http and https and those of SOCKS");
  }
}

std::string decoded(std::string_view text) {
  std::string plain = detail::percent_decoded(text);
  if (std::ranges::any_of(plain, is_control)) {
    refuse("has userinfo that holds a control character");
  }
  return plain;
}

/// Splits "user:password", where the password may be missing.
Credentials credentials_of(std::string_view userinfo) {
  const std::size_t colon = std::min(userinfo.find(':'), userinfo.size());
  const std::size_t password = std::min(colon + 1, userinfo.size());
  return {decoded(userinfo.substr(0, colon)), decoded(userinfo.substr(password))};
}

Url parse(std::string_view text, bool is_proxy) {
  check_characters(text);
  Url url;
  Origin& origin = url.origin;
  const std::size_t scheme_end = text.find("://");
  if (scheme_end == std::string_view::npos || scheme_end == 0) refuse("has no scheme");
  origin.scheme = detail::lower(text.substr(0, scheme_end));
  check_scheme(origin.scheme, is_proxy);

  const std::size_t begin = scheme_end + 3;
  const std::size_t end = std::min(text.find_first_of("/?#", begin), text.size());
  std::string_view authority = text.substr(begin, end - begin);
  if (const std::size_t at = authority.find('@'); at != std::string_view::npos) {
    if (at > 0) url.credentials = credentials_of(authority.substr(0, at));
    authority.remove_prefix(at + 1);
    if (authority.find('@') != std::string_view::npos) refuse("has a host that holds an @");
  }
  if (authority.empty()) refuse("has no host");

  url.text = std::string(text.substr(0, begin)).append(authority);
  const Handle handle = handle_of(url.text);
  const std::string host = part_of(handle, CURLUPART_HOST);  // percent-decoded
  if (!std::ranges::all_of(host, is_visible_ascii)) refuse("has a host that is percent-encoded");
  origin.host = detail::lower(host);
  if (origin.host.starts_with('[')) origin.zone = part_of(handle, CURLUPART_ZONEID);
  origin.port = part_of(handle, CURLUPART_PORT);
  if (origin.port.empty()) {
    origin.port = origin.scheme == "https" ? "443" : is_proxy ? "1080" : "80";
  }
  if (origin.port == "0") refuse("has a port that is no number from 1 to 65535");
  url.text.append(text.substr(end));
  url.target = text.substr(end, text.find('#', end) - end);
  if (!url.target.starts_with('/')) url.target.insert(0, 1, '/');
  return url;
}

}  // namespace

std::string Origin::host_field() const {
  return port == (scheme == "https" ? "443" : "80") ? host : address();
}

Url parse_url(std::string_view text) { return parse(text, false); }

Url parse_proxy_url(std::string_view text) {
  const bool has_scheme = text.find("://") != std::string_view::npos;
  return parse((has_scheme ? "" : "http://") + std::string(text), true);
}

std::optional<Url> resolve(const Url& base, std::string_view location) {
  if (location.starts_with('#')) location = base.text;
  std::string reference;
  for (const char c : location.substr(0, location.find('#'))) {  // a fragment is not sent
    const auto byte = static_cast<unsigned char>(c);
    if (is_control(byte)) return std::nullopt;
    if (byte == ' ' || byte >= 0x80) {
      detail::append_percent_encoded(reference, byte);
    } else {
      reference += c;
    }
  }
  if (reference.empty()) return std::nullopt;
  const Handle handle = handle_of(base.text);
  const CURLUcode code = curl_url_set(handle.get(), CURLUPART_URL, reference.c_str(), 0);
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLUE_OK) return std::nullopt;
  try {
    return parse_url(part_of(handle, CURLUPART_URL));
  } catch (const std::invalid_argument&) {
    return std::nullopt;
  }
}

}  // namespace engines::http::net
