#include "engines/http/text/type_name.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string_view>

namespace engines::http::detail {
namespace {

constexpr bool is_identifier(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
         c == '$' || static_cast<unsigned char>(c) >= 0x80;
}

/// The position behind the group that opens at `open`. Angle brackets count only outside round
/// ones, since an argument such as `(1>2)` is printed in round ones.
std::size_t skip_group(std::string_view name, std::size_t open) {
  std::string closers;
  std::size_t i = open;
  do {
    const char c = name[i];
    const bool in_angles = closers.empty() || closers.back() == '>';
    if (c == '(' || c == '[' || c == '{') {
      closers += c == '(' ? ')' : c == '[' ? ']' : '}';
    } else if (c == '<' && in_angles) {
      closers += '>';
    } else if (!closers.empty() && c == closers.back()) {
      closers.pop_back();
    }
    ++i;
  } while (!closers.empty() && i < name.size());
  return i;
}

/// `operator<`, `operator()` and the like hold brackets that open no group.
std::size_t skip_operator(std::string_view name, std::size_t i) noexcept {
  constexpr std::string_view OPERATOR = "operator";
  const bool is_operator =
      name.substr(i).starts_with(OPERATOR) && (i == 0 || !is_identifier(name[i - 1])) &&
      i + OPERATOR.size() < name.size() && !is_identifier(name[i + OPERATOR.size()]);
  if (!is_operator) return i;
  i += OPERATOR.size();
  if (name.substr(i).starts_with("()") || name.substr(i).starts_with("[]")) return i + 2;
  while (i < name.size() &&
         std::string_view("<>=-+*/%^&|~!,").find(name[i]) != std::string_view::npos) {
    ++i;
  }
  return i;
}

}  // namespace

std::string type_name(const std::type_info& type) {
  constexpr int NO_MEMORY = -1;
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  if (status == NO_MEMORY) throw std::bad_alloc();
  const std::string_view name = demangled ? demangled.get() : type.name();

  // The last component of the qualified name begins behind the last `::` that is in no group, and
  // ends where its template arguments or ABI tag begin.
  std::size_t begin = 0;
  std::size_t end = name.size();
  for (std::size_t i = 0; i < name.size();) {
    if (const std::size_t behind = skip_operator(name, i); behind != i) {
      i = behind;
    } else if (name.substr(i).starts_with("::")) {
      begin = i += 2;
      end = name.size();
    } else if (std::string_view("(<[{").find(name[i]) != std::string_view::npos) {
      if (i != begin && end == name.size()) end = i;
      i = skip_group(name, i);
    } else {
      ++i;
    }
  }
  while (end > begin && name[end - 1] == ' ') --end;
  return std::string(name.substr(begin, end - begin));
}

}  // namespace engines::http::detail
