// SPDX-License-Identifier: Apache-2.0
#include "engines/http/text/type_name.h"

#include <boost/core/demangle.hpp>
#include <cstddef>
#include <string_view>

namespace engines::http::detail {

std::string type_name(const std::type_info& type) {
  const std::string readable = boost::core::demangle(type.name());
  const std::string_view name = readable;

  // The last component of the qualified name begins behind the last `::` outside brackets, and ends
  // at the first bracket after its first character (it may begin with one, as a lambda's does): its
  // template arguments or its ABI tag.
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
