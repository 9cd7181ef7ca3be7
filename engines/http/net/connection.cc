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
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace engines::http::net {
namespace {

/// The most that one receive gives.
constexpr long RECEIVE_BYTES = 65536;

/// The most that is sent over TLS at a time. OpenSSL reports no progress within one write.
constexpr std::size_t TLS_RECORD_BYTES = 16384;

/// How many forks lead from the first process to this one. It is counted, because a system call
/// such as getpid(2) would be needed several times in each call.
std::atomic<unsigned> fork_depth = 0;
const int atfork_error = pthread_atfork(nullptr, nullptr, [] { ++fork_depth; });

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

/// The value of one of OpenSSL's variables, a list of paths; empty: not set. Throws where none of
/// the paths, with the suffix, can be read.
std::string trust_variable(const char* name, char separator, const char* suffix) {
  const char* const value = std::getenv(name);
  if (value == nullptr || *value == '\0') return {};
  std::istringstream paths(value);
  for (std::string path; std::getline(paths, path, separator);) {
    if (access((path + suffix).c_str(), R_OK) == 0) return value;
  }
  refuse(std::string(name) + " names nothing that can be read");
}

/// Whether the directory has a certificate under OpenSSL's name for it: the hash of its subject, in
/// eight digits, and ".0".
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
/// libcurl ignores OpenSSL's variables, and parses the platform's whole bundle for each connection;
/// from a hashed directory OpenSSL reads only the certificates that it needs.
std::pair<std::string, std::string> trust(CURL* easy, const PoolOptions& options) {
  if (!options.ca_file.empty() || !options.ca_directory.empty()) {
    return {options.ca_file, options.ca_directory};
  }
  std::string file = trust_variable("SSL_CERT_FILE", '\0', "");
  std::string directory = trust_variable("SSL_CERT_DIR", ':', "/.");
  char* platform_directory = nullptr;
  curl_easy_getinfo(easy, CURLINFO_CAPATH, &platform_directory);
  if (directory.empty() && platform_directory != nullptr && is_hashed(platform_directory)) {
    directory = platform_directory;
  }
  return {std::move(file), std::move(directory)};
}

/// The file that holds the client's key; empty: none.
const std::string& key_file(const PoolOptions& options) {
  return options.client_key.empty() ? options.client_certificate : options.client_key;
}

/// libcurl's TLS session on this handle; `internals` is an object of its backend.
curl_tlssessioninfo tls_session(CURL* easy) {
  curl_tlssessioninfo* session = nullptr;
  curl_easy_getinfo(easy, CURLINFO_TLS_SSL_PTR, &session);
  return session != nullptr ? *session : curl_tlssessioninfo{CURLSSLBACKEND_NONE, nullptr};
}

/// Throws the kind that the errno of a failed connection means.
[[noreturn]] void fail_by_errno(const std::string& text, int os_error) {
  switch (os_error) {
    case ECONNREFUSED:
    case ECONNRESET:
    case ECONNABORTED:
    case EPIPE:
      throw URLError(ConnectionError(text));
    case ETIMEDOUT:
      throw URLError(TimeoutError(text));
    default:
      throw URLError(OSError(text));
  }
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
  // An encrypted key is refused; by default OpenSSL asks for its password on the terminal.
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

// ---- Connecting ---------------------------------------------------------------------------------

Connection::Connection(Route route)
    : route_(std::move(route)),
      fork_depth_(fork_depth),
      is_secure_(route_.peer().scheme == "https"),
      multi_(new_multi()),
      easy_(curl_easy_init()) {}

// The delegated constructor has completed: if this one throws, the destructor frees the handles.
Connection::Connection(Route route, const PoolOptions& options, const Limits& limits)
    : Connection(std::move(route)) {
  if (!multi_ || !easy_) throw std::bad_alloc();
  set_up(options);
  if (curl_multi_add_handle(multi_, easy_) != CURLM_OK) throw std::bad_alloc();
  connect(limits);
}

Connection::~Connection() {
  if (!is_ours()) return;  // the handles are left as they are: they share the parent's socket
  curl_multi_remove_handle(multi_, easy_);
  curl_easy_cleanup(easy_);
  curl_multi_cleanup(multi_);
  curl_slist_free_all(proxy_headers_);
}

bool Connection::is_ours() const noexcept { return fork_depth_ == fork_depth; }

template <class Value>
void Connection::set(CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(easy_, option, value);
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  if (code != CURLE_OK) throw std::logic_error(curl_easy_strerror(code));
}

void Connection::set_up(const PoolOptions& options) {
  set(CURLOPT_URL, url_of(route_.peer()).c_str());
  set(CURLOPT_CONNECT_ONLY, 1L);
  set(CURLOPT_ERRORBUFFER, error_text_);
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set(CURLOPT_USERAGENT, or_null(options.user_agent));  // sent with CONNECT
  set(CURLOPT_BUFFERSIZE, RECEIVE_BYTES);               // bounds curl_easy_recv
  set(CURLOPT_NOSIGNAL, 1L);                            // signals belong to the application
  set(CURLOPT_QUICK_EXIT, 1L);  // no wait for a name lookup that has not ended
  set(CURLOPT_OPENSOCKETFUNCTION, &on_socket);
  set_up_proxy();
  const Url* const tunnel = route_.tunnel();
  if (is_secure_ || (tunnel && tunnel->origin.scheme == "https")) set_up_tls(options);
}

void Connection::set_up_proxy() {
  set(CURLOPT_NOPROXY, "");  // `proxy_for` has chosen the proxy
  const Url* const tunnel = route_.tunnel();
  set(CURLOPT_PROXY, tunnel ? url_of(tunnel->origin).c_str() : "");
  if (!tunnel) return;
  if (const auto& credentials = tunnel->credentials) {
    set(CURLOPT_PROXYUSERNAME, credentials->user.c_str());
    set(CURLOPT_PROXYPASSWORD, credentials->password.c_str());
  }
  if (const auto& given = route_.proxy_authorization; given && !given->empty()) {
    const std::string line = "Proxy-Authorization: " + *given;
    proxy_headers_ = curl_slist_append(nullptr, line.c_str());
    if (!proxy_headers_) throw std::bad_alloc();
    set(CURLOPT_PROXYHEADER, proxy_headers_);
  }
  set(CURLOPT_HEADERFUNCTION, &on_proxy_line);
  set(CURLOPT_HEADERDATA, this);
}

void Connection::set_up_tls(const PoolOptions& options) {
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  const auto [file, directory] = trust(easy_, options);
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
  if (tls_session(easy_).backend != CURLSSLBACKEND_OPENSSL) return;
  set(CURLOPT_SSL_CTX_FUNCTION, &on_tls_context);
  set(CURLOPT_SSL_CTX_DATA, this);
}

/// By default OpenSSL does not return from a read while only records without data arrive, such as
/// new keys; and libcurl makes it ignore an end without close_notify. Both are undone here.
CURLcode Connection::on_tls_context(CURL*, void* context, void* self) noexcept {
  auto* const tls = static_cast<SSL_CTX*>(context);
  SSL_CTX_clear_mode(tls, SSL_MODE_AUTO_RETRY);
  SSL_CTX_clear_options(tls, SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_msg_callback(tls, &on_tls_message);
  SSL_CTX_set_msg_callback_arg(tls, self);
  return CURLE_OK;
}

/// OpenSSL does not return from a step of the handshake either, while messages that it skips
/// arrive. Once the time is over, its input is replaced by an empty one.
void Connection::on_tls_message(int, int, int, const void*, std::size_t, SSL* session,
                                void* self) noexcept {
  auto& connection = *static_cast<Connection*>(self);
  const bool is_connecting = connection.limits_ != nullptr;
  if (is_connecting && connection.must_end("")) SSL_set0_rbio(session, BIO_new(BIO_s_null()));
}

/// libcurl does not check the time between the lines of a proxy's reply.
std::size_t Connection::on_proxy_line(char* text, std::size_t, std::size_t size,
                                      void* self) noexcept {
  return static_cast<Connection*>(self)->must_end({text, size}) ? 0 : size;
}

/// Whether connecting must end: its time is over, or this line of the proxy's reply refuses the
/// tunnel (libcurl would read the body of the refusal to its end). `failure_` is the reason.
bool Connection::must_end(std::string_view proxy_line) noexcept {
  constexpr std::size_t STATUS = 9;  // after "HTTP/1.1 "
  try {
    if (proxy_line.starts_with("HTTP/") && proxy_line.size() > STATUS + 3 &&
        proxy_line[STATUS] != '1' && proxy_line[STATUS] != '2') {
      throw URLError(OSError("cannot connect: the proxy refused the tunnel, status " +
                             std::string(proxy_line.substr(STATUS, 3))));
    }
    if (!failure_) limits_->check();
  } catch (...) {
    failure_ = std::current_exception();
  }
  return failure_ != nullptr;
}

void Connection::connect(const Limits& limits) {
  limits_ = &limits;
  // libcurl divides this among a host's addresses, so that a dead one leaves time for the next.
  set(CURLOPT_CONNECTTIMEOUT_MS, std::max(static_cast<long>(milliseconds(limits.left())), 1L));
  for (;;) {
    // At most 50 ms: libcurl must be called so often to try a host's next address.
    const Duration wait = limits.check();
    int running = 0;
    const CURLMcode code = curl_multi_perform(multi_, &running);
    if (code == CURLM_OUT_OF_MEMORY) throw std::bad_alloc();
    if (code != CURLM_OK) throw URLError(OSError(curl_multi_strerror(code)));
    if (failure_) std::rethrow_exception(failure_);
    int queued = 0;
    if (const CURLMsg* const message = curl_multi_info_read(multi_, &queued)) {
      error_ = message->data.result;
      if (error_ != CURLE_OK) fail();
      break;
    }
    curl_multi_poll(multi_, nullptr, 0, milliseconds(wait), nullptr);
  }
  limits_ = nullptr;
  error_text_[0] = '\0';
  curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &connect_errno_);
  curl_easy_getinfo(easy_, CURLINFO_ACTIVESOCKET, &socket_);
}

void Connection::fail() const {
  // Without the errno, which does not describe most of these failures.
  const auto text = [&](const char* situation) { return situation + quote(); };
  switch (error_) {
    case CURLE_OUT_OF_MEMORY:
      throw std::bad_alloc();
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      throw URLError(gaierror(text(error_ == CURLE_COULDNT_RESOLVE_PROXY || route_.forwarder()
                                       ? "the proxy's name did not resolve"
                                       : "the host name did not resolve")));
    case CURLE_OPERATION_TIMEDOUT:
      limits_->time_out();  // of connecting, which is the wait that is going on
    case CURLE_PEER_FAILED_VERIFICATION:
      throw URLError(OSError(text("the peer's certificate is not trusted")));
    case CURLE_SSL_CACERT_BADFILE:
      refuse(text("the CA certificates (PoolOptions::ca_file, SSL_CERT_FILE) cannot be read"));
    case CURLE_SSL_CERTPROBLEM:
      refuse(text("PoolOptions::client_certificate or client_key cannot be used"));
    case CURLE_SSL_CONNECT_ERROR:
      fail_by_errno("cannot set up a secure connection" + reason(), os_error());
    default:
      fail_by_errno("cannot connect" + reason(), os_error());
  }
}

// ---- Bytes --------------------------------------------------------------------------------------

IoResult Connection::send(std::string_view bytes) {
  if (is_secure_) bytes = bytes.substr(0, TLS_RECORD_BYTES);
  std::size_t sent = 0;
  const CURLcode code = curl_easy_send(easy_, bytes.data(), bytes.size(), &sent);
  if (code == CURLE_OK) return {Io::moved, sent};
  if (code == CURLE_AGAIN) return {Io::blocked};
  error_ = code;
  return {Io::broken};
}

IoResult Connection::receive(char* to, std::size_t room) {
  std::size_t received = 0;
  const CURLcode code = curl_easy_recv(easy_, to, room, &received);
  if (code == CURLE_OK && received > 0) return {Io::moved, received};
  if (code == CURLE_OK) return {is_cut() ? Io::cut : Io::ended};
  if (code == CURLE_AGAIN) return {Io::blocked};
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  error_ = code;
  // Without an errno, the peer sent an alert of TLS, or ended the connection without close_notify
  // (with libcurl 8.14; 7.88 reports an end, see `is_cut`).
  return {os_error() == 0 ? Io::cut : Io::broken};
}

/// After an end: whether TLS ended without close_notify, or something failed before: the system
/// reports a reset once, to a send for example, and then an end.
bool Connection::is_cut() const {
  if (error_ != CURLE_OK) return true;
  const auto [backend, session] = tls_session(easy_);
  if (!is_secure_ || backend != CURLSSLBACKEND_OPENSSL) return false;
  return !session || (SSL_get_shutdown(static_cast<SSL*>(session)) & SSL_RECEIVED_SHUTDOWN) == 0;
}

void Connection::wait(bool to_send, Duration at_most) {
  const short events = to_send ? POLLIN | POLLOUT : POLLIN;
  pollfd connection{.fd = socket_, .events = events, .revents = 0};
  poll(&connection, 1, milliseconds(at_most));
}

/// The errno of what failed last; 0: none.
int Connection::os_error() const {
  long error = 0;
  curl_easy_getinfo(easy_, CURLINFO_OS_ERRNO, &error);
  // libcurl keeps the errno of an address that failed before another one succeeded.
  return error == connect_errno_ ? 0 : static_cast<int>(error);
}

/// libcurl's description of what failed last, if there is one.
std::string Connection::quote() const {
  const bool is_described = error_text_[0] != '\0' || error_ == CURLE_OK;
  const std::string text = is_described ? error_text_ : curl_easy_strerror(error_);
  return text.empty() ? "" : ": " + text;
}

std::string Connection::reason() const {
  const int error = os_error();
  // The quote comes last: a library below may have cut it inside a secret, and only at the end of a
  // text is the start of one looked for.
  return (error == 0 ? "" : " (" + std::generic_category().message(error) + ")") + quote();
}

bool Connection::is_quiet() {
  pollfd connection{.fd = socket_, .events = POLLIN, .revents = 0};
  if (!is_secure_) return poll(&connection, 1, 0) == 0;
  constexpr int MAX_EMPTY_RECORDS = 16;  // records without data, such as late session tickets
  for (int records = 0; records < MAX_EMPTY_RECORDS; ++records) {
    char byte = 0;
    if (receive(&byte, 1).state != Io::blocked) return false;
    if (poll(&connection, 1, 0) == 0) return true;
  }
  return false;
}

}  // namespace engines::http::net
