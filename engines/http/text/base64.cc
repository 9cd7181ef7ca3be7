// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/base64.h"

#include <openssl/evp.h>

namespace engines::http::detail {

std::string base64(std::string_view bytes) {
  std::string encoded(4 * ((bytes.size() + 2) / 3) + 1, '\0');  // OpenSSL adds a NUL
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                  reinterpret_cast<const unsigned char*>(bytes.data()),
                  static_cast<int>(bytes.size()));
  encoded.pop_back();
  return encoded;
}

}  // namespace engines::http::detail
