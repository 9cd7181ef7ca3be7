// SPDX-License-Identifier: Apache-2.0
#include "engines/http/net/connection.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "engines/http/net/proxy.h"

namespace engines::http::net {
namespace {

/// Until it is connected, libcurl has to be called this often to try a host's next address.
constexpr Duration CONNECT_POLL = std::chrono::milliseconds(50);

/// The most that one receive gives.
constexpr long RECEIVE_BYTES = 65536;

/// The most that is sent over TLS at a time. OpenSSL shows no progress within one write.
constexpr std::size_t TLS_RECORD_BYTES = 16384;

std::atomic<unsigned> forks = 0;  // between the first process and this one
const int atfork_error = pthread_atfork(nullptr, nullptr, [] { ++forks; });

CURLM* new_multi() {
  // Never undone: another user of libcurl in the process may still need it.
  static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  return code == CURLE_OK && atfork_error == 0 ? curl_multi_init() : nullptr;
}

curl_socket_t on_socket(void*, curlsocktype, curl_sockaddr* address) noexcept {
  return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

const char* or_null(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

std::string url_of(const Origin& origin) {
  std::string host = origin.host;
  if (!origin.zone.empty()) host.insert(host.size() - 1, "%25" + origin.zone);
  return origin.scheme + "://" + host + ":" + origin.port;
}

// ---- Certificates -------------------------------------------------------------------------------

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument(what); }

/// One of OpenSSL's variables; throws where it is set and no file or directory can be read there.
std::string trust_variable(const char* name, char separator = '\0') {
  const char* const value = std::getenv(name);
  if (value == nullptr || *value == '\0') return {};
  std::string paths = value;
  for (std::size_t begin = 0; begin < paths.size();) {
    const std::size_t end = std::min(paths.find(separator, begin), paths.size());
    const std::string path = paths.substr(begin, end - begin) + (separator == ':' ? "/." : "");
    if (access(path.c_str(), R_OK) == 0) return paths;
    begin = end + 1;
  }
  refuse(std::string(name) + " names nothing that can be read");
}

/// Whether the directory has certificates where OpenSSL looks: by the hash of their subject.
bool is_hashed(const std::string& directory) {
  std::error_code error;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != end(entry); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.size() == 10 && name.ends_with(".0")) return true;
  }
  return false;
}

/// The file and the directory of the trusted certificates; both empty: libcurl's own default.
/// libcurl takes neither OpenSSL's variables nor the cheaper of the platform's two stores by
/// itself: it parses the whole bundle for each fresh connection, where a hashed directory gives the
/// one certificate that is needed.
std::pair<std::string, std::string> trust(CURL* easy, const PoolOptions& options) {
  if (!(options.ca_file + options.ca_directory).empty()) {
    return {options.ca_file, options.ca_directory};
  }
  const std::string file = trust_variable("SSL_CERT_FILE");
  const std::string directory = trust_variable("SSL_CERT_DIR", ':');
  char* platforms = nullptr;
  curl_easy_getinfo(easy, CURLINFO_CAPATH, &platforms);
  const bool is_platforms = directory.empty() && platforms != nullptr && is_hashed(platforms);
  return {file, is_platforms ? platforms : directory};
}

/// The file that holds the client's key; empty: there is none.
const std::string& key_file(const PoolOptions& options) {
  return options.client_key.empty() ? options.client_certificate : options.client_key;
}

/// libcurl's TLS session on this handle; `internals` is an object of its backend.
curl_tlssessioninfo tls_session(CURL* easy) {
  curl_tlssessioninfo* session = nullptr;
  curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &session);
  return session != nullptr ? *session : curl_tlssessioninfo{CURLSSLBACKEND_NONE, nullptr};
}

}  // namespace

