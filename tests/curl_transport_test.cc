// SPDX-License-Identifier: Apache-2.0
#include "engines/http/curl_transport.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "engines/http/classification.h"
#include "tests/support/fault_server.h"
#include "tests/support/outcome.h"
#include "tests/support/real_peers.h"
#include "tests/support/replies.h"
#include "tests/support/table.h"

namespace engines::http {
namespace {

using namespace std::chrono_literals;
using namespace test;

const TransportOptions PATIENT{.timeout = 5};

/// "Kind", or "Kind(kind of its reason)".
std::string kind_of(const std::exception& error) {
  const auto* const url_error = dynamic_cast<const URLError*>(&error);
  const std::string name(ErrorRef(error).type_name());
  return url_error ? name + "(" + kind_of(*url_error->reason()) + ")" : name;
}

/// How a call ended: "200 [body]", "503! [body]" for an HTTPError, or "[body so far] Kind:
/// message".
std::string called(const Transport& transport, const Request& request,
                   const TransportOptions& options = {.timeout = 0.5}) {
  std::string body;
  try {
    const auto reply = transport(request, options);
    while (reply->append1(body, 65536) > 0) continue;
    EXPECT_EQ(reply->read(1), "") << "a read after the end";
    reply->close(), reply->close();
    return std::to_string(*reply->status()) + " [" + body + "]";
  } catch (HTTPError& error) {
    return std::to_string(error.code()) + "! [" + error.read(4096) + "]";
  } catch (const std::exception& error) {
    const std::string so_far = body.empty() ? "" : "[" + body.substr(0, 99) + "] ";
    return so_far + kind_of(error) + ": " + error.what();
  }
}

std::string opened(const std::string& url) { return called(urlopen_transport, Request(url)); }

bool begins(const std::string& text, const std::string& start) { return text.starts_with(start); }
bool holds(const std::string& text, const std::string& part) { return text.find(part) < text.npos; }

// ---- What servers do ----------------------------------------------------------------------------

using Play = FaultServer::Play;

/// How a play goes on once it has sent its bytes, which arrive before what ends the connection.
Play then(const std::string& how, const std::string& bytes = "") {
  return [=](Peer& peer) {
    if (how == "ends") peer.stall(20);
    if (how == "resets") peer.stall(20), peer.reset();
    if (how == "stalls") peer.stall();
    if (how == "says goodbye") SSL_set_quiet_shutdown(peer.tls(), 0);
    while (how == "floods" && peer.send(bytes)) continue;
    for (std::size_t i = 0; how == "drips" && i < bytes.size(); ++i) {
      peer.send(bytes.substr(i, 1)), peer.stall(60);
    }
    while (how == "renews keys" && SSL_key_update(peer.tls(), SSL_KEY_UPDATE_NOT_REQUESTED) == 1 &&
           SSL_do_handshake(peer.tls()) == 1) {
      continue;
    }
  };
}

/// Reads the request, answers with these bytes and goes on like this.
Play answer(const std::string& bytes, const Play& next = then("ends")) {
  return [=](Peer& peer) { peer.request(), peer.send(bytes), next(peer); };
}

const std::string HI = whole("200 OK", "hi");

/// Answers every request on the connection, up to `count` of them.
Play answering(const std::string& reply = HI, int count = 99) {
  return [=](Peer& peer) {
    for (int i = 0; i < count && !peer.request().empty(); ++i) peer.send(reply);
  };
}

const CertificateAuthority& authority() {
  static const CertificateAuthority made;
  static const int trusted = setenv("SSL_CERT_FILE", made.file().c_str(), 1);
  return static_cast<void>(trusted), made;
}

/// For a fault server that speaks TLS, or for one that does not.
const Identity* identity(bool tls = true) {
  static const Identity made = authority().issue("localhost");
  return tls ? &made : nullptr;
}

/// The URL of a server that does not speak TLS, for a client that does.
std::string tls_url(const FaultServer& server) { return "https" + server.url().substr(4); }

// ---- Faults that only a socket shows ------------------------------------------------------------

using OverSockets = ::testing::TestWithParam<bool>;

INSTANTIATE_TEST_SUITE_P(Transport, OverSockets, ::testing::Bool(),
                         [](const auto& param) { return param.param ? "tls" : "plain"; });

TEST_P(OverSockets, EveryFaultHasItsKindAndOneRequest) {
  for (const Row& row : table("faults", 5)) {
    if (row[0] == (GetParam() ? "plain" : "tls")) continue;
    FaultServer server(answer(row[2], then(row[3], row[4])), identity(GetParam()));
    EXPECT_PRED2(begins, opened(server.url()), row[1]);
    EXPECT_EQ(server.requests().size(), 1U);
  }
}

TEST_P(OverSockets, WhatHappensBeforeTheRequestIsSentIsAURLError) {
  const Play takes_slowly = [](Peer& peer) {  // but never waits for as long as the timeout
    for (std::size_t taken = 0, size = 1; size > 0 && taken < 20'000'000; taken += size) {
      size = peer.receive(16'000).size();
      if (taken < 12'000'000) peer.stall(1);
    }
    peer.send(HI), peer.stall();
  };
  const std::string long_body(20'000'000, 'x');
  for (const auto& [play, how] : std::vector<std::pair<Play, const char*>>{
           {then("stalls"), "URLError(TimeoutError): "},
           {[](Peer& peer) { peer.receive(1000), peer.reset(); }, "URLError(ConnectionError): "},
           {[](Peer& peer) { peer.receive(1000); }, "URLError(ConnectionError): "},
           {takes_slowly, "200 [hi]"}}) {
    FaultServer server(play, identity(GetParam()));
    const Request request(server.url(), {.data = long_body, .method = "POST"});
    EXPECT_PRED2(begins, called(urlopen_transport, request), how);
    EXPECT_EQ(server.connections(), 1);
  }
}

TEST_P(OverSockets, AStopAndTheEndOfTheCallsTimeEndEveryWait) {
  for (const Row& row : table("slow_servers", 3)) {
    const bool is_taken = row[0] != "-";
    const Play next = then(row[1], row[2]);
    FaultServer server(is_taken ? answer(row[0], next) : next, identity(GetParam()));
    const std::size_t size = is_taken ? 0 : 20'000'000;
    const Request request(server.url(), {.data = std::string(size, 'x'), .method = "POST"});
    const auto over = [end = monotonic() + 0.2] { return monotonic() > end; };
    const TransportOptions stopped{.timeout = 9, .should_stop = over};
    const TransportOptions late{.timeout = 9, .time_left = 0.2};
    EXPECT_PRED2(holds, called(urlopen_transport, request, stopped),
                 "Stopped: the transport was asked");
    EXPECT_PRED2(holds, called(urlopen_transport, request, late),
                 "timed out after all the time that was left");
  }
}

TEST(Connecting, FailsByKind) {
  const std::string closed = "http://127.0.0.1:" + std::to_string(closed_port());
  EXPECT_PRED2(begins, opened(closed), "URLError(ConnectionError): ");
  // A label of more than 63 bytes cannot be asked for.
  const std::string no_name = "http://" + std::string(64, 'x') + ".invalid/";
  EXPECT_PRED2(begins, opened(no_name), "URLError(gaierror): ");
  // An address within a zone keeps it: without one, it is no address that can be connected to.
  const std::string zoned = opened("http://[fe80::1%25lo]:9/");
  EXPECT_TRUE(begins(zoned, "URLError(") && !holds(zoned, "Invalid argument")) << zoned;
}

TEST(Connecting, AHandshakeThatNeverEndsHoldsNoCall) {
  std::string requests;  // for a hello, which a client skips
  for (int i = 0; i < 999; ++i) requests.append("\x16\x03\x03\0\x04\0\0\0\0", 9);
  const Play greets = then("floods", requests);
  FaultServer server([=](Peer& peer) { peer.receive(9), greets(peer); });
  EXPECT_PRED2(begins, opened(tls_url(server)), "URLError(TimeoutError): ");
}

// ---- Reading ------------------------------------------------------------------------------------

TEST(Reading, ReadFillsAndRead1TakesWhatHasComeAndASlowReaderDoesNotTimeOut) {
  FaultServer server(answer(OK + "Content-Length: 10\r\n\r\nab", [](Peer& peer) {
    for (const auto& [ms, piece] : {std::pair(100, "cdef"), {100, "gh"}, {700, "ij"}}) {
      peer.stall(ms), peer.send(piece);
    }
  }));
  const auto reply = urlopen_transport(Request(server.url()), {.timeout = 0.4});
  EXPECT_EQ(reply->read1(1), "a");
  EXPECT_EQ(reply->read1(9), "b");
  EXPECT_EQ(reply->read(5), "cdefg");
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(reply->read1(9), "h");
  EXPECT_EQ(reply->read1(9), "ij");
}

TEST(Reading, ACodingThatWasNotAskedForFailsWithItsName) {
  FaultServer server(
      answering(whole("200 OK", "xx", "Content-Encoding: gzip\r\ncontent-encoding: br\r\n")));
  const auto reply = urlopen_transport(Request(server.url()), PATIENT);
  for (int i = 0; i < 2; ++i) {
    const std::string refused = outcome([&] { return reply->read(9); });
    EXPECT_TRUE(begins(refused, "HTTPException: ") && holds(refused, "gzip, br")) << refused;
  }
  const Request own(server.url(), {.headers = {{"accept-encoding", "br"}}});
  EXPECT_EQ(called(urlopen_transport, own), "200 [xx]") << "the caller's own affair";
}

// ---- The pool -----------------------------------------------------------------------------------

TEST(Pool, ReusesAConnectionOnceItsReplyHasComeWhole) {
  FaultServer server(answering());
  const PooledTransport pool({.max_idle = 2, .max_idle_s = 0.3});
  const auto open = [&] { return pool(Request(server.url()), PATIENT); };
  for (int i = 0; i < 5; ++i) open()->read(9);
  open()->close();  // all has come, but was not read
  EXPECT_EQ(server.connections(), 1);
  { auto first = open(), second = open(), third = open(); }
  EXPECT_EQ(server.connections(), 3);
  { auto first = open(), second = open(), third = open(); }
  EXPECT_EQ(server.connections(), 4) << "two of the three were kept";
  open();
  std::this_thread::sleep_for(400ms);
  EXPECT_EQ(server.connections(), 4);
  open();
  EXPECT_EQ(server.connections(), 5) << "idle for too long";
}

TEST(Pool, KeepsNoConnectionThatARequestAsksToClose) {
  FaultServer server(answering());
  const PooledTransport pool;
  for (const char* options : {"TE, Close", "close", "keep-alive"}) {
    const RequestFields fields{.headers = {{"connection", options}}};
    EXPECT_EQ(called(pool, Request(server.url(), fields)), "200 [hi]");
  }
  EXPECT_EQ(called(pool, Request(server.url())), "200 [hi]");
  EXPECT_EQ(server.connections(), 3) << "one for each of two, one for the others";
  EXPECT_FALSE(holds(server.requests().back(), "\r\nConnection: "));
  opened(server.url());
  EXPECT_PRED2(holds, server.requests().back(), "\r\nConnection: close\r\n");
}

TEST(Pool, SharesNoConnectionBetweenCredentialsForTheProxy) {
  FaultServer proxy(answering());
  const PooledTransport pool({.proxy = proxy.url()});
  for (const char* credentials : {"a", "b", "a", "b"}) {
    const RequestFields fields{.headers = {{"Proxy-Authorization", credentials}}};
    EXPECT_EQ(called(pool, Request("http://h.invalid/", fields)), "200 [hi]");
  }
  EXPECT_EQ(proxy.connections(), 2);
}

TEST(Pool, ReplacesAConnectionThatThePeerClosedMeanwhile) {
  for (const bool tls : {false, true}) {
    FaultServer server(answering(HI, 1), identity(tls));
    const PooledTransport pool;
    for (int i = 1; i <= 3; ++i) {
      EXPECT_EQ(called(pool, Request(server.url())), "200 [hi]");
      std::this_thread::sleep_for(50ms);
      EXPECT_EQ(server.connections(), i);
    }
  }
}

TEST(Pool, TakesNothingForAReplyThatCameBeforeItsRequest) {
  for (const auto& first : {HI, std::string("HTTP/1.1 204 N\r\nContent-Length: 4\r\n\r\n")}) {
    FaultServer server(answer(first, [](Peer& peer) {
      peer.stall(20), peer.send(whole("200 OK", "evil")), peer.stall();
    }));
    const PooledTransport pool;
    for (int i = 1; i <= 2; ++i) {
      EXPECT_NE(called(pool, Request(server.url())), "200 [evil]");
      std::this_thread::sleep_for(60ms);
    }
    EXPECT_EQ(server.connections(), 2);
  }
}

TEST(Pool, NeverSendsARequestTwice) {
  for (const auto& [end, size] : {std::pair("ends", 2UL), {"resets", 2UL}, {"resets", 100'000UL}}) {
    FaultServer server([finish = then(end)](Peer& peer) {
      peer.request(), peer.send(HI), peer.request(), finish(peer);
    });
    const PooledTransport pool;
    const Request request(server.url(), {.data = std::string(size, 'x'), .method = "POST"});
    EXPECT_EQ(called(pool, request), "200 [hi]");
    const std::string how = called(pool, request);
    EXPECT_TRUE(begins(how, "DroppedConnection: ") || begins(how, "ConnectionError: ")) << how;
    EXPECT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(called(pool, request), "200 [hi]") << "the pool goes on";
  }
}

TEST(PoolOptions, BoundWhatTheySay) {
  const std::string headers = "A: b\r\nB: " + std::string(99, 'c') + "\r\n";
  FaultServer server(answering(whole("200 OK", "hi", headers))), silent(then("stalls")),
      moved(answering(whole("301 M", "body", "Location: x/../y?a= b#c\r\n")));
  const auto with = [](const PoolOptions& options, const std::string& url) {
    return called(PooledTransport(options), Request(url), PATIENT);
  };
  EXPECT_PRED2(begins, with({.max_headers = 2}, server.url()), "HTTPException: ");
  EXPECT_EQ(with({.max_headers = 3, .max_header_bytes = 200}, server.url()), "200 [hi]");
  EXPECT_PRED2(begins, with({.max_header_bytes = 100}, server.url()), "HTTPException: ");
  EXPECT_EQ(with({.max_redirects = 2}, moved.url()), "301! [body]");
  ASSERT_EQ(moved.requests().size(), 3U);
  EXPECT_PRED2(begins, moved.requests()[2], "GET /y?a=%20b HTTP/1.1\r\n");
  const std::string late = with({.connect_timeout_s = 0.2}, tls_url(silent));
  EXPECT_TRUE(begins(late, "URLError(TimeoutError): ") && holds(late, "after 0.2 s while")) << late;
}

TEST(PoolOptions, ThatCannotBeUsedAreRefusedWhenThePoolIsMade) {
  const std::string ca = authority().file();
  const auto [certificate, key] = *identity();
  for (const auto& [options, name] : std::vector<std::pair<PoolOptions, std::string>>{
           {{.ca_file = "/nowhere"}, "ca_file"},
           {{.ca_file = key}, "ca_file"},
           {{.ca_directory = ca}, "ca_directory"},
           {{.client_certificate = "/nowhere"}, "client_certificate"},
           {{.client_certificate = certificate}, "client_key"},
           {{.client_certificate = certificate, .client_key = "/nowhere"}, "client_key"},
           {{.client_key = key}, "client_key"},
           {{.proxy = "ftp://user:s3cret@h/"}, "proxy"},
           {{.user_agent = "a\nb"}, "user_agent"}}) {
    const std::string how = outcome([&given = options] { return PooledTransport(given), "made"; });
    EXPECT_TRUE(begins(how, "invalid_argument: PoolOptions::" + name) && !holds(how, "s3cret"));
  }
  for (const char* variable : {"SSL_CERT_FILE", "SSL_CERT_DIR", "https_proxy"}) {
    setenv(variable, "/nowhere/", 1);
    const std::string how = opened("https://localhost:1/");
    EXPECT_TRUE(begins(how, "invalid_argument: ") && holds(how, variable)) << how;
    setenv(variable, "", 1);  // as good as none
  }
  setenv("SSL_CERT_FILE", ca.c_str(), 1);
}

// ---- Certificates and proxies -------------------------------------------------------------------

TEST(Certificates, AreVerified) {
  const CertificateAuthority other;
  const Identity others = other.issue("localhost"), elsewhere = authority().issue("other.test"),
                 expired = authority().issue("localhost", 0);
  const PooledTransport by_file({.ca_file = other.file()});
  const PooledTransport by_directory({.ca_directory = other.directory()});
  const std::string untrusted = "URLError(OSError): the peer's certificate is not trusted";
  for (const auto& [server_identity, transport, how] :
       std::vector<std::tuple<const Identity*, Transport, std::string>>{
           {&others, by_file, "200 [hi]"},
           {&others, by_directory, "200 [hi]"},
           {&others, urlopen_transport, untrusted},
           {identity(), by_directory, untrusted},
           {&expired, urlopen_transport, untrusted},
           {&elsewhere, urlopen_transport, untrusted}}) {
    FaultServer server(answering(), server_identity);
    EXPECT_PRED2(begins, called(transport, Request(server.url())), how);
    EXPECT_EQ(server.requests().empty(), how == untrusted);
  }
  FaultServer no_tls([](Peer& peer) { peer.send("220 hello\r\n"); });
  EXPECT_PRED2(begins, opened(tls_url(no_tls)), "URLError(OSError): cannot set up a secure");
}

TEST(Proxies, ThatMisbehaveHoldNoCall) {
  for (const Row& row : table("bad_proxies", 4)) {
    FaultServer proxy(answer(row[1], then(row[2], row[3])), identity());
    setenv("https_proxy", proxy.url().c_str(), 1);
    EXPECT_PRED2(begins, opened("https://h.invalid/"), row[0]);
  }
  unsetenv("https_proxy");
}

TEST(Proxies, OfSocksAreUsedWithTheirCredentials) {
  FaultServer proxy([](Peer& peer) {
    peer.receive(99), peer.send({"\x05\x02", 2});  // by user and password (RFC 1929)
    const bool is_right = peer.receive(99) == std::string("\x01\x01u\x01p", 5);
    peer.send({is_right ? "\x01\0" : "\x01\x01", 2});
    peer.receive(99), peer.send({"\x05\0\0\x01\0\0\0\0\0\0", 10});
    answering()(peer);
  });
  const std::string at = "@127.0.0.1:" + std::to_string(proxy.port());
  const Request request("http://h.invalid/");
  const PooledTransport pool({.proxy = "socks5h://u:p" + at});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(called(pool, request), "200 [hi]");
  EXPECT_EQ(proxy.connections(), 1);
  const std::string refused = called(PooledTransport({.proxy = "socks5h://u:wrong" + at}), request);
  EXPECT_TRUE(begins(refused, "URLError(") && !holds(refused, "wrong")) << refused;
}

// ---- Real peers ---------------------------------------------------------------------------------

RealPeer nginx_peer() {
  const auto& [certificate, key] = *identity();
  return {"nginx", certificate + " " + key + " " + authority().file()};
}

TEST(RealPeers, NginxOverHttpAndTls) {
  const RealPeer nginx = nginx_peer();
  const PooledTransport pool;
  for (const bool tls : {false, true}) {
    const auto get = [&](const char* path, const RequestFields& fields = {}) {
      return called(pool, Request(tls ? nginx.tls_url(path) : nginx.url(path), fields), PATIENT);
    };
    EXPECT_PRED2(begins, get("/hello"), "200 [hello HTTP/1.1 ");
    EXPECT_EQ(get("/chunked"), "200 [<p>GET</p>]");
    EXPECT_EQ(get("/big", {.headers = {{"accept-encoding", ""}}}).size(), 20'000'006U);
    EXPECT_EQ(get("/upload", {.data = std::string(3'000'000, 'u'), .method = "POST"}),
              "200 [taken]");
    // In the gzip coding: with chunks, with a length, and where there is no body.
    EXPECT_EQ(get("/big").size(), 20'000'006U);
    EXPECT_EQ(get("/fixed"), "200 [fixed]");
    EXPECT_EQ(get("/fixed", {.method = "HEAD"}), "200 []");
  }
  const auto coded = pool(Request(nginx.url("/fixed")), PATIENT);
  EXPECT_EQ(coded->headers()->get("content-encoding"), "gzip") << "headers stay as they came";
  const Request who(nginx.tls_url("/who"));
  EXPECT_EQ(called(pool, who, PATIENT), "200 [NONE]");
  const auto [certificate, key] = authority().issue("me");
  const PooledTransport mutual({.client_certificate = certificate, .client_key = key});
  EXPECT_EQ(called(mutual, who, PATIENT), "200 [SUCCESS]");
}

TEST(RealPeers, APoolServesTheChildOfAForkWithConnectionsOfItsOwn) {
  // No thread but this one: what another holds at a fork, an allocator's lock, is never given back.
  const RealPeer nginx = nginx_peer();
  const PooledTransport pool;
  const Request request(nginx.url("/hello"));
  const auto open = pool(request, PATIENT);
  const std::string before = called(pool, request, PATIENT);  // names the connection
  const pid_t child = fork();
  if (child == 0) {
    const std::string read = outcome([&] { return open->read(1); });
    const std::string reply = called(PooledTransport(pool), request, PATIENT);
    const bool is_served = reply.starts_with("200 [hello") && reply != before;
    _exit(read.starts_with("OSError: ") && is_served ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(open->read(5), "hello");
  EXPECT_EQ(called(pool, request, PATIENT), before) << "the parent's connection is kept";
}

TEST(RealPeers, TinyproxyForwardsPlainRequestsAndTunnels) {
  FaultServer http(answering()), tls(answering(), identity());
  const RealPeer proxy("tinyproxy", std::to_string(tls.port()));
  const PooledTransport pool({.proxy = proxy.url()});
  const RequestFields fields{.headers = {{"Authorization", "a"}, {"Proxy-Authorization", "p"}}};
  for (const auto& url : {http.url(), tls.url(), tls.url()}) {
    EXPECT_EQ(called(pool, Request(url, fields)), "200 [hi]");
  }
  EXPECT_EQ(tls.connections(), 1) << "the tunnel is kept";
  EXPECT_PRED2(holds, tls.requests()[0], "\r\nAuthorization: a");
  EXPECT_FALSE(holds(tls.requests()[0], "Proxy-")) << "only the proxy's own";
  EXPECT_PRED2(begins, called(pool, Request("https://localhost:1/")),
               "URLError(OSError): cannot connect: the proxy refused the tunnel, status 403");
}

}  // namespace
}  // namespace engines::http
