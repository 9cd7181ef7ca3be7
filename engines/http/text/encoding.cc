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
    decoded += text[i];
    if (text[i] != '%' || text.size() - i < 3) continue;
    const char* const digits = text.data() + i + 1;
    unsigned char byte = 0;
    if (std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) continue;
    decoded.back() = static_cast<char>(byte);
    i += 2;
  }
  return decoded;
}

}  // namespace engines::http::detail
