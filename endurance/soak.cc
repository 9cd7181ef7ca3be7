// SPDX-License-Identifier: Apache-2.0
// Many calls from four threads against servers that misbehave at random: over both transports, in
// the clear, over TLS and through a proxy, some stopped and some out of time. It shows what no
// single call can: that nothing piles up, that no reply reaches another call, that no request is
// sent twice.
//
//   soak [CALLS [SEED]]
//
// The servers are a process of their own, so that what is measured is the client's alone. Exits
// with 1 when a check fails.
#include <spdlog/spdlog.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engines/http/classification.h"
#include "engines/http/http.h"
#include "tests/support/fault_server.h"
#include "tests/support/real_peers.h"

using namespace engines::http;
using namespace std::chrono_literals;
using test::FaultServer;
using test::Peer;

namespace {

constexpr unsigned THREADS = 4;
constexpr std::size_t MAX_IDLE = 6;
constexpr unsigned SAMPLES = 10;
constexpr long MEMORY_TOLERANCE_KB = 8192;

/// The number of the first attempt, which has as many digits as each that follows.
constexpr unsigned FIRST = 10'000'000;

// ---- The servers --------------------------------------------------------------------------------

/// Memory that both processes see: where the servers listen, and how often each attempt has come
/// whole.
struct Ledger {
  std::atomic<int> plain, tls, hasty;
  std::array<std::atomic<unsigned char>, 1 << 24> seen;
};

std::string reply(const std::string& status, const std::string& body) {
  return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

const std::string OK = "HTTP/1.1 200 OK\r\n", CHUNKED = OK + "Transfer-Encoding: chunked\r\n\r\n",
                  ID = "########",  // in its place, an attempt has its number
    ANSWER = "{\"attempt\": " + ID + "}", ANSWERED = reply("200 OK", ANSWER);

enum class Then { goes_on, ends, resets, stalls, drips };

/// What a server sends once it has read a request, how it goes on, and how often of a thousand
/// times.
struct Fault {
  int share;
  Then then;
  std::string bytes;
};

const std::vector<Fault> FAULTS{
    {480, Then::goes_on, ANSWERED},
    {40, Then::goes_on, reply("200 OK", ANSWER + std::string(100'000, ' '))},
    {40, Then::goes_on, CHUNKED + "b\r\n{\"attempt\":\r\n8\r\n" + ID + "\r\n1\r\n}\r\n0\r\n\r\n"},
    {5, Then::drips, ANSWERED},
    {40, Then::goes_on, "HTTP/1.1 307 M\r\nLocation: /0/" + ID + "?2\r\nContent-Length: 0\r\n\r\n"},
    // What a kept connection may meet after its reply.
    {40, Then::ends, ANSWERED},
    {20, Then::resets, ANSWERED},
    {20, Then::goes_on, ANSWERED + reply("200 OK", "{\"attempt\": 0}")},
    // Error statuses and replies that are of no use.
    {80, Then::goes_on, reply("503 Busy", ANSWER)},
    {20, Then::goes_on, reply("404 Not Found", ANSWER)},
    {20, Then::goes_on, reply("401 Who", ANSWER)},
    {20, Then::goes_on, reply("422 No", ANSWER)},
    {20, Then::goes_on, reply("200 OK", "no JSON")},
    {20, Then::goes_on, reply("200 OK", "<html>a page</html>")},
    {10, Then::goes_on, reply("200 OK", ANSWER + std::string(300'000, ' '))},
    // Broken ones.
    {20, Then::ends, ""},
    {20, Then::resets, ""},
    {10, Then::ends, "SSH-2.0-x\r\n\r\n"},
    {10, Then::ends, OK + "Content-Le"},
    {20, Then::ends, OK + "Content-Length: 9\r\n\r\n{"},
    {10, Then::resets, CHUNKED + "9\r\n{"},
    {10, Then::goes_on, CHUNKED + "zz\r\n{"},
    {5, Then::stalls, ""},
    {5, Then::stalls, CHUNKED + "9\r\n{"}};

/// Plays what the path asks for: the number of a fault, then the attempt's.
void serve(Peer& peer, Ledger& ledger) {
  for (;;) {
    const std::string request = peer.request();
    if (!request.ends_with('}')) return;  // the end, or a request that did not come whole
    const std::size_t begin = request.find('/') + 1, slash = request.find('/', begin);
    const std::string id = request.substr(slash + 1, ID.size());
    if (request[slash + 1 + ID.size()] != '?') ++ledger.seen.at(std::stoul(id) - FIRST);
    auto [share, then, bytes] = FAULTS.at(std::stoul(request.substr(begin, slash - begin)));
    for (std::size_t at; (at = bytes.find(ID)) != bytes.npos;) bytes.replace(at, ID.size(), id);
    then == Then::drips ? peer.drip(bytes, 1) : static_cast<void>(peer.send(bytes));
    if (then == Then::stalls) return peer.stall();
    if (then == Then::resets) return peer.sleep(2), peer.reset();  // what was sent comes first
    if (then == Then::ends || request.find("\r\nConnection: close") != request.npos) return;
  }
}

pid_t start_servers(Ledger& ledger, const test::Identity& identity) {
  const pid_t servers = fork();
  if (servers != 0) return servers;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto play = [&](Peer& peer) { serve(peer, ledger); };
  const FaultServer plain(play), tls(play, &identity);
  const FaultServer hasty([](Peer& peer) { return peer.receive(9), peer.reset(); });
  ledger.plain = plain.port();
  ledger.tls = tls.port();
  ledger.hasty = hasty.port();
  for (;;) pause();
}

// ---- The calls ----------------------------------------------------------------------------------

thread_local int asks_until_stop = -1;  // never

bool should_stop() { return asks_until_stop >= 0 && asks_until_stop-- == 0; }

class Caller {
 public:
  Caller(Ledger& ledger, std::size_t most_attempts, const std::string& proxy)
      : ledger_(ledger),
        answered_(most_attempts),
        proxied_({.proxy = proxy, .max_idle = MAX_IDLE}) {
    for (const Fault& fault : FAULTS) shares_.push_back(fault.share);
  }

  /// Makes one call and says how it ended: "answer", a kind, or what must not be.
  std::string call(std::mt19937_64& random) {
    const auto one_in = [&](unsigned n) { return random() % n == 0; };
    const RetryPolicy usual{.backoff_s = 1ms,
                            .timeout_s = 100ms,
                            .refusal_statuses = {401},
                            .refusal_reason = html_page,
                            .error_replies = {422},
                            .should_stop = should_stop,
                            .max_body_bytes = 200'000};
    const RetryPolicy policy =
        one_in(20) ? usual.within(std::chrono::microseconds(random() % 20'000)) : usual;
    asks_until_stop = one_in(20) ? static_cast<int>(random() % 10) : -1;
    const bool is_proxied = one_in(10);
    const Transport inner = is_proxied  ? Transport(proxied_)
                            : one_in(3) ? Transport(urlopen_transport)
                                        : pool_;
    std::size_t last = 0;
    const auto transport = [&](const Request& request, TransportOptions options) {
      last = attempts_++;
      const Request attempt(url(random, last), {request.data, request.headers, request.method});
      try {
        auto opened = inner(attempt, options);
        answered_.at(last) = 1;
        return opened;
      } catch (const HTTPError&) {
        answered_.at(last) = is_proxied ? 0 : 1;  // the proxy answers for a server that fails
        throw;
      }
    };
    try {
      const Json body{{"question", std::string(one_in(200) ? 70'000 : 40, 'q')}};
      const Json reply = post_json("http://soak.test", body,
                                   {.policy = policy, .label = "soak", .transport = transport});
      return reply.at("attempt") == FIRST + last ? "answer" : "ANOTHER CALL'S ANSWER";
    } catch (const std::exception& error) {
      return ErrorRef(error).type_name();
    }
  }

  std::size_t attempts() const { return attempts_; }

  /// How many attempts came other than once, where they were answered, or more than once.
  std::size_t miscounted() const {
    std::size_t count = 0;
    for (std::size_t id = 0; id < attempts_; ++id) {
      count += ledger_.seen[id] > 1 || ledger_.seen[id] < answered_[id];
    }
    return count;
  }

 private:
  std::string url(std::mt19937_64& random, std::size_t attempt) {
    const auto place = random() % 100;
    const int port =
        place == 0 ? closed_port_ : (place == 1 ? ledger_.hasty : ledger_.plain).load();
    std::discrete_distribution<int> fault(shares_.begin(), shares_.end());
    return (place < 20 && place > 1 ? "https://localhost:" + std::to_string(ledger_.tls)
                                    : "http://127.0.0.1:" + std::to_string(port)) +
           "/" + std::to_string(fault(random)) + "/" + std::to_string(FIRST + attempt);
  }

  Ledger& ledger_;
  int closed_port_ = test::closed_port();
  std::vector<int> shares_;
  std::vector<unsigned char> answered_;
  std::atomic<std::size_t> attempts_ = 0;
  PooledTransport pool_{{.max_idle = MAX_IDLE}}, proxied_;
};

// ---- What is measured ---------------------------------------------------------------------------

struct Sample {
  long descriptors, threads, memory_kb;
};

Sample sample() {
  const auto entries = [](const char* directory) {
    return static_cast<long>(std::distance(std::filesystem::directory_iterator(directory), {}));
  };
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  const Sample now{entries("/proc/self/fd"), entries("/proc/self/task"),
                   pages * getpagesize() / 1024};
  std::cout << now.descriptors << " descriptors, " << now.threads << " threads, " << now.memory_kb
            << " KB" << std::endl;
  return now;
}

bool check(bool holds, const std::string& what) {
  std::cout << (holds ? "ok      " : "FAILED  ") << what << "\n";
  return holds;
}

int soak(unsigned calls, unsigned seed) {
  const test::CertificateAuthority authority;
  const test::Identity identity = authority.issue("localhost");
  setenv("SSL_CERT_FILE", authority.file().c_str(), 1);
  auto& ledger = *static_cast<Ledger*>(
      mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const pid_t servers = start_servers(ledger, identity);
  while (ledger.hasty == 0) std::this_thread::sleep_for(1ms);
  const test::RealPeer proxy("tinyproxy", std::to_string(ledger.tls));
  spdlog::set_level(spdlog::level::off);

  std::cout << calls << " calls, seed " << seed
            << "; before, after each tenth, without the pools:\n";
  std::map<std::string, unsigned> ends;
  std::mutex ends_mutex;
  std::vector<Sample> samples;
  std::size_t miscounted = 0;
  std::thread([] {}).join();  // with the first thread a sanitizer may start one of its own
  const Sample before = sample();
  {
    Caller caller(ledger, std::size_t{3} * calls + 1, proxy.url());
    std::barrier between(THREADS, [&]() noexcept { samples.push_back(sample()); });
    const auto work = [&](unsigned thread) {
      std::seed_seq seeds{seed, thread};
      std::mt19937_64 random(seeds);
      for (unsigned part = 0; part < SAMPLES; ++part) {
        for (unsigned i = thread; i < calls / SAMPLES; i += THREADS) {
          const std::string end = caller.call(random);
          const std::lock_guard lock(ends_mutex);
          ++ends[end];
        }
        between.arrive_and_wait();
      }
    };
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < THREADS; ++thread) threads.emplace_back(work, thread);
    threads.clear();
    std::this_thread::sleep_for(300ms);  // for what is on its way, name lookups among it
    miscounted = caller.miscounted();
    std::cout << caller.attempts() << " attempts\n";
  }
  const Sample after = sample();
  kill(servers, SIGKILL);
  waitpid(servers, nullptr, 0);

  unsigned ended_well = 0;
  for (const auto& [end, count] : ends) std::cout << "  " << count << "  " << end << "\n";
  for (const char* end : {"answer", "Exhausted", "DeadlineExceeded", "Stopped", "Refused",
                          "BadReply", "HttpFailure"}) {
    ended_well += ends[end];
  }
  // An idle connection has a socket, and its multi handle two descriptors to be woken by.
  bool is_bounded = after.descriptors == before.descriptors && after.threads == before.threads;
  for (const Sample& one : samples) {
    is_bounded &= one.descriptors <= before.descriptors + 2 * 3 * static_cast<long>(MAX_IDLE);
  }
  bool all = check(ended_well == calls / SAMPLES * SAMPLES, "each call ended as a call may end");
  all &= check(ends["answer"] > ended_well / 2, "most calls were answered");
  all &= check(miscounted == 0, "each answered attempt came to a server once, none came twice");
  all &=
      check(is_bounded, "descriptors and threads: the idle connections', none without the pools");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  all &= check(samples.back().memory_kb <= samples.front().memory_kb + MEMORY_TOLERANCE_KB,
               "memory: less than 8 MB were added after the first tenth");
#endif
  return all ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned calls = argc > 1 ? static_cast<unsigned>(std::stoul(argv[1])) : 100'000;
  return soak(calls,
              argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device{}());
}
