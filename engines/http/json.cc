#include "engines/http/json.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "engines/http/json/decimal.h"
#include "engines/http/text/scan.h"
#include "engines/http/text/text.h"

namespace engines::http {
namespace {

constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double INFINITE = std::numeric_limits<double>::infinity();

constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

constexpr bool is_space(char c) noexcept { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }

/// The first eight bytes of a text as a number; a shorter one is filled up with NULs.
std::uint64_t start_of(std::string_view text) noexcept {
  std::uint64_t start = 0;
  text.copy(reinterpret_cast<char*>(&start), sizeof start);
  return start;
}

/// Takes everything out of a value, from its leaves on.
void clear(Json& value) noexcept {
  if (auto* const items = value.get_ptr<Json::array_t*>()) {
    for (Json& item : *items) clear(item);
    items->clear();
  } else if (auto* const members = value.get_ptr<Json::object_t*>()) {
    for (auto& [name, member] : *members) clear(member);
    members->clear();
  }
}

/// An array or object, complete or not. The destructor of one that is not empty allocates, and so
/// would end the process where what is built is given up for want of memory.
struct Container {
  explicit Container(Json::value_t kind) : value(kind) {}
  Container(Container&&) noexcept = default;
  Container& operator=(Container&&) noexcept = default;
  ~Container() { clear(value); }

  Json value;
};

/// Reads one text. Values go onto a stack as they are met; the end of an array or object takes its
/// items off it and makes the Json value, which thus has its final size at once.
class Decoder {
 public:
  explicit Decoder(std::string_view text) : at_(text.data()), end_(text.data() + text.size()) {
    slots_.reserve(text.size() / 8 + 8);  // few texts hold more values than one in 8 characters
  }

  std::optional<Json> decode();

 private:
  enum class Kind : std::uint8_t {
    null,
    boolean,
    integer,
    natural,
    real,
    text,
    container,
    dropped
  };

  union Payload {
    bool boolean;
    std::int64_t integer;
    std::uint64_t natural;
    double real;
    const char* text;       // in the text that is read, or in unescaped_
    std::size_t container;  // in containers_
  };

  /// A value on the stack. Trivial, so that a stack of millions is cheap to grow and to cut.
  struct Slot {
    Kind kind() const noexcept { return static_cast<Kind>(head & 0xFF); }
    std::string_view text() const noexcept {
      return {value.text, static_cast<std::size_t>(head >> 8)};
    }

    std::uint64_t head;  // the kind, and above it the size of a text
    Payload value;
  };

  /// An array or object that has begun.
  struct Open {
    char closer;
    std::size_t first_slot;  // its items follow, or its names and values in turn
    std::size_t first_container;
  };

  bool next_is(char c) noexcept { return at_ != end_ && *at_ == c; }
  bool take(char c) noexcept { return next_is(c) && (++at_, true); }
  bool take(std::string_view word) noexcept;
  void skip_space() noexcept {
    while (at_ != end_ && is_space(*at_)) ++at_;
  }
  /// Always true, so that reading a value can end with it.
  bool push(Kind kind, Payload value = {}, std::size_t size = 0) {
    slots_.push_back({std::uint64_t{size} << 8 | static_cast<std::uint64_t>(kind), value});
    return true;
  }

  bool scalar();
  bool number();
  bool text();
  bool escape();
  bool hex4(char32_t& unit) noexcept;
  bool name();

  void open(char closer) { open_.push_back({closer, slots_.size(), containers_.size()}); }
  void close();
  std::size_t settle_names(std::span<Slot> members);
  template <class Sink>
  void give(const Slot& slot, const Sink& sink);

