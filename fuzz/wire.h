// What the harnesses over a socket have in common: how a call is made, and what must come of it
// whatever the server sends.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "engines/http/http.h"
#include "fuzz/server.h"

namespace fuzz {

/// The way of an input's calls, by letters in its first line.
class Way {
 public:
  explicit Way(std::string_view input) : letters_(input.substr(0, input.find('\n'))) {}
  bool has(char letter) const { return letters_.find(letter) != std::string::npos; }

  std::string method() const { return has('N') ? "HEAD" : has('B') ? "POST" : "GET"; }
  std::size_t body_bytes() const { return method() != "POST" ? 0 : has('X') ? 200000 : 10; }
  int calls() const { return has('3') ? 3 : 1; }
  bool reads_lines() const { return has('L'); }
  bool reads_little() const { return has('l'); }

 private:
  std::string letters_;
};

/// The request that the way's calls make.
engines::http::Request request(const Way& way, const std::string& url,
                               const engines::http::Headers& headers = {});

/// Makes one call and reads its reply to the end; both may fail in a transport's way. `sent` is
/// what the server has sent since the latest request, and changes while the server plays.
void call(const engines::http::Transport& transport, const engines::http::Request& request,
          const Way& way, const engines::http::PoolOptions& options, Server& server,
          const std::string& sent);

}  // namespace fuzz
