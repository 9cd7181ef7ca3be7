// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <typeinfo>

namespace engines::http::detail {

/// A type's own plain name as it is declared: without namespace, enclosing type or function,
/// template arguments and ABI tags.
std::string type_name(const std::type_info& type);

}  // namespace engines::http::detail
