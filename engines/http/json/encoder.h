// SPDX-License-Identifier: Apache-2.0
// Writes one JSON text (RFC 8259) piece by piece: how each JSON value is laid out. The JSON form of
// each C++ type is described in body.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "engines/http/export.h"

namespace engines::http::detail {

/// The caller keeps the order: `item` before each item of an array, `name` and then one value for
/// each member of an object.
class ENGINES_HTTP_EXPORT JsonWriter {
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

  /// Throws `std::invalid_argument` beyond 1,000 levels.
  void open(char bracket);
  void close(char bracket) {
    --depth_;
    first_ = false;
    *room(1) = bracket;
    ++staged_;
  }
  /// While it lives, one step through a pointer or the like to a value. There may be 1,000 such
  /// steps within each other: a value can contain itself through them alone.
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

  /// Announces a row of so many numbers, for which room is made at once when it is long.
  void expect_numbers(std::size_t count) {
    if (count > STAGE) out_.reserve(out_.size() + 20 * count);
  }

  std::string take();

 private:
  static constexpr std::size_t STAGE = 2048;
  static constexpr std::size_t MAX_NUMBER = 32;  // the longest is -2.2250738585072014e-308

  static void check_depth(int depth);

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
  template <class Integer>
  void append_integer(Integer value);
  void flush();

  std::string out_;
  std::size_t staged_ = 0;  // characters in `stage_`
  int depth_ = 0;
  int links_ = 0;
  bool first_ = true;              // of the innermost open array or object
  std::array<char, STAGE> stage_;  // the text after `out_`: a short piece is cheap to add here
};

}  // namespace engines::http::detail
