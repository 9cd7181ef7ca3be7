// SPDX-License-Identifier: Apache-2.0
// What each harness checks the library's promises with. A broken promise aborts, which the fuzzer
// reports as a crash, and keeps the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace fuzz {

inline void expect(bool kept, std::string_view promise) {
  if (kept) return;
  std::fprintf(stderr, "broken: %.*s\n", static_cast<int>(promise.size()), promise.data());
  std::abort();
}

}  // namespace fuzz
