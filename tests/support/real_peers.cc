#include "tests/support/real_peers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "tests/support/fault_server.h"

namespace engines::http::test {
namespace {

bool listens(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
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

std::string nginx_configuration(const TemporaryDirectory& directory, int port, int tls_port,
                                const Identity& identity) {
  const std::string address = "127.0.0.1:" + std::to_string(port);
  write(directory, "page.html", "<p><!--# echo var=\"request_method\" --></p>");
  write(directory, "big", std::string(20'000'000, 'x'));
  return "daemon off; master_process off; error_log " + directory.file("error.log") + ";\n pid " +
         directory.file("pid") +
         ";\n events {}\n http { client_max_body_size 0; keepalive_requests 50; log_format told "
         "'$connection $server_protocol $request_method $request_uri $request_length';\n "
         "access_log " +
         directory.file("access.log") + " told;\n client_body_temp_path " + directory.file("c") +
         "; proxy_temp_path " + directory.file("p") + "; fastcgi_temp_path " + directory.file("f") +
         "; uwsgi_temp_path " + directory.file("u") + "; scgi_temp_path " + directory.file("s") +
         ";\n server { listen " + address + "; listen 127.0.0.1:" + std::to_string(tls_port) +
         " ssl http2; ssl_certificate " + identity.certificate + "; ssl_certificate_key " +
         identity.key + "; root " + directory.file("") +
         ";\n location = /hello { return 200 hello; }\n location = /chunked { ssi on; default_type "
         "text/html; try_files /page.html =500; }\n location = /sink { access_log off; return 200 "
         "taken; }\n location = /upload { proxy_pass http://" +
         address + "/sink; } } }\n";
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
               {"-c", write(directory_, "nginx.conf",
                            nginx_configuration(directory_, port_, tls_port_, identity))},
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
