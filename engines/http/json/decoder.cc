// SPDX-License-Identifier: Apache-2.0
#include "engines/http/json/decoder.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "engines/http/json/syntax.h"
#include "engines/http/text/ascii.h"
#include "engines/http/text/utf8.h"

namespace engines::http::detail {
namespace {

using Json = nlohmann::ordered_json;

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double INFINITE = std::numeric_limits<double>::infinity();

constexpr bool is_space(char c) noexcept { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

/// Empties a value, the innermost first. The destructor of an array or object that is not empty
/// allocates, and would end the process when memory is short.
void clear(Json& value) noexcept {
  if (auto* const items = value.get_ptr<Json::array_t*>()) {
    for (Json& item : *items) clear(item);
    items->clear();
  } else if (auto* const members = value.get_ptr<Json::object_t*>()) {
    for (auto& [name, member] : *members) clear(member);
    members->clear();
  }
}

/// Whether a number outside the range of a double is too large, rather than too small: by the place
/// of its first digit other than zero, counted from the point, and the exponent.
bool is_too_large(std::string_view number) {
  const std::size_t exponent_at = std::min(number.find_first_of("eE"), number.size());
  const std::string_view digits = number.substr(0, exponent_at);
  const std::size_t point = std::min(digits.find('.'), digits.size());
  const auto before_point = static_cast<std::int64_t>(point - digits.find_first_of("123456789"));
  std::string_view exponent_text = number.substr(std::min(exponent_at + 1, number.size()));
  if (exponent_text.starts_with('+')) exponent_text.remove_prefix(1);
  std::int64_t exponent = 0;
  const auto [end, error] =
      std::from_chars(exponent_text.data(), exponent_text.data() + exponent_text.size(), exponent);
  if (error == std::errc::result_out_of_range) return exponent_text.front() != '-';
  return exponent > -before_point;
}

/// The names of an object's members and their values, in the order of the text.
struct Members {
  /// Makes `first` hold the value of `later`, which is marked as discarded.
  void replace(std::size_t first, std::size_t later) const {
    clear(values[first]);
    values[first] = std::exchange(values[later], Json::value_t::discarded);
  }

  std::span<std::string> names;
  std::span<Json> values;
};

void merge_few(const Members& members) {
  for (std::size_t later = 1; later < members.names.size(); ++later) {
    std::size_t first = 0;
    while (members.names[first] != members.names[later]) ++first;
    if (first != later) members.replace(first, later);
  }
}

/// The first eight bytes of a text as a number; a shorter text is filled up with NULs.
std::uint64_t start_of(std::string_view text) noexcept {
  std::uint64_t start = 0;
  text.copy(reinterpret_cast<char*>(&start), sizeof start);
  return start;
}

/// Sorts the names instead of hashing them: no choice of names makes this slow.
void merge_many(const Members& members) {
  struct Position {
    std::uint64_t name_start;  // decides most comparisons without access to the name
    std::size_t index;
  };
  const auto name = [&](const Position& at) -> const std::string& {
    return members.names[at.index];
  };
  std::vector<Position> order;
  order.reserve(members.names.size());
  for (const std::string& each : members.names) order.push_back({start_of(each), order.size()});
  std::ranges::sort(order, [&](const Position& a, const Position& b) {
    if (a.name_start != b.name_start) return a.name_start < b.name_start;
    const int difference = name(a).compare(name(b));
    return difference != 0 ? difference < 0 : a.index < b.index;
  });
  Position first = order.front();
  for (const Position& next : std::span(order).subspan(1)) {
    if (next.name_start == first.name_start && name(next) == name(first)) {
      members.replace(first.index, next.index);
    } else {
      first = next;
    }
  }
}

/// Gives the first member of each name the value of the last one and discards the others.
void merge_repeated_names(const Members& members) {
  constexpr std::size_t FEW = 16;
  if (members.names.size() <= FEW) return merge_few(members);
  merge_many(members);
}

/// Reads one text. Values go onto a stack as they appear. At the end of an array or object its
/// items are taken off the stack and moved into it, so it is made with its final size, and it goes
/// onto the stack itself.
class Decoder {
 public:
  explicit Decoder(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {
    values_.reserve(text.size() / 8 + 8);  // few texts hold more values than one in 8 characters
  }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;
  ~Decoder() { std::ranges::for_each(values_, clear); }

  std::optional<Json> decode();

 private:
  /// An array or object that has begun: the bracket that ends it, and where its items begin.
  struct Open {
    char closer;
    std::size_t first_value;
    std::size_t first_name;
  };

  bool next_is(char c) const noexcept { return at_ != end_ && *at_ == c; }
  bool next_is_digit() const noexcept { return at_ != end_ && is_digit(*at_); }
  bool take(char c) noexcept { return next_is(c) && (++at_, true); }
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

  bool scalar();
  bool number();
  bool real(const char* start);
  bool text();
  bool escape();
  bool code_unit(char32_t& unit) noexcept;
  char32_t low_surrogate() noexcept;
  bool name();

  void open(char closer) { open_.push_back({closer, values_.size(), names_.size()}); }
  void close();
  void close_array(std::span<Json> items);
  void close_object(const Members& members);

  const char* at_;
  const char* end_;
  std::vector<Json> values_;        // complete, not yet in the array or object around them
  std::vector<std::string> names_;  // of the members of objects that have begun
  std::vector<Open> open_;
  std::string_view text_;  // the latest text: in the input, or in unescaped_ if it held escapes
  std::string unescaped_;
};

std::optional<Json> Decoder::decode() {
  while (true) {
    skip_space();
    if (next_is('[') || next_is('{')) {
      if (open_.size() == MAX_JSON_DEPTH) return std::nullopt;
      open(*at_ == '[' ? ']' : '}');
      ++at_;
      skip_space();
      if (!next_is(open_.back().closer)) {
        if (open_.back().closer == '}' && !name()) return std::nullopt;
        continue;
      }
    } else if (!scalar()) {
      return std::nullopt;
    }
    // A value has ended, or the end of an empty array or object is next.
    while (true) {
      skip_space();
      if (open_.empty()) {
        if (at_ != end_) return std::nullopt;
        return std::exchange(values_.front(), nullptr);
      }
      if (take(open_.back().closer)) {
        close();
      } else if (take(',')) {
        skip_space();
        if (open_.back().closer == '}' && !name()) return std::nullopt;
        break;
      } else {
        return std::nullopt;
      }
    }
  }
}

bool Decoder::take(std::string_view word) noexcept {
  if (!std::string_view(at_, end_).starts_with(word)) return false;
  at_ += word.size();
  return true;
}

bool Decoder::scalar() {
  if (at_ == end_) return false;
  switch (*at_) {
    case '"':
      return text() && push(std::string(text_));
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
      return number();
  }
}

/// `std::from_chars` accepts more than JSON does: leading zeros, words, and a point without digits
/// around it. These are refused here. It ends before characters that belong to no number, which the
/// caller refuses.
bool Decoder::number() {
  const char* const start = at_;
  if (take('-') && next_is('I')) return take("Infinity") && push(-INFINITE);
  const bool leading_zero = next_is('0');
  if (!next_is_digit()) return false;

  std::uint64_t natural = 0;
  const auto [integer_end, error] = std::from_chars(at_, end_, natural);
  if (leading_zero && integer_end != at_ + 1) return false;
  at_ = integer_end;
  if (take('.')) {
    if (!next_is_digit()) return false;
  } else if (!next_is('e') && !next_is('E') && error == std::errc()) {
    std::int64_t integer = 0;
    if (*start != '-') return push(natural);
    if (natural != 0 && std::from_chars(start, at_, integer).ec == std::errc()) {
      return push(integer);  // but not -0: only a double keeps its sign
    }
  }
  return real(start);
}

/// Reads the number that begins at `start` as the nearest double.
bool Decoder::real(const char* start) {
  double value = 0;
  const auto [end, error] = std::from_chars(start, end_, value);
  at_ = end;
  if (error == std::errc::result_out_of_range) {
    value = std::copysign(is_too_large({start, end}) ? INFINITE : 0.0, *start == '-' ? -1.0 : 1.0);
  }
  return push(value);
}

/// Reads a string into `text_`.
bool Decoder::text() {
  const char* start = ++at_;
  at_ = skip_plain(at_, end_);
  if (next_is('\\')) {
    unescaped_.clear();
    while (true) {
      unescaped_.append(start, at_);
      if (!take('\\')) break;
      if (!escape()) return false;
      start = at_;
      at_ = skip_plain(at_, end_);
    }
    text_ = unescaped_;
  } else {
    text_ = {start, at_};
  }
  return take('"');
}

bool Decoder::escape() {
  if (at_ == end_) return false;
  const char c = *at_++;
  switch (c) {
    case '"':
    case '\\':
    case '/':
      unescaped_ += c;
      return true;
    case 'b':
      unescaped_ += '\b';
      return true;
    case 'f':
      unescaped_ += '\f';
      return true;
    case 'n':
      unescaped_ += '\n';
      return true;
    case 'r':
      unescaped_ += '\r';
      return true;
    case 't':
      unescaped_ += '\t';
      return true;
    default:
      break;
  }
  char32_t unit = 0;
  if (c != 'u' || !code_unit(unit)) return false;
  if (unit >= 0xD800 && unit <= 0xDBFF) {
    if (const char32_t low = low_surrogate(); low != 0) {
      unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }
  }
  append_utf8(unescaped_, unit);
  return true;
}

/// Reads the four digits of a numbered escape.
bool Decoder::code_unit(char32_t& unit) noexcept {
  if (end_ - at_ < 4) return false;
  unit = 0;
  for (int i = 0; i < 4; ++i) {
    const int digit = hex_value(*at_++);
    if (digit < 0) return false;
    unit = unit * 16 + static_cast<char32_t>(digit);
  }
  return true;
}

/// Reads an escaped low surrogate if one is next, else reads nothing and returns 0.
char32_t Decoder::low_surrogate() noexcept {
  const char* const start = at_;
  char32_t unit = 0;
  if (take("\\u") && code_unit(unit) && unit >= 0xDC00 && unit <= 0xDFFF) return unit;
  at_ = start;
  return 0;
}

bool Decoder::name() {
  if (!next_is('"') || !text()) return false;
  names_.emplace_back(text_);
  skip_space();
  return take(':');
}

void Decoder::close() {
  const Open ended = open_.back();
  open_.pop_back();
  const auto items = std::span(values_).subspan(ended.first_value);
  if (ended.closer == ']') {
    close_array(items);
  } else {
    close_object({std::span(names_).subspan(ended.first_name), items});
  }
}

void Decoder::close_array(std::span<Json> items) {
  Json array(Json::value_t::array);
  array.get_ref<Json::array_t&>().assign(std::move_iterator(items.begin()),
                                         std::move_iterator(items.end()));
  values_.resize(values_.size() - items.size());
  values_.push_back(std::move(array));
}

void Decoder::close_object(const Members& members) {
  Json object(Json::value_t::object);
  // Growing an ordered_map copies the members, deeply, and its own insertion looks through all.
  auto& kept = static_cast<Json::object_t::Container&>(object.get_ref<Json::object_t&>());
  merge_repeated_names(members);
  const auto discarded = std::ranges::count_if(members.values, &Json::is_discarded);
  kept.reserve(members.values.size() - static_cast<std::size_t>(discarded));
  for (std::size_t i = 0; i < members.names.size(); ++i) {
    if (members.values[i].is_discarded()) continue;
    kept.emplace_back(std::move(members.names[i]), std::move(members.values[i]));
  }
  names_.resize(names_.size() - members.names.size());
  values_.resize(values_.size() - members.values.size());
  values_.push_back(std::move(object));
}

}  // namespace

std::optional<Json> decode_utf8_json(std::string_view text) { return Decoder(text).decode(); }

}  // namespace engines::http::detail
