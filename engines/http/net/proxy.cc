// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/proxy.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <stdexcept>
#include <system_error>

#include "engines/http/text/unicode.h"

namespace engines::http::net {
namespace {

struct Setting {
  const char* name;  // of the variable or the option
  std::string_view value;
};

/// The first of the variables that is set and not empty; an empty value: none is.
Setting environment(std::initializer_list<const char*> names) {
  for (const char* const name : names) {
    const char* const value = std::getenv(name);
    if (value != nullptr && *value != '\0') return {name, value};
  }
  return {"", ""};
}

/// The 4 bytes of an IPv4 address or the 16 of an IPv6 address; empty: it is no address.
std::string ip_bytes(std::string_view text) {
  if (text.starts_with('[') && text.ends_with(']')) text = text.substr(1, text.size() - 2);
  const std::string copy(text);
  std::string bytes(16, '\0');
  if (inet_pton(AF_INET6, copy.c_str(), bytes.data()) == 1) return bytes;
  return inet_pton(AF_INET, copy.c_str(), bytes.data()) == 1 ? bytes.substr(0, 4) : "";
}

/// Whether the address is in the network, an address or "address/bits".
bool is_in_network(const std::string& address, std::string_view network) {
  const std::size_t slash = std::min(network.find('/'), network.size());
  const std::string base = ip_bytes(network.substr(0, slash));
  if (base.size() != address.size()) return false;
  std::size_t bits = 8 * base.size();
  if (slash < network.size()) {
    const char* const end = network.data() + network.size();
    const auto [read_end, error] = std::from_chars(network.data() + slash + 1, end, bits);
    if (error != std::errc() || read_end != end || bits > 8 * base.size()) return false;
  }
  for (std::size_t bit = 0; bit < bits; ++bit) {
    if (((address[bit / 8] ^ base[bit / 8]) << bit % 8 & 0x80) != 0) return false;
  }
  return true;
}

/// Whether the host is the domain or within it.
bool is_in_domain(std::string_view host, std::string_view domain) {
  if (domain.starts_with('.')) domain.remove_prefix(1);
  if (domain.empty() || host.size() < domain.size()) return false;
  const std::size_t begin = host.size() - domain.size();
  return detail::equal_ignoring_case(host.substr(begin), domain) &&
         (begin == 0 || host[begin - 1] == '.');
}

/// The proxy that the setting names; none where its value is empty.
std::optional<Url> parsed(const Setting& setting) {
  if (setting.value.empty()) return std::nullopt;
  try {
    return parse_proxy_url(setting.value);
  } catch (const std::invalid_argument& error) {
    throw std::invalid_argument(std::string(setting.name) + ": " + error.what());
  }
}

}  // namespace

bool is_excluded(std::string_view no_proxy, std::string_view host) {
  const std::string address = ip_bytes(host);
  while (!no_proxy.empty()) {
    const std::size_t end = std::min(no_proxy.find_first_of(", \t"), no_proxy.size());
    const std::string_view entry = no_proxy.substr(0, end);
    no_proxy.remove_prefix(std::min(end + 1, no_proxy.size()));
    if (entry == "*") return true;
    if (address.empty() ? is_in_domain(host, entry) : is_in_network(address, entry)) return true;
  }
  return false;
}

std::optional<Url> proxy_for(const Origin& origin, const std::optional<std::string>& option) {
  if (option) return parsed({"PoolOptions::proxy", *option});
  const Setting proxy = origin.scheme == "https"
                            ? environment({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
                            : environment({"http_proxy", "all_proxy", "ALL_PROXY"});
  if (proxy.value.empty()) return std::nullopt;
  if (is_excluded(environment({"no_proxy", "NO_PROXY"}).value, origin.host)) return std::nullopt;
  return parsed(proxy);
}

const Url* Route::forwarder() const {
  const bool forwards =
      proxy && origin.scheme == "http" && proxy->origin.scheme.starts_with("http");
  return forwards ? &*proxy : nullptr;
}

const Url* Route::tunnel() const { return proxy && !forwarder() ? &*proxy : nullptr; }

}  // namespace engines::http::net
