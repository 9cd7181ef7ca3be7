// SPDX-License-Identifier: Apache-2.0
#include "engines/http/redaction.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <set>

#include "engines/http/text/encoding.h"
#include "engines/http/text/unicode.h"
#include "engines/http/text/utf8.h"

namespace engines::http {
namespace {

/// An excerpt redacts so many characters more than it quotes, and the length of the longest secret.
constexpr std::size_t EXCERPT_MARGIN_CHARS = 64;

/// A header whose name contains one of these, in whatever case, is taken for a credential:
/// `api-key`, `X-Auth-Token`, `Ocp-Apim-Subscription-Key`, `Cookie`. A false positive only removes
/// a few words from a quote.
constexpr std::array<std::string_view, 9> CREDENTIAL_WORDS = {
    "auth", "cookie", "credential", "key", "pass", "secret", "session", "signature", "token"};

// ---- Echoes -------------------------------------------------------------------------------------

/// PCRE2's `\s` matches U+180E, which is not white space.
std::string with_unicode_white_space(std::string pattern) {
  for (std::size_t at = 0; (at = pattern.find("\\s", at)) != std::string::npos;) {
    pattern.replace(at, 2, "\\p{White_Space}");
  }
  return pattern;
}

/// One compiled expression, shared by all threads. `code_` is null when PCRE2 could not compile it.
class Echo {
 public:
  explicit Echo(std::string_view pattern) {
    const std::string spelled = with_unicode_white_space(std::string(pattern));
    int error = 0;
    PCRE2_SIZE offset = 0;
    code_.reset(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(spelled.data()), spelled.size(),
                              PCRE2_UTF | PCRE2_UCP, &error, &offset, nullptr));
    if (error == PCRE2_ERROR_HEAP_FAILED) throw std::bad_alloc();  // the next call tries again
    if (code_)
      pcre2_jit_compile(code_.get(), PCRE2_JIT_COMPLETE);  // without JIT: slower, the same result
    context_.reset(pcre2_match_context_create(nullptr));
    if (!context_) throw std::bad_alloc();
    pcre2_set_match_limit(context_.get(), UINT32_MAX);  // no text is too long to be redacted
  }

  /// Replaces each credential in the text, which is valid UTF-8. False when PCRE2 failed.
  bool redact(std::string& text) const {
    if (!code_) return false;
    const std::unique_ptr<pcre2_match_data, decltype(&pcre2_match_data_free)> match(
        pcre2_match_data_create_from_pattern(code_.get(), nullptr), &pcre2_match_data_free);
    if (!match) return false;
    const PCRE2_SIZE* const ends = pcre2_get_ovector_pointer(match.get());
    std::string redacted;
    std::size_t position = 0;
    while (true) {
      const int result =
          pcre2_match(code_.get(), reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), position,
                      PCRE2_NO_UTF_CHECK, match.get(), context_.get());
      if (result == PCRE2_ERROR_NOMATCH) break;
      if (result < 0) return false;
      const std::size_t match_end = ends[1];
      const std::size_t kept_end = ends[3];  // of group 1
      if (position == 0) redacted.reserve(text.size() + REDACTED.size());
      redacted.append(text, position, kept_end - position);
      redacted += REDACTED;
      position = match_end;  // a match is never empty
    }
    if (position > 0) text = redacted.append(text, position);
    return true;
  }

 private:
  struct Free {
    void operator()(pcre2_code* code) const { pcre2_code_free(code); }
    void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
  };
  std::unique_ptr<pcre2_code, Free> code_;
  std::unique_ptr<pcre2_match_context, Free> context_;
};

const std::array<Echo, detail::ECHOES.size()>& echoes() {
  static const std::array compiled{Echo(detail::ECHOES[0]), Echo(detail::ECHOES[1])};
  return compiled;
}

// ---- Known secrets ------------------------------------------------------------------------------

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
  if (rest.size() == text.size()) return;
  replaced += rest;
  text = std::move(replaced);
}

using BySize = std::set<std::pair<std::size_t, std::string_view>, std::greater<>>;

/// The distinct secrets that are long enough to count, with their lengths, longest first.
BySize by_size(const std::vector<std::string>& secrets) {
  BySize sized;
  for (const std::string& secret : secrets) {
    const std::size_t chars = detail::char_count(secret);
    if (chars >= detail::MIN_SECRET_CHARS) sized.emplace(chars, secret);
  }
  return sized;
}

void remove_secrets(std::string& text, const std::vector<std::string>& secrets) {
  for (const auto& [chars, secret] : by_size(secrets)) {
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

/// Of each header whose name marks a credential: the trimmed value, what follows its first word,
/// and the value of each cookie.
std::vector<std::string> by_name(const Headers& headers) {
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
      .followed_by(by_name(headers))
      .followed_by(secrets_of_url(url));
}

std::string _without_cut_secret(std::string text, std::string_view secret) {
  // Compared as bytes: the text may be cut inside a character.
  const std::size_t chars = detail::char_count(secret);
  if (chars <= detail::MIN_SECRET_CHARS) return text;
  const std::size_t shortest = detail::first_chars(secret, detail::MIN_SECRET_CHARS).size();
  const std::size_t longest = std::min(secret.size() - 1, text.size());
  for (std::size_t size = longest; size >= shortest; --size) {
    if (text.ends_with(secret.substr(0, size))) {
      text.replace(text.size() - size, size, REDACTED);
      break;
    }
  }
  return text;
}

std::string redact(std::string_view text, const Secrets& secrets) {
  std::string redacted(text);
  std::vector<std::string> decoded;
  for (const std::string& secret : secrets) decoded.push_back(detail::replace_ill_formed(secret));
  std::vector<std::string> forms(secrets.begin(), secrets.end());  // as bytes, and as UTF-8
  forms.insert(forms.end(), decoded.begin(), decoded.end());
  remove_secrets(redacted, forms);
  if (!detail::is_utf8(redacted)) {
    redacted = detail::replace_ill_formed(std::move(redacted));
    remove_secrets(redacted, decoded);  // one that contains U+FFFD may match only now
  }
  for (const Echo& echo : echoes()) {
    if (!echo.redact(redacted)) return std::string(REDACTED);  // better nothing than a secret
  }
  return redacted;
}

std::string excerpt(std::string_view text, const Secrets& secrets, std::size_t limit) {
  std::size_t margin = EXCERPT_MARGIN_CHARS;
  for (const std::string& secret : secrets) {
    margin = std::max(margin, detail::char_count(secret) + EXCERPT_MARGIN_CHARS);
  }
  const std::size_t stretch = limit + std::min(margin, SIZE_MAX - limit);
  const std::string redacted = redact(detail::first_chars(text, stretch), secrets);
  return std::string(detail::first_chars(redacted, limit));
}

}  // namespace engines::http
