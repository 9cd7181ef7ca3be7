// SPDX-License-Identifier: Apache-2.0
#include "engines/http/curl_transport.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engines/http/classification.h"
#include "tests/support/fault_server.h"
#include "tests/support/outcome.h"
#include "tests/support/real_peers.h"

namespace engines::http {
namespace {

using test::FaultServer;
using test::Peer;

using namespace std::chrono_literals;

constexpr double TIMEOUT_S = 0.5;
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
                   const TransportOptions& options = {.timeout = TIMEOUT_S}) {
  std::string body;
  try {
    const auto reply = transport(request, options);
    while (reply->append1(body, 65536) > 0) continue;
    EXPECT_EQ(reply->read(1), "") << "a read after the end";
    reply->close(), reply->close();
    return std::to_string(*reply->status()) + " [" + body + "]";
  } catch (HTTPError& error) {
    const std::string start = error.read(4096);
    error.close();
    return std::to_string(error.code()) + "! [" + start + "]";
  } catch (const std::exception& error) {
    return (body.empty() ? "" : "[" + body.substr(0, 99) + "] ") + kind_of(error) + ": " +
           error.what();
  }
}

::testing::AssertionResult begins(const std::string& text, const std::string& start) {
  if (text.starts_with(start)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << text.substr(0, 200) << " does not begin with " << start;
}

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != text.npos;
}

// ---- What servers do ----------------------------------------------------------------------------

using Play = FaultServer::Play;

// How a play goes on once it has sent its bytes, which arrive before what ends the connection.
void ends(Peer& peer) { peer.sleep(20); }
void resets(Peer& peer) { peer.sleep(20), peer.reset(); }
void stalls(Peer& peer) { peer.stall(); }
Play drips(std::string slowly, int pause_ms) {
  return [=](Peer& peer) { peer.drip(slowly, pause_ms); };
}
Play floods(std::string piece) {
  return [=](Peer& peer) {
    while (peer.send(piece)) {
    }
  };
}

std::string times(int count, const std::string& text) {
  std::string all;
  while (count-- > 0) all += text;
  return all;
}

/// Reads the request, answers with these bytes and goes on like this.
Play answer(std::string bytes, Play then = ends) {
  return [=](Peer& peer) { peer.request(), peer.send(bytes), then(peer); };
}

/// A whole reply: "200 OK" and the like, further headers, and the body.
std::string whole(const std::string& status, const std::string& body,
                  const std::string& headers = "") {
  return "HTTP/1.1 " + status + "\r\n" + headers +
         "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string OK = "HTTP/1.1 200 OK\r\n", TEN = OK + "Content-Length: 10\r\n\r\n",
                  CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n", HI = whole("200 OK", "hi");

/// Answers every request on the connection, up to `count` of them.
Play answering(int count, const std::string& reply = HI) {
  return [=](Peer& peer) {
    for (int i = 0; i < count && !peer.request().empty(); ++i) peer.send(reply);
  };
}

const test::CertificateAuthority& authority() {
  static const test::CertificateAuthority made;
  static const int trusted = setenv("SSL_CERT_FILE", made.file().c_str(), 1);
  return static_cast<void>(trusted), made;
}

/// For a fault server that speaks TLS, or for one that does not.
const test::Identity* identity(bool tls) {
  static const test::Identity made = authority().issue("localhost");
  return tls ? &made : nullptr;
}

// ---- Faults that only a socket shows ------------------------------------------------------------

class OverSockets : public ::testing::TestWithParam<const char*> {
 protected:
  const std::string name = GetParam();
  const bool tls = name.ends_with("tls");
  const Transport transport =
      name.starts_with("pooled") ? Transport(PooledTransport()) : urlopen_transport;
};

INSTANTIATE_TEST_SUITE_P(Transports, OverSockets,
                         ::testing::Values("urlopen", "pooled", "urlopen_tls", "pooled_tls"),
                         [](const auto& param) { return param.param; });

TEST_P(OverSockets, EveryFaultHasItsKindAndOneRequest) {
  const std::string slow = "A: " + std::string(30, 'b');
  const Play says_goodbye = [this](Peer& peer) {
    if (tls) peer.say_goodbye();
  };
  for (const auto& [play, how] : std::vector<std::pair<Play, std::string>>{
           {answer(""), "DroppedConnection: "},
           {answer("", resets), "ConnectionError: "},
           {answer("", stalls), "TimeoutError: "},
           {answer(OK, drips(slow, 40)), "TimeoutError: "},
           {answer(TEN + "abc", resets), "[abc] ConnectionError: "},
           {answer(TEN + "abc", stalls), "[abc] TimeoutError: "},
           {answer(TEN, drips("abcdefghij", 100)), "200 [abcdefghij]"},
           {answer(CHUNKED + "5;", drips(slow, 40)), "TimeoutError: "},
           {answer("HTTP/1.0 200 OK\r\n\r\nhi", says_goodbye), "200 [hi]"},
           // Over TLS, anyone in between can end a connection.
           {answer(OK + "\r\nhi"), tls ? "[hi] IncompleteRead: " : "200 [hi]"},
           {answer(whole("503 S", "busy"), stalls), "503! [busy]"}}) {
    FaultServer server(play, identity(tls));
    const Request request(server.url(), {.data = "{}", .method = "POST"});
    EXPECT_TRUE(begins(called(transport, request), how));
    EXPECT_EQ(server.requests().size(), 1U);
  }
}

TEST_P(OverSockets, WhatHappensBeforeTheRequestIsSentIsAURLError) {
  const Request refused("http://127.0.0.1:" + std::to_string(test::closed_port()) + "/");
  EXPECT_TRUE(begins(called(transport, refused), "URLError(ConnectionError): "));
  // A label of more than 63 bytes cannot be asked for.
  const Request unknown("http://" + std::string(64, 'x') + ".invalid/");
  EXPECT_TRUE(begins(called(transport, unknown), "URLError(gaierror): "));
  // An address within a zone keeps it: without one, it is no address that can be connected to.
  const std::string zoned = called(transport, Request("http://[fe80::1%25lo]:9/"));
  EXPECT_TRUE(begins(zoned, "URLError(") && !holds(zoned, "Invalid argument")) << zoned;

  const auto early = [](const std::string& reply) {
    return [=](Peer& peer) { peer.receive(1000), peer.send(reply), peer.stall(); };
  };
  const Play takes_slowly = [](Peer& peer) {  // but never waits for as long as the timeout
    std::size_t got = 0;
    for (std::size_t part = 1; part <= 10; ++part) {
      while (got < part * 2'000'000) got += peer.receive(100'000).size();
      if (part <= 6) peer.sleep(100);
    }
    peer.send(HI), peer.stall();
  };
  const std::string long_body(20'000'000, 'x');
  for (const auto& [play, how] : std::vector<std::pair<Play, const char*>>{
           {stalls, "URLError(TimeoutError): "},
           {[](Peer& peer) { peer.receive(1000), peer.reset(); }, "URLError(ConnectionError): "},
           {[](Peer& peer) { peer.receive(1000); }, "URLError(ConnectionError): "},
           {early(whole("413 T", "long")), "413! [long]"},
           {early(HI), "200 [hi]"},
           {takes_slowly, "200 [hi]"}}) {
    FaultServer server(play, identity(tls));
    const Request request(server.url(), {.data = long_body, .method = "POST"});
    EXPECT_TRUE(begins(called(transport, request), how));
    EXPECT_EQ(server.connections(), 1);
  }
}

TEST_P(OverSockets, AStopAndTheEndOfTheCallsTimeEndEveryWait) {
  for (const Play& play : std::vector<Play>{
           stalls, answer(OK, drips("abcdefghij", 60)), answer(TEN, drips("abcdefghij", 60)),
           answer(OK + "\r\n", floods("x")), answer(CHUNKED, floods("1\r\nx\r\n"))}) {
    FaultServer server(play, identity(tls));
    const std::size_t size = play.target<void (*)(Peer&)>() ? 20'000'000 : 0;
    const Request request(server.url(), {.data = std::string(size, 'x'), .method = "POST"});
    const double began = monotonic();
    const auto is_over = [&] { return monotonic() - began > 0.2; };
    const std::string stopped = called(transport, request, {.timeout = 9, .should_stop = is_over});
    EXPECT_TRUE(holds(stopped, "Stopped: ")) << stopped;
    const std::string late = called(transport, request, {.timeout = 9, .time_left = 0.2});
    EXPECT_TRUE(holds(late, "TimeoutError")) << late;
  }
}

TEST(Tls, KeysThatAreRenewedWithoutEndHoldNoCall) {
  const Play renews = answer("", [](Peer& peer) {
    while (peer.renew_key()) continue;
  });
  FaultServer server(renews, identity(true)), proxy(renews, identity(true));
  EXPECT_TRUE(begins(called(PooledTransport(), Request(server.url())), "TimeoutError: "));
  EXPECT_TRUE(begins(called(PooledTransport({.proxy = proxy.url()}), Request("https://h.invalid/")),
                     "URLError(TimeoutError): "));
}

TEST(Redirects, AreFollowedUpToALimit) {
  FaultServer server([](Peer& peer) {
    for (std::string request; !(request = peer.request()).empty();) {
      const std::string status = request.substr(request.find('/') + 1, 3);
      const std::string to = status == "301" ? "x/../200?a= b#c" : status == "302" ? "/302" : "";
      peer.send(whole(status + " S", "body", "Location: " + to + "\r\n"));
    }
  });
  const RequestFields post{.data = "{}", .method = "POST"};
  EXPECT_EQ(called(urlopen_transport, Request(server.url("/301"), post)), "200 [body]");
  EXPECT_TRUE(begins(server.requests().back(), "GET /200?a=%20b HTTP/1.1\r\n"));
  EXPECT_EQ(called(urlopen_transport, Request(server.url("/303"), post)), "303! [body]");
  const std::size_t before = server.requests().size();
  const PooledTransport pool({.max_redirects = 2});
  EXPECT_EQ(called(pool, Request(server.url("/302"))), "302! [body]");
  EXPECT_EQ(server.requests().size(), before + 3);
}

// ---- Reading ------------------------------------------------------------------------------------

TEST(Reading, ReadFillsAndRead1TakesWhatHasCome) {
  FaultServer server([](Peer& peer) {
    peer.request();
    for (const auto& piece : {OK + "Content-Length: 8\r\n\r\nab", std::string("cdef"), {"gh"}}) {
      peer.send(piece), peer.sleep(100);
    }
  });
  const auto read = urlopen_transport(Request(server.url()), {.timeout = 5});
  for (const char* expected : {"abcde", "fgh", ""}) EXPECT_EQ(read->read(5), expected);
  const auto read1 = urlopen_transport(Request(server.url()), {.timeout = 5});
  EXPECT_EQ(read1->read1(1), "a");
  for (const char* expected : {"b", "cdef", "gh", ""}) EXPECT_EQ(read1->read1(9), expected);
  read1->close();
  EXPECT_THROW(read1->read(9), std::invalid_argument);
}

TEST(Reading, ASlowReaderNeitherTimesOutNorBuffers) {
  std::atomic<std::size_t> sent = 0;
  FaultServer server(answer(OK + "\r\n", [&sent](Peer& peer) {
    for (const std::string piece(65536, 'x'); sent < 200'000'000 && peer.send(piece);)
      sent += 65536;
  }));
  const auto reply = urlopen_transport(Request(server.url()), {.timeout = 0.4});
  for (int i = 0; i < 4; ++i) {
    std::this_thread::sleep_for(500ms);
    EXPECT_EQ(reply->read(10).size(), 10U);
  }
  EXPECT_LT(sent, 20'000'000U) << "what the sockets hold, and no more";
}

TEST(Reading, ACodingThatWasNotAskedForFailsWithItsName) {
  for (const std::string lines :
       {"Content-Encoding: br\r\n", "Content-Encoding: gzip\r\ncontent-encoding: br\r\n"}) {
    FaultServer server(answering(9, whole("200 OK", "xx", lines)));
    const auto reply = urlopen_transport(Request(server.url()), {.timeout = 5});
    for (int i = 0; i < 2; ++i) {
      const std::string refused = test::outcome([&] { return reply->read(9); });
      EXPECT_TRUE(begins(refused, "HTTPException: ") && holds(refused, "br")) << refused;
    }
    const Request own(server.url(), {.headers = {{"accept-encoding", "br"}}});
    EXPECT_EQ(called(urlopen_transport, own), "200 [xx]") << "the caller's own affair";
  }
}

TEST(Reading, FloodsThatNeverBecomeABodyOutlastNoBound) {
  const std::string gzip = "\x1f\x8b\b" + std::string(7, '\0') + "\3" + std::string(9, '\0');
  FaultServer members(answer(OK + "Content-Encoding: gzip\r\n\r\n", floods(times(999, gzip))));
  const auto empty = urlopen_transport(Request(members.url()), {.timeout = 0.3});
  EXPECT_THROW(empty->read1(9), TimeoutError);
  FaultServer framing(answer(CHUNKED, floods("1;" + std::string(60'000, 'e') + "\r\nx\r\n")));
  const auto framed = urlopen_transport(Request(framing.url()), {.timeout = 5});
  EXPECT_EQ(framed->read1(1), "x");
  framed->close();  // takes no more than a little of it
  // Handshake messages that a client skips.
  const std::string hello_request("\x16\x03\x03\0\x04\0\0\0\0", 9);
  FaultServer handshake(
      [=](Peer& peer) { peer.receive(9), floods(times(999, hello_request))(peer); });
  const Request tls("https" + handshake.url().substr(4));
  EXPECT_TRUE(begins(called(urlopen_transport, tls, {.timeout = 0.3}), "URLError(TimeoutError)"));
}

// ---- The pool -----------------------------------------------------------------------------------

TEST(Pool, ReusesAConnectionOnceItsReplyHasComeWhole) {
  FaultServer server(answering(99));
  const PooledTransport pool({.max_idle = 2, .max_idle_s = 0.3});
  const Request request(server.url());
  const auto open = [&] { return pool(request, {.timeout = TIMEOUT_S}); };
  for (int i = 0; i < 5; ++i) EXPECT_EQ(called(pool, request), "200 [hi]");
  EXPECT_EQ(server.connections(), 1);
  open()->close();  // all has come, but was not read
  { auto unread = open(), also_unread = open(); }
  EXPECT_EQ(server.connections(), 2);
  {
    auto first = open(), second = open(), third = open();
    for (auto* reply : {&first, &second, &third}) (*reply)->read(9);
    EXPECT_EQ(server.connections(), 3);
  }
  { auto first = open(), second = open(), third = open(); }
  EXPECT_EQ(server.connections(), 4) << "two of the three were kept";
  EXPECT_EQ(called(pool, request), "200 [hi]");
  std::this_thread::sleep_for(400ms);
  EXPECT_EQ(called(pool, request), "200 [hi]");
  EXPECT_EQ(server.connections(), 5) << "idle for too long";
}

TEST(Pool, ReplacesAConnectionThatThePeerClosedMeanwhile) {
  for (const bool tls : {false, true}) {
    FaultServer server(answering(1), identity(tls));
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
      peer.sleep(20), peer.send(whole("200 OK", "evil")), peer.stall();
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
  for (const auto& [end, size] : {std::pair(&ends, 2UL), {&resets, 2UL}, {&resets, 100'000UL}}) {
    FaultServer server([finish = end](Peer& peer) {
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

TEST(PoolOptions, BoundAndNameWhatTheySay) {
  FaultServer server(
      answering(99, whole("200 OK", "hi", "A: b\r\nB: " + std::string(99, 'c') + "\r\n")));
  const auto with = [&](PoolOptions options) {
    return called(PooledTransport(std::move(options)), Request(server.url()));
  };
  EXPECT_TRUE(begins(with({.max_headers = 2}), "HTTPException: "));
  EXPECT_EQ(with({.max_headers = 3, .max_header_bytes = 200}), "200 [hi]");
  EXPECT_TRUE(begins(with({.max_header_bytes = 100}), "HTTPException: "));
  EXPECT_EQ(with({.user_agent = "me/1"}), "200 [hi]");
  EXPECT_TRUE(holds(server.requests().back(), "\r\nUser-Agent: me/1\r\n"));

  FaultServer silent(stalls);
  const PooledTransport impatient({.connect_timeout_s = 0.2});
  const Request tls("https" + silent.url().substr(4));
  const std::string late = called(impatient, tls, {.timeout = 9});
  EXPECT_TRUE(begins(late, "URLError(TimeoutError): ") && holds(late, "after 0.2 s while")) << late;
}

TEST(PoolOptions, ThatCannotBeUsedAreRefusedWhenThePoolIsMade) {
  const std::string ca = authority().file(), key = identity(true)->key;
  const std::string certificate = identity(true)->certificate;
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
    const std::string how =
        test::outcome([&given = options] { return PooledTransport(given), "made"; });
    EXPECT_TRUE(begins(how, "invalid_argument: PoolOptions::" + name) && !holds(how, "s3cret"));
  }
  for (const char* variable : {"SSL_CERT_FILE", "SSL_CERT_DIR", "https_proxy"}) {
    const char* const before = std::getenv(variable);
    const std::string value = before ? before : "";  // an empty one is as good as none
    setenv(variable, "/nowhere/", 1);
    const std::string how = called(urlopen_transport, Request("https://localhost:1/"));
    EXPECT_TRUE(begins(how, "invalid_argument: ") && holds(how, variable)) << how;
    setenv(variable, value.c_str(), 1);
  }
}

// ---- Real peers ---------------------------------------------------------------------------------

test::RealPeer nginx_peer() {
  const test::Identity& server = *identity(true);
  return {"nginx", server.certificate + " " + server.key + " " + authority().file()};
}

TEST(RealPeers, NginxOverHttpAndTls) {
  const test::RealPeer nginx = nginx_peer();
  const RequestFields head{.method = "HEAD"};
  const RequestFields upload{.data = std::string(3'000'000, 'u'), .method = "POST"};
  const PooledTransport pool;
  for (const bool tls : {false, true}) {
    const auto get = [&](const char* path, const RequestFields& fields = {}) {
      return called(pool, Request(tls ? nginx.tls_url(path) : nginx.url(path), fields), PATIENT);
    };
    std::set<std::string> connections;
    for (int i = 0; i < 120; ++i) {  // more than a connection of this server serves
      connections.insert(get("/hello"));
      ASSERT_TRUE(begins(*connections.rbegin(), "200 [hello HTTP/1.1 "));
    }
    EXPECT_LE(connections.size(), 4U);
    EXPECT_EQ(get("/chunked"), "200 [<p>GET</p>]");
    EXPECT_EQ(get("/chunked", head), "200 []");
    EXPECT_EQ(get("/big", {.headers = {{"accept-encoding", ""}}}).size(), 20'000'006U);
    EXPECT_EQ(get("/upload", upload), "200 [taken]");
    // In the gzip coding: with chunks, with a length, and where there is no body.
    EXPECT_EQ(get("/big").size(), 20'000'006U);
    EXPECT_EQ(get("/fixed"), "200 [fixed]");
    EXPECT_EQ(get("/fixed", head), "200 []");
    const auto coded = pool(Request(nginx.url("/fixed")), PATIENT);
    EXPECT_EQ(coded->headers()->get("content-encoding"), "gzip") << "headers stay as they came";
    pool(Request(nginx.url("/big")), PATIENT)->read(10);  // closed in the middle
    EXPECT_TRUE(begins(get("/hello"), "200 [hello "));
  }
  EXPECT_EQ(called(pool, Request(nginx.tls_url("/who")), PATIENT), "200 [NONE]");
  const test::Identity me = authority().issue("me");
  const PooledTransport mutual({.client_certificate = me.certificate, .client_key = me.key});
  EXPECT_EQ(called(mutual, Request(nginx.tls_url("/who")), PATIENT), "200 [SUCCESS]");
}

TEST(RealPeers, APoolServesTheChildOfAForkWithConnectionsOfItsOwn) {
  // No thread but this one: what another holds at a fork, an allocator's lock, is never given back.
  const test::RealPeer nginx = nginx_peer();
  const PooledTransport pool;
  const Request request(nginx.url("/hello"));
  const auto open = pool(request, PATIENT);
  const std::string before = called(pool, request, PATIENT);  // names the connection
  const pid_t child = fork();
  if (child == 0) {
    const std::string read = test::outcome([&] { return open->read(1); });
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

TEST(RealPeers, ACertificateIsVerified) {
  const auto with = [](const test::Identity& identity, const Transport& transport) {
    FaultServer server(answering(1), &identity);
    const std::string how = called(transport, Request(server.url()));
    EXPECT_EQ(server.requests().size(), how == "200 [hi]" ? 1U : 0U);
    return how;
  };
  const test::CertificateAuthority other;
  const test::Identity others = other.issue("localhost");
  const PooledTransport by_file({.ca_file = other.file()});
  const PooledTransport by_directory({.ca_directory = other.directory()});
  EXPECT_EQ(with(others, by_file), "200 [hi]");
  EXPECT_EQ(with(others, by_directory), "200 [hi]");
  for (const std::string& how :
       {with(others, urlopen_transport), with(*identity(true), by_directory),
        with(authority().issue_expired("localhost"), urlopen_transport),
        with(authority().issue("other.test"), urlopen_transport)}) {
    EXPECT_TRUE(begins(how, "URLError(OSError): the peer's certificate is not trusted"));
  }
  FaultServer no_tls([](Peer& peer) { peer.send("220 hello\r\n"); });
  EXPECT_TRUE(begins(called(urlopen_transport, Request("https" + no_tls.url().substr(4))),
                     "URLError(OSError): cannot set up a secure connection"));
}

TEST(RealPeers, TinyproxyForwardsPlainRequestsAndTunnels) {
  FaultServer http(answering(9)), tls(answering(9), identity(true));
  const test::RealPeer proxy("tinyproxy", std::to_string(tls.port()));
  const PooledTransport pool({.proxy = proxy.url()});
  const RequestFields fields{.headers = {{"Authorization", "a"}, {"Proxy-Authorization", "p"}}};
  for (const auto& url : {http.url(), tls.url(), tls.url()}) {
    EXPECT_EQ(called(pool, Request(url, fields)), "200 [hi]");
  }
  EXPECT_EQ(tls.connections(), 1) << "the tunnel is kept";
  EXPECT_TRUE(holds(tls.requests()[0], "\r\nAuthorization: a"));
  EXPECT_FALSE(holds(tls.requests()[0], "Proxy-")) << "only the proxy's own";
  EXPECT_TRUE(
      begins(called(pool, Request("https://localhost:1/")),
             "URLError(OSError): cannot connect: the proxy refused the tunnel, status 403"));
}

TEST(RealPeers, AProxyThatMisbehavesHoldsNoCall) {
  FaultServer server(answering(1), identity(true)), silent(stalls);
  FaultServer flood(answer("HTTP/1.1 200 OK\r\n", floods("A: b\r\n")));
  FaultServer endless(answer("HTTP/1.1 407 No\r\nContent-Length: 1000000000000\r\n\r\n",
                             floods(std::string(65536, 'x'))));
  for (const auto& [proxy, how] : {std::pair(&endless, "URLError(OSError): "),
                                   {&flood, "URLError("},
                                   {&silent, "URLError(TimeoutError): "}}) {
    setenv("https_proxy", proxy->url().c_str(), 1);
    EXPECT_TRUE(begins(called(urlopen_transport, Request(server.url())), how));
  }
  unsetenv("https_proxy");
}

TEST(RealPeers, ASocksProxyAndItsCredentialsAreUsed) {
  FaultServer proxy([](Peer& peer) {
    peer.receive(99), peer.send({"\x05\x02", 2});  // by user and password (RFC 1929)
    const bool is_right = peer.receive(99) == std::string("\x01\x01u\x01p", 5);
    peer.send({is_right ? "\x01\0" : "\x01\x01", 2});
    peer.receive(99), peer.send({"\x05\0\0\x01\0\0\0\0\0\0", 10});
    answering(2)(peer);
  });
  const std::string at = "@127.0.0.1:" + std::to_string(proxy.port());
  const Request request("http://h.invalid/");
  const PooledTransport pool({.proxy = "socks5h://u:p" + at});
  for (int i = 0; i < 2; ++i) EXPECT_EQ(called(pool, request), "200 [hi]");
  EXPECT_EQ(proxy.connections(), 1);
  const std::string refused = called(PooledTransport({.proxy = "socks5h://u:wrong" + at}), request);
  EXPECT_TRUE(begins(refused, "URLError(") && !holds(refused, "wrong")) << refused;
}

}  // namespace
}  // namespace engines::http
