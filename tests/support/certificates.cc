#include "tests/support/certificates.h"

#include <cstdlib>
#include <stdexcept>

namespace engines::http::test {

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "engines-http-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void run(const std::string& command) {
  if (std::system(("(" + command + ") >/dev/null 2>&1").c_str()) != 0) {
    throw std::runtime_error("failed: " + command);
  }
}

CertificateAuthority::CertificateAuthority() {
  run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
      "-subj '/CN=Test CA' -keyout " +
      directory_.file("ca.key") + " -out " + file());
}

Identity CertificateAuthority::issue(const std::string& host, int days) const {
  const std::string name = directory_.file(host + std::to_string(days));
  run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj '/CN=" + host +
      "' -keyout " + name + ".key -out " + name + ".csr && echo subjectAltName=DNS:" + host +
      " > " + name + ".ext && openssl x509 -req -in " + name + ".csr -CA " + file() + " -CAkey " +
      directory_.file("ca.key") + " -CAcreateserial -days " + std::to_string(days) + " -extfile " +
      name + ".ext -out " + name + ".pem");
  return {.certificate = name + ".pem", .key = name + ".key"};
}

}  // namespace engines::http::test
