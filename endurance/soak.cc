// Many calls from four threads against servers that misbehave at random: over both transports, in
// the clear, over TLS and through a proxy, some stopped and some out of time. It shows what no
// single call can: that nothing piles up, that no reply reaches another call, that no request is
// sent twice.
//
//   soak [CALLS [SEED]]
//
// The servers are a process of their own, so that what is measured is the client's alone. Exits
// with 1 when a check fails.
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

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
constexpr int SAMPLES = 10;
constexpr long MEMORY_TOLERANCE_KB = 8192;

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

std::string answer(const std::string& id, std::size_t more = 0) {
  return "{\"attempt\": " + id + ", \"more\": \"" + std::string(more, 'x') + "\"}";
}

/// What a server does once it has read a request, and how often, of a thousand times.
struct Fault {
  int share;
  std::function<bool(Peer&, const std::string& id)> play;  // whether the connection goes on
};

bool reset(Peer& peer) {
  peer.sleep(2);  // what was sent arrives before the end
  peer.reset();
  return false;
}

bool stall(Peer& peer) {
  peer.stall();
  return false;
}

const std::vector<Fault>& faults() {
  static const std::string ok = "HTTP/1.1 200 OK\r\n";
  static const std::string chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  static const std::vector<Fault> all = {
      {480, [](Peer& peer, auto& id) { return peer.send(reply("200 OK", answer(id))); }},
      {40, [](Peer& peer, auto& id) { return peer.send(reply("200 OK", answer(id, 100000))); }},
      {40,
       [](Peer& peer, auto& id) {
         return peer.send(chunked + "b\r\n{\"attempt\":\r\n" + "7\r\n" +
                          std::string(7 - id.size(), ' ') + id + "\r\n1\r\n}\r\n0\r\n\r\n");
       }},
      {5,
       [](Peer& peer, auto& id) {
         peer.drip(reply("200 OK", answer(id)), 1);
         return true;
       }},
      {40,
       [](Peer& peer, auto& id) {
         return peer.send("HTTP/1.1 307 Moved\r\nLocation: /0/" + id +
                          "?again\r\nContent-Length: 0\r\n\r\n");
       }},
      // What a kept connection may meet after its reply.
      {40, [](Peer& peer, auto& id) { return peer.send(reply("200 OK", answer(id))), false; }},
      {20,
       [](Peer& peer, auto& id) { return peer.send(reply("200 OK", answer(id))), reset(peer); }},
      {20,
       [](Peer& peer, auto& id) {
         return peer.send(reply("200 OK", answer(id)) + reply("200 OK", answer("0")));
       }},
      // Error statuses and replies that are of no use.
      {80, [](Peer& peer, auto& id) { return peer.send(reply("503 Busy", answer(id))); }},
      {20, [](Peer& peer, auto& id) { return peer.send(reply("404 Not Found", answer(id))); }},
      {20, [](Peer& peer, auto& id) { return peer.send(reply("401 Who", answer(id))); }},
      {20, [](Peer& peer, auto& id) { return peer.send(reply("422 No", answer(id))); }},
      {20, [](Peer& peer, auto&) { return peer.send(reply("200 OK", "no JSON")); }},
      {20, [](Peer& peer, auto&) { return peer.send(reply("200 OK", "<html>a page</html>")); }},
      {10, [](Peer& peer, auto& id) { return peer.send(reply("200 OK", answer(id, 300000))); }},
      // Broken ones.
      {20, [](Peer&, auto&) { return false; }},
      {20, [](Peer& peer, auto&) { return reset(peer); }},
      {10, [](Peer& peer, auto&) { return peer.send("SSH-2.0-x\r\n\r\n"), false; }},
      {10, [](Peer& peer, auto&) { return peer.send(ok + "Content-Le"), false; }},
      {20, [](Peer& peer, auto&) { return peer.send(ok + "Content-Length: 9\r\n\r\n{"), false; }},
      {10, [](Peer& peer, auto&) { return peer.send(chunked + "9\r\n{"), reset(peer); }},
      {10, [](Peer& peer, auto&) { return peer.send(chunked + "zz\r\n{"); }},
      {5, [](Peer& peer, auto&) { return stall(peer); }},
      {5, [](Peer& peer, auto&) { return peer.send(chunked + "9\r\n{"), stall(peer); }},
  };
  return all;
}

