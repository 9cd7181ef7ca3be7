// SPDX-License-Identifier: Apache-2.0
#pragma once

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <memory>
#include <string>
#include <string_view>

namespace engines::http::detail {

/// A compiled regular expression (PCRE2) over UTF-8 text, with Unicode's classes of characters. Any
/// number of threads may use it at once.
class Pattern {
 public:
  /// A pattern that cannot be compiled makes `replace` fail.
  explicit Pattern(std::string_view pattern);

  /// Replaces each match in the text, which is well-formed UTF-8; `replacement` may name groups as
  /// in "${1}". Returns false, and leaves the text as it is, when PCRE2 fails.
  bool replace(std::string& text, std::string_view replacement) const;

 private:
  struct Free {
    void operator()(pcre2_code* code) const { pcre2_code_free(code); }
    void operator()(pcre2_match_context* context) const { pcre2_match_context_free(context); }
  };
  std::unique_ptr<pcre2_code, Free> code_;  // null: it could not be compiled
  std::unique_ptr<pcre2_match_context, Free> context_;
};

}  // namespace engines::http::detail
