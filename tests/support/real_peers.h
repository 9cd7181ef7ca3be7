// Servers that others wrote, started on free loopback ports with files in a directory that is gone
// with them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/certificates.h"

namespace engines::http::test {

/// A program that runs until the object is destroyed.
class Program {
 public:
  /// Starts it and waits until something listens on the port. Throws `std::runtime_error` when the
  /// program is not installed or does not come up within 10 s.
  Program(const char* path, const std::vector<std::string>& arguments, int port);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

 private:
  pid_t process_;
};

/// nginx: "/hello" is a small reply, "/big" 20 MB, "/chunked" a chunked page, "/upload" takes any
/// body, "/missing" is an error with a body; over HTTP and over TLS, with HTTP/2. A connection
/// serves no more than 50 requests.
class Nginx {
 public:
  explicit Nginx(const Identity& identity);
  std::string url(const std::string& path) const;
  std::string tls_url(const std::string& path) const;
  /// The lines of its access log that hold `part`, once there are `count` of them: for each request
  /// which connection it came over, its protocol, its line and its size.
  std::vector<std::string> log(const std::string& part, std::size_t count) const;

 private:
  TemporaryDirectory directory_;
  int port_;
  int tls_port_;
  Program program_;
};

/// tinyproxy: lets CONNECT through to one port only.
class Tinyproxy {
 public:
  explicit Tinyproxy(int allowed_port);
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  TemporaryDirectory directory_;
  int port_;
  Program program_;
};

}  // namespace engines::http::test
