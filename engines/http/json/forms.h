// SPDX-License-Identifier: Apache-2.0
// Writes any C++ value as JSON: `write`, at the end, decides which type has which form. body.h
// lists the forms for callers.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
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
#include "engines/http/value_types.h"

namespace engines::http::detail {

/// The function that writes a `T`, specialised beside the type; null: `write` decides. It is a
/// variable because an overload of `write` for a type such as `Body` would fit whatever converts to
/// that.
template <class T>
inline constexpr auto own_writer = nullptr;
template <class T>
concept HasOwnWriter = !std::same_as<decltype(own_writer<T>), const std::nullptr_t>;

template <class T>
inline constexpr bool is_basic_json = false;
template <template <class, class, class...> class Object, template <class, class...> class Array,
          class String, class Boolean, class Integer, class Natural, class Float,
          template <class> class Allocator, template <class, class = void> class Serializer,
          class Binary>
inline constexpr bool is_basic_json<nlohmann::basic_json<
    Object, Array, String, Boolean, Integer, Natural, Float, Allocator, Serializer, Binary>> = true;

/// May be empty; else it is written as what it points to.
template <class T>
concept Nullable = is_a<T, std::optional> || is_a<T, std::unique_ptr> || is_a<T, std::shared_ptr>;

// Whether a type has a hook of its own. From version 3.11.3 on nlohmann's namespaces are searched
// for `to_json(json, value)`, too, whatever the value, and have an overload for every built-in
// type. Those must not count. Two questions find a type's own hook:
//
//  1. Is there a function that names the type or a base of it? It can be called with a `StandIn`,
//     which converts to the type; a template that deduces the type cannot. Of nlohmann's, those
//     that name a type can be called with a `Stranger`, too, whose namespaces are others.
//  2. Is there a template that names the type's own template? Overload resolution prefers it to
//     `rival::to_json`, which takes any type. nlohmann's own take any type, too: a call that could
//     be to one of them or to the rival is ambiguous, which counts as no hook.

/// Converts to a `T`, and has the same associated namespaces.
template <class T>
struct StandIn {
  const T& value;
  operator const T&() const { return value; }

