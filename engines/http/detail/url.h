// The URL of a request, taken apart (RFC 3986). Included by .cc files only.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace engines::http::detail {

/// Where credentials belong: a request to another origin is a request to another party.
struct Origin {
  std::string scheme;  // "http" or "https"
  std::string host;    // in lower case
  std::string zone;    // of a link-local IPv6 address; empty: none (RFC 6874)
  std::string port;    // the scheme's own where the URL names none

  bool operator==(const Origin&) const = default;
};

struct Credentials {
  std::string user;
  std::string password;
};

struct Url {
  std::string given;
  /// The URL as it was given, but without its userinfo, so that no text can quote that.
  std::string text;
  /// `text`, parsed: what libcurl connects to is what was looked at here.
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> parsed{nullptr, &curl_url_cleanup};
  Origin origin;
  /// The userinfo, percent-decoded; none where the URL has none.
  std::optional<Credentials> credentials;
};

/// Takes an absolute http or https URL apart. Throws `std::invalid_argument` that names the part
/// which cannot be sent, and quotes nothing of it: a missing or other scheme, no host, a bad port,
/// white space, control characters and characters outside ASCII (which a URL percent-encodes).
std::shared_ptr<const Url> parse_url(std::string_view text);

/// Where a `Location` leads from `base` (RFC 9110, section 10.2.2); null where that is no http or
/// https URL. Spaces and bytes outside ASCII, common in the wild, are percent-encoded.
std::shared_ptr<const Url> resolve(const Url& base, std::string_view location);

}  // namespace engines::http::detail
