// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/proxy.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <stdexcept>

#include "engines/http/text/base64.h"
#include "engines/http/text/case.h"

namespace engines::http::net {
namespace {

/// The first of the variables that is set and not empty.
std::pair<const char*, std::string> environment(std::initializer_list<const char*> names) {
  for (const char* const name : names) {
    const char* const value = std::getenv(name);
    if (value != nullptr && *value != '\0') return {name, value};
  }
  return {"", ""};
}

/// An address in bytes: 4 of IPv4 or 16 of IPv6.
struct Address {
  std::array<unsigned char, 16> bytes{};
  unsigned bits = 0;  // 0: it is none
};

Address address_of(std::string_view text) {
  if (text.starts_with('[') && text.ends_with(']')) text = text.substr(1, text.size() - 2);
  const std::string copy(text);
  Address address;
  if (inet_pton(AF_INET, copy.c_str(), address.bytes.data()) == 1) {
    address.bits = 32;
  } else if (inet_pton(AF_INET6, copy.c_str(), address.bytes.data()) == 1) {
    address.bits = 128;
  }
  return address;
}

/// Whether the address is in the network, an address or "address/bits".
bool is_in_network(const Address& address, std::string_view network) {
  const std::size_t slash = std::min(network.find('/'), network.size());
  const Address base = address_of(network.substr(0, slash));
  if (base.bits != address.bits) return false;
  unsigned bits = base.bits;
  if (slash < network.size()) {
    const char* const end = network.data() + network.size();
    const auto [read_end, error] = std::from_chars(network.data() + slash + 1, end, bits);
    if (error != std::errc() || read_end != end || bits > base.bits) return false;
  }
  for (unsigned bit = 0; bit < bits; ++bit) {
    const unsigned mask = 0x80U >> (bit % 8);
    if (((address.bytes[bit / 8] ^ base.bytes[bit / 8]) & mask) != 0) return false;
  }
  return true;
}

/// Whether the host is the domain or within it.
bool is_in_domain(std::string_view host, std::string_view domain) {
  if (domain.starts_with('.')) domain.remove_prefix(1);
  if (domain.empty() || host.size() < domain.size()) return false;
  const std::string_view end = host.substr(host.size() - domain.size());
  return detail::equal_ignoring_case(end, domain) &&
         (host.size() == domain.size() || host[host.size() - domain.size() - 1] == '.');
}

}  // namespace

bool is_excluded(std::string_view no_proxy, std::string_view host) {
  const Address address = address_of(host);
  while (!no_proxy.empty()) {
    const std::size_t end = std::min(no_proxy.find_first_of(", \t"), no_proxy.size());
    const std::string_view entry = no_proxy.substr(0, end);
    no_proxy.remove_prefix(std::min(end + 1, no_proxy.size()));
    if (entry == "*") return true;
    if (address.bits != 0 ? is_in_network(address, entry) : is_in_domain(host, entry)) return true;
  }
  return false;
}

std::shared_ptr<const Url> proxy_for(const Origin& origin,
                                     const std::optional<std::string>& option) {
  std::pair<const char*, std::string> given{"PoolOptions::proxy", option.value_or("")};
  if (!option) {
    given = origin.scheme == "https"
                ? environment({"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
                : environment({"http_proxy", "all_proxy", "ALL_PROXY"});
  }
  const auto& [name, url] = given;
  if (url.empty()) return nullptr;
  if (!option && is_excluded(environment({"no_proxy", "NO_PROXY"}).second, origin.host)) {
    return nullptr;
  }
  try {
    return std::make_shared<const Url>(parse_proxy_url(url));
  } catch (const std::invalid_argument& error) {
    throw std::invalid_argument(std::string(name) + ": " + error.what());
  }
}

bool is_forwarding(const Url& proxy, const Origin& origin) {
  const std::string& scheme = proxy.origin.scheme;
  return origin.scheme == "http" && (scheme == "http" || scheme == "https");
}

std::string basic_authorization(const Credentials& credentials) {
  return "Basic " + detail::base64(credentials.user + ":" + credentials.password);
}

}  // namespace engines::http::net
