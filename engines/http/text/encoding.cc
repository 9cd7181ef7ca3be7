// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/encoding.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <charconv>
#include <cstddef>
#include <iterator>

namespace engines::http::detail {

std::string base64(std::string_view bytes) {
  std::string encoded(4 * ((bytes.size() + 2) / 3) + 1, '\0');  // OpenSSL adds a NUL
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                  reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()));
  encoded.pop_back();
  return encoded;
}

void append_percent_encoded(std::string& out, unsigned char byte) {
  fmt::format_to(std::back_inserter(out), "%{:02X}", byte);
}

std::string percent_decoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view digits = text.substr(i + 1, 2);
    unsigned char byte = 0;
    const bool is_encoded =
        text[i] == '%' && digits.size() == 2 &&
        std::from_chars(digits.data(), digits.data() + 2, byte, 16).ptr == digits.data() + 2;
    decoded += is_encoded ? static_cast<char>(byte) : text[i];
    if (is_encoded) i += 2;
  }
  return decoded;
}

}  // namespace engines::http::detail
