#include "engines/http/detail/curl_setup.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>

#include "engines/http/text/case.h"

namespace engines::http::detail {
namespace {

// What a reply is received in pieces of, and what a body is sent in pieces of.
constexpr long BUFFER_BYTES = 65536;

// From a somewhat longer body on, libcurl would ask the peer for a 100 first.
constexpr std::size_t EXPECT_BYTES = 1 << 19;

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

void append(HeaderList& list, const std::string& line) {
  curl_slist* longer = curl_slist_append(list.get(), line.c_str());
  if (longer == nullptr) throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(longer);
}

template <std::size_t n>
bool is_any_set(const std::array<const char*, n>& names) {
  return std::ranges::any_of(names, [](const char* name) { return !environment(name).empty(); });
}

/// Whether a proxy may stand before the peer.
bool may_use_proxy(const std::string& scheme, const PoolOptions& options) {
  if (options.proxy) return !options.proxy->empty();
  return is_any_set(std::array{"all_proxy", "ALL_PROXY"}) ||
         (scheme == "https" ? is_any_set(std::array{"https_proxy", "HTTPS_PROXY"})
                            : is_any_set(std::array{"http_proxy"}));
}

/// Whether the way to a peer may begin with TLS to a proxy.
bool may_secure_proxy(const PoolOptions& options) {
  const auto is_secure = [](std::string_view proxy) {
    return equal_ignoring_case(proxy.substr(0, 8), "https://");
  };
  if (options.proxy) return is_secure(*options.proxy);
  return std::ranges::any_of(std::array{"http_proxy", "all_proxy", "ALL_PROXY"},
                             [&](const char* name) { return is_secure(environment(name)); });
}

HeaderLists header_lists(const Hop& hop, const PoolOptions& options) {
  HeaderLists lists;
  const std::string& scheme = hop.url->origin.scheme;
  const bool tunnels = scheme == "https" && may_use_proxy(scheme, options);
  bool has_content_type = false;
  for (const auto& [name, value] : *hop.headers) {
    if (equal_ignoring_case(name, "content-length")) continue;  // libcurl's own says the same
    has_content_type = has_content_type || equal_ignoring_case(name, "content-type");
    // A tunnel's proxy reads its own header; the server behind the tunnel must not.
    const bool is_proxys = tunnels && equal_ignoring_case(name, "proxy-authorization");
    const bool is_empty = value.find_first_not_of(" \t") == std::string::npos;
    std::string line = name;
    line += is_empty ? ";" : ": " + value;
    append(is_proxys ? lists.to_proxy : lists.to_server, line);
  }
  if (!announces_body(hop)) return lists;
  // Not sent: a wait for 100, and a content type that nobody gave.
  if (hop.body.value_or("").size() > EXPECT_BYTES) append(lists.to_server, "Expect:");
  if (!has_content_type) append(lists.to_server, "Content-Type:");
  return lists;
}

/// Whether OpenSSL finds certificates in the directory: by the hash of their subject.
bool is_hashed(const std::string& directory) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.size() == 10 && name.ends_with(".0") &&
        name.find_first_not_of("0123456789abcdef") == 8) {
      return true;
    }
  }
  return false;
}

/// libcurl takes neither OpenSSL's variables nor the cheaper of the platform's two stores by
/// itself: it parses the whole bundle for each fresh connection, where a hashed directory gives the
/// one certificate that is needed.
void set_trust(CURL* easy, const PoolOptions& options) {
  std::string file = options.ca_file;
  std::string directory = options.ca_directory;
  if (file.empty() && directory.empty()) {
    file = environment("SSL_CERT_FILE");
    directory = environment("SSL_CERT_DIR");
    if (directory.empty()) {
      char* platforms = nullptr;
      curl_easy_getinfo(easy, CURLINFO_CAPATH, &platforms);
      if (platforms != nullptr && is_hashed(platforms)) directory = platforms;
    }
    if (file.empty() && directory.empty()) return;
  }
  set(easy, CURLOPT_CAINFO, file.empty() ? nullptr : file.c_str());
  set(easy, CURLOPT_CAPATH, directory.empty() ? nullptr : directory.c_str());
  set(easy, CURLOPT_PROXY_CAINFO, file.empty() ? nullptr : file.c_str());
  set(easy, CURLOPT_PROXY_CAPATH, directory.empty() ? nullptr : directory.c_str());
}

