// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/type_name.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>

namespace engines::http::detail {
namespace {

using Demangled = std::unique_ptr<char, decltype(&std::free)>;

Demangled demangled(const char* name) {
  constexpr int NO_MEMORY = -1;
  int status = 0;
  Demangled readable(abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
  if (status == NO_MEMORY) throw std::bad_alloc();
  return readable;
}

}  // namespace

std::string type_name(const std::type_info& type) {
  const Demangled readable = demangled(type.name());
  const std::string_view name = readable ? readable.get() : type.name();

  // The last component of the qualified name begins behind the last `::` outside brackets, and ends
  // at the first bracket: its template arguments or its ABI tag.
  std::size_t begin = 0;
  std::size_t end = name.size();
  int depth = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (std::string_view("(<[{").find(name[i]) != std::string_view::npos) {
      if (depth++ == 0 && i > begin && end == name.size()) end = i;
    } else if (std::string_view(")>]}").find(name[i]) != std::string_view::npos) {
      --depth;
    } else if (depth == 0 && name.substr(i).starts_with("::")) {
      begin = ++i + 1;
      end = name.size();
    }
  }
  return std::string(name.substr(begin, end - begin));
}

}  // namespace engines::http::detail
