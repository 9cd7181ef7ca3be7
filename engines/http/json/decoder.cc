// SPDX-License-Identifier: Apache-2.0
#include "engines/http/json/decoder.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "engines/http/json/syntax.h"
#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

using Json = nlohmann::ordered_json;  // as in body.h, which this leaf does not include

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double INFINITE = std::numeric_limits<double>::infinity();

constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }
constexpr bool is_space(char c) noexcept { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }
constexpr bool is_lead_surrogate(char32_t unit) noexcept { return (unit & 0xFC00) == 0xD800; }
constexpr bool is_trail_surrogate(char32_t unit) noexcept { return (unit & 0xFC00) == 0xDC00; }

/// Empties a value, the innermost first. The destructor of an array or object that is not empty
/// allocates, and would end the process when memory is short.
void clear_deeply(Json& value) noexcept {
  if (auto* const items = value.get_ptr<Json::array_t*>()) {
    for (Json& item : *items) clear_deeply(item);
    items->clear();
  } else if (auto* const members = value.get_ptr<Json::object_t*>()) {
    for (auto& [name, member] : *members) clear_deeply(member);
    members->clear();
  }
}

/// Where a name is repeated, moves the later value to the first member of that name, and marks the
/// later member as discarded. Returns how many members remain.
std::size_t merge_repeated_names(std::span<const std::string> names, std::span<Json> values) {
  constexpr std::size_t FEW = 16;  // up to so many names, a linear search is faster than a map
  std::map<std::string_view, std::size_t> first_of;
  std::size_t remaining = names.size();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::size_t first =
        names.size() > FEW
            ? first_of.try_emplace(names[i], i).first->second
            : static_cast<std::size_t>(std::ranges::find(names, names[i]) - names.begin());
    if (first == i) continue;
    clear_deeply(values[first]);
    values[first] = std::exchange(values[i], Json::value_t::discarded);
    --remaining;
  }
  return remaining;
}

/// Reads one text. Values go onto a stack as they appear. At the end of an array or object its
/// items are taken off the stack and moved into it, so it is made with its final size, and it goes
/// onto the stack itself.
class Decoder {
 public:
  explicit Decoder(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {
    values_.reserve(text.size() / 8 + 8);  // most texts have fewer values than one in 8 characters
  }
  ~Decoder() { std::ranges::for_each(values_, clear_deeply); }

  std::optional<Json> decode();

 private:
  bool next_is(char c) const noexcept { return at_ != end_ && *at_ == c; }
  bool take(char c) noexcept {
    if (!next_is(c)) return false;
    ++at_;
    return true;
  }
  bool take(std::string_view word) noexcept;
  void skip_space() noexcept {
    while (at_ != end_ && is_space(*at_)) ++at_;
  }
  /// Always true, so that reading a value can end with it.
  template <class Value>
  bool push(Value value) {
    values_.emplace_back(std::move(value));
    return true;
  }

  // False: the text is not JSON.
  bool read_value();
  bool read_array();
  bool read_object();
  template <class ReadItem>
  bool read_items(char closer, ReadItem read_item);
  bool read_member();
  bool read_string();
  bool read_number();
  bool read_double(const char* start);
  bool append_string(std::string& out);
  bool append_escape(std::string& out);
  bool read_code_unit(char32_t& unit) noexcept;

  const char* at_;
  const char* end_;
  int depth_ = 0;                   // of the arrays and objects that have begun
  std::vector<Json> values_;        // complete, not yet in the array or object around them
  std::vector<std::string> names_;  // of the members of objects that have begun
};

std::optional<Json> Decoder::decode() {
  if (!read_value()) return std::nullopt;
  skip_space();
  if (at_ != end_) return std::nullopt;
  return std::exchange(values_.front(), nullptr);
}

bool Decoder::take(std::string_view word) noexcept {
  if (!std::string_view(at_, end_).starts_with(word)) return false;
  at_ += word.size();
  return true;
}

bool Decoder::read_value() {
  skip_space();
  if (at_ == end_) return false;
  switch (*at_) {
    case '[':
      return read_array();
    case '{':
      return read_object();
    case '"':
      return read_string();
    case 'n':
      return take("null") && push(nullptr);
    case 't':
      return take("true") && push(true);
    case 'f':
      return take("false") && push(false);
    case 'N':
      return take("NaN") && push(NOT_A_NUMBER);
    case 'I':
      return take("Infinity") && push(INFINITE);
    default:
      return read_number();
  }
}

bool Decoder::read_array() {
  const std::size_t first = values_.size();
  if (!read_items(']', [this] { return read_value(); })) return false;
  Json array(Json::value_t::array);
  const auto read = std::span(values_).subspan(first);
  array.get_ref<Json::array_t&>().assign(std::move_iterator(read.begin()),
                                         std::move_iterator(read.end()));
  // So that `push` finds room: if it failed, an array that is not empty would be destroyed.
  values_.resize(first);
  return push(std::move(array));
}

bool Decoder::read_object() {
  const std::size_t first_name = names_.size();
  const std::size_t first_value = values_.size();
  if (!read_items('}', [this] { return read_member(); })) return false;
  Json object(Json::value_t::object);
  // An ordered_map copies its members when it grows, and searches all of them on insertion.
  auto& members = static_cast<Json::object_t::Container&>(object.get_ref<Json::object_t&>());
  const auto names = std::span(names_).subspan(first_name);
  const auto values = std::span(values_).subspan(first_value);
  members.reserve(merge_repeated_names(names, values));
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (values[i].is_discarded()) continue;
    members.emplace_back(std::move(names[i]), std::move(values[i]));
  }
  names_.resize(first_name);
  values_.resize(first_value);
  return push(std::move(object));
}

