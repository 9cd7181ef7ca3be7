// SPDX-License-Identifier: Apache-2.0
// Texts made of secrets, whole and cut, between other text from a stranger: no secret is left, and
// nothing else is lost.
#include <fuzzer/FuzzedDataProvider.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "engines/http/redaction.h"
#include "fuzz/expect.h"

namespace http = engines::http;
using fuzz::expect;
using icu::UnicodeString;

namespace {

constexpr std::int32_t MIN_CHARS = 8;

/// Whether a secret and the mark in place of removed ones can share characters: then a mark can
/// complete the secret.
bool can_join_mark(const UnicodeString& secret) {
  const UnicodeString mark = UnicodeString::fromUTF8(std::string(http::REDACTED));
  if (mark.indexOf(secret) >= 0 || secret.indexOf(mark) >= 0) return true;
  for (std::int32_t size = 1; size <= mark.length(); ++size) {
    if (secret.startsWith(mark, mark.length() - size, size)) return true;
    if (secret.endsWith(mark, 0, size)) return true;
  }
  return false;
}

/// Whether a text has none of the words that mark an echoed credential.
bool has_no_echo(UnicodeString text) {
  text.foldCase();
  return text.indexOf("authorization") < 0 && text.indexOf("bearer") < 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  std::vector<std::string> secrets(input.ConsumeIntegralInRange<std::size_t>(0, 4));
  for (std::string& secret : secrets) secret = input.ConsumeRandomLengthString(30);
  std::string text;
  while (input.remaining_bytes() > 0) {
    if (secrets.empty() || input.ConsumeBool()) {
      text += input.ConsumeRandomLengthString(60);
    } else {
      const std::string& secret = input.PickValueInArray({secrets.front(), secrets.back()});
      text += secret.substr(0, input.ConsumeIntegralInRange<std::size_t>(0, secret.size()));
    }
  }
  const std::size_t limit = text.empty() ? 0 : static_cast<unsigned char>(text[0]);

  const std::string redacted = http::redact(text, secrets);
  const std::string excerpt = http::excerpt(text, secrets, limit);
  const UnicodeString left = UnicodeString::fromUTF8(redacted);
  const UnicodeString quoted = UnicodeString::fromUTF8(excerpt);
  const UnicodeString given = UnicodeString::fromUTF8(text);
  expect(static_cast<std::size_t>(quoted.countChar32()) <= limit, "an excerpt is bounded");

  bool in_text = false;
  for (const std::string& each : secrets) {
    const UnicodeString secret = UnicodeString::fromUTF8(each);
    const std::int32_t chars = secret.countChar32();
    if (chars < MIN_CHARS) continue;
    in_text |= given.indexOf(secret, 0, secret.moveIndex32(0, MIN_CHARS), 0, given.length()) >= 0;
    in_text |= text.find(each.substr(0, MIN_CHARS)) != text.npos;  // ill formed: within a character
    if (can_join_mark(secret)) continue;
    expect(left.indexOf(secret) < 0, "no secret is left");
    expect(quoted.indexOf(secret) < 0, "nor in an excerpt");
    for (std::int32_t count = MIN_CHARS; count < chars; ++count) {
      expect(!left.endsWith(secret, 0, secret.moveIndex32(0, count)), "no start of one at the end");
    }
  }
  std::string well_formed;
  given.toUTF8String(well_formed);
  if (!in_text && has_no_echo(given)) expect(redacted == well_formed, "nothing else is lost");
  if (static_cast<std::size_t>(given.countChar32()) <= limit) {
    expect(redacted.starts_with(excerpt), "an excerpt of a short text is its redacted start");
  }

  if (text.find("0123456789") == text.npos && has_no_echo(given)) {
    text += input.ConsumeBool() ? " Authorization: " : "\nbEARER ";
    const std::string echoed = http::redact(text + "x0123456789");
    expect(echoed.find("0123456789") == echoed.npos, "an echoed credential is removed");
  }
  return 0;
}
