// Writes one JSON text (RFC 8259) piece by piece: the layout of every value is here, which C++ type
// becomes which value is in body.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace engines::http::detail {

/// How deeply arrays and objects may be nested, in what is written and in what is read. It bounds
/// the stack of whoever walks a value, and ends the walk through a value that contains itself.
inline constexpr int MAX_JSON_DEPTH = 1000;

/// The first character, from `begin` on, that does not stand for itself in a JSON string: a
/// quotation mark, a backslash or a control character below U+0020; `end` when there is none.
const char* skip_plain(const char* begin, const char* end) noexcept;

/// The caller keeps the order: `item` before each item of an array, `name` and then one value for
/// each member of an object.
class JsonWriter {
 public:
  JsonWriter() noexcept = default;
  JsonWriter(const JsonWriter&) = delete;
  JsonWriter& operator=(const JsonWriter&) = delete;

  void null() { append("null"); }
  void boolean(bool value) { append(value ? "true" : "false"); }
  void integer(std::int64_t value);
  void natural(std::uint64_t value);

  /// The shortest form that reads back to the same value: 1.0, 0.0001, 1e-05, 1.5e+300, -0.0, NaN,
  /// Infinity, -Infinity.
  void number(double value);

  /// Throws `std::invalid_argument` for text that is not valid UTF-8.
  void text(std::string_view value);

  /// Throws `std::invalid_argument` beyond `MAX_JSON_DEPTH`.
  void open(char bracket);
  void close(char bracket) {
    --depth_;
    first_ = false;
    *room(1) = bracket;
    ++staged_;
  }
  /// One step through a pointer or the like to a value, while it lives. So many steps as there may
  /// be levels of nesting: a value can contain itself through such steps alone.
  class Link {
   public:
    explicit Link(JsonWriter& out) : out_(out) { check_depth(++out_.links_); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;
    ~Link() { --out_.links_; }

   private:
    JsonWriter& out_;
  };

  /// A value that is JSON text already.
  void json(std::string_view text) { append(text); }

  void item() {
    char* const to = room(2);
    to[0] = ',';
    to[1] = ' ';
    staged_ += first_ ? 0 : 2;
    first_ = false;
  }
  void name(std::string_view name) {
    item();
    text(name);
    append(": ");
  }

  /// So many numbers come next. A long row of them is written where it stays: growing under it
  /// would touch twice the memory.
  void expect_numbers(std::size_t count) {
    if (count > STAGE) out_.reserve(out_.size() + 20 * count);
  }

  std::string take();

 private:
  static constexpr std::size_t STAGE = 2048;

  /// Where the next characters go: at least `size` fit, which is far less than the stage.
  char* room(std::size_t size) {
    if (STAGE - staged_ < size) flush();
    return stage_.data() + staged_;
  }
  void append(std::string_view piece) {
    if (piece.size() > STAGE / 4) return append_long(piece);
    staged_ += piece.copy(room(piece.size()), piece.size());
  }
  void append_long(std::string_view piece);
  void flush();

  std::string out_;
  std::array<char, STAGE>
      stage_;  // not initialised: what comes after out_: short pieces are cheap to add here
  std::size_t staged_ = 0;
  static void check_depth(int depth);

  int depth_ = 0;
  int links_ = 0;
  bool first_ = true;  // of the innermost open array or object
};

}  // namespace engines::http::detail
