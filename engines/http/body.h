// The body of a request: any C++ value that has a JSON form, without a conversion by the caller.
//
//   post_json(url, std::map<std::string, std::vector<int>>{{"ids", {1, 2}}}, ...);
//   post_json(url, Json{{"model", "m-1"}, {"temperature", 0.5}}, ...);
//
//   becomes      from
//   null         nullptr, nullopt, monostate, an empty optional, a null smart pointer or C string
//   true, false  bool
//   a number     integers (exactly), float, double and long double (as a double)
//   a string     std::string, std::string_view, their char8_t kin, C strings and character arrays
//                (up to the first NUL), whatever converts to std::string_view, a single char
//   an array     any range that can be read while const (of char too, but for the texts above), C
//                arrays, pair, tuple
//   an object    any range with `key_type` and `mapped_type`: std::map, std::unordered_map, ...
//                Names are texts, integers, bool or floating-point numbers.
//   what it is   Json, every other nlohmann::basic_json, the value of an optional, smart pointer,
//                reference_wrapper, variant or Body
//
// A type says its own form with nlohmann's hook, `to_json(Json&, const T&)` or, where there is only
// that, `to_json(nlohmann::json&, const T&)`, found by argument-dependent lookup; the hook comes
// before all of the above. Whatever is left is a string that holds its text form: `to_string(t)` by
// argument-dependent lookup, `t.string()`, `t.what()`, a conversion to std::string, or
// `stream << t`. An enumeration without a text form is its integer. Everything else does not
// compile: raw pointers and wide characters are refused, for their text form would be an address or
// a number.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <ranges>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "engines/http/json/encoder.h"

