// SPDX-License-Identifier: Apache-2.0
// Writes one JSON text (RFC 8259) piece by piece: how each JSON value is laid out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "engines/http/export.h"

namespace engines::http::detail {

/// Appends pieces of one JSON text. The caller keeps the order: `item` before each item of an
/// array, `name` and then one value for each member of an object. After a function has thrown, the
/// encoder must not be used.
class ENGINES_HTTP_EXPORT JsonEncoder {
 public:
  JsonEncoder() { out_.reserve(USUAL_BYTES); }

  void null() { append("null"); }
  void boolean(bool value) { append(value ? "true" : "false"); }
  void integer(std::int64_t value);
  void unsigned_integer(std::uint64_t value);

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

  /// Before and after the value that a pointer, optional, variant or reference holds. Throws
  /// `std::invalid_argument` for more than 1,000 of them within each other: a value can contain
  /// itself through pointers alone.
  /// @{
  void enter() { check_depth(++links_); }
  void leave() { --links_; }
  /// @}

  /// The whole text. Nothing is written after it.
  std::string take() { return std::move(out_); }

 private:
  static void check_depth(int depth);
  void append(std::string_view piece) { out_.append(piece); }

  static constexpr std::size_t USUAL_BYTES = 512;  // most bodies are longer

  std::string out_;
  int depth_ = 0;
  int links_ = 0;      // calls of `enter` without `leave`
  bool first_ = true;  // nothing is in the innermost open array or object yet; false after `close`,
                       // because what it has closed is in the one around it
};

}  // namespace engines::http::detail