void check_certificates(const PoolOptions& options) {
  const std::string& file = options.ca_file;
  const std::string& directory = options.ca_directory;
  const std::string& certificate = options.client_certificate;
  const std::string& key = key_file(options);
  if ((file + directory + certificate + key).empty()) return;
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                                  &SSL_CTX_free);
  if (!context) throw std::bad_alloc();
  SSL_CTX* const tls = context.get();
  SSL_CTX_set_default_passwd_cb(tls, [](char*, int, int, void*) { return 0; });
  const auto require = [](bool is_usable, const char* option) {
    ERR_clear_error();
    if (!is_usable) refuse(std::string("PoolOptions::") + option + " cannot be read or used");
  };
  require(file.empty() || SSL_CTX_load_verify_locations(tls, file.c_str(), nullptr) == 1,
          "ca_file");
  require(directory.empty() || access((directory + "/.").c_str(), R_OK) == 0, "ca_directory");
  require(certificate.empty() || SSL_CTX_use_certificate_chain_file(tls, certificate.c_str()) == 1,
          "client_certificate");
  require(key.empty() || (!certificate.empty() &&
                          SSL_CTX_use_PrivateKey_file(tls, key.c_str(), SSL_FILETYPE_PEM) == 1),
          "client_key");
}

unsigned process_number() noexcept { return forks; }

const Url* Route::tunnel() const {
  return proxy && !is_forwarding(*proxy, origin) ? &*proxy : nullptr;
}

const Origin& Route::peer() const { return proxy && !tunnel() ? proxy->origin : origin; }

// ---- Connecting ---------------------------------------------------------------------------------

Connection::Connection(Route route, const PoolOptions& options, Limits& limits)
    : route_(std::move(route)),
      is_secure_(route_.peer().scheme == "https"),
      proxy_headers_(nullptr, &curl_slist_free_all),
      multi_(new_multi(), &curl_multi_cleanup),
      easy_(curl_easy_init(), {multi_.get()}) {
  if (!multi_ || !easy_) throw std::bad_alloc();
  set_up(options);
  if (curl_multi_add_handle(multi_.get(), easy_.get()) != CURLM_OK) throw std::bad_alloc();
  connect(limits);
}

Connection::~Connection() {
  if (is_ours()) return;
  static_cast<void>(easy_.release());
  static_cast<void>(multi_.release());
}

template <class Value>
void Connection::set(CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(easy_.get(), option, value);
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLE_OK) throw std::logic_error(curl_easy_strerror(code));
}

void Connection::set_up(const PoolOptions& options) {
  set(CURLOPT_URL, url_of(route_.peer()).c_str());
  set(CURLOPT_CONNECT_ONLY, 1L);
  set(CURLOPT_ERRORBUFFER, error_text_);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
  set(CURLOPT_USERAGENT, or_null(options.user_agent));  // of a CONNECT
  set(CURLOPT_TCP_NODELAY, 1L);
  set(CURLOPT_BUFFERSIZE, RECEIVE_BYTES);  // bounds curl_easy_recv
  // Signals belong to the application; a resolver that hangs must not hold the end of the call.
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_QUICK_EXIT, 1L);
  set(CURLOPT_OPENSOCKETFUNCTION, &on_socket);
  set_up_proxy();
  const Url* const tunnel = route_.tunnel();
  if (is_secure_ || (tunnel && tunnel->origin.scheme == "https")) set_up_tls(options);
}

void Connection::set_up_proxy() {
  set(CURLOPT_NOPROXY, "");  // which proxy there is was decided before
  const Url* const tunnel = route_.tunnel();
  set(CURLOPT_PROXY, tunnel ? url_of(tunnel->origin).c_str() : "");
  if (!tunnel) return;
  if (const auto& credentials = tunnel->credentials) {
    set(CURLOPT_PROXYUSERNAME, credentials->user.c_str());
    set(CURLOPT_PROXYPASSWORD, credentials->password.c_str());
  }
  if (!route_.tunnel_authorization.empty()) {
    const std::string line = "Proxy-Authorization: " + route_.tunnel_authorization;
    proxy_headers_.reset(curl_slist_append(nullptr, line.c_str()));
    if (!proxy_headers_) throw std::bad_alloc();
    set(CURLOPT_PROXYHEADER, proxy_headers_.get());
  }
  set(CURLOPT_HEADERFUNCTION, &on_proxy_line);
  set(CURLOPT_HEADERDATA, this);
}

