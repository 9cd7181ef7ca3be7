// SPDX-License-Identifier: Apache-2.0
#include "bench/servers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "bench/documents.h"

namespace bench {
namespace {

/// Answers the whole requests in `received` and removes them from it.
void answer(int connection, std::string& received) {
  constexpr std::string_view LENGTH = "content-length:";
  while (true) {
    const std::size_t head_end = received.find("\r\n\r\n");
    if (head_end == std::string::npos) return;
    std::string head = received.substr(0, head_end);
    std::ranges::transform(head, head.begin(), [](unsigned char c) { return std::tolower(c); });
    const std::size_t at = head.find(LENGTH);
    const std::size_t size =
        at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + LENGTH.size(), nullptr, 10);
    if (received.size() - head_end - 4 < size) return;
    const std::string reply =
        "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
        std::to_string(size) + "\r\n\r\n" + received.substr(head_end + 4, size);
    received.erase(0, head_end + 4 + size);
    for (std::string_view rest = reply; !rest.empty();) {
      const ssize_t sent = send(connection, rest.data(), rest.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;
      rest.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
}

}  // namespace

void serve_echoes(int port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener, 1024) != 0) {
    throw std::runtime_error("the echo server cannot listen");
  }
  std::vector<pollfd> polled{{.fd = listener, .events = POLLIN, .revents = 0}};
  std::vector<std::string> received(1);
  std::vector<char> buffer(1 << 16);
  while (true) {
    poll(polled.data(), polled.size(), -1);
    for (std::size_t i = polled.size(); i-- > 1;) {
      if (polled[i].revents == 0) continue;
      const ssize_t size = recv(polled[i].fd, buffer.data(), buffer.size(), 0);
      if (size > 0) {
        received[i].append(buffer.data(), static_cast<std::size_t>(size));
        answer(polled[i].fd, received[i]);
      } else {
        close(polled[i].fd);
        polled.erase(polled.begin() + static_cast<std::ptrdiff_t>(i));
        received.erase(received.begin() + static_cast<std::ptrdiff_t>(i));
      }
    }
    if (polled[0].revents != 0) {
      const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      polled.push_back({.fd = connection, .events = POLLIN, .revents = 0});
      received.emplace_back();
    }
  }
}

Servers::Servers()
    : nginx_("exec",
             NGINX " " + directory_.file("") + " " + identity_.certificate + " " + identity_.key),
      echo_("exec", std::filesystem::read_symlink("/proc/self/exe").string() + " --echo-server") {
  std::ofstream(directory_.file("small.json")) << small_json();
  std::ofstream(directory_.file("large.bin")) << std::string(LARGE_BYTES, 'x');
  std::ofstream(directory_.file("embeddings.json")) << embeddings_json(LARGE_BYTES);
}

}  // namespace bench
