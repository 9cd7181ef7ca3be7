#include "bench/json_peers.h"

#include <rapidjson/document.h>
#include <simdjson.h>

#include <stdexcept>

namespace bench {

using engines::http::Json;

namespace {

Json converted(const simdjson::dom::element& element) {
  using simdjson::dom::element_type;
  switch (element.type()) {
    case element_type::ARRAY: {
      Json value = Json::array();
      const simdjson::dom::array items(element);
      value.get_ref<Json::array_t&>().reserve(items.size());
      for (const auto item : items) value.get_ref<Json::array_t&>().push_back(converted(item));
      return value;
    }
    case element_type::OBJECT: {
      Json value = Json::object();
      // Its own insertion looks through all members, and its growth copies them.
      auto& members = static_cast<Json::object_t::Container&>(value.get_ref<Json::object_t&>());
      const simdjson::dom::object object(element);
      members.reserve(object.size());
      for (const auto member : object) {
        members.emplace_back(std::string(member.key), converted(member.value));
      }
      return value;
    }
    case element_type::INT64:
      return std::int64_t(element);
    case element_type::UINT64:
      return std::uint64_t(element);
    case element_type::DOUBLE:
      return double(element);
    case element_type::STRING:
      return std::string(std::string_view(element));
    case element_type::BOOL:
      return bool(element);
    case element_type::NULL_VALUE:
      break;
  }
  return nullptr;
}

}  // namespace

void parse_nlohmann(const std::string& text) {
  if (!Json::parse(text).is_structured()) throw std::runtime_error("nlohmann's parser failed");
}

void parse_rapidjson(const std::string& text) {
  rapidjson::Document document;
  if (document.Parse<rapidjson::kParseFullPrecisionFlag>(text.data(), text.size())
          .HasParseError()) {
    throw std::runtime_error("RapidJSON's parser failed");
  }
}

void parse_simdjson(const std::string& text) {
  simdjson::dom::parser parser;
  if (parser.parse(text).error() != simdjson::SUCCESS) {
    throw std::runtime_error("simdjson's parser failed");
  }
}

Json convert_simdjson(const std::string& text) {
  simdjson::dom::parser parser;
  return converted(parser.parse(text).value());
}

}  // namespace bench
