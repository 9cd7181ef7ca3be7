// SPDX-License-Identifier: Apache-2.0
// Values of every kind that a caller may send: the text written for one is JSON that holds the same
// value, and a value that has no JSON form is refused.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <bit>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

#include "engines/http/body.h"
#include "engines/http/json.h"
#include "fuzz/expect.h"

namespace http = engines::http;
using fuzz::expect;
using http::Json;

namespace {

struct Values {
  FuzzedDataProvider input;
  bool all_finite = true;  // one that is not finite equals nothing

  bool more() { return input.remaining_bytes() > 0 && input.ConsumeBool(); }
  std::string text() { return input.ConsumeRandomLengthString(40); }

  template <class Number>
  Number real() {
    std::array<char, sizeof(Number)> bytes{};
    input.ConsumeData(bytes.data(), bytes.size());
    const auto value = std::bit_cast<Number>(bytes);
    all_finite = all_finite && std::isfinite(value);
    return value;
  }

  Json any(int depth) {
    const int kind = input.ConsumeIntegralInRange(0, depth > 0 ? 9 : 6);
    if (kind == 0) return nullptr;
    if (kind == 1) return input.ConsumeBool();
    if (kind == 2) return input.ConsumeIntegral<std::int64_t>();
    if (kind == 3) return input.ConsumeIntegral<std::uint64_t>();
    if (kind == 4) return real<double>();
    if (kind == 5) return real<float>();
    if (kind == 6) return text();
    Json all = kind == 7 ? Json::object() : Json::array();
    while (more()) {
      if (kind == 7) all[text()] = any(depth - 1);
      if (kind >= 8) all.push_back(any(depth - 1));
    }
    return all;
  }
};

template <class T>
void check(const T& value, const Json& meant, bool all_finite) {
  std::optional<std::string> text, expected;
  try {
    text = http::encode_json(value);
  } catch (const std::invalid_argument&) {
  }
  try {
    expected = meant.dump();
  } catch (const Json::type_error&) {
  }
  expect(text.has_value() == expected.has_value(), "only text that is not UTF-8 is refused");
  if (!text) return;
  const auto reread = http::decode_json(*text);
  expect(reread.has_value(), "what is written is JSON");
  expect(!all_finite || *reread == meant, "it holds the value");
  expect(!all_finite || Json::parse(*text, nullptr, false) == meant, "so nlohmann's parser says");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Values values{.input = {data, size}};
  const Json any = values.any(6);
  check(any, any, values.all_finite);

  // The same through C++ types.
  std::tuple<std::vector<float>, std::map<std::int16_t, std::optional<std::string>>,
             std::variant<std::uint8_t, std::string>>
      typed;
  auto& [floats, named, either] = typed;
  Json names = Json::object();
  while (values.more()) floats.push_back(values.real<float>());
  while (values.more()) {
    const auto number = values.input.ConsumeIntegral<std::int16_t>();
    auto& value = named[number];
    if (values.more()) value = values.text();
  }
  for (const auto& [number, value] : named) {
    names[std::to_string(number)] = value ? Json(*value) : Json();
  }
  if (values.more()) either = values.text();
  const Json last = either.index() == 0 ? Json(0) : Json(std::get<1>(either));
  check(typed, {floats, names, last}, values.all_finite);
  return 0;
}
