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

  /// A value that is JSON text already.
  void json(std::string_view text) { append(text); }

  /// Throws `std::invalid_argument` beyond 1,000 levels.
  void open(char bracket);
  void close(char bracket) {
    --depth_;
    first_ = false;
    append({&bracket, 1});
  }
  void item() {
    if (!first_) append(", ");
    first_ = false;
  }
  void name(std::string_view name);

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

  std::string take();

 private:
  static void check_depth(int depth);
  void append(std::string_view piece) {
    if (piece.size() > stage_.size() - staged_) return append_behind_stage(piece);
    staged_ += piece.copy(stage_.data() + staged_, piece.size());
  }
  void append_behind_stage(std::string_view piece);

  std::string out_;
  std::array<char, 2048> stage_;  // what follows `out_`; a short piece is cheap to add here
  std::size_t staged_ = 0;        // characters in it
  int depth_ = 0;
  int links_ = 0;
  bool first_ = true;  // the next item is the first of the innermost open array or object
};

}  // namespace engines::http::detail
