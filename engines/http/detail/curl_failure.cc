#include "engines/http/detail/curl_failure.h"

#include <cerrno>
#include <cstdio>
#include <new>
#include <string_view>
#include <system_error>

#include "engines/http/transport.h"

namespace engines::http::detail {
namespace {

bool is_connection_error(int os_error) {
  switch (os_error) {
    case ECONNREFUSED:
    case ECONNRESET:
    case ECONNABORTED:
    case EPIPE:
      return true;
    default:
      return false;
  }
}

/// What happened, in our words and then in libcurl's and the system's.
std::string told(std::string_view situation, const Evidence& evidence) {
  std::string text(situation);
  text += ": ";
  // No text of libcurl quotes a URL but the proxy's, which may hold a password and lack a scheme.
  if (evidence.text.starts_with("Unsupported proxy") ||
      evidence.text.find("://") != std::string::npos) {
    text += "the proxy's URL cannot be used";
  } else {
    text += evidence.text.empty() ? curl_easy_strerror(evidence.code) : evidence.text;
  }
  // A text as long as libcurl's buffer may have been cut inside a secret. It has to end where it
  // was cut: only there is the start of one looked for.
  if (evidence.os_error != 0 && evidence.text.size() + 1 < CURL_ERROR_SIZE) {
    const std::string reason = std::generic_category().message(evidence.os_error);
    if (text.find(reason) == std::string::npos) text += " (" + reason + ")";
  }
  return text;
}

std::exception_ptr unsent(const auto& reason) { return std::make_exception_ptr(URLError(reason)); }

/// The failure by what the system said, where it said something.
std::exception_ptr unsent_by_system(std::string_view situation, const Evidence& evidence) {
  const std::string text = told(situation, evidence);
  if (is_connection_error(evidence.os_error)) return unsent(ConnectionError(text));
  if (evidence.os_error == ETIMEDOUT) return unsent(TimeoutError(text));
  return unsent(OSError(text));
}

std::exception_ptr connecting_failure(const Evidence& evidence) {
  switch (evidence.code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return unsent(gaierror(told("the host name did not resolve", evidence)));
    case CURLE_COULDNT_RESOLVE_PROXY:
      return unsent(gaierror(told("the proxy's name did not resolve", evidence)));
    case CURLE_OPERATION_TIMEDOUT:
      return unsent(TimeoutError(told("timed out while connecting", evidence)));
    case CURLE_PEER_FAILED_VERIFICATION:
      return unsent(OSError(told("the peer's certificate is not trusted", evidence)));
    case CURLE_SSL_CACERT_BADFILE:
      return unsent(OSError(told("the CA certificates cannot be read", evidence)));
    case CURLE_SSL_CERTPROBLEM:
      return unsent(OSError(told("the client's certificate cannot be used", evidence)));
    case CURLE_SSL_CONNECT_ERROR:
      return unsent_by_system("cannot set up a secure connection", evidence);
    default:
      return unsent_by_system("cannot connect", evidence);
  }
}

/// After a reply could have begun: the connection broke, by an error of the system, by TLS ending
/// without its close, or by just ending.
bool connection_broke(const Evidence& evidence) {
  if (evidence.os_error != 0) return true;
  return evidence.text.find("unexpected eof") != std::string::npos;
}

template <class Kind>
std::exception_ptr failed(std::string_view situation, const Evidence& evidence) {
  return std::make_exception_ptr(Kind(told(situation, evidence)));
}

std::exception_ptr reply_failure(const Evidence& evidence) {
  const bool io = evidence.code == CURLE_RECV_ERROR || evidence.code == CURLE_SEND_ERROR;
  if (io && evidence.os_error != 0) {
    return failed<ConnectionError>("the connection broke", evidence);
  }
  if (evidence.headers_done) {
    if (evidence.code == CURLE_PARTIAL_FILE || (io && connection_broke(evidence))) {
      return failed<IncompleteRead>("the reply was cut short", evidence);
    }
    return failed<HTTPException>("the reply broke the protocol", evidence);
  }
  if (!evidence.status_seen) {
    switch (evidence.code) {
      case CURLE_UNSUPPORTED_PROTOCOL:
        return failed<BadStatusLine>("the reply has no status line", evidence);
      case CURLE_OK:
      case CURLE_GOT_NOTHING:
      case CURLE_PARTIAL_FILE:
      case CURLE_RECV_ERROR:
      case CURLE_SEND_ERROR:
        return failed<DroppedConnection>("the connection was dropped before a reply began",
                                         evidence);
      default:
        break;
    }
  }
  if (evidence.code == CURLE_OK || connection_broke(evidence) ||
      evidence.code == CURLE_PARTIAL_FILE) {
    return std::make_exception_ptr(
        HTTPException("the connection was closed inside the reply's headers"));
  }
  if (evidence.code == CURLE_OUT_OF_MEMORY) {  // libcurl's word for it
    return std::make_exception_ptr(HTTPException("a header line of the reply is too long"));
  }
  return failed<HTTPException>("the reply broke the protocol", evidence);
}

}  // namespace

std::exception_ptr failure_of(const Evidence& evidence) {
  if (evidence.resend_refused) {
    return std::make_exception_ptr(DroppedConnection(
        "the connection was dropped before a reply began: the request is not sent twice"));
  }
  if (evidence.code == CURLE_OUT_OF_MEMORY && (!evidence.connected || evidence.headers_done)) {
    return std::make_exception_ptr(std::bad_alloc());
  }
  if (!evidence.connected) return connecting_failure(evidence);
  const bool io = evidence.code == CURLE_RECV_ERROR || evidence.code == CURLE_SEND_ERROR;
  if (!evidence.sent && !evidence.status_seen && io) {
    return unsent_by_system("the connection broke while the request was sent", evidence);
  }
  return reply_failure(evidence);
}

std::exception_ptr timeout_failure(double timeout_s, const std::string& while_doing, bool sent) {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%g", timeout_s);
  const TimeoutError failure(std::string("timed out after ") + seconds + " s while " + while_doing);
  return sent ? std::make_exception_ptr(failure) : unsent(failure);
}

}  // namespace engines::http::detail
