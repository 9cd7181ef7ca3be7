// SPDX-License-Identifier: Apache-2.0
#include "tests/support/real_peers.h"

#include <openssl/bio.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

#include "tests/support/fault_server.h"

namespace engines::http::test {
namespace {

bool listens(int port) {
  const std::unique_ptr<BIO, decltype(&BIO_free_all)> connection(
      BIO_new_connect(("127.0.0.1:" + std::to_string(port)).c_str()), BIO_free_all);
  return BIO_do_connect(connection.get()) == 1;
}

}  // namespace

RealPeer::RealPeer(const std::string& name, const std::string& arguments)
    : port_(closed_port()), tls_port_(closed_port()), process_(fork()) {
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string command = "exec " REAL_PEERS " " + name + " " + directory_.file("") + " " +
                                std::to_string(port_) + " " + std::to_string(tls_port_) + " " +
                                arguments + " >/dev/null 2>&1";
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  for (int i = 0; i < 1000 && waitpid(process_, nullptr, WNOHANG) == 0; ++i) {
    if (listens(port_)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(process_, SIGKILL);
  throw std::runtime_error(name + " is not installed, or does not start");
}

RealPeer::~RealPeer() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

}  // namespace engines::http::test