  const char* at_;
  const char* end_;
  std::vector<Slot> slots_;
  std::vector<Open> open_;
  std::vector<Container> containers_;  // complete, not yet moved into the one around them
  std::string unescaped_;              // texts that held escapes; reserved once, so it never moves
};

std::optional<Json> Decoder::decode() {
  while (true) {
    skip_space();
    if (next_is('[') || next_is('{')) {
      if (open_.size() == detail::MAX_JSON_DEPTH) return std::nullopt;
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
        std::optional<Json> value;
        give(slots_.front(), [&]<class T>(T&& held) { value.emplace(std::forward<T>(held)); });
        return value;
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
      return text();
    case 'n':
      return take("null") && push(Kind::null);
    case 't':
      return take("true") && push(Kind::boolean, {.boolean = true});
    case 'f':
      return take("false") && push(Kind::boolean, {.boolean = false});
    case 'N':
      return take("NaN") && push(Kind::real, {.real = NOT_A_NUMBER});
    case 'I':
      return take("Infinity") && push(Kind::real, {.real = INFINITE});
    default:
      return number();
  }
}

bool Decoder::number() {
  const char* const start = at_;
  const bool negative = take('-');
  if (negative && next_is('I')) return take("Infinity") && push(Kind::real, {.real = -INFINITE});

  std::uint64_t mantissa = 0;  // wraps around when there are too many digits; not used then
  const auto take_digits = [&] {
    const char* const first = at_;
    for (std::uint64_t eight = 0; end_ - at_ >= 8 && detail::read_eight_digits(at_, eight);
         at_ += 8) {
      mantissa = mantissa * 100'000'000 + eight;
    }
    for (; at_ != end_ && is_digit(*at_); ++at_) {
      mantissa = mantissa * 10 + static_cast<std::uint64_t>(*at_ - '0');
    }
    return at_ - first;
  };
  const char* const first_digit = at_;
  if (!take('0') && take_digits() == 0) return false;
  const std::ptrdiff_t integer_digits = at_ - first_digit;

  const bool has_point = take('.');
  const std::ptrdiff_t decimals = has_point ? take_digits() : 0;
  if (has_point && decimals == 0) return false;

  std::int64_t exponent = 0;
  const bool has_exponent = take('e') || take('E');
  if (has_exponent) {
    constexpr std::int64_t HUGE_EXPONENT = std::int64_t{1} << 58;  // more than a text has digits
    const bool below = take('-');
    if (!below) take('+');
    if (at_ == end_ || !is_digit(*at_)) return false;
    for (; at_ != end_ && is_digit(*at_); ++at_) {
      exponent = std::min(exponent * 10 + (*at_ - '0'), HUGE_EXPONENT);
    }
    if (below) exponent = -exponent;
  }

  constexpr std::ptrdiff_t MAX_DIGITS = std::numeric_limits<std::uint64_t>::digits10;
  const auto leading_zeros = [&] {
    std::ptrdiff_t zeros = 0;
    for (const char* c = first_digit; c != at_ && (*c == '0' || *c == '.'); ++c) zeros += *c == '0';
    return zeros;
  };
  std::ptrdiff_t digits = integer_digits + decimals;
  if (digits > MAX_DIGITS) digits -= leading_zeros();

  if (!has_point && !has_exponent) {
    constexpr std::uint64_t SMALLEST_20_DIGITS = 10'000'000'000'000'000'000U;
    const bool fits = digits <= MAX_DIGITS || (digits == MAX_DIGITS + 1 && *first_digit == '1' &&
                                               mantissa >= SMALLEST_20_DIGITS);
    if (fits && !negative) return push(Kind::natural, {.natural = mantissa});
    if (fits && mantissa != 0 && mantissa <= std::uint64_t{1} << 63) {
      return push(Kind::integer, {.integer = static_cast<std::int64_t>(~mantissa + 1)});
    }
  }
  if (digits <= MAX_DIGITS) {
    const auto size = mantissa == 0 ? 0.0 : detail::nearest_double(mantissa, exponent - decimals);
    if (size) return push(Kind::real, {.real = negative ? -*size : *size});
  }
  double value = 0;
  if (std::from_chars(start, at_, value).ec == std::errc::result_out_of_range) {
    // Too large or too small is not told apart: the number is 0.ddd * 10^(this sum).
    const bool large = exponent + integer_digits - leading_zeros() > 0;
    value = std::copysign(large ? INFINITE : 0.0, negative ? -1.0 : 1.0);
  }
  return push(Kind::real, {.real = value});
}

bool Decoder::text() {
  const char* start = ++at_;
  at_ = detail::skip_plain(at_, end_);
  if (next_is('\\')) {
    // No escape is shorter than what it stands for.
    if (unescaped_.empty()) unescaped_.reserve(static_cast<std::size_t>(end_ - start));
    const std::size_t offset = unescaped_.size();
    while (true) {
      unescaped_.append(start, at_);
      if (!take('\\')) break;
      if (!escape()) return false;
      start = at_;
      at_ = detail::skip_plain(at_, end_);
    }
    push(Kind::text, {.text = unescaped_.data() + offset}, unescaped_.size() - offset);
  } else {
    push(Kind::text, {.text = start}, static_cast<std::size_t>(at_ - start));
  }
  return take('"');
}

bool Decoder::escape() {
  if (at_ == end_) return false;
  switch (const char c = *at_++) {
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
    case 'u': {
      char32_t unit = 0;
      if (!hex4(unit)) return false;
      if (unit >= 0xD800 && unit <= 0xDBFF) {
        const char* const after = at_;
        char32_t low = 0;
        if (take("\\u") && hex4(low) && low >= 0xDC00 && low <= 0xDFFF) {
          unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        } else {
          at_ = after;
        }
      }
      detail::append_utf8(unescaped_, unit);
      return true;
    }
    default:
      return false;
  }
}

bool Decoder::hex4(char32_t& unit) noexcept {
  if (end_ - at_ < 4) return false;
  std::uint32_t value = 0;
  const auto [read_end, error] = std::from_chars(at_, at_ + 4, value, 16);
  if (error != std::errc() || read_end != at_ + 4) return false;
  unit = value;
  at_ += 4;
  return true;
}

bool Decoder::name() {
  if (!next_is('"') || !text()) return false;
  skip_space();
  return take(':');
}

void Decoder::close() {
  const Open ended = open_.back();
  open_.pop_back();
  const std::span<Slot> slots = std::span(slots_).subspan(ended.first_slot);
  Container built(ended.closer == ']' ? Json::value_t::array : Json::value_t::object);
  if (ended.closer == ']') {
    auto& items = built.value.get_ref<Json::array_t&>();
    items.reserve(slots.size());
    for (const Slot& slot : slots) {
      give(slot, [&]<class T>(T&& held) { items.emplace_back(std::forward<T>(held)); });
    }
  } else {
    // Growing an ordered_map copies the members, deeply, and its own insertion looks through all.
    auto& members = static_cast<Json::object_t::Container&>(built.value.get_ref<Json::object_t&>());
    members.reserve(settle_names(slots));
    for (std::size_t i = 0; i < slots.size(); i += 2) {
      if (slots[i].kind() == Kind::dropped) continue;
      give(slots[i + 1], [&]<class T>(T&& held) {
        members.emplace_back(std::string(slots[i].text()), std::forward<T>(held));
      });
    }
  }
  slots_.erase(slots_.begin() + static_cast<std::ptrdiff_t>(ended.first_slot), slots_.end());
  containers_.erase(containers_.begin() + static_cast<std::ptrdiff_t>(ended.first_container),
                    containers_.end());
  push(Kind::container, {.container = containers_.size()});
  containers_.push_back(std::move(built));
}

/// Gives the first member of each name the value of the last one and drops the others. Returns how
/// many members are left.
std::size_t Decoder::settle_names(std::span<Slot> members) {
  constexpr std::size_t FEW = 16;
  const std::size_t count = members.size() / 2;
  std::size_t left = count;
  const auto drop = [&](std::size_t later, std::size_t first) {
    members[2 * first + 1] = members[2 * later + 1];
    members[2 * later].head = static_cast<std::uint64_t>(Kind::dropped);
    --left;
  };
  if (count <= FEW) {
    for (std::size_t i = 1; i < count; ++i) {
      for (std::size_t j = 0; j < i; ++j) {
        // Heads are a kind and a size: texts of one size.
        if (members[2 * i].head == members[2 * j].head &&
            members[2 * i].text() == members[2 * j].text()) {
          drop(i, j);
          break;
        }
      }
    }
    return left;
  }
  // Sorted, not hashed: names cannot be chosen so that this becomes slow. Most are told apart by
  // their start, without a look at where they stand.
  struct Named {
    std::uint64_t start;
    std::size_t index;
  };
  const auto name = [&](const Named& named) { return members[2 * named.index].text(); };
  std::vector<Named> sorted(count);
  for (std::size_t i = 0; i < count; ++i) sorted[i] = {start_of(members[2 * i].text()), i};
  std::ranges::sort(sorted, [&](const Named& a, const Named& b) {
    if (a.start != b.start) return a.start < b.start;
    const int order = name(a).compare(name(b));
    return order != 0 ? order < 0 : a.index < b.index;
  });
  std::size_t first = 0;
  for (std::size_t i = 1; i < count; ++i) {
    if (sorted[i].start == sorted[first].start && name(sorted[i]) == name(sorted[first])) {
      drop(sorted[i].index, sorted[first].index);
    } else {
      first = i;
    }
  }
  return left;
}

/// Calls the sink with the value, as the C++ type that makes the right kind of Json.
template <class Sink>
void Decoder::give(const Slot& slot, const Sink& sink) {
  switch (slot.kind()) {
    case Kind::boolean:
      return sink(slot.value.boolean);
    case Kind::integer:
      return sink(slot.value.integer);
    case Kind::natural:
      return sink(slot.value.natural);
    case Kind::real:
      return sink(slot.value.real);
    case Kind::text:
      return sink(std::string(slot.text()));
    case Kind::container:
      return sink(std::move(containers_[slot.value.container].value));
    case Kind::null:
    case Kind::dropped:
      break;
  }
  return sink(nullptr);
}

}  // namespace

std::optional<Json> decode_json(std::string_view text) {
  if (!detail::is_utf8(text)) return std::nullopt;
  return detail::decode_utf8_json(text);
}

std::optional<Json> detail::decode_utf8_json(std::string_view text) {
  return Decoder(text).decode();
}

void detail::write_json(JsonWriter& out, const Json& value) { write_tree(out, value); }

}  // namespace engines::http