void Connection::set_up_tls(const PoolOptions& options) {
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  const auto [file, directory] = trust(easy_.get(), options);
  if (!file.empty() || !directory.empty()) {
    set(CURLOPT_CAINFO, or_null(file));
    set(CURLOPT_CAPATH, or_null(directory));
    set(CURLOPT_PROXY_CAINFO, or_null(file));
    set(CURLOPT_PROXY_CAPATH, or_null(directory));
  }
  if (!options.client_certificate.empty()) {
    set(CURLOPT_SSLCERT, options.client_certificate.c_str());
    set(CURLOPT_SSLKEY, key_file(options).c_str());
  }
  if (tls_session(easy_.get()).backend != CURLSSLBACKEND_OPENSSL) return;
  set(CURLOPT_SSL_CTX_FUNCTION, &on_tls_context);
  set(CURLOPT_SSL_CTX_DATA, this);
}

/// OpenSSL by default stays inside one read while records without content keep coming (new keys
/// without end), and libcurl has it hide that a peer ended without saying so.
CURLcode Connection::on_tls_context(CURL*, void* context, void* self) noexcept {
  auto* const tls = static_cast<SSL_CTX*>(context);
  SSL_CTX_clear_mode(tls, SSL_MODE_AUTO_RETRY);
  SSL_CTX_clear_options(tls, SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_msg_callback(tls, &on_tls_message);
  SSL_CTX_set_msg_callback_arg(tls, self);
  return CURLE_OK;
}

/// OpenSSL also stays inside one step of the handshake while messages that it skips keep coming.
/// Once the time is over it has nothing more to read.
void Connection::on_tls_message(int, int, int, const void*, std::size_t, ssl_st* session,
                                void* self) noexcept {
  auto& connection = *static_cast<Connection*>(self);
  const bool is_connecting = connection.limits_ != nullptr;
  if (is_connecting && connection.is_over()) SSL_set0_rbio(session, BIO_new(BIO_s_null()));
}

/// libcurl would read the body of a proxy's refusal to its end, and look at no time while lines
/// come fast enough.
std::size_t Connection::on_proxy_line(char* text, std::size_t, std::size_t size,
                                      void* self) noexcept {
  auto& connection = *static_cast<Connection*>(self);
  try {
    const std::string_view line(text, size);
    if (line.starts_with("HTTP/") && line.size() > 12 && line[9] != '1' && line[9] != '2') {
      throw URLError(OSError("cannot connect: the proxy refused the tunnel, status " +
                             std::string(line.substr(9, 3))));
    }
  } catch (...) {
    connection.failure_ = std::current_exception();
  }
  return connection.is_over() ? 0 : size;
}

/// Whether connecting must end; `failure_` is the reason.
bool Connection::is_over() noexcept {
  if (failure_) return true;
  try {
    limits_->check(Phase::connecting, connect_until_);
  } catch (...) {
    failure_ = std::current_exception();
  }
  return failure_ != nullptr;
}

void Connection::connect(Limits& limits) {
  const TimePoint from = SteadyClock::now();
  limits_ = &limits;
  connect_until_ = from + limits.longest_wait(Phase::connecting);
  // libcurl divides this among a host's addresses, so that a dead one leaves time for the next.
  const int longest = milliseconds(connect_until_ - from);
  set(CURLOPT_CONNECTTIMEOUT_MS, std::max(static_cast<long>(longest), 1L));
  for (;;) {
    const Duration wait = std::min(limits.check(Phase::connecting, connect_until_), CONNECT_POLL);
    int count = 0;
    const CURLMcode code = curl_multi_perform(multi_.get(), &count);
    if (code == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
    if (code != CURLM_OK) throw URLError(OSError(curl_multi_strerror(code)));
    if (failure_) std::rethrow_exception(failure_);
    if (const CURLMsg* const message = curl_multi_info_read(multi_.get(), &count)) {
      if (message->data.result != CURLE_OK) fail(message->data.result);
      break;
    }
    curl_multi_poll(multi_.get(), nullptr, 0, milliseconds(wait), nullptr);
  }
  limits_ = nullptr;
  error_text_[0] = '\0';
  curl_easy_getinfo(easy_.get(), CURLINFO_OS_ERRNO, &connect_errno_);
  curl_easy_getinfo(easy_.get(), CURLINFO_ACTIVESOCKET, &socket_);
  limits.spend(Phase::connecting, SteadyClock::now() - from);
}

void Connection::fail(CURLcode code) const {
  const StreamError error = error_of(code);
  const auto text = [&](const char* situation) { return described(situation, {0, error.text}); };
  const bool is_to_proxy = route_.proxy && !route_.tunnel();
  switch (code) {
    case CURLE_OUT_OF_MEMORY:
      throw std::bad_alloc();
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      throw URLError(gaierror(text(code == CURLE_COULDNT_RESOLVE_PROXY || is_to_proxy
                                       ? "the proxy's name did not resolve"
                                       : "the host name did not resolve")));
    case CURLE_OPERATION_TIMEDOUT:
      limits_->time_out(Phase::connecting);
    case CURLE_PEER_FAILED_VERIFICATION:
      throw URLError(OSError(text("the peer's certificate is not trusted")));
    case CURLE_SSL_CACERT_BADFILE:
      refuse(text("the CA certificates (PoolOptions::ca_file, SSL_CERT_FILE) cannot be read"));
    case CURLE_SSL_CERTPROBLEM:
      refuse(text("PoolOptions::client_certificate or client_key cannot be used"));
    case CURLE_SSL_CONNECT_ERROR:
      throw_unsent("cannot set up a secure connection", error);
    default:
      throw_unsent("cannot connect", error);
  }
}

// ---- Bytes --------------------------------------------------------------------------------------

IoResult Connection::send(std::string_view bytes) {
  if (is_secure_) bytes = bytes.substr(0, TLS_RECORD_BYTES);
  std::size_t sent = 0;
  const CURLcode code = curl_easy_send(easy_.get(), bytes.data(), bytes.size(), &sent);
  if (code == CURLE_OK) return {Io::moved, sent};
  if (code == CURLE_AGAIN) return {Io::blocked};
  broke_by_ = code;
  return {Io::broken};
}

IoResult Connection::receive(char* to, std::size_t room) {
  std::size_t received = 0;
  const CURLcode code = curl_easy_recv(easy_.get(), to, room, &received);
  if (code == CURLE_OK) return {received == 0 ? Io::ended : Io::moved, received};
  if (code == CURLE_AGAIN) return {Io::blocked};
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  broke_by_ = code;
  // Without an error of the system, TLS ended: without its close (libcurl 7.88 takes that for an
  // end), or by an alert.
  return {error().os_error == 0 ? Io::ended : Io::broken};
}

void Connection::wait(bool to_send, Duration at_most) {
  const short events = to_send ? POLLIN | POLLOUT : POLLIN;
  pollfd connection{.fd = socket_, .events = events, .revents = 0};
  poll(&connection, 1, milliseconds(at_most));
}

bool Connection::ended_properly() const {
  if (broke_by_ != CURLE_OK) return false;
  const auto [backend, session] = tls_session(easy_.get());
  if (!is_secure_ || backend != CURLSSLBACKEND_OPENSSL) return true;
  return session && (SSL_get_shutdown(static_cast<SSL*>(session)) & SSL_RECEIVED_SHUTDOWN) != 0;
}

StreamError Connection::error() const {
  StreamError error = error_of(broke_by_);
  if (error.os_error == connect_errno_) error.os_error = 0;
  return error;
}

/// The system's and libcurl's report of an operation that ended with this code.
StreamError Connection::error_of(CURLcode code) const {
  long os_error = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_OS_ERRNO, &os_error);
  const bool has_text = error_text_[0] != '\0' || code == CURLE_OK;
  return {static_cast<int>(os_error), has_text ? error_text_ : curl_easy_strerror(code)};
}

bool Connection::is_quiet() {
  pollfd connection{.fd = socket_, .events = POLLIN, .revents = 0};
  if (!is_secure_) return poll(&connection, 1, 0) == 0;
  // What carries nothing of a reply (late session tickets) is received away, within reason.
  for (int records = 0; records < 16; ++records) {
    char byte = 0;
    if (receive(&byte, 1).state != Io::blocked) return false;
    if (poll(&connection, 1, 0) == 0) return true;
  }
  return false;
}

}  // namespace engines::http::net