namespace engines::http {

/// A JSON value. Objects keep the order of their members.
using Json = nlohmann::ordered_json;

class Body;

namespace detail {

void write_json(JsonWriter& out, const Json& value);
void write_body(JsonWriter& out, const Body& body);

/// What `print` writes to a stream of the classic locale.
std::string printed(void (*print)(std::ostream&, const void*), const void* value);

template <class T, template <class...> class Template>
inline constexpr bool is_a = false;
template <template <class...> class Template, class... Args>
inline constexpr bool is_a<Template<Args...>, Template> = true;

template <class T>
inline constexpr bool is_basic_json = false;
template <template <class, class, class...> class Object, template <class, class...> class Array,
          class String, class Boolean, class Integer, class Natural, class Float,
          template <class> class Allocator, template <class, class = void> class Serializer,
          class Binary>
inline constexpr bool is_basic_json<nlohmann::basic_json<
    Object, Array, String, Boolean, Integer, Natural, Float, Allocator, Serializer, Binary>> = true;

template <class T, class Value>
concept HasHook = requires(Value& json, const T& value) {
  to_json(json, value);
};

template <class T>
concept NoValue = std::same_as<T, std::nullptr_t> || std::same_as<T, std::nullopt_t> ||
    std::same_as<T, std::monostate>;

template <class T>
concept Boolean = std::same_as<T, bool> || std::same_as<T, std::vector<bool>::reference>;

template <class T>
concept WideCharacter =
    std::same_as<T, wchar_t> || std::same_as<T, char16_t> || std::same_as<T, char32_t>;

template <class T>
concept Character = std::same_as<T, char> || std::same_as<T, char8_t>;

template <class T>
concept Integer = std::integral<T> && sizeof(T) <= sizeof(std::int64_t) && !Character<T> &&
                  !WideCharacter<T>;

template <class T>
concept CString = std::is_pointer_v<T> && Character<std::remove_cv_t<std::remove_pointer_t<T>>>;

template <class T>
concept CharacterArray = std::is_array_v<T> && Character<std::remove_cv_t<std::remove_extent_t<T>>>;

template <class T>
concept Text = CharacterArray<T> || std::convertible_to<const T&, std::string_view> ||
    std::convertible_to<const T&, std::u8string_view>;

/// May be empty, else stands for what it points to.
template <class T>
concept Pointer = is_a<T, std::optional> || is_a<T, std::unique_ptr> || is_a<T, std::shared_ptr>;

/// A range of itself (a path is one of paths) has no end to its items' items.
template <class T>
concept Sequence = std::ranges::input_range<const T> &&
    !std::same_as<std::remove_cvref_t<std::ranges::range_reference_t<const T>>, T>;

template <class T>
concept Mapping = Sequence<T> && requires {
  typename T::key_type;
  typename T::mapped_type;
};

/// Classes that derive from a variant, as recursive ones do, are variants too.
template <class... Alternatives>
void take_variant(const std::variant<Alternatives...>&);
template <class T>
concept Variant = requires(const T& value) {
  take_variant(value);
};

template <class T>
concept HasToString = requires(const T& value) {
  { to_string(value) } -> std::convertible_to<std::string_view>;
};

template <class T>
concept HasString = requires(const T& value) {
  { value.string() } -> std::convertible_to<std::string_view>;
};

template <class T>
concept HasWhat = requires(const T& value) {
  { value.what() } -> std::convertible_to<std::string_view>;
};

/// Asked as a function call: the stream's own members would take whatever converts to a number.
template <class T>
concept Printable = requires(std::ostream& out, const T& value) {
  operator<<(out, value);
};

template <class>
inline constexpr bool never = false;

template <Text T>
std::string_view view(const T& text) {
  if constexpr (CharacterArray<T>) {
    const std::basic_string_view characters(std::data(text), std::size(text));
    const std::size_t size =
        std::min(characters.find(std::remove_extent_t<T>{}), characters.size());
    return {reinterpret_cast<const char*>(characters.data()), size};
  } else if constexpr (std::convertible_to<const T&, std::string_view>) {
    return text;
  } else {
    const std::u8string_view characters = text;
    return {reinterpret_cast<const char*>(characters.data()), characters.size()};
  }
}

template <class T>
void write(JsonWriter& out, const T& value);

/// Any basic_json; a template, so that its definition is needed only where one is used.
template <class Value>
void write_tree(JsonWriter& out, const Value& value) {
  using Kind = typename Value::value_t;
  switch (value.type()) {
    case Kind::null:
      return out.null();
    case Kind::boolean:
      return out.boolean(value.template get_ref<const typename Value::boolean_t&>());
    case Kind::number_integer:
      return out.integer(value.template get_ref<const typename Value::number_integer_t&>());
    case Kind::number_unsigned:
      return out.natural(value.template get_ref<const typename Value::number_unsigned_t&>());
    case Kind::number_float:
      return out.number(
          static_cast<double>(value.template get_ref<const typename Value::number_float_t&>()));
    case Kind::string:
      return out.text(value.template get_ref<const typename Value::string_t&>());
    case Kind::binary: {
      const auto& bytes = value.get_binary();
      return out.text({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
    case Kind::array: {
      const auto& items = value.template get_ref<const typename Value::array_t&>();
      if (!items.empty() && items.front().is_number_float()) out.expect_numbers(items.size());
      out.open('[');
      for (const auto& item : items) {
        out.item();
        if (const auto* number = item.template get_ptr<const typename Value::number_float_t*>()) {
          out.number(static_cast<double>(*number));  // embeddings are long rows of these
        } else {
          write_tree(out, item);
        }
      }
      return out.close(']');
    }
    case Kind::object:
      out.open('{');
      for (const auto& [name, member] : value.template get_ref<const typename Value::object_t&>()) {
        out.name(name);
        write_tree(out, member);
      }
      return out.close('}');
    case Kind::discarded:
      break;
  }
  throw std::invalid_argument("a discarded value cannot be encoded as JSON");
}

template <class Value, class T>
void write_by_hook(JsonWriter& out, const T& value) {
  Value json;
  to_json(json, value);
  write_tree(out, json);
}

template <class Key>
void write_name(JsonWriter& out, const Key& key) {
  static_assert(
      Text<Key> || Boolean<Key> || Character<Key> || Integer<Key> || std::floating_point<Key>,
      "a member name is a text, an integer, a bool or a floating-point number");
  if constexpr (Text<Key>) {
    if constexpr (CString<Key>) {
      if (key == nullptr) throw std::invalid_argument("a member name is a null pointer");
    }
    out.name(view(key));
  } else if constexpr (Character<Key>) {
    const char character = static_cast<char>(key);
    out.name({&character, 1});
  } else {
    JsonWriter form;
    write(form, key);
    out.name(form.take());
  }
}

template <class T>
void write_text_form(JsonWriter& out, const T& value) {
  if constexpr (HasToString<T>) {
    out.text(to_string(value));
  } else if constexpr (HasString<T>) {
    out.text(value.string());
  } else if constexpr (HasWhat<T>) {
    out.text(value.what());
  } else if constexpr (std::convertible_to<const T&, std::string>) {
    out.text(static_cast<std::string>(value));
  } else if constexpr (Printable<T>) {
    out.text(printed([](std::ostream& stream,
                        const void* it) { operator<<(stream, *static_cast<const T*>(it)); },
                     std::addressof(value)));
  } else if constexpr (std::is_enum_v<T>) {
    write(out, static_cast<std::underlying_type_t<T>>(value));
  } else {
    static_assert(never<T>, "this type has no JSON form; give it a to_json(Json&, const T&)");
  }
}

/// The one place that says which type becomes which JSON.
template <class T>
void write(JsonWriter& out, const T& value) {
  if constexpr (std::same_as<T, Body>) {
    const JsonWriter::Link link(out);
    write_body(out, value);
  } else if constexpr (std::same_as<T, Json>) {
    write_json(out, value);
  } else if constexpr (is_basic_json<T>) {
    write_tree(out, value);
  } else if constexpr (HasHook<T, Json>) {
    write_by_hook<Json>(out, value);
  } else if constexpr (HasHook<T, nlohmann::json>) {
    write_by_hook<nlohmann::json>(out, value);
  } else if constexpr (NoValue<T>) {
    out.null();
  } else if constexpr (Boolean<T>) {
    out.boolean(value);
  } else if constexpr (Character<T>) {
    const char character = static_cast<char>(value);
    out.text({&character, 1});
  } else if constexpr (Integer<T> && std::signed_integral<T>) {
    out.integer(value);
  } else if constexpr (Integer<T>) {
    out.natural(value);
  } else if constexpr (std::floating_point<T>) {
    out.number(static_cast<double>(value));
  } else if constexpr (Text<T>) {
    if constexpr (CString<T>) {
      if (value == nullptr) return out.null();
    }
    out.text(view(value));
  } else if constexpr (Pointer<T>) {
    if (!value) return out.null();
    const JsonWriter::Link link(out);
    write(out, *value);
  } else if constexpr (is_a<T, std::reference_wrapper>) {
    const JsonWriter::Link link(out);
    write(out, value.get());
  } else if constexpr (Variant<T>) {
    const JsonWriter::Link link(out);
    std::visit([&out](const auto& alternative) { write(out, alternative); }, value);
  } else if constexpr (Mapping<T>) {
    out.open('{');
    for (const auto& [name, member] : value) {
      write_name(out, name);
      write(out, member);
    }
    out.close('}');
  } else if constexpr (Sequence<T>) {
    if constexpr (std::ranges::sized_range<const T> &&
                  std::floating_point<std::ranges::range_value_t<const T>>) {
      out.expect_numbers(std::ranges::size(value));
    }
    out.open('[');
    for (const auto& item : value) {
      out.item();
      write(out, item);
    }
    out.close(']');
  } else if constexpr (is_a<T, std::pair> || is_a<T, std::tuple>) {
    out.open('[');
    std::apply([&out](const auto&... items) { ((out.item(), write(out, items)), ...); }, value);
    out.close(']');
  } else if constexpr (std::is_pointer_v<T> || std::is_function_v<T> || WideCharacter<T>) {
    static_assert(never<T>, "raw pointers and wide characters have no JSON form");
  } else {
    write_text_form(out, value);
  }
}

}  // namespace detail

/// A value to be sent as JSON, or no body at all. A null value, in whatever form, is no body.
///
/// A named object is only referred to and must outlive the Body, as the argument of a call does;
/// a temporary is moved in, and copies of the Body share it. What the value itself refers to (a
/// `string_view`, a `span`) must outlive the Body in both cases.
///
/// The value is encoded each time that the JSON text is asked for, so a change to a named object in
/// between shows. Encoding only reads it.
class Body final {
 public:
  /// No body.
  Body() noexcept = default;

  /// This value; see the top of this file for which there are.
  template <class T>
  requires(!std::same_as<std::remove_cvref_t<T>, Body>) Body(T&& value) {
    using Value = std::remove_cvref_t<T>;
    if constexpr (std::is_lvalue_reference_v<T>) {
      value_ = std::addressof(value);
    } else if constexpr (std::is_array_v<Value>) {
      static_assert(detail::never<Value>, "a temporary array: name it, or use std::array");
    } else {
      owned_ = std::make_shared<const Value>(std::forward<T>(value));
      value_ = owned_.get();
    }
    write_ = [](detail::JsonWriter& out, const void* it) {
      detail::write(out, *static_cast<const Value*>(it));
    };
  }

 private:
  friend void detail::write_body(detail::JsonWriter& out, const Body& body);

  std::shared_ptr<const void> owned_;
  const void* value_ = nullptr;
  void (*write_)(detail::JsonWriter& out, const void* value) = nullptr;
};

/// The JSON text of a value, null for no body: on one line, ", " and ": " as separators, UTF-8.
/// Floating-point numbers have the shortest form that reads back to the same double; NaN, Infinity
/// and -Infinity are written as such words, which RFC 8259 does not know.
///
/// Throws `std::invalid_argument` for text that is not valid UTF-8 and for arrays and objects
/// nested more than 1,000 deep, as in a value that contains itself; whatever a type's own hook
/// throws. A binary Json value is the text that its bytes are; a discarded one cannot be encoded.
std::string encode_json(const Body& body);

/// The JSON text to send; none when the value is null, for a null body is no body.
std::optional<std::string> encode_body(const Body& body);

}  // namespace engines::http
