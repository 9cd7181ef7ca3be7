// Values of every kind that a caller may send: the text written for one is JSON that holds the same
// value, and a value that has no JSON form is refused.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "engines/http/body.h"
#include "engines/http/json.h"
#include "fuzz/expect.h"

namespace http = engines::http;
using fuzz::expect;
using http::Json;

namespace {

class Values {
 public:
  Values(const std::uint8_t* data, std::size_t size) : input_(data, size) {}

  bool not_finite = false;  // some number so far is no JSON number

  std::string text() { return input_.ConsumeRandomLengthString(40); }

  template <class Number>
  Number real() {
    std::array<char, sizeof(Number)> bytes{};
    input_.ConsumeData(bytes.data(), bytes.size());
    const auto value = std::bit_cast<Number>(bytes);
    not_finite |= !std::isfinite(value);
    return value;
  }

  Json value(int depth) {
    switch (input_.ConsumeIntegralInRange(0, depth > 0 ? 9 : 6)) {
      case 0:
        return nullptr;
      case 1:
        return input_.ConsumeBool();
      case 2:
        return input_.ConsumeIntegral<std::int64_t>();
      case 3:
        return input_.ConsumeIntegral<std::uint64_t>();
      case 4:
        return real<double>();
      case 5:
        return real<float>();
      case 6:
        return text();
      case 7: {
        Json object = Json::object();
        while (more()) {
          std::string name = text();
          object[name] = value(depth - 1);
        }
        return object;
      }
      default: {
        Json array = Json::array();
        while (more()) array.push_back(value(depth - 1));
        return array;
      }
    }
  }

  /// The same through C++ types, and what they must become.
  auto typed() {
    std::vector<float> floats;
    while (more()) floats.push_back(real<float>());
    std::map<std::int16_t, std::optional<std::string>> named;
    while (more()) {
      auto& value = named[input_.ConsumeIntegral<std::int16_t>()];
      if (input_.ConsumeBool()) value = text();
    }
    std::variant<bool, std::string, std::uint8_t> any = input_.ConsumeIntegral<std::uint8_t>();
    if (input_.ConsumeBool()) any = text();
    Json names = Json::object();
    for (const auto& [name, value] : named) {
      names[std::to_string(name)] = value ? Json(*value) : Json(nullptr);
    }
    Json expected = {Json(floats), std::move(names)};
    std::visit([&](const auto& it) { expected.push_back(it); }, any);
    return std::pair(std::tuple(std::move(floats), std::move(named), std::move(any)),
                     std::move(expected));
  }

 private:
  bool more() { return input_.remaining_bytes() > 0 && input_.ConsumeBool(); }

  FuzzedDataProvider input_;
};

bool is_utf8(const Json& value) {
  try {
    return !value.dump().empty();
  } catch (const Json::type_error&) {
    return false;
  }
}

template <class T>
void check(const T& value, const Json& meant, const Values& values) {
  std::optional<std::string> text;
  try {
    text = http::encode_json(value);
  } catch (const std::invalid_argument&) {
  }
  expect(text.has_value() == is_utf8(meant), "text that is not UTF-8 is refused, and nothing else");
  if (!text) return;
  const auto reread = http::decode_json(*text);
  expect(reread.has_value(), "what is written is JSON");
  if (values.not_finite) return;  // which equals nothing
  expect(*reread == meant, "it holds the value");
  expect(Json::parse(*text, nullptr, false) == meant, "it does so for nlohmann's parser");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Values values(data, size);
  const Json any = values.value(6);
  check(any, any, values);
  const auto [value, meant] = values.typed();
  check(value, meant, values);
  return 0;
}
