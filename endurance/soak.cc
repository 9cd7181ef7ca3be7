// SPDX-License-Identifier: Apache-2.0
// Many calls from four threads against servers that misbehave at random: over both transports, in
// the clear, over TLS and through a proxy, some stopped and some out of time. It shows what no
// single call can: that nothing piles up, that no reply reaches another call, that no request is
// sent twice.
//
//   soak [CALLS [SEED]]
//
// Exits with 1 when a check fails.
#include <malloc.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include "engines/http/classification.h"
#include "engines/http/http.h"
#include "tests/support/fault_server.h"
#include "tests/support/real_peers.h"
#include "tests/support/table.h"

namespace {

using namespace engines::http;
using namespace engines::http::test;
using namespace std::chrono_literals;

constexpr unsigned THREADS = 4;
constexpr std::size_t MAX_IDLE = 6;
/// The number of the first attempt, which has as many digits as each that follows.
constexpr unsigned FIRST = 10'000'000;

// ---- The servers --------------------------------------------------------------------------------

const std::string ID = "########";  // in its place, an attempt has its number
const std::vector<Row> FAULTS = table("soak", 2);

std::array<std::atomic<bool>, 1 << 24> seen;  // attempts
std::atomic<unsigned> repeated = 0;

/// Plays what the path asks for: "/", 10 plus the number of a fault, "/" and the attempt's number.
void serve(Peer& peer) {
  for (std::string request; (request = peer.request()).ends_with('}');) {
    const std::string path = request.substr(request.find('/')), id = path.substr(4, ID.size());
    const bool is_redirected = path[4 + ID.size()] == '?';
    if (!is_redirected && seen.at(std::stoul(id) - FIRST).exchange(true)) ++repeated;
    const Row& fault = FAULTS.at(std::stoul(path.substr(1, 2)) - 10);
    std::string bytes = fault[0], then = fault[1];
    for (std::size_t at; (at = bytes.find(ID)) != bytes.npos;) bytes.replace(at, ID.size(), id);
    peer.send(bytes);
    if (then == "stalls") return peer.stall();
    if (then == "resets") return peer.stall(2), peer.reset();  // what was sent comes first
    if (then == "ends" || request.find("\r\nConnection: close") != request.npos) return;
  }
}

// ---- The calls ----------------------------------------------------------------------------------

struct Caller {
  /// Makes one call and says how it ended: "answer", a kind, or what must not be.
  std::string call(std::mt19937_64& random) {
    const auto one_in = [&](unsigned n) { return random() % n == 0; };
    int asks_until_stop = one_in(20) ? static_cast<int>(random() % 10) : -1;
    const RetryPolicy usual{.backoff_s = 1ms,
                            .timeout_s = 100ms,
                            .refusal_statuses = {401},
                            .refusal_reason = html_page,
                            .should_stop = [&] { return asks_until_stop-- == 0; },
                            .max_body_bytes = 200'000};
    const RetryPolicy policy =
        one_in(20) ? usual.within(std::chrono::microseconds(random() % 20'000)) : usual;
    const Transport inner = one_in(10)  ? Transport(proxied)
                            : one_in(3) ? Transport(urlopen_transport)
                                        : pool;
    unsigned attempt = 0;
    const auto transport = [&](const Request& request, const TransportOptions& options) {
      attempt = FIRST + attempts++;
      const auto place = random() % 100, fault = one_in(3) ? random() % FAULTS.size() : 0;
      const FaultServer& server = place < 20 ? tls : plain;
      const std::string origin = place == 20 ? "http://127.0.0.1:1" : server.url("");
      const std::string path = "/" + std::to_string(10 + fault) + "/" + std::to_string(attempt);
      const RequestFields fields{request.data, request.headers, request.method};
      return inner(Request(origin + path, fields), options);
    };
    const Json body{{"question", std::string(one_in(200) ? 70'000 : 40, 'q')}};
    try {
      const Json reply = post_json("http://soak.test", body,
                                   {.policy = policy, .label = "soak", .transport = transport});
      return reply.at("attempt") == attempt ? "answer" : "ANOTHER CALL'S ANSWER";
    } catch (const std::exception& error) {
      return ErrorRef(error).type_name();
    }
  }

  /// Makes calls from all threads and counts how they end.
  void make_calls(unsigned calls, unsigned seed) {
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < THREADS; ++thread) {
      threads.emplace_back([=, this] {
        std::seed_seq seeds{seed, thread};
        std::mt19937_64 random(seeds);
        for (unsigned i = thread; i < calls; i += THREADS) {
          const std::string end = call(random);
          const std::lock_guard lock(mutex);
          ++ends[end];
        }
      });
    }
  }

  const FaultServer &plain, &tls;
  PooledTransport proxied, pool{{.max_idle = MAX_IDLE}};
  std::atomic<unsigned> attempts = 0;
  std::map<std::string, unsigned> ends = {};
  std::mutex mutex = {};
};

// ---- What is measured ---------------------------------------------------------------------------

struct Sample {
  long descriptors, threads, memory_kb;
};

Sample sample() {
  std::this_thread::sleep_for(300ms);  // for what is on its way, name lookups among it
  const auto entries = [](const char* directory) {
    return static_cast<long>(std::distance(std::filesystem::directory_iterator(directory), {}));
  };
  const Sample now{entries("/proc/self/fd"), entries("/proc/self/task"),
                   static_cast<long>(mallinfo2().uordblks / 1024)};
  std::cout << now.descriptors << " descriptors, " << now.threads << " threads, " << now.memory_kb
            << " KB" << std::endl;
  return now;
}

bool all_hold = true;

void expect(bool holds, const char* what) {
  std::cout << (holds ? "ok      " : "FAILED  ") << what << "\n";
  all_hold &= holds;
}

void expect_good_ends(Caller& caller, unsigned calls) {
  std::cout << caller.attempts << " attempts\n";
  for (const auto& [end, count] : caller.ends) std::cout << "  " << count << "  " << end << "\n";
  unsigned ended_well = 0;
  for (const char* end : {"answer", "Exhausted", "DeadlineExceeded", "Stopped", "Refused",
                          "BadReply", "HttpFailure"}) {
    ended_well += caller.ends[end];
  }
  expect(ended_well == calls, "each call ended as a call may end");
  expect(caller.ends["answer"] > calls / 2, "most calls were answered");
  expect(repeated == 0, "no attempt came to a server twice");
}

void soak(unsigned calls, unsigned seed) {
  const CertificateAuthority authority;
  const Identity identity = authority.issue("localhost");
  setenv("SSL_CERT_FILE", authority.file().c_str(), 1);
  spdlog::set_level(spdlog::level::off);
  std::cout << calls << " calls, seed " << seed
            << "; before, after a tenth, after all, without pools and servers:\n";
  std::thread([] {}).join();  // with the first thread a sanitizer may start one of its own
  const Sample before = sample();
  Sample early, late;
  {
    const FaultServer plain(serve), tls(serve, &identity);
    const RealPeer proxy("tinyproxy", std::to_string(tls.port()));
    Caller caller{plain, tls, PooledTransport({.proxy = proxy.url(), .max_idle = MAX_IDLE})};
    caller.make_calls(calls / 10, seed);
    early = sample();
    caller.make_calls(calls - calls / 10, seed + 1);
    late = sample();
    expect_good_ends(caller, calls);
  }
  const Sample after = sample();

  expect(after.descriptors == before.descriptors, "descriptors: as many at the end as before");
  expect(after.threads == before.threads, "threads: as many at the end as before");
  // An idle connection has a socket at either end, and two descriptors of its multi handle. There
  // are two pools and two servers.
  const long bound = before.descriptors + 2 * 4 * static_cast<long>(MAX_IDLE) + 2;
  expect(std::max(early.descriptors, late.descriptors) <= bound,
         "descriptors: no more than idle connections need");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  expect(late.memory_kb <= early.memory_kb + 4096,
         "memory: no more than 4 MB were added after the first tenth");
#endif
}

}  // namespace

int main(int argc, char** argv) {
  soak(argc > 1 ? static_cast<unsigned>(std::stoul(argv[1])) : 100'000,
       argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device{}());
  return all_hold ? 0 : 1;
}
