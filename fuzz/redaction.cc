// SPDX-License-Identifier: Apache-2.0
// Texts made of secrets, whole and cut, between other text from a stranger: no secret is left, and
// nothing else is lost.
#include <fuzzer/FuzzedDataProvider.h>
#include <unicode/unistr.h>

#include "engines/http/redaction.h"
#include "fuzz/expect.h"

namespace http = engines::http;
using fuzz::expect;
using icu::UnicodeString;

namespace {

constexpr std::int32_t MIN_CHARS = 8;

UnicodeString decoded(const std::string& text) { return UnicodeString::fromUTF8(text); }

/// Whether a text has none of the words that mark an echoed credential.
bool has_no_echo(UnicodeString text) {
  text.foldCase();
  return text.indexOf("authorization") < 0 && text.indexOf("bearer") < 0;
}

/// Secrets, whole and cut, between other text.
std::string text_with(const std::vector<std::string>& secrets, FuzzedDataProvider& input) {
  std::string text;
  while (input.remaining_bytes() > 0) {
    if (secrets.empty() || input.ConsumeBool()) {
      text += input.ConsumeRandomLengthString(60);
    } else {
      const std::string& secret = input.PickValueInArray({secrets.front(), secrets.back()});
      text += secret.substr(0, input.ConsumeIntegralInRange<std::size_t>(0, secret.size()));
    }
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  std::vector<std::string> secrets(input.ConsumeIntegralInRange<std::size_t>(0, 4));
  for (std::string& secret : secrets) secret = input.ConsumeRandomLengthString(30);
  const std::string text = text_with(secrets, input);
  const UnicodeString given = decoded(text);
  const std::int32_t limit = text.empty() ? 0 : static_cast<unsigned char>(text[0]);
  const std::string redacted = http::redact(text, secrets);
  const std::string excerpt = http::excerpt(text, secrets, static_cast<std::size_t>(limit));
  const UnicodeString left = decoded(redacted);
  const UnicodeString quoted = decoded(excerpt);

  bool in_text = false;
  for (const std::string& each : secrets) {
    const UnicodeString secret = decoded(each);
    const std::int32_t chars = secret.countChar32();
    if (chars < MIN_CHARS) continue;
    in_text |= given.indexOf(secret.tempSubString(0, secret.moveIndex32(0, MIN_CHARS))) >= 0;
    in_text |= text.find(each.substr(0, MIN_CHARS)) != text.npos;  // ill formed: within a character
    if (each.find_first_of(http::REDACTED) != each.npos) continue;  // a mark may complete it
    expect(left.indexOf(secret) < 0 && quoted.indexOf(secret) < 0, "no secret is left");
    for (std::int32_t count = MIN_CHARS; count < chars; ++count) {
      expect(!left.endsWith(secret, 0, secret.moveIndex32(0, count)), "no start of one at the end");
    }
  }
  if (!in_text && has_no_echo(given)) expect(left == given, "nothing else is lost");
  expect(quoted.countChar32() <= limit, "an excerpt is bounded");
  if (given.countChar32() <= limit) {
    expect(redacted.starts_with(excerpt), "an excerpt of a short text is its redacted start");
  }
  return 0;
}
