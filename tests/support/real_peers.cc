#include "tests/support/real_peers.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
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

std::string write(const TemporaryDirectory& directory, const std::string& name,
                  const std::string& text) {
  std::ofstream(directory.file(name)) << text;
  return directory.file(name);
}

std::vector<std::string> lines_of(const std::string& file) {
  std::ifstream in(file);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

/// What "site" leaves to be said. Paths are relative to the directory that nginx is given.
constexpr const char* NGINX = R"(
  daemon off; master_process off; error_log error.log; pid pid;
  events {}
  http {
    client_max_body_size 0; keepalive_requests 50;
    log_format told '$connection $server_protocol $request_method $request_uri $request_length';
    access_log access.log told;
    client_body_temp_path c; proxy_temp_path p; fastcgi_temp_path f; uwsgi_temp_path u;
    scgi_temp_path s;
    server {
      include site; root .;
      location = /hello { return 200 hello; }
      location = /chunked { ssi on; default_type text/html; try_files /page.html =500; }
      location = /sink { access_log off; return 200 taken; }
      location = /upload { proxy_pass $sink; }
    }
  })";

/// Writes nginx's files and returns the directory that they are in.
std::string nginx_files(const TemporaryDirectory& directory, int port, int tls_port,
                        const Identity& identity) {
  const std::string address = "127.0.0.1:" + std::to_string(port);
  write(directory, "page.html", "<p><!--# echo var=\"request_method\" --></p>");
  write(directory, "big", std::string(20'000'000, 'x'));
  write(directory, "nginx.conf", NGINX);
  write(directory, "site",
        "listen " + address + "; set $sink http://" + address +
            "/sink; listen 127.0.0.1:" + std::to_string(tls_port) + " ssl http2; ssl_certificate " +
            identity.certificate + "; ssl_certificate_key " + identity.key + ";");
  return directory.file("");
}

}  // namespace

Program::Program(const char* path, const std::vector<std::string>& arguments, int port)
    : process_(fork()) {
  if (process_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<char*> argv{const_cast<char*>(path)};
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execv(path, argv.data());
    _exit(127);
  }
  for (int i = 0; i < 1000 && waitpid(process_, nullptr, WNOHANG) == 0; ++i) {
    if (listens(port)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(process_, SIGKILL);
  throw std::runtime_error(std::string(path) + " is not installed, or does not start");
}

Program::~Program() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

Nginx::Nginx(const Identity& identity)
    : port_(closed_port()),
      tls_port_(closed_port()),
      program_("/usr/sbin/nginx",
               {"-p", nginx_files(directory_, port_, tls_port_, identity), "-c", "nginx.conf"},
               port_) {}

std::string Nginx::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string Nginx::tls_url(const std::string& path) const {
  return "https://localhost:" + std::to_string(tls_port_) + path;
}

std::vector<std::string> Nginx::log(const std::string& part, std::size_t count) const {
  std::vector<std::string> lines;
  for (int attempt = 0; attempt < 200; ++attempt) {  // a line is written after its reply
    lines = lines_of(directory_.file("access.log"));
    std::erase_if(lines, [&](const auto& line) { return line.find(part) == std::string::npos; });
    if (lines.size() >= count) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return lines;
}

Tinyproxy::Tinyproxy(int allowed_port)
    : port_(closed_port()),
      program_("/usr/bin/tinyproxy",
               {"-d", "-c",
                write(directory_, "tinyproxy.conf",
                      "Port " + std::to_string(port_) + "\nListen 127.0.0.1\nLogFile \"" +
                          directory_.file("log") + "\"\nPidFile \"" + directory_.file("pid") +
                          "\"\nConnectPort " + std::to_string(allowed_port) + "\n")},
               port_) {}

}  // namespace engines::http::test
