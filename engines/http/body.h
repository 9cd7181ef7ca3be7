// SPDX-License-Identifier: Apache-2.0
// The body of a request: any C++ value that has a JSON form, without a conversion by the caller, or
// bytes of another content type.
//
//   post_json(url, std::map<std::string, std::vector<int>>{{"ids", {1, 2}}}, ...);
//   post_json(url, Json{{"model", "m-1"}, {"temperature", 0.5}}, ...);
//   post_json(url, form_body({{"grant_type", "client_credentials"}}), ...);
//
//   becomes      from
//   null         nullptr, nullopt, monostate, an empty optional, a null smart pointer or C string
//   true, false  bool
//   a number     integers (exactly), float, double and long double (as a double)
//   a string     std::string, std::string_view, their char8_t counterparts, C strings, character
//                arrays up to the first NUL, whatever converts to std::string_view, a single char.
//                Text that is JSON already is a string, too: send it with `raw_body`.
//   an array     any range that can be read while const (also of char, but for the texts above), C
//                arrays, pair, tuple
//   an object    any range with `key_type` and `mapped_type`: std::map, std::unordered_map, ...
//                Names are texts, integers, bool or floating-point numbers.
//   what it is   Json, every other nlohmann::basic_json, the value of an optional, smart pointer,
//                reference_wrapper, variant or Body
//
// A type defines its own form with nlohmann's hook, `to_json(Json&, const T&)` or, where there is
// only that, `to_json(nlohmann::json&, const T&)`, found in the namespace of the type, of a base or
// of a template argument; the hook comes before all of the above. Hooks that nlohmann's macros
// define may take `nlohmann::json` alone: such a type is a body, but only a part of
// `nlohmann::json{...}`, not of `Json{...}`.
//
// Whatever is left is a string that holds its text form: `to_string(t)` by argument-dependent
// lookup, `t.string()`, `t.what()`, a conversion to std::string, or `stream << t`. An enumeration
// without a text form is its integer. Everything else does not compile: raw pointers and wide
// characters are refused, for their text form would be an address or a number.
#pragma once

#include <concepts>
#include <initializer_list>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <ranges>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "engines/http/export.h"
#include "engines/http/given_text.h"
#include "engines/http/json/forms.h"

namespace engines::http {

/// A JSON value. Objects keep the order of their members.
using Json = nlohmann::ordered_json;

class Body;

namespace detail {

ENGINES_HTTP_EXPORT void write_body(JsonEncoder& out, const Body& body);
template <>
inline constexpr auto own_writer<Body> = &write_body;

// Compiled once, in json.cc: a caller that sends a `Json` needs only its declaration.
ENGINES_HTTP_EXPORT void write_json(JsonEncoder& out, const Json& value);
template <>
inline constexpr auto own_writer<Json> = &write_json;

}  // namespace detail

/// The JSON text of a value: on one line, ", " and ": " as separators, UTF-8. Floating-point
/// numbers have the shortest form that reads back to the same double; NaN, Infinity and -Infinity
/// are written as these words, which RFC 8259 does not allow.
///
/// Throws `std::invalid_argument` for text that is not valid UTF-8; a member name that is a null C
/// string; a `raw_body` as a part; a discarded Json value; and arrays, objects or pointers nested
/// more than 1,000 deep, as in a value that contains itself. What a type's own hook throws passes
/// through. A binary Json value is the text that its bytes are.
template <class T>
std::string encode_json(const T& value) {
  detail::JsonEncoder out;
  detail::write(out, value);
  return out.take();
}

/// What a request sends: the bytes and their content type, or no body at all.
///
/// It converts from any value, which is encoded at once: a Body refers to nothing, may be stored,
/// and does not change. Copies share the bytes.
class ENGINES_HTTP_EXPORT Body final {
 public:
  /// No body.
  Body() noexcept = default;

  /// The value as JSON; the top of this file lists which there are. A null value, in whatever
  /// form, is no body. Throws as `encode_json` does.
  template <class T>
  requires(!std::same_as<T, Body>) Body(const T& value) : Body(of_json(encode_json(value))) {}

  /// The bytes to send; none for no body. An empty text is a body.
  std::optional<std::string> data() const;
  /// Their content type, as the header names it.
  std::string content_type() const;

 private:
  friend Body raw_body(std::string bytes, std::string content_type);
  friend void detail::write_body(detail::JsonEncoder& out, const Body& body);

  struct Content {
    std::string bytes;
    std::string content_type;
    bool is_json;
  };
  explicit Body(Content content);
  static Body of_json(std::string json);

  std::shared_ptr<const Content> content_;  // null: no body
};

/// A body of these bytes, sent as they are:
///
///   post_json(url, raw_body(ndjson, "application/x-ndjson"), ...);
///
/// It is no JSON value: as a part of one it throws `std::invalid_argument`.
ENGINES_HTTP_EXPORT Body raw_body(std::string bytes, std::string content_type);

/// The names and values of a form, in order.
using FormFields = std::vector<std::pair<std::string, std::string>>;

namespace detail {
ENGINES_HTTP_EXPORT Body form_body(const FormFields& fields);
}

/// A body of type "application/x-www-form-urlencoded", percent-encoded as the URL standard's form
/// serialiser does; from a braced list or any range of pairs of strings:
///
///   post_json(url, form_body({{"grant_type", "refresh_token"}, {"refresh_token", token}}), ...);
///
/// Throws `std::invalid_argument` for text that is not valid UTF-8.
/// @{
ENGINES_HTTP_EXPORT Body form_body(std::initializer_list<detail::GivenField> fields);

template <std::ranges::input_range Range>
Body form_body(Range&& range) {
  FormFields fields;
  for (auto&& [name, value] : range) fields.emplace_back(name, value);
  return detail::form_body(fields);
}
/// @}

}  // namespace engines::http