/// Plays what the path asks for: the number of a fault, then the attempt's.
void serve(Peer& peer, Ledger& ledger) {
  for (bool goes_on = true; goes_on;) {
    const std::string request = peer.request();
    if (!request.ends_with('}')) return;  // the end, or a request that did not come whole
    const std::size_t begin = request.find('/') + 1;
    const std::size_t slash = request.find('/', begin);
    const std::size_t end = request.find_first_of(" ?", slash);
    const std::string id = request.substr(slash + 1, end - slash - 1);
    if (request[end] != '?') ++ledger.seen[std::stoul(id)];
    goes_on = faults().at(std::stoul(request.substr(begin, slash - begin))).play(peer, id) &&
              request.find("\r\nConnection: close") == std::string::npos;  // as the proxy asks
  }
}

pid_t start_servers(Ledger& ledger, const test::Identity& identity) {
  const pid_t servers = fork();
  if (servers != 0) return servers;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto play = [&](Peer& peer) { serve(peer, ledger); };
  const FaultServer plain(play);
  const FaultServer tls(play, &identity);
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
  Caller(Ledger& ledger, std::size_t most_attempts, const std::string& ca_file,
         const std::string& proxy)
      : ledger_(ledger),
        closed_port_(test::closed_port()),
        answered_(most_attempts),
        pool_({.ca_file = ca_file, .max_idle = MAX_IDLE}),
        proxied_({.ca_file = ca_file, .proxy = proxy, .max_idle = MAX_IDLE}) {
    for (const Fault& fault : faults()) shares_.push_back(fault.share);
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
                            .max_body_bytes = 200000};
    const RetryPolicy policy =
        one_in(20) ? usual.within(std::chrono::microseconds(random() % 20000)) : usual;
    asks_until_stop = one_in(20) ? static_cast<int>(random() % 10) : -1;
    const bool is_proxied = one_in(10);
    Transport inner = pool_;
    if (is_proxied) {
      inner = proxied_;
    } else if (one_in(3)) {
      inner = urlopen_transport;
    }
    const Json body{{"question", std::string(one_in(200) ? 70000 : 40, 'q')}};

    std::size_t last = 0;
    const auto transport = [&](const Request& request, TransportOptions options) {
      last = ++attempts_;
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
      const Json reply = post_json("http://soak.test", body,
                                   {.policy = policy, .label = "soak", .transport = transport});
      return reply.at("attempt") == last ? "answer" : "ANOTHER CALL'S ANSWER";
    } catch (const Retryable&) {
      return "RETRYABLE";  // never seen by who retries
    } catch (const HttpFailure& failure) {
      return ErrorRef(failure).type_name();
    } catch (const std::exception& error) {
      return std::string("NOT AN HTTPFAILURE: ") + error.what();
    }
  }

  std::size_t attempts() const { return attempts_; }

  /// How many attempts came other than once, where they were answered, or more than once.
  std::size_t miscounted() const {
    std::size_t count = 0;
    for (std::size_t id = 1; id <= attempts_; ++id) {
      const int seen = ledger_.seen[id];
      if (seen > 1 || (answered_[id] != 0 && seen != 1)) ++count;
    }
    return count;
  }

 private:
  std::string url(std::mt19937_64& random, std::size_t id) {
    const auto at = [](int port) { return "http://127.0.0.1:" + std::to_string(port); };
    const auto place = random() % 100;
    const std::string server = place < 1    ? at(closed_port_)
                               : place < 2  ? at(ledger_.hasty)
                               : place < 20 ? "https://localhost:" + std::to_string(ledger_.tls)
                                            : at(ledger_.plain);
    std::discrete_distribution<int> fault(shares_.begin(), shares_.end());
    return server + "/" + std::to_string(fault(random)) + "/" + std::to_string(id);
  }

  Ledger& ledger_;
  int closed_port_;
  std::vector<int> shares_;
  std::vector<unsigned char> answered_;
  std::atomic<std::size_t> attempts_ = 0;
  PooledTransport pool_;
  PooledTransport proxied_;
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
  return {entries("/proc/self/fd"), entries("/proc/self/task"), pages * getpagesize() / 1024};
}

void print(const std::string& when, const Sample& sample) {
  std::cout << std::setw(14) << when << std::setw(14) << sample.descriptors << std::setw(10)
            << sample.threads << std::setw(12) << sample.memory_kb << std::endl;
}

bool check(bool holds, const std::string& what) {
  std::cout << (holds ? "ok      " : "FAILED  ") << what << "\n";
  return holds;
}

