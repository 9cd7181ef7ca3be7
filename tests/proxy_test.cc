// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/proxy.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "tests/support/outcome.h"
#include "tests/support/table.h"

namespace engines::http::net {
namespace {

using test::Row, test::table;

/// The host of the proxy for the URL, or "none", or how it was refused.
std::string chosen(const std::string& url, const std::string& variables,
                   const std::string& option) {
  for (const char* name : {"http_proxy", "https_proxy", "all_proxy", "no_proxy", "HTTP_PROXY",
                           "HTTPS_PROXY", "ALL_PROXY", "NO_PROXY"}) {
    unsetenv(name);
  }
  for (const auto& [name, value] : test::headers(variables, '\n')) {
    setenv(name.c_str(), value.c_str(), 1);
  }
  return test::outcome([&] {
    const auto given = option == "-" ? std::nullopt : std::optional(option);
    const auto proxy = proxy_for(parse_url(url).origin, given);
    return proxy ? proxy->origin.host : "none";
  });
}

TEST(Proxy, ComesFromTheOptionElseFromTheEnvironmentOrIsRefusedWithoutBeingQuoted) {
  for (const Row& row : table("proxies", 4)) {
    const std::string how = chosen(row[1], row[2], row[3]);
    EXPECT_TRUE(how == row[0] || (how.starts_with("invalid") && how.starts_with(row[0])))
        << row[1] << " " << row[2] << " " << row[3] << ": " << how;
    EXPECT_EQ(how.find("s3cret"), how.npos);
  }
}

TEST(Proxy, IsNotUsedForWhatNoProxyCovers) {
  for (const Row& row : table("no_proxy", 3)) {
    EXPECT_EQ(is_excluded(row[1], row[2]) ? "covers" : "leaves", row[0]) << row[1] << " " << row[2];
  }
}

}  // namespace
}  // namespace engines::http::net
