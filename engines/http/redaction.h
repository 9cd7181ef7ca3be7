// SPDX-License-Identifier: Apache-2.0
// Keeps secrets out of every text that leaves the library: collects the secrets that headers and
// URLs carry, removes secrets, cut-off secrets and echoed credentials from text, and quotes bounded
// excerpts.
//
//   const Secrets secrets = secrets_of({{"Authorization", "Bearer " + token}});
//   log(redact(error_text, secrets));
//
// Pure functions that take any text, well-formed UTF-8 or not, and never fail on one. Lengths and
// limits count characters (code points).
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "engines/http/export.h"
#include "engines/http/given_text.h"
#include "engines/http/transport.h"

namespace engines::http {

/// Replaces every secret, cut-off secret and echoed credential.
inline constexpr std::string_view REDACTED = "[redacted]";

/// An immutable sequence of secrets; copies share it. It converts from any range of strings, which
/// is read once, so a one-pass range will do.
class ENGINES_HTTP_EXPORT Secrets {
 public:
  Secrets() noexcept = default;
  /// No secrets, or these, in this order.
  /// @{
  Secrets(std::nullopt_t) noexcept {}
  Secrets(std::initializer_list<detail::GivenText> secrets) {
    std::vector<std::string> texts;
    for (const detail::GivenText& secret : secrets) texts.push_back(secret.text);
    *this = Secrets(std::move(texts));
  }
  Secrets(std::vector<std::string> secrets) {
    if (secrets.empty()) return;
    secrets_ = std::make_shared<const std::vector<std::string>>(std::move(secrets));
  }

  template <std::ranges::input_range Range>
  requires(!std::same_as<std::remove_cvref_t<Range>, Secrets> &&
           !std::convertible_to<Range, std::string_view> &&
           std::constructible_from<std::string, std::ranges::range_reference_t<Range>>)
      Secrets(Range&& range) {
    std::vector<std::string> secrets;
    for (auto&& secret : range) secrets.emplace_back(std::forward<decltype(secret)>(secret));
    *this = Secrets(std::move(secrets));
  }
  /// @}

  /// As in a standard container.
  /// @{
  auto begin() const noexcept { return items().begin(); }
  auto end() const noexcept { return items().end(); }
  std::size_t size() const noexcept { return items().size(); }
  bool empty() const noexcept { return items().empty(); }
  const std::string& operator[](std::size_t index) const noexcept { return items()[index]; }
  /// @}

  /// These secrets followed by those of `others`.
  Secrets followed_by(const Secrets& others) const;

 private:
  const std::vector<std::string>& items() const noexcept;

  std::shared_ptr<const std::vector<std::string>> secrets_;  // null: none
};

namespace detail {

/// The shortest text that counts as a secret, and the shortest start of one that is removed where
/// a text ends. To remove shorter ones would garble ordinary text.
inline constexpr std::size_t MIN_SECRET_CHARS = 8;

/// The headers whose values `secrets_of` takes for credentials, in lower case.
inline constexpr std::array<std::string_view, 3> SECRET_HEADERS = {
    "authorization", "proxy-authorization", "x-api-key"};

/// Credentials that a server echoes back: an authorization field's value, then what follows the
/// word "bearer". Group 1 stays, the rest is the credential. A quote may be escaped, as in JSON
/// text within JSON. `\s` is Unicode's White_Space and `\b` the edge of a run of letters, digits
/// and underscores.
inline constexpr std::array<std::string_view, 2> ECHOES = {
    R"re((?i)(\bauthorization\b\\?[\"']?\s*[:=]\s*\\?[\"']?)[^\\\"'\r\n,;}]+)re",
    R"re((?i)(\bbearer\s+)[^\s\\\"',;}]+)re"};

}  // namespace detail

/// The secrets that the headers carry, in their order: each credential header's whole value, and
/// after it the credential without the scheme word in front, where there is one.
ENGINES_HTTP_EXPORT Secrets secrets_of(const Headers& headers);

/// The secrets in a URL's userinfo (RFC 3986, section 3.2.1): the password, or the user where there
/// is none, as it is and percent-decoded, and the form that Basic authentication sends (RFC 7617,
/// section 2).
ENGINES_HTTP_EXPORT Secrets secrets_of_url(std::string_view url);

namespace detail {

/// The secrets of a call, in this order: the caller's; `secrets_of` its headers; of each header
/// whose name contains a word such as "key" or "token", the trimmed value, what follows its first
/// word, and each cookie's value; `secrets_of_url` its URL.
ENGINES_HTTP_EXPORT Secrets secrets_of_call(const Secrets& given, const Headers& headers,
                                            std::string_view url);

}  // namespace detail

/// Replaces by `REDACTED`: each secret of at least eight characters, the start of one (of at least
/// eight characters) at the end of the text, and credentials that a server echoed back. Bytes
/// that are not UTF-8 become U+FFFD. Where the search fails, the whole text becomes `REDACTED`.
ENGINES_HTTP_EXPORT std::string redact(std::string_view text, const Secrets& secrets = {});

/// Where the text ends with a proper prefix of `secret` of at least eight characters, replaces the
/// longest one by `REDACTED`.
ENGINES_HTTP_EXPORT std::string _without_cut_secret(std::string text, std::string_view secret);

/// The start of the text, redacted, in at most `limit` characters. The work is bounded by the limit
/// and the secrets, however long the text is.
ENGINES_HTTP_EXPORT std::string excerpt(std::string_view text, const Secrets& secrets = {},
                                        std::size_t limit = 300);

}  // namespace engines::http
