// SPDX-License-Identifier: Apache-2.0
#include "engines/http/body.h"

#include "engines/http/text/encoding.h"
#include "engines/http/text/utf8.h"

namespace engines::http {
namespace {

/// Appends a text as the URL standard's form serialiser writes it.
void append_form_text(std::string& out, std::string_view text) {
  constexpr std::string_view UNCHANGED =
      "*-._0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  if (!detail::is_utf8(text)) {
    throw std::invalid_argument("a text that is not valid UTF-8 cannot be a part of a form");
  }
  for (const char c : text) {
    if (c == ' ') {
      out += '+';
    } else if (UNCHANGED.find(c) != std::string_view::npos) {
      out += c;
    } else {
      detail::append_percent_encoded(out, static_cast<unsigned char>(c));
    }
  }
}

}  // namespace

Body::Body(Content content) : content_(std::make_shared<const Content>(std::move(content))) {}

Body Body::of_json(std::string json) {
  if (json == "null") return {};
  return Body(Content{std::move(json), "application/json", true});
}

std::optional<std::string> Body::data() const {
  return content_ ? std::optional(content_->bytes) : std::nullopt;
}

std::string Body::content_type() const { return content_ ? content_->content_type : ""; }

Body raw_body(std::string bytes, std::string content_type) {
  return Body(Body::Content{std::move(bytes), std::move(content_type), false});
}

Body detail::form_body(const FormFields& fields) {
  std::string text;
  for (const auto& [name, value] : fields) {
    if (!text.empty()) text += '&';
    append_form_text(text, name);
    text += '=';
    append_form_text(text, value);
  }
  return raw_body(std::move(text), "application/x-www-form-urlencoded");
}

Body form_body(std::initializer_list<detail::GivenField> fields) {
  FormFields texts;
  for (const auto& [name, value] : fields) texts.emplace_back(name.text, value.text);
  return detail::form_body(texts);
}

void detail::write_body(JsonEncoder& out, const Body& body) {
  if (!body.content_) return out.null();
  if (!body.content_->is_json) {
    throw std::invalid_argument("a body that is not JSON cannot be a part of a JSON value");
  }
  out.json(body.content_->bytes);
}

}  // namespace engines::http
