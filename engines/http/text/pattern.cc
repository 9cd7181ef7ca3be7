// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/pattern.h"

#include <cstdint>
#include <new>
#include <utility>

namespace engines::http::detail {
namespace {

PCRE2_SPTR bytes_of(std::string_view text) { return reinterpret_cast<PCRE2_SPTR>(text.data()); }

}  // namespace

Pattern::Pattern(std::string_view pattern) {
  int error = 0;
  PCRE2_SIZE offset = 0;
  code_.reset(pcre2_compile(bytes_of(pattern), pattern.size(), PCRE2_UTF | PCRE2_UCP, &error,
                            &offset, nullptr));
  context_.reset(pcre2_match_context_create(nullptr));
  if (error == PCRE2_ERROR_HEAP_FAILED || !context_) throw std::bad_alloc();
  // Where this fails, a text with many matches takes quadratic time; the result is the same.
  if (code_) pcre2_jit_compile(code_.get(), PCRE2_JIT_COMPLETE);
  // By default a long text would exceed the number of steps.
  pcre2_set_match_limit(context_.get(), UINT32_MAX);
}

bool Pattern::replace(std::string& text, std::string_view replacement) const {
  constexpr std::uint32_t OPTIONS =
      PCRE2_SUBSTITUTE_GLOBAL | PCRE2_SUBSTITUTE_OVERFLOW_LENGTH | PCRE2_NO_UTF_CHECK;
  if (!code_) return false;
  std::string replaced(text.size() + 1, '\0');  // PCRE2 adds a NUL
  int result = PCRE2_ERROR_NOMEMORY;
  // A try with too little room reports how much is needed.
  for (int tries = 0; tries < 2 && result == PCRE2_ERROR_NOMEMORY; ++tries) {
    PCRE2_SIZE size = replaced.size();
    result = pcre2_substitute(code_.get(), bytes_of(text), text.size(), 0, OPTIONS, nullptr,
                              context_.get(), bytes_of(replacement), replacement.size(),
                              reinterpret_cast<PCRE2_UCHAR*>(replaced.data()), &size);
    // The code for too little room also means that the search had no memory: then no size is set.
    if (size == PCRE2_UNSET) return false;
    replaced.resize(size);
  }
  if (result < 0) return false;
  if (result > 0) text = std::move(replaced);
  return true;
}

}  // namespace engines::http::detail