int soak(unsigned calls, unsigned seed) {
  const test::CertificateAuthority authority;
  const test::Identity identity = authority.issue("localhost");
  setenv("SSL_CERT_FILE", authority.file().c_str(), 1);  // for the transport without options
  void* const shared =
      mmap(nullptr, sizeof(Ledger), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  auto& ledger = *static_cast<Ledger*>(shared);
  const pid_t servers = start_servers(ledger, identity);
  while (ledger.hasty == 0) std::this_thread::sleep_for(1ms);
  const test::RealPeer proxy("tinyproxy", std::to_string(ledger.tls));
  spdlog::set_default_logger(
      std::make_shared<spdlog::logger>("soak", std::make_shared<spdlog::sinks::null_sink_mt>()));

  std::cout << calls << " calls, seed " << seed << "\n"
            << "    calls made   descriptors   threads   memory KB\n";
  std::map<std::string, unsigned> ends;
  std::mutex ends_mutex;
  std::vector<Sample> samples;
  std::size_t attempts = 0;
  std::size_t miscounted = 0;
  std::thread([] {}).join();  // with the first thread a sanitizer may start one of its own
  const Sample before = sample();
  print("none", before);
  const auto from = std::chrono::steady_clock::now();
  {
    Caller caller(ledger, std::size_t{3} * calls + 1, authority.file(), proxy.url());
    const auto look = [&]() noexcept {
      samples.push_back(sample());
      print(std::to_string(calls / SAMPLES * samples.size()), samples.back());
    };
    std::barrier between(THREADS, look);  // looks while no call runs
    const auto work = [&](unsigned thread) {
      std::seed_seq seeds{seed, thread};
      std::mt19937_64 random(seeds);
      std::map<std::string, unsigned> own;
      for (int part = 0; part < SAMPLES; ++part) {
        for (unsigned i = thread; i < calls / SAMPLES; i += THREADS) ++own[caller.call(random)];
        between.arrive_and_wait();
      }
      const std::lock_guard lock(ends_mutex);
      for (const auto& [end, count] : own) ends[end] += count;
    };
    std::vector<std::jthread> threads;
    for (unsigned thread = 0; thread < THREADS; ++thread) threads.emplace_back(work, thread);
    threads.clear();
    std::this_thread::sleep_for(300ms);  // for what is on its way, name lookups among it
    attempts = caller.attempts();
    miscounted = caller.miscounted();
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - from;
  const Sample after = sample();
  print("pool gone", after);
  kill(servers, SIGKILL);
  waitpid(servers, nullptr, 0);

  std::cout << attempts << " attempts in " << took.count() << " s\n";
  unsigned ended_well = 0;
  for (const auto& [end, count] : ends) {
    std::cout << std::setw(14) << count << "  " << end << "\n";
    const bool is_end = end == "answer" || end == "Exhausted" || end == "DeadlineExceeded" ||
                        end == "Stopped" || end == "Refused" || end == "BadReply" ||
                        end == "HttpFailure";
    if (is_end) ended_well += count;
  }
  // An idle connection has a socket, and its multi handle two descriptors to be woken by.
  const long most_descriptors = before.descriptors + 2 * 3 * static_cast<long>(MAX_IDLE);
  bool is_bounded = after.descriptors == before.descriptors && after.threads == before.threads;
  for (const Sample& one : samples) {
    is_bounded = is_bounded && one.descriptors <= most_descriptors;
  }
  bool all = check(ended_well == calls / SAMPLES * SAMPLES,
                   "each call ended in an answer to it or in one kind of failure");
  all &= check(ends["answer"] > ended_well / 2, "most calls were answered");
  all &= check(miscounted == 0, "each answered attempt came to a server once, none came twice");
  all &= check(is_bounded,
               "descriptors and threads: no more than the idle connections', and none "
               "once the pool is gone");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  all &= check(samples.back().memory_kb <= samples.front().memory_kb + MEMORY_TOLERANCE_KB,
               "memory: after the first tenth no more than " + std::to_string(MEMORY_TOLERANCE_KB) +
                   " KB were added");
#endif
  return all ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned calls = argc > 1 ? static_cast<unsigned>(std::stoul(argv[1])) : 100000;
  const unsigned seed =
      argc > 2 ? static_cast<unsigned>(std::stoul(argv[2])) : std::random_device{}();
  return soak(calls, seed);
}
