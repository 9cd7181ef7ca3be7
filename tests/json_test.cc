// SPDX-License-Identifier: Apache-2.0
#include "engines/http/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <list>
#include <map>
#include <span>

#include "tests/support/outcome.h"
#include "tests/support/table.h"

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

/// What a text decodes to, written again; "refused" when it is not JSON.
std::string decoded(std::string_view text) {
  // In memory of its very size, so that a read behind the end is seen.
  const std::vector<char> exact(text.begin(), text.end());
  const std::optional<Json> value = decode_json({exact.data(), exact.size()});
  return value ? encode_json(*value) : "refused";
}

TEST(DecodeJson, TakesWhatIsJsonAndRefusesTheRest) {
  for (const test::Row& row : test::table("json", 2)) {
    EXPECT_EQ(decoded(row[0]), row[1].empty() ? row[0] : row[1]) << row[0].substr(0, 100);
  }
  EXPECT_TRUE(decode_json("1")->is_number_unsigned());
}

TEST(DecodeJson, TakesManyNamesEachRepeated) {
  // A member holds a deep array while the object around it goes on growing.
  std::string members = "{\"deep\":" + std::string(900, '[') + std::string(900, ']');
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
                               std::list<std::vector<float>>{{1}, {}}}),
            R"([[1, "a"], [1, null, "c", -5, 65], [true, false], [[1, 2], [3, 4]], ["a"], )"
            R"([1, [2]], [[1.0], []]])");
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
  EXPECT_EQ(encode_json(Bodies{user::Derived{{1, 2}}, user::Hooked::on, user::Letters{'a', 'b'},
                               user::MoreLetters{{'c'}}, user::Bits{true}, user::Constrained(),
                               user::MoreConstrained(), std::vector<user::Box<bool>>{{true}}}),
            R"([{"y": 2, "x": 1}, "hooked", 97, 99, 1, "constrained", )"
            R"("constrained", [{"box": true}]])");
  EXPECT_EQ(encode_json(Bodies{user::Spoken::word, user::stream_me, std::filesystem::path("a/b"),
                               std::runtime_error("what")}),
            R"_(["spoken", "streamed 1000", "a/b", "what"])_");
}

template <class... Values>
void expect_refused(const Values&... values) {
  for (const std::string& end : {test::outcome([&] { return encode_json(values); })...}) {
    EXPECT_TRUE(end.starts_with("invalid_argument: ") && end.find("secret") == end.npos) << end;
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
  expect_refused(list, *endless,
                 std::vector{decode_json(std::string(1000, '[') + std::string(1000, ']'))});
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
  const auto returned = []() -> Body {
    const std::vector<std::string> local(2, std::string(100, 'x'));
    return std::span(local);
  };
  EXPECT_EQ(returned().data()->size(), 208U);
  Body kept = "xx";
  Body copy = kept;  // from a Body that is not const
  EXPECT_EQ(encode_json(std::vector{copy, Body(std::move(kept))}), "[\"xx\", \"xx\"]");
}

TEST(Body, OfBytesOrOfAForm) {
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
