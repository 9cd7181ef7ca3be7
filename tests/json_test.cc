// SPDX-License-Identifier: Apache-2.0
#include "engines/http/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <deque>
#include <filesystem>
#include <limits>
#include <list>
#include <map>
#include <span>
#include <sstream>

#include "tests/support/outcome.h"

namespace user {

using engines::http::Json;

struct Point {
  int x = 0, y = 0;
};
void to_json(Json& json, const Point& point) { json = {{"y", point.y}, {"x", point.x}}; }
struct Derived : Point {};

enum class Plain : std::uint8_t { zero, one };
enum class Spoken { word };
std::string to_string(Spoken) { return "spoken"; }
enum Streamed { stream_me };
std::ostream& operator<<(std::ostream& out, Streamed) { return out << "streamed " << 1000; }
enum class Hooked { on };
NLOHMANN_JSON_SERIALIZE_ENUM(Hooked, {{Hooked::on, "hooked"}})

struct Intrusive {
  int a = 1;
  NLOHMANN_DEFINE_TYPE_INTRUSIVE(Intrusive, a)
};
// A hook comes before the range that the type also is.
struct Letters : std::vector<char> {
  using vector::vector;
  friend void to_json(Json& json, const Letters& letters) { json = letters.front(); }
};
struct MoreLetters : Letters {};
struct Bits : std::vector<bool> {
  using vector::vector;
};
void to_json(nlohmann::json& json, const Bits& bits) { json = bits.size(); }
template <class T>
struct Box {
  T value;
};
template <class T>
void to_json(Json& json, const Box<T>& box) {
  json = {{"box", box.value}};
}
// As nlohmann's macros write it from version 3.12 on.
struct Constrained {};
template <class Value>
requires engines::http::detail::is_basic_json<Value>
void to_json(Value& json, const Constrained&) { json = "constrained"; }
struct MoreConstrained : Constrained, std::vector<int> {};

struct List : std::vector<std::shared_ptr<List>> {};
struct Tree : std::variant<int, std::vector<Tree>> {
  using variant::variant;
};

}  // namespace user