/// Reads the brackets of an array or object and what is between them.
template <class ReadItem>
bool Decoder::read_items(char closer, ReadItem read_item) {
  if (++depth_ > MAX_JSON_DEPTH) return false;
  ++at_;
  skip_space();
  if (!next_is(closer)) {
    do {
      if (!read_item()) return false;
      skip_space();
    } while (take(','));
  }
  --depth_;
  return take(closer);
}

bool Decoder::read_member() {
  skip_space();
  if (!next_is('"') || !append_string(names_.emplace_back())) return false;
  skip_space();
  return take(':') && read_value();
}

bool Decoder::read_string() {
  std::string read;
  return append_string(read) && push(std::move(read));
}

/// Reads an integer. Where the number has a point, an exponent or too many digits, `read_double`
/// reads all of it again. `std::from_chars` accepts more than JSON does, leading zeros, words, and
/// a point without digits around it: these are refused here. It ends before characters that belong
/// to no number, which the caller refuses.
bool Decoder::read_number() {
  const char* const start = at_;
  const bool negative = take('-');
  if (negative && next_is('I')) return take("Infinity") && push(-INFINITE);
  const bool leading_zero = next_is('0');
  std::uint64_t magnitude = 0;
  const auto [integer_end, error] = std::from_chars(at_, end_, magnitude);
  if (integer_end == at_ || (leading_zero && integer_end != at_ + 1)) return false;
  at_ = integer_end;
  if (take('.')) return at_ != end_ && is_digit(*at_) && read_double(start);
  if (next_is('e') || next_is('E') || error != std::errc()) return read_double(start);
  if (!negative) return push(magnitude);
  constexpr std::uint64_t LARGEST_NEGATIVE = std::uint64_t{1} << 63;
  // As a double, -0 keeps its sign.
  if (magnitude == 0 || magnitude > LARGEST_NEGATIVE) return read_double(start);
  return push(static_cast<std::int64_t>(-magnitude));
}

/// Reads the number that begins at `start` as the nearest double.
bool Decoder::read_double(const char* start) {
  double value = 0;
  const auto [end, error] = std::from_chars(start, end_, value);
  at_ = end;
  if (error == std::errc::result_out_of_range) {
    // It does not report which: nlohmann's parser refuses a number that is too large, and reads one
    // that is too small as the nearest double.
    const Json small = Json::parse(start, end, nullptr, /*allow_exceptions=*/false);
    value = small.is_number() ? small.get<double>() : *start == '-' ? -INFINITE : INFINITE;
  }
  return push(value);
}

/// Reads a string and appends its characters.
bool Decoder::append_string(std::string& out) {
  ++at_;
  while (true) {
    const char* const plain = at_;
    at_ = skip_plain(at_, end_);
    out.append(plain, at_);
    if (take('"')) return true;
    if (!take('\\') || !append_escape(out)) return false;
  }
}

bool Decoder::append_escape(std::string& out) {
  if (at_ == end_) return false;
  const char letter = *at_++;
  if (const auto i = ESCAPE_LETTERS.find(letter); i != std::string_view::npos) {
    out += ESCAPED[i];
    return true;
  }
  char32_t unit = 0;
  if (letter != 'u' || !read_code_unit(unit)) return false;
  if (is_lead_surrogate(unit)) {
    const char* const lead_end = at_;
    char32_t trail = 0;
    if (take("\\u") && read_code_unit(trail) && is_trail_surrogate(trail)) {
      unit = 0x10000 + ((unit - 0xD800) << 10) + (trail - 0xDC00);
    } else {
      at_ = lead_end;
    }
  }
  append_utf8(out, unit);
  return true;
}

/// Reads the four digits of a numbered escape.
bool Decoder::read_code_unit(char32_t& unit) noexcept {
  constexpr int DIGITS = 4;
  if (end_ - at_ < DIGITS) return false;
  std::uint16_t value = 0;
  const char* const start = std::exchange(at_, at_ + DIGITS);
  if (std::from_chars(start, at_, value, 16).ptr != at_) return false;
  unit = value;
  return true;
}

}  // namespace

std::optional<Json> decode_utf8_json(std::string_view text) { return Decoder(text).decode(); }

}  // namespace engines::http::detail