void set_method(CURL* easy, const Hop& hop) {
  if (announces_body(hop)) {
    set(easy, CURLOPT_POST, 1L);
    set(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(hop.body.value_or("").size()));
  } else if (hop.method == "HEAD") {
    set(easy, CURLOPT_NOBODY, 1L);
  } else {
    set(easy, CURLOPT_HTTPGET, 1L);
  }
  set(easy, CURLOPT_CUSTOMREQUEST, hop.method.c_str());
}

}  // namespace

bool announces_body(const Hop& hop) {
  return hop.body || hop.method == "POST" || hop.method == "PUT" || hop.method == "PATCH";
}

HeaderLists set_request(CURL* easy, const Hop& hop, const PoolOptions& options) {
  set(easy, CURLOPT_URL, hop.url->text.c_str());
  // A copy that libcurl 7.88 makes of a parsed URL has lost the zone.
  set(easy, CURLOPT_CURLU, hop.url->origin.zone.empty() ? hop.url->parsed.get() : nullptr);
  set_method(easy, hop);
  HeaderLists lists = header_lists(hop, options);
  set(easy, CURLOPT_HTTPHEADER, lists.to_server.get());
  set(easy, CURLOPT_PROXYHEADER, lists.to_proxy.get());
  const auto& credentials = hop.credentials;
  set(easy, CURLOPT_USERNAME, credentials ? credentials->user.c_str() : nullptr);
  set(easy, CURLOPT_PASSWORD, credentials ? credentials->password.c_str() : nullptr);
  return lists;
}

void set_up(CURL* easy, const Origin& origin, const PoolOptions& options) {
  if (!options.user_agent.empty()) set(easy, CURLOPT_USERAGENT, options.user_agent.c_str());
  // Where the environment names none, libcurl need not look each time.
  const bool may_be_proxied = may_use_proxy(origin.scheme, options);
  if (options.proxy || !may_be_proxied) {
    set(easy, CURLOPT_PROXY, options.proxy.value_or("").c_str());
  }
  // What is called back then costs something in each step of a transfer.
  set(easy, CURLOPT_NOPROGRESS, may_be_proxied && origin.scheme == "https" ? 0L : 1L);

  set(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  set(easy, CURLOPT_FOLLOWLOCATION, 0L);
  set(easy, CURLOPT_PATH_AS_IS, 1L);
  set(easy, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  set(easy, CURLOPT_HTTP_VERSION,
      static_cast<long>(options.http_version == HttpVersion::http2 ? CURL_HTTP_VERSION_2TLS
                                                                   : CURL_HTTP_VERSION_1_1));
  set(easy, CURLOPT_HTTP09_ALLOWED, 0L);
  set(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  set(easy, CURLOPT_TCP_NODELAY, 1L);
  set(easy, CURLOPT_BUFFERSIZE, BUFFER_BYTES);
  set(easy, CURLOPT_UPLOAD_BUFFERSIZE, BUFFER_BYTES);
  // How long a connection may be idle is the pool's to say.
  set(easy, CURLOPT_MAXAGE_CONN, std::numeric_limits<long>::max() / 1000);
  // Signals belong to the application; a resolver that hangs must not hold the end of the call.
  set(easy, CURLOPT_NOSIGNAL, 1L);
  set(easy, CURLOPT_QUICK_EXIT, 1L);

  set(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  set(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  if (origin.scheme == "https" || may_secure_proxy(options)) {
    set_trust(easy, options);
    set(easy, CURLOPT_VERBOSE, 1L);  // nothing is traced without it
  }
  if (!options.client_certificate.empty()) {
    set(easy, CURLOPT_SSLCERT, options.client_certificate.c_str());
    const bool own_key = !options.client_key.empty();
    set(easy, CURLOPT_SSLKEY, (own_key ? options.client_key : options.client_certificate).c_str());
  }
}

}  // namespace engines::http::detail
