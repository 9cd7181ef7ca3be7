// SPDX-License-Identifier: Apache-2.0
// What is checked before it is sent: URLs and redirect targets taken apart, methods and headers.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>

#include "engines/http/net/redirect.h"
#include "engines/http/net/url.h"
#include "engines/http/redaction.h"
#include "engines/http/transport.h"
#include "fuzz/expect.h"

namespace http = engines::http;
namespace net = engines::http::net;
using fuzz::expect;

namespace {

bool is_plain(std::string_view text) {
  return !text.empty() && std::ranges::all_of(text, [](char c) { return c > ' ' && c < '\x7f'; });
}

bool has_no_control(std::string_view text) {
  return std::ranges::none_of(
      text, [](unsigned char c) { return (c < ' ' && c != '\t') || c == '\x7f'; });
}

void check_hop(const net::Hop& hop) {
  const net::Url& url = hop.url;
  expect(url.origin.scheme == "http" || url.origin.scheme == "https", "one of two schemes");
  expect(is_plain(url.origin.host), "a host");
  const int port = std::stoi(url.origin.port);
  expect(port > 0 && port < 65536, "a port");
  expect(is_plain(url.text), "nothing that could end the request line early");
  const std::string_view authority = std::string_view(url.text).substr(url.text.find("://") + 3);
  expect(authority.find('@') >= authority.find_first_of("/?#"), "no userinfo");
  expect(url.target.starts_with('/') && is_plain(url.target), "a target");
  expect(is_plain(hop.method), "a method");
  for (const auto& [name, value] : hop.headers) {
    expect(is_plain(name) && name.find(':') == name.npos, "a header name");
    expect(has_no_control(value), "nothing that could begin another header");
  }
}

void follow(net::Hop hop, FuzzedDataProvider& input) {
  for (int redirects = 0; redirects < 4; ++redirects) {
    check_hop(hop);
    const int status = input.ConsumeIntegralInRange(300, 309);
    auto next = net::next_hop(hop, status, input.ConsumeRandomLengthString(200));
    if (!next) return;
    expect(next->url.origin == hop.url.origin ||
               (!next->headers.get("authorization") && !next->headers.get("x-api-key") &&
                !next->credentials),
           "no credential goes to another origin");
    hop = *std::move(next);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const std::string address = input.ConsumeRandomLengthString(200);
  http::RequestFields fields{.headers = {{"X-Api-Key", "k"}, {"Authorization", "Basic x"}}};
  if (input.ConsumeBool()) fields.data = "body";
  if (input.ConsumeBool()) fields.method = input.ConsumeRandomLengthString(10);
  while (input.ConsumeBool()) {
    const std::string name = input.ConsumeRandomLengthString(20);
    fields.headers.add(name, input.ConsumeRandomLengthString(40));
  }
  try {
    const http::Request request(address, fields);
    const net::Hop hop = net::first_hop(request);
    if (hop.url.credentials && !hop.url.credentials->password.empty()) {
      const http::Secrets secrets = http::secrets_of_url(address);
      expect(std::ranges::count(secrets, hop.url.credentials->password) > 0,
             "a password is a secret");
    }
    follow(hop, input);
  } catch (const std::invalid_argument& error) {
    const std::string_view said = error.what();
    expect(has_no_control(said) && said.size() < 200, "a refusal is one short line");
    expect(address.size() < 10 || address.find("://") == address.npos ||
               said.find(address) == said.npos,
           "which quotes no URL");
  }
  return 0;
}
