// SPDX-License-Identifier: Apache-2.0
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
  run("cd " + directory_.file("") +
      " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
      "-subj '/CN=Test CA' -keyout ca.key -out ca.pem && touch index.txt && mkdir hashed && "
      "cp ca.pem hashed && openssl rehash hashed && printf '[ca]\ndefault_ca=d\n[d]\n"
      "database=index.txt\nnew_certs_dir=.\nrand_serial=yes\nunique_subject=no\n"
      "default_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n' > ca.conf");
}

Identity CertificateAuthority::issue(const std::string& host, const std::string& until) const {
  const std::string name = host + until;
  run("cd " + directory_.file("") +
      " && openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj '/CN=" + host +
      "' -keyout " + name + ".key -out " + name + ".csr && echo subjectAltName=DNS:" + host +
      " > ext && openssl ca -batch -notext -config ca.conf -cert ca.pem -keyfile ca.key"
      " -startdate 20190101000000Z -enddate " +
      until + " -extfile ext -in " + name + ".csr -out " + name + ".pem");
  return {.certificate = directory_.file(name + ".pem"), .key = directory_.file(name + ".key")};
}

}  // namespace engines::http::test