namespace engines::http {
namespace {

constexpr double INFINITE = std::numeric_limits<double>::infinity();
constexpr std::size_t HOSTILE_SIZE = std::size_t{4} << 20;

std::string repeat(std::string_view piece, std::size_t count) {
  std::string text;
  text.reserve(piece.size() * count);
  for (; count > 0; --count) text += piece;
  return text;
}

/// What a text decodes to, written again; "refused" when it is not JSON.
std::string decoded(std::string_view text) {
  // In memory of its very size, so that a read behind the end is seen.
  const std::vector<char> exact(text.begin(), text.end());
  const std::optional<Json> value = decode_json({exact.data(), exact.size()});
  return value ? encode_json(*value) : "refused";
}

/// Every second word is what the one before it decodes to.
void expect_decoded(const std::string& words) {
  std::istringstream stream(words);
  for (std::string text, expected; stream >> text >> expected;) {
    EXPECT_EQ(decoded(text), expected) << text;
  }
}

TEST(DecodeJson, TakesWhatIsJson) {
  EXPECT_EQ(decoded(" \t\r\n [ 1 ,[ ] , { } , \"\" ] \t\r\n "), "[1, [], {}, \"\"]");
  EXPECT_EQ(decoded(R"({"a": 1, "b": 2, "a": [3], "b": {}, "a": 4})"), R"({"a": 4, "b": {}})");
  EXPECT_EQ(decoded(R"({"a": [1], "\u0061": 2, "": 3})"), R"({"a": 2, "": 3})");
  EXPECT_EQ(decoded("\"\x7f\ufeff\""), "\"\x7f\ufeff\"");
  // At the end: a surrogate without its other half.
  expect_decoded(R"(
      true true  false false  null null  [] []  Infinity Infinity
      "\"\\\/\b\f\n\r\t\u0000\u001F" "\"\\/\b\f\n\r\t\u0000\u001f"
      "\u00e9\u20AC\ud83d\ude00é€😀" "é€😀é€😀"  "\ud800" "�"  "\udc00\ud800" "��"
      "\ud800\u0041" "�A"  "\ud800\ud83d\ude00" "�😀"  "\ud800\n" "�\n")");
}

TEST(DecodeJson, RefusesWhatIsNot) {
  using namespace std::literals;
  std::istringstream words(R"(nul nulll True nan +Infinity -NaN Inf - + +1 01 -01 .5 1. 1.e1 1e 1e+
      0x1 1_0 -.5 -00 00.5 1.5. 1.5e 1.5e+ 1e5.5 inf -inf nan -nan infinity
      1,2 [ ] [1 [1, [1,] [,1] [1} { {"a" {"a": {"a":1 {"a":1, {"a":1,} {a:1} {1:1} {"a",1} {"a":1] {,} {"a"} 'a' " "a "\ "\" "\a" "\u12" "\u12g4" "\u-123" "\u+123" "\ud800\u" "\ud800\
      1//x)");
  for (std::string word; words >> word;) EXPECT_EQ(decoded(word), "refused") << word;
  const std::string_view cases[] = {""sv,      "\0"sv,       "1\0"sv,      "[1]\0x"sv,
                                    "[1] 2"sv, "\"a\0b\""sv, "\"a\nb\""sv, "\"abcdefgh\x1f\""sv};
  for (const std::string_view text : cases) EXPECT_EQ(decoded(text), "refused") << text;
  for (const char* space : {"\v", "\f", "\x1c", "\u0085", "\u00a0", "\u2028", "\ufeff"}) {
    EXPECT_EQ(decoded(space + "1"s), "refused");
    EXPECT_EQ(decoded("1"s + space), "refused");
  }
  std::istringstream ill_formed(
      "\x80 \xbf \xc1\xbf \xc3 \xc3\x28 \xe0\x9f\xbf \xe2\x82 \xe2\x28\xa1 \xed\xa0\x80 \xef\xbf "
      "\xf0\x8f\xbf\xbf \xf0\x9f\x98 \xf0\x9f\x28\x80 \xf4\x90\x80\x80 \xf5\x80\x80\x80 \xff");
  for (std::string bytes; ill_formed >> bytes;) {
    EXPECT_EQ(decoded("\"" + bytes + "\""), "refused");
    EXPECT_EQ(decoded("\"é12345678" + bytes), "refused");
    EXPECT_THROW(encode_json("é12345678" + bytes), std::invalid_argument);
  }
}

TEST(DecodeJson, ReadsNumbersExactlyOrAsTheNearestDouble) {
  expect_decoded(R"(
      0 0  -0 -0.0  -0.0e5 -0.0  1.0 1.0  1E2 100.0  1e-2 0.01  0.1e+1 1.0  -1 -1  00e0 refused
      9223372036854775808 9223372036854775808    -9223372036854775808 -9223372036854775808
      -9223372036854775809 -9.223372036854776e+18  9999999999999999999 9999999999999999999
      10000000000000000000 10000000000000000000  18446744073709551615 18446744073709551615
      18446744073709551616 1.8446744073709552e+19  20000000000000000000 2e+19
      99999999999999999999 1e+20  9007199254740993.0 9007199254740992.0
      9007199254740993.0000000000000000000000001 9007199254740994.0
      0.000000000000000000000000000001234567890123456789 1.2345678901234568e-30
      0.0000000000000000000000000000000000000000 0.0  1e22 1e+22  1e23 1e+23  8.5e-23 8.5e-23
      1.7976931348623157e308 1.7976931348623157e+308  1.7976931348623159e308 Infinity
      4.9e-324 5e-324  2e-324 0.0  -1E-999 -0.0  0.01e+999 Infinity  -1e999 -Infinity
      0e999999999999999999999 0.0  1e999999999999999999999 Infinity  1e-999999999999999999999 0.0)");
  std::istringstream laid_out(R"(
      0.0001 0.00012345678901234567 9.999999999999999e-05 1e-05 -1.25e-07 123456.789 10000000000.5
      1000000000000000.0 9007199254740992.0 9999999999999998.0 1e+16 1.2345678901234568e+17 NaN)");
  for (std::string text; laid_out >> text;) EXPECT_EQ(decoded(text), text);
  const std::string zeros(400, '0');
  expect_decoded("1" + zeros + " Infinity -1" + zeros + " -Infinity 0." + zeros + "1e401 1.0 0." +
                 zeros + "1e900 Infinity 0." + zeros + "1e300 1e-101 0." + zeros + zeros +
                 "1e400 0.0 1" + zeros + "e-400 1.0 1" + zeros + zeros + "e-400 Infinity -1" +
                 zeros + "e-900 -0.0 1" + zeros + ".0000000000000000000000000001e-399 10.0");
  EXPECT_TRUE(decode_json("1")->is_number_unsigned());
  EXPECT_EQ(decode_json("-1")->type(), Json::value_t::number_integer);
  EXPECT_TRUE(decode_json("1e0")->is_number_float());
}

TEST(DecodeJson, TakesAThousandLevels) {
  const auto nested = [](std::string_view open, std::string_view close, std::size_t depth) {
    return repeat(open, depth) + "1" + repeat(close, depth);
  };
  for (const auto& [open, close] : {std::pair("[", "]"), std::pair("{\"\": ", "}")}) {
    EXPECT_EQ(decoded(nested(open, close, 1000)), nested(open, close, 1000));
    EXPECT_EQ(decoded(nested(open, close, 1001)), "refused");
  }
}

TEST(DecodeJson, HostileTextsEndSoon) {
  EXPECT_EQ(decode_json(std::string(HOSTILE_SIZE, '[')), std::nullopt);
  EXPECT_EQ(decode_json(repeat("{\"\":", HOSTILE_SIZE / 4)), std::nullopt);
  EXPECT_EQ(decode_json(std::string(HOSTILE_SIZE, '-')), std::nullopt);
  EXPECT_EQ(*decode_json(std::string(HOSTILE_SIZE, '9')), INFINITE);
  EXPECT_EQ(*decode_json("0." + std::string(HOSTILE_SIZE, '0') + "1"), 0.0);
  EXPECT_EQ(decode_json("\"" + repeat("\\n", HOSTILE_SIZE / 2)), std::nullopt);
  EXPECT_EQ(decoded("{" + repeat("\"a\":1,", HOSTILE_SIZE / 6) + "\"a\":[7]}"), "{\"a\": [7]}");
  EXPECT_EQ(decode_json("[" + repeat("[],", 500'000) + "{}]")->size(), 500'001U);

  // Many names, each repeated; a member holds a deep array while the object around it goes on
  // growing.
  std::string members = "{\"deep\":" + repeat("[", 900) + repeat("]", 900);
  for (int i = 0; i < 400'000; ++i) {
    members += ",\"the name " + std::to_string(i % 200'000) + "\":" + std::to_string(i);
  }
  const Json many = *decode_json(members + "}");
  ASSERT_EQ(many.size(), 200'001U);
  EXPECT_EQ(many.begin().key(), "deep");
  EXPECT_EQ(std::prev(many.end()).key() + "=" + std::prev(many.end())->dump(),
            "the name 199999=399999");
}

TEST(EncodeJson, TakesValuesOfManyTypes) {
  using Bodies = std::vector<Body>;
  using Integers = std::numeric_limits<std::int64_t>;
  char buffer[8] = "ab";
  const char full[2] = {'x', 'y'};
  const char* const null_text = nullptr;
  const std::string text = "borrowed";
  EXPECT_EQ(encode_json(Bodies{"literal", u8"é", buffer, full, text, std::string_view("view"), 'c',
                               std::u8string(u8"é"), std::u8string_view(u8"é")}),
            R"(["literal", "é", "ab", "xy", "borrowed", "view", "c", "é", "é"])");
  EXPECT_EQ(encode_json(std::string("q\" s\\ /\n\r\t\b\f\x01\x1f\x7f é😀\0!", 24)),
            R"("q\" s\\ /\n\r\t\b\f\u0001\u001f)"
            "\x7f é😀\\u0000!\"");
  const std::string digits = repeat("0123456789", 700);
  EXPECT_EQ(encode_json(digits + "\n"), "\"" + digits + "\\n\"");

  std::vector<bool> flags = {true, false};
  EXPECT_EQ(encode_json(Bodies{true, Integers::min(), UINT64_MAX, 10'000'000'000'000'000, 0.1F,
                               -std::nan(""), 1.5L, flags[0], user::Plain::one}),
            "[true, -9223372036854775808, 18446744073709551615, 10000000000000000, "
            "0.10000000149011612, NaN, 1.5, true, 1]");

  std::vector<int> numbers = {1, 2};
  EXPECT_EQ(encode_json(Bodies{Body(), null_text, nullptr, std::optional<std::vector<int>>(),
                               std::shared_ptr<int>(), std::optional(1), std::ref(numbers),
                               std::make_unique<std::string>("moved in"),
                               std::variant<int, std::string>("v")}),
            R"([null, null, null, null, null, 1, [1, 2], "moved in", "v"])");

  const int grid[2][2] = {{1, 2}, {3, 4}};
  const std::tuple<int, std::nullopt_t, char, signed char, unsigned char> tuple(1, std::nullopt,
                                                                                'c', -5, 'A');
  EXPECT_EQ(encode_json(Bodies{std::pair(1, "a"), tuple, flags, grid, std::vector<char>{'a'},
                               user::Tree(std::vector<user::Tree>{1, std::vector<user::Tree>{2}}),
                               std::list<std::deque<float>>{{1}, {}}}),
            R"([[1, "a"], [1, null, "c", -5, 65], [true, false], [[1, 2], [3, 4]], ["a"], )"
            R"([1, [2]], [[1.0], []]])");
  EXPECT_EQ(encode_json(std::vector<double>(3000, 0.25)), "[" + repeat("0.25, ", 2999) + "0.25]");
  EXPECT_EQ(encode_json(Bodies{std::map<std::string, std::vector<int>>{{"b", {1}}, {"a", {}}},
                               std::multimap<int, bool>{{-1, true}, {2, false}},
                               std::map<bool, int>{{false, 0}, {true, 1}},
                               std::map<double, int>{{0.5, 1}}, std::map<char, int>{{'"', 1}},
                               std::map<std::string, Body>{{"m", "x"}, {"n", 3}, {"o", Body()}}}),
            R"([{"a": [], "b": [1]}, {"-1": true, "2": false}, {"false": 0, "true": 1}, )"
            R"({"0.5": 1}, {"\"": 1}, {"m": "x", "n": 3, "o": null}])");

  const Json json = {{"b", 1}, {"a", {nullptr, 0.5, true, "x", -1}}};
  EXPECT_EQ(encode_json(Bodies{json, nlohmann::json{{"b", 1}, {"a", 2}}, std::vector<Json>{1, "a"},
                               Json::binary({'o', 'k'})}),
            R"([{"b": 1, "a": [null, 0.5, true, "x", -1]}, {"a": 2, "b": 1}, [1, "a"], "ok"])");
  EXPECT_EQ(encode_json(Bodies{user::Derived{{1, 2}}, std::vector{user::Intrusive()},
                               user::Hooked::on, user::Letters{'a', 'b'}, user::MoreLetters{{'c'}},
                               user::Bits{true}, user::Constrained(), user::MoreConstrained(),
                               std::vector<user::Box<bool>>{{true}}}),
            R"([{"y": 2, "x": 1}, [{"a": 1}], "hooked", 97, 99, 1, "constrained", )"
            R"("constrained", [{"box": true}]])");
  EXPECT_EQ(encode_json(Bodies{user::Spoken::word, user::stream_me, std::filesystem::path("a/b"),
                               std::runtime_error("what"), std::complex<double>(1, 2)}),
            R"_(["spoken", "streamed 1000", "a/b", "what", "(1,2)"])_");
}

template <class... Values>
void expect_refused(const Values&... values) {
  const std::string messages[] = {
      test::outcome([&] { return "encoded: " + encode_json(values); })...};
  for (const std::string& message : messages) {
    EXPECT_TRUE(message.starts_with("invalid_argument: ")) << message;
    EXPECT_EQ(message.find("secret"), message.npos) << message;
  }
}

TEST(EncodeJson, RefusesWhatHasNoTextAndDoesNotQuoteIt) {
  const std::string bad = "secret \xff";
  expect_refused(std::map<std::string, int>{{bad, 1}}, Json{{"a", {bad}}}, Json{{bad, 1}}, '\xc3',
                 Json::binary({0xFF}), Json(Json::value_t::discarded),
                 std::map<const char*, int>{{nullptr, 1}},
                 std::vector{raw_body("secret", "text/plain")});
}

TEST(EncodeJson, RefusesAValueThatContainsItselfOrIsTooDeep) {
  // The second through pointers and references alone, without a bracket.
  struct Endless : std::variant<int, std::shared_ptr<Endless>> {
    using variant::variant;
  };
  const auto list = std::make_shared<user::List>();
  const auto endless = std::make_shared<Endless>(1);
  list->push_back(list);
  *endless = Endless(endless);
  expect_refused(list, *endless, std::vector{decode_json(repeat("[", 1000) + repeat("]", 1000))});
  list->clear();
  *endless = Endless(1);
}

TEST(Body, ANullValueIsNoBody) {
  for (const Body& none : {Body(), Body(nullptr), Body(std::nullopt), Body(std::optional<int>()),
                           Body(Json()), Body(nlohmann::json()), Body(std::optional(Body())),
                           Body(std::variant<std::monostate, int>())}) {
    EXPECT_EQ(none.data(), std::nullopt);
  }
  for (const Body& some : std::initializer_list<Body>{Json::object(), 0, false, "", "null"}) {
    EXPECT_TRUE(some.data() && some.content_type() == "application/json");
  }
}

TEST(Body, IsKeptWithoutTheValueThatItWasMadeOf) {
  std::vector<Body> kept;
  const auto returned = [](std::size_t size) -> Body {
    const std::vector<std::string> local(size, std::string(100, 'x'));
    return std::span(local);
  };
  for (std::size_t i = 0; i < 3; ++i) {
    std::string named(i, 'x');
    kept.emplace_back(named);
    kept.push_back(std::cref(named));
    kept.push_back(returned(i));
  }
  EXPECT_EQ(kept[6].data(), "\"xx\"");
  EXPECT_EQ(kept[7].data(), "\"xx\"");
  EXPECT_EQ(kept[8].data()->size(), 208U);
  Body copy = kept[6];  // from a Body that is not const
  kept.clear();
  EXPECT_EQ(encode_json(std::vector{copy, Body(std::move(copy)), Body()}),
            "[\"xx\", \"xx\", null]");
}

TEST(Body, OfBytesOrOfAForm) {
  EXPECT_EQ(raw_body("", "text/plain").data(), "");
  EXPECT_EQ(raw_body("", "text/plain").content_type(), "text/plain");
  EXPECT_EQ(raw_body("null", "application/json").data(), "null");
  const Body form = form_body({{"grant_type", "a b*-._~\n+&=%é\x7f"}, {"", ""}, {"é", "1"}});
  EXPECT_EQ(form.data(), "grant_type=a+b*-._%7E%0A%2B%26%3D%25%C3%A9%7F&=&%C3%A9=1");
  EXPECT_EQ(form.content_type(), "application/x-www-form-urlencoded");
  EXPECT_EQ(form_body(std::map<std::string_view, std::string>{{"b", "2"}, {"a", "1"}}).data(),
            "a=1&b=2");
  EXPECT_EQ(form_body({}).data(), "");
  EXPECT_THROW(form_body({{"a", "\xff"}}), std::invalid_argument);
}

}  // namespace
}  // namespace engines::http
