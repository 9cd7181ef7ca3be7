// SPDX-License-Identifier: Apache-2.0
// Without memory: a call is repeated, each time with the next of its allocations failing (that one
// alone, or all from it on), until none fails.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "engines/http/http.h"
#include "engines/http/testing.h"
#include "tests/support/fault_server.h"
#include "tests/support/outcome.h"
#include "tests/support/replies.h"

namespace {

thread_local long until_failure = 0;  // allocations; below 1: none fails
thread_local bool for_good = false;
thread_local bool has_failed = false;
thread_local long live = 0;

bool has_memory() {
  const bool fails = until_failure == 1;
  if (until_failure > 1 || (fails && !for_good)) --until_failure;
  live += !fails;
  has_failed = has_failed || fails;
  return !fails;
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)  // malloc is the sanitizer's
void* operator new(std::size_t size) {
  return has_memory() ? std::malloc(size) : throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { live -= memory != nullptr, std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }
#else  // malloc, which libcurl, ICU and PCRE2 use, too
extern "C" {
void* libc_calloc(std::size_t, std::size_t) __asm__("__libc_calloc");
void* libc_realloc(void*, std::size_t) __asm__("__libc_realloc");
void libc_free(void*) __asm__("__libc_free");
void* realloc(void* memory, std::size_t size) {
  live -= memory != nullptr;
  if (has_memory()) return libc_realloc(memory, size);
  live += memory != nullptr;
  return nullptr;
}
void* malloc(std::size_t size) { return realloc(nullptr, size); }
void* calloc(std::size_t n, std::size_t size) {
  return has_memory() ? libc_calloc(n, size) : nullptr;
}
void free(void* memory) { live -= memory != nullptr, libc_free(memory); }
}
#endif

namespace engines::http {
namespace {

/// While it lives, no allocation of this thread fails.
struct Plenty {
  ~Plenty() { until_failure = kept; }
  long kept = std::exchange(until_failure, 0);
};

/// Repeats the call, with each of its allocations failing in turn and at last none, and passes to
/// `check` how it ended and whether none failed. Nothing that a call allocates may remain.
template <class Call, class Check>
void starve(const Call& call, const Check& check) {
  for (const bool all : {false, true}) {
    has_failed = true;
    for (long n = 1, before = 0; has_failed; ++n, before = live) {
      {
        const std::string ended = test::outcome([&] {
          const auto answer = [&] {
            const Plenty afterwards;
            has_failed = false, for_good = all, until_failure = n;
            return call();
          }();
          return answer.dump();
        });
        check(ended, !has_failed);
      }
      EXPECT_EQ(all && n > 1 ? live - before : 0, 0) << "kept at " << n;
    }
  }
}

/// How a call ends, and what it meets: the status of each attempt, and the pieces of every body.
struct Case {
  std::string expected;
  std::vector<StatusCode> statuses;
  std::vector<http::testing::Piece> pieces;
};

TEST(WithoutMemory, ACallEndsInBadAllocOrAsEver) {
  const std::string key = "schl\u00fcssel-\u00c4-123456";
  http::testing::ManualTime time;
  const Json question{{"question", "\u00e4"}};
  std::string wide = "{";
  for (int i = 0; i < 40; ++i) wide += "\"\\u00e4 " + std::to_string(i % 20) + "\": [1, {}], ";
  std::vector<std::shared_ptr<http::testing::ScriptedReply>> replies;
  for (const Case& one : std::vector<Case>{
           {"[[1,2],{\"a\":[3]}]", {200}, {"[[1, 2], ", "{\"a\": [3]}]"}},
           {"{}", {503, 422}, {"{}"}},
           {"{\"\u00e4 0\":[1,{}],\"\u00e4 1\":", {200}, {wide, "\"z\": 0}"}},
           {"Exhausted: call failed after 2 attempts: HTTP 503", {503, 503}, {"\u00c4 " + key}},
           {"Refused: HTTP 404, an HTML page | 404 | <HTML>", {404}, {"<HTML>"}},
           {"BadReply: reply not JSON: '{\"\\\\u00e4 0\": [1", {200}, {wide}},
           {"BadReply: reply longer than 2000 bytes", {200}, {std::string(3000, '[')}},
           {"HttpFailure: network error: broke [", {200}, {"[", HTTPException("broke " + key)}},
           {"DeadlineExceeded: the reply was", {200}, {time.after(9, "[")}},
           {"Stopped: call was asked", {503}, {[&] { return time.stop(), "no"; }}},
       }) {
    const Transport transport = [&](const Request& request, TransportOptions) {
      const Plenty here;  // the shortage is the library's
      EXPECT_EQ(request.headers.size(), 4U);
      const Headers headers{{"Content-Type", "\u00c4"}};
      const StatusCode status = one.statuses[replies.size()];
      replies.push_back(
          http::testing::reply_of(one.pieces, {.status = status, .headers = headers}));
      if (status > 299) throw HTTPError(status, headers, replies.back());
      return replies.back();
    };
    const CallOptions options{
        .policy = time.policy({.attempts = 2,
                               .refusal_reason = html_page,
                               .error_replies = {422},
                               .deadline = 5.0,
                               .max_body_bytes = 2000}),
        .label = "call",
        .headers = {{"Authorization", "Bearer " + key}, {"\u00c4", "1"}, {"\u00d6", "2"}},
        .transport = transport};
    starve(
        [&] {
          time.advance(-time.now()), time.stop_at(1e9);
          return post_json("http://service.test/", question, options);
        },
        [&](const std::string& ended, bool in_full) {
          const std::string kind = one.expected.substr(0, one.expected.find(':'));
          EXPECT_TRUE(ended.starts_with(in_full ? one.expected : kind) ||
                      (!in_full && ended.starts_with("bad_alloc")))
              << ended;
          EXPECT_EQ(ended.find(key), std::string::npos) << ended;
          for (const auto& reply : replies) EXPECT_EQ(reply->closes(), 1) << ended;
          replies.clear();
        });
  }
}

TEST(WithoutMemory, ARedirectIsFollowedAndABodyHasNoHole) {
  std::string body, read;
  for (int i = 0; i < 40000; ++i) body += std::to_string(10000 + i);
  const test::FaultServer server([&](test::Peer& peer) {
    for (std::string asked; !(asked = peer.request()).empty();) {
      peer.send(asked.starts_with("GET / ") ? test::whole("302 F", "", "Location: /there\r\n")
                                            : test::whole("200 OK", body));
    }
  });
  const Request request(server.url());
  read.reserve(body.size());
  int not_followed = 0;
  starve(
      [&] {
        const PooledTransport pool;
        for (int i = 0; i < 2; ++i) {
          read.clear();
          const auto reply = pool(request, {.timeout = 5});
          for (std::string piece; !(piece = reply->read1(7000)).empty();) read += piece;
          reply->close();
        }
        return Json(true);
      },
      [&](const std::string& ended, bool in_full) {
        EXPECT_TRUE(body.starts_with(read)) << ended;
        EXPECT_TRUE(read == body || (!in_full && ended != "true")) << ended;
        not_followed += ended.starts_with("HTTPError");
      });
  EXPECT_LT(not_followed, 6);  // libcurl hides a want of memory in a few places
}

}  // namespace
}  // namespace engines::http
