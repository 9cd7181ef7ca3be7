#include "engines/http/detail/url.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

namespace engines::http::detail {
namespace {

using Handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

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

[[noreturn]] void refuse(const char* why) {
  throw std::invalid_argument(std::string("the request's URL ") + why);
}

std::string decoded(const Handle& handle, CURLUPart part) {
  if (!part_of(handle, part)) return {};
  if (auto text = part_of(handle, part, CURLU_URLDECODE)) return *std::move(text);
  refuse("has userinfo that holds a control character");
}

bool is_control(unsigned char byte) { return byte < 0x20 || byte == 0x7f; }

char lower_ascii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

void set_url(const Handle& handle, const std::string& text) {
  // Only the schemes that may be followed or sent are looked at here; dots stay as they are.
  switch (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_PATH_AS_IS)) {
    case CURLUE_OK:
      return;
    case CURLUE_OUT_OF_MEMORY:
      throw std::bad_alloc();
    case CURLUE_BAD_PORT_NUMBER:
      refuse("has a port that is no number from 1 to 65535");
    case CURLUE_NO_HOST:
      refuse("has no host");
    case CURLUE_UNSUPPORTED_SCHEME:
    case CURLUE_BAD_SCHEME:
      refuse("has a scheme other than http and https");
    case CURLUE_BAD_HOSTNAME:
    case CURLUE_BAD_IPV6:
      refuse("has a host that is no host name and no address");
    default:
      refuse("is malformed");
  }
}

}  // namespace

std::shared_ptr<const Url> parse_url(std::string_view text) {
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == ' ' || is_control(byte)) refuse("holds a space or a control character");
    if (byte >= 0x80) refuse("holds a character outside ASCII: it must be percent-encoded");
  }
  const std::size_t scheme_end = text.find("://");
  if (scheme_end == std::string_view::npos || scheme_end == 0) refuse("has no scheme");
  const auto parsed = std::make_shared<Url>();
  Url& url = *parsed;
  url.given = text;
  std::ranges::transform(text.substr(0, scheme_end), std::back_inserter(url.origin.scheme),
                         lower_ascii);
  if (url.origin.scheme != "http" && url.origin.scheme != "https") {
    refuse("has a scheme other than http and https");
  }
  const std::size_t authority = scheme_end + 3;
  const std::size_t authority_end = std::min(text.find_first_of("/?#", authority), text.size());
  if (authority == authority_end) refuse("has no host");
  const std::size_t at = text.substr(0, authority_end).rfind('@');
  const bool has_userinfo = at != std::string_view::npos && at >= authority;

  Handle handle = new_handle();
  url.text = text;
  set_url(handle, url.text);
  if (has_userinfo) {
    if (at > authority) {
      url.credentials =
          Credentials{decoded(handle, CURLUPART_USER), decoded(handle, CURLUPART_PASSWORD)};
    }
    url.text.erase(authority, at + 1 - authority);
    set_url(handle, url.text);
  }
  url.origin.host = part_of(handle, CURLUPART_HOST).value_or("");
  if (url.origin.host.empty()) refuse("has no host");
  std::ranges::transform(url.origin.host, url.origin.host.begin(), lower_ascii);
  url.origin.zone = part_of(handle, CURLUPART_ZONEID).value_or("");
  url.origin.port = part_of(handle, CURLUPART_PORT, CURLU_DEFAULT_PORT).value_or("");
  if (url.origin.port == "0") refuse("has a port that is no number from 1 to 65535");
  url.parsed = std::move(handle);
  return parsed;
}

std::shared_ptr<const Url> resolve(const Url& base, std::string_view location) {
  std::string reference;
  for (const char c : location) {
    const auto byte = static_cast<unsigned char>(c);
    if (is_control(byte)) return nullptr;
    if (byte == ' ' || byte >= 0x80) {
      static constexpr char DIGITS[] = "0123456789ABCDEF";
      reference += {'%', DIGITS[byte >> 4], DIGITS[byte & 15]};
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

}  // namespace engines::http::detail
