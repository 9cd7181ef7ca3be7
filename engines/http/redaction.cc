// SPDX-License-Identifier: Apache-2.0
#include "engines/http/redaction.h"

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>

#include "engines/http/text/encoding.h"
#include "engines/http/text/pattern.h"
#include "engines/http/text/unicode.h"
#include "engines/http/text/utf8.h"

namespace engines::http {
namespace {

/// How many more characters than its limit and the longest secret an excerpt redacts, so that most
/// credentials that nobody named lie whole in what is searched.
constexpr std::size_t EXCERPT_MARGIN_CHARS = 64;

/// A header whose name contains one of these, in whatever case, is taken for a credential:
/// `api-key`, `X-Auth-Token`, `Ocp-Apim-Subscription-Key`, `Cookie`. A false positive only removes
/// a few words from a quote.
constexpr std::array<std::string_view, 9> CREDENTIAL_WORDS = {
    "auth", "cookie", "credential", "key", "pass", "secret", "session", "signature", "token"};

// ---- Echoes -------------------------------------------------------------------------------------

/// The pattern as PCRE2 must have it: its `\s` matches U+180E, which is not white space, and from
/// version 10.43 on its `\b` takes combining marks for parts of words.
detail::Pattern compiled(std::string_view pattern) {
  std::string spelled(pattern);
  boost::replace_all(spelled, R"(\s)", R"(\p{White_Space})");
  boost::replace_all(spelled, R"((\b)", R"(((?<![\p{L}\p{N}_]))");  // before a word
  boost::replace_all(spelled, R"(\b)", R"((?![\p{L}\p{N}_]))");     // after it
  return detail::Pattern(spelled);
}

const std::array<detail::Pattern, detail::ECHOES.size()>& echoes() {
  static const std::array all{compiled(detail::ECHOES[0]), compiled(detail::ECHOES[1])};
  return all;
}

// ---- Known secrets ------------------------------------------------------------------------------

/// By memmem, which takes linear time; std::string::find may take the product of the sizes.
void replace_all(std::string& text, std::string_view secret) {
  std::string replaced;
  std::string_view rest = text;
  while (const void* found = memmem(rest.data(), rest.size(), secret.data(), secret.size())) {
    const auto before = static_cast<std::size_t>(static_cast<const char*>(found) - rest.data());
    if (replaced.empty()) replaced.reserve(text.size() + REDACTED.size());
    replaced += rest.substr(0, before);
    replaced += REDACTED;
    rest.remove_prefix(before + secret.size());
  }
  if (rest.size() == text.size()) return;  // none was found
  replaced += rest;
  text = std::move(replaced);
}

using BySize = std::set<std::pair<std::size_t, std::string_view>, std::greater<>>;

/// The distinct secrets that are long enough to count, with their lengths, longest first.
BySize longest_first(const std::vector<std::string>& secrets) {
  BySize sized;
  for (const std::string& secret : secrets) {
    const std::size_t chars = detail::char_count(secret);
    if (chars >= detail::MIN_SECRET_CHARS) sized.emplace(chars, secret);
  }
  return sized;
}

void remove_secrets(std::string& text, const std::vector<std::string>& secrets) {
  for (const auto& [chars, secret] : longest_first(secrets)) {
    replace_all(text, secret);
    text = _without_cut_secret(std::move(text), secret);
  }
}

// ---- Headers ------------------------------------------------------------------------------------

/// Adds what follows the value's first word, where there is something.
void add_without_scheme(std::vector<std::string>& found, std::string_view value) {
  const std::string_view trimmed = detail::trim(value);
  const std::size_t space = std::min(trimmed.find(' '), trimmed.size());
  const std::string_view credential = detail::trim(trimmed.substr(space));
  if (!credential.empty()) found.emplace_back(credential);
}

/// The values of a Cookie header (RFC 6265, section 4.2.1).
void add_cookies(std::vector<std::string>& found, std::string_view pairs) {
  while (!pairs.empty()) {
    const std::string_view pair = pairs.substr(0, pairs.find(';'));
    pairs.remove_prefix(std::min(pair.size() + 1, pairs.size()));
    const std::size_t equals = pair.find('=');
    if (equals != std::string_view::npos) found.emplace_back(detail::trim(pair.substr(equals + 1)));
  }
}

/// Of each header whose name marks a credential (all headers of `secrets_of` are among them): the
/// trimmed value, what follows its first word, and the value of each cookie.
std::vector<std::string> secrets_by_name(const Headers& headers) {
  std::vector<std::string> found;
  for (const auto& [name, value] : headers) {
    const std::string lowered = detail::lower(name);
    const auto holds = [&](std::string_view word) {
      return lowered.find(word) != std::string_view::npos;
    };
    if (std::ranges::none_of(CREDENTIAL_WORDS, holds)) continue;
    found.emplace_back(detail::trim(value));
    add_without_scheme(found, value);
    if (holds("cookie")) add_cookies(found, value);
  }
  return found;
}

}  // namespace

const std::vector<std::string>& Secrets::items() const noexcept {
  static const std::vector<std::string> none;
  return secrets_ ? *secrets_ : none;
}

Secrets Secrets::followed_by(const Secrets& others) const {
  if (others.empty()) return *this;
  if (empty()) return others;
  std::vector<std::string> joined = items();
  joined.insert(joined.end(), others.begin(), others.end());
  return joined;
}

Secrets secrets_of(const Headers& headers) {
  std::vector<std::string> found;
  for (const auto& [name, value] : headers) {
    const auto is_it = [&header = name](std::string_view secret_header) {
      return detail::equal_ignoring_case(header, secret_header);
    };
    if (std::ranges::none_of(detail::SECRET_HEADERS, is_it) || value.empty()) continue;
    found.push_back(value);
    add_without_scheme(found, value);
  }
  return found;
}

Secrets secrets_of_url(std::string_view url) {
  const std::size_t scheme_end = url.find("://");
  if (scheme_end == std::string_view::npos) return {};
  const std::string_view rest = url.substr(scheme_end + 3);
  const std::string_view authority = rest.substr(0, rest.find_first_of("/?#"));
  const std::size_t at = authority.rfind('@');
  if (at == std::string_view::npos) return {};
  const std::string_view userinfo = authority.substr(0, at);
  const std::size_t colon = std::min(userinfo.find(':'), userinfo.size());
  const std::string user = detail::percent_decoded(userinfo.substr(0, colon));
  const std::string_view password = userinfo.substr(std::min(colon + 1, userinfo.size()));
  const std::string_view secret = password.empty() ? userinfo.substr(0, colon) : password;
  return {std::string(secret), detail::percent_decoded(secret),
          detail::base64(user + ":" + detail::percent_decoded(password))};
}

Secrets detail::secrets_of_call(const Secrets& given, const Headers& headers,
                                std::string_view url) {
  return given.followed_by(secrets_of(headers))
      .followed_by(secrets_by_name(headers))
      .followed_by(secrets_of_url(url));
}

std::string _without_cut_secret(std::string text, std::string_view secret) {
  const std::size_t shortest = detail::first_chars(secret, detail::MIN_SECRET_CHARS).size();
  // Compared as bytes: the text may be cut inside a character.
  for (std::size_t size = std::min(secret.size(), text.size() + 1); size-- > shortest;) {
    if (!text.ends_with(secret.substr(0, size))) continue;
    text.replace(text.size() - size, size, REDACTED);
    break;
  }
  return text;
}

std::string redact(std::string_view text, const Secrets& secrets) {
  std::string redacted(text);
  std::vector<std::string> forms(secrets.begin(), secrets.end());
  std::vector<std::string> well_formed;  // the secrets, as they look in well-formed text
  for (const std::string& secret : secrets) {
    well_formed.push_back(detail::replace_ill_formed(secret));
  }
  forms.insert(forms.end(), well_formed.begin(), well_formed.end());
  remove_secrets(redacted, forms);
  if (!detail::is_utf8(redacted)) {
    redacted = detail::replace_ill_formed(std::move(redacted));
    remove_secrets(redacted, well_formed);  // one that contains U+FFFD may match only now
  }
  for (const detail::Pattern& echo : echoes()) {
    // Better nothing than a secret.
    if (!echo.replace(redacted, "${1}" + std::string(REDACTED))) return std::string(REDACTED);
  }
  return redacted;
}

std::string excerpt(std::string_view text, const Secrets& secrets, std::size_t limit) {
  std::size_t longest = 0;
  for (const std::string& secret : secrets) {
    longest = std::max(longest, detail::char_count(secret));
  }
  const std::size_t margin = longest + EXCERPT_MARGIN_CHARS;
  const std::size_t stretch = limit + std::min(margin, SIZE_MAX - limit);
  const std::string redacted = redact(detail::first_chars(text, stretch), secrets);
  return std::string(detail::first_chars(redacted, limit));
}

}  // namespace engines::http