  /// Converts to a `T`, too, but as a nested class does not have its associated namespaces.
  struct Stranger {
    operator const T&() const;
  };
};

template <class Value, class T>
concept CanCallHook = requires(Value& json, const T& value) {
  to_json(json, value);
};

namespace rival {

struct Answer {};
template <class Value, class T>
Answer to_json(Value& json, const T& value);

template <class Value, class T>
concept LosesToHook = requires(Value& json, const T& value) {
  requires !std::same_as<decltype(to_json(json, value)), Answer>;
};

}  // namespace rival

/// The answer to the first question.
template <class T, class Value>
concept HasHookByName =
    CanCallHook<Value, StandIn<T>> && !CanCallHook<Value, typename StandIn<T>::Stranger>;

/// nlohmann's overloads may name these templates, and then win over the rival.
template <class T>
concept StandardTemplate = Nullable<T> || is_a<T, std::pair> || is_a<T, std::tuple> ||
    is_a<T, std::vector> || is_a<T, std::basic_string>;

/// The answer to the second question.
template <class T, class Value>
concept HasTemplatedHook = !StandardTemplate<T> && rival::LosesToHook<Value, T>;

template <class T, class Value>
concept HasHook = (std::is_class_v<T> || std::is_enum_v<T> ||
                   std::is_union_v<T>)&&(HasHookByName<T, Value> || HasTemplatedHook<T, Value>);

template <class T>
concept NoValue = std::same_as<T, std::nullptr_t> || std::same_as<T, std::nullopt_t> ||
    std::same_as<T, std::monostate>;

template <class T>
concept Boolean = std::same_as<T, bool> || std::same_as<T, std::vector<bool>::reference>;

template <class T>
concept Number = Integer<T> || std::floating_point<T>;

/// A range whose items have its own type, such as a path, is none: writing it would not end.
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
void write(JsonEncoder& out, const T& value);

template <class T>
void write_scalar(JsonEncoder& out, const T& value) {
  if constexpr (Boolean<T>) {
    out.boolean(value);
  } else if constexpr (std::floating_point<T>) {
    out.number(static_cast<double>(value));
  } else if constexpr (std::signed_integral<T>) {
    out.integer(value);
  } else {
    out.unsigned_integer(value);
  }
}

template <class T>
void write_text(JsonEncoder& out, const T& text) {
  if constexpr (CString<T>) {
    if (text == nullptr) return out.null();
  }
  out.text(view(text));
}

/// Writes the value that this one holds or refers to.
template <class T>
void write_held(JsonEncoder& out, const T& value) {
  out.enter();
  if constexpr (Nullable<T>) {
    value ? write(out, *value) : out.null();
  } else if constexpr (Variant<T>) {
    std::visit([&out](const auto& alternative) { write(out, alternative); }, value);
  } else {
    write(out, value.get());
  }
  out.leave();
}

template <class Key>
void write_name(JsonEncoder& out, const Key& key) {
  static_assert(Text<Key> || Boolean<Key> || Character<Key> || Number<Key>,
                "a member name is a text, an integer, a bool or a floating-point number");
  if constexpr (CString<Key>) {
    if (key == nullptr) throw std::invalid_argument("a member name is a null pointer");
  }
  if constexpr (Text<Key> || Character<Key>) {
    out.name(view(key));
  } else {
    JsonEncoder form;
    write_scalar(form, key);
    out.name(form.take());
  }
}

template <class T>
void write_object(JsonEncoder& out, const T& members) {
  out.open('{');
  for (const auto& [name, member] : members) {
    write_name(out, name);
    write(out, member);
  }
  out.close('}');
}

template <class T>
void write_array(JsonEncoder& out, const T& items) {
  out.open('[');
  for (const auto& item : items) {
    out.item();
    write(out, item);
  }
  out.close(']');
}

template <class T>
void write_tuple(JsonEncoder& out, const T& tuple) {
  out.open('[');
  std::apply([&out](const auto&... items) { ((out.item(), write(out, items)), ...); }, tuple);
  out.close(']');
}

/// Any basic_json; a template, so that its definition is needed only where one is used.
template <class Value>
void write_tree(JsonEncoder& out, const Value& value) {
  using Kind = typename Value::value_t;
  switch (value.type()) {
    case Kind::null:
      return out.null();
    case Kind::boolean:
      return out.boolean(value.template get<bool>());
    case Kind::number_integer:
      return out.integer(value.template get<std::int64_t>());
    case Kind::number_unsigned:
      return out.unsigned_integer(value.template get<std::uint64_t>());
    case Kind::number_float:
      return out.number(value.template get<double>());
    case Kind::string:
      return out.text(value.template get_ref<const typename Value::string_t&>());
    case Kind::binary: {
      const auto& bytes = value.get_binary();
      return out.text({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
    case Kind::array:
      return write_array(out, value.template get_ref<const typename Value::array_t&>());
    case Kind::object:
      return write_object(out, value.template get_ref<const typename Value::object_t&>());
    case Kind::discarded:
      break;
  }
  throw std::invalid_argument("a discarded value cannot be encoded as JSON");
}

template <class Value, class T>
void write_by_hook(JsonEncoder& out, const T& value) {
  Value json;
  if constexpr (HasHookByName<T, Value>) {
    const StandIn<T> named{value};
    to_json(json, named);  // a hook for a base must win over nlohmann's own overloads
  } else {
    to_json(json, value);
  }
  write_tree(out, json);
}

template <class T>
void write_other(JsonEncoder& out, const T& value) {
  static_assert(!std::is_pointer_v<T> && !std::is_function_v<T> && !WideCharacter<T>,
                "raw pointers and wide characters have no JSON form");
  if constexpr (requires { out.text(to_string(value)); }) {
    out.text(to_string(value));
  } else if constexpr (requires { out.text(value.string()); }) {
    out.text(value.string());
  } else if constexpr (requires { out.text(value.what()); }) {
    out.text(value.what());
  } else if constexpr (std::convertible_to<const T&, std::string>) {
    out.text(static_cast<std::string>(value));
  } else if constexpr (requires(std::ostream & stream) { operator<<(stream, value); }) {
    // Not as an operator: the stream's own members would take whatever converts to a number.
    out.text(printed([&value](std::ostream& stream) { operator<<(stream, value); }));
  } else if constexpr (std::is_enum_v<T>) {
    write_scalar(out, static_cast<std::underlying_type_t<T>>(value));
  } else {  // what the first assertion refuses is not refused twice
    static_assert(std::is_pointer_v<T> || std::is_function_v<T> || WideCharacter<T>,
                  "this type has no JSON form; give it a to_json(Json&, const T&)");
  }
}

/// The one place that decides which type becomes which JSON.
template <class T>
void write(JsonEncoder& out, const T& value) {
  if constexpr (HasOwnWriter<T>) {
    own_writer<T>(out, value);
  } else if constexpr (is_basic_json<T>) {
    write_tree(out, value);
  } else if constexpr (HasHook<T, nlohmann::ordered_json>) {
    write_by_hook<nlohmann::ordered_json>(out, value);
  } else if constexpr (HasHook<T, nlohmann::json>) {
    write_by_hook<nlohmann::json>(out, value);
  } else if constexpr (NoValue<T>) {
    out.null();
  } else if constexpr (Boolean<T> || Number<T>) {
    write_scalar(out, value);
  } else if constexpr (Text<T> || Character<T>) {
    write_text(out, value);
  } else if constexpr (Nullable<T> || Variant<T> || is_a<T, std::reference_wrapper>) {
    write_held(out, value);
  } else if constexpr (Mapping<T>) {
    write_object(out, value);
  } else if constexpr (Sequence<T>) {
    write_array(out, value);
  } else if constexpr (is_a<T, std::pair> || is_a<T, std::tuple>) {
    write_tuple(out, value);
  } else {
    write_other(out, value);
  }
}

}  // namespace engines::http::detail
