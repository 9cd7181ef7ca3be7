// SPDX-License-Identifier: Apache-2.0
// Measures the library beside its peers in one run and prints a line for each pair: the median,
// over several rounds, of the ratio of their times. scripts/bench runs it.
//
//   bench [--rounds N] [--only TEXT]   every row whose name holds TEXT
//   bench --calls NAME COUNT           nothing but so many calls, for callgrind
//   bench --peak NAME                  how far one call raises the resident memory
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <simdjson.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/clients.h"
#include "bench/documents.h"
#include "bench/servers.h"
#include "engines/http/http.h"

namespace bench {
namespace {

using namespace engines::http;

/// What is measured: `make` connects or prepares, the call that it returns is repeated.
struct Contestant {
  std::string name;
  std::function<Call()> make;
  int threads = 1;
};

/// A call of ours and what it is compared with. The ratio is the peer's time over ours, or ours
/// over the peer's where it says how many times as long ours takes.
struct Row {
  std::string name;
  Contestant ours;
  std::vector<Contestant> peers;
  bool ours_over_peer = false;
};

// ---- What is measured ---------------------------------------------------------------------------

Contestant on(std::string name, Call call) {
  return {.name = std::move(name), .make = [=] { return call; }};
}

Contestant calls(std::string name, Call (*client)(const Exchange&), Exchange exchange,
                 int threads = 1) {
  return {.name = std::move(name), .make = [=] { return client(exchange); }, .threads = threads};
}

std::vector<Row> transfer_rows(const Servers& servers) {
  static const Json request = chat_request();
  const Exchange post{.url = servers.echo_url(), .body = &request};
  const Exchange get{.url = servers.get_url("/small.json")};
  const Exchange tls{.url = servers.tls_url("/small.json"), .ca_file = servers.ca_file()};
  const Exchange large{.url = servers.get_url("/large.bin")};
  const Exchange embeddings{.url = servers.get_url("/embeddings.json")};
  const auto small = [](std::string name, const Exchange& exchange) {
    return Row{.name = std::move(name),
               .ours = calls("pooled", pooled, exchange),
               .peers = {calls("curl_reused_transfer", curl_reused, exchange),
                         calls("httplib_nlohmann", httplib_nlohmann, exchange),
                         calls("poco", poco, exchange)}};
  };
  // One pool for all its threads, made before the first of them.
  const Call shared = pooled(post);
  return {small("post_small", post),
          small("get_small", get),
          {.name = "get_small_fresh",
           .ours = calls("urlopen", fresh, get),
           .peers = {calls("curl_fresh_transfer", curl_fresh, get)}},
          {.name = "get_small_tls",
           .ours = calls("pooled", pooled, tls),
           .peers = {calls("curl_reused_transfer", curl_reused, tls)}},
          {.name = "post_small_4_threads",
           .ours = {.name = "one_pool", .make = [=] { return shared; }, .threads = 4},
           .peers = {calls("curl_reused_4_transfer", curl_reused, post, 4)}},
          {.name = "read_body_16MiB",
           .ours = calls("pooled", pooled_body, large),
           .peers = {calls("curl_reused_append", curl_reused, large)}},
          {.name = "get_json_16MiB",
           .ours = calls("pooled", pooled, embeddings),
           .peers = {calls("httplib_nlohmann", httplib_nlohmann, embeddings),
                     calls("poco", poco, embeddings)}}};
}

Row decode_row(const std::string& name, const std::string& text) {
  const auto kept = std::make_shared<const std::string>(text);
  return {.name = "decode_" + name,
          .ours = on("decode_json", [=] { benchmark::DoNotOptimize(decode_json(*kept)); }),
          .peers = {on("nlohmann", [=] { benchmark::DoNotOptimize(Json::parse(*kept)); }),
                    on("simdjson_dom", [=] {  // a view of the text, not a value of its own
                      simdjson::dom::parser parser;
                      benchmark::DoNotOptimize(parser.parse(*kept).value());
                    })}};
}

Row encode_row(const std::string& name, const Json& value) {
  const auto kept = std::make_shared<const Json>(value);
  return {.name = "encode_" + name,
          .ours = on("encode_json", [=] { benchmark::DoNotOptimize(encode_json(*kept)); }),
          .peers = {on("nlohmann_dump", [=] { benchmark::DoNotOptimize(kept->dump()); })}};
}

std::vector<Row> json_rows() {
  return {decode_row("chat_2MB", chat_json(2'000'000)),
          decode_row("embeddings_16MiB", embeddings_json(LARGE_BYTES)),
          encode_row("chat_request", chat_request()),
          encode_row("1500000_floats", Json(numbers(1'500'000)))};
}

std::vector<Row> redaction_rows() {
  std::vector<std::string> secrets;
  for (int i = 0; i < 10; ++i) secrets.push_back("sk-secret-number-" + std::to_string(1000 + i));
  const Secrets hidden(secrets);
  std::string megabyte = chat_json(1'000'000);
  for (std::size_t i = 1; i < 4; ++i) megabyte.replace(i * 200'000, secrets[i].size(), secrets[i]);
  const auto quote = [&](std::string name, std::size_t bytes) {
    return on(std::move(name), [text = chat_json(LARGE_BYTES).substr(0, bytes), hidden] {
      benchmark::DoNotOptimize(excerpt(text, hidden));
    });
  };
  const auto search = [=] {
    for (const std::string& secret : secrets) {
      benchmark::DoNotOptimize(
          memmem(megabyte.data(), megabyte.size(), secret.data(), secret.size()));
    }
  };
  return {
      {.name = "excerpt_any_length",
       .ours = quote("excerpt_of_16MiB", LARGE_BYTES),
       .peers = {quote("excerpt_of_4KiB", 4096)},
       .ours_over_peer = true},
      {.name = "redact_1MB",
       .ours = on("redact_10_secrets", [=] { benchmark::DoNotOptimize(redact(megabyte, hidden)); }),
       .peers = {on("memmem_10_passes", search)},
       .ours_over_peer = true}};
}

std::vector<Row> all_rows(const Servers& servers) {
  std::vector<Row> rows = transfer_rows(servers);
  for (auto more : {json_rows, redaction_rows}) {
    for (Row& row : more()) rows.push_back(std::move(row));
  }
  return rows;
}

// ---- Measuring ----------------------------------------------------------------------------------

/// Keeps the time of the latest run, in seconds per call and thread.
class LatestTime final : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    seconds = runs.back().real_accumulated_time / static_cast<double>(runs.back().iterations);
  }

  double seconds = 0;
};

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::ranges::nth_element(values, middle);
  return *middle;
}

void add(const std::string& name, const Contestant& contestant) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [make = contestant.make](benchmark::State& state) {
                                 const Call call = make();
                                 call();  // connects
                                 for (auto _ : state) call();
                               })
      ->UseRealTime()
      ->Threads(contestant.threads);
}

void compare(const Row& row, int rounds) {
  std::vector<const Contestant*> contestants{&row.ours};
  for (const Contestant& peer : row.peers) contestants.push_back(&peer);
  for (const Contestant* one : contestants) add(row.name + "/" + one->name, *one);
  std::map<const Contestant*, std::vector<double>> seconds;
  for (int round = 0; round < rounds; ++round) {
    for (const Contestant* one : contestants) {
      LatestTime latest;
      benchmark::RunSpecifiedBenchmarks(&latest, "^" + row.name + "/" + one->name + "/");
      seconds[one].push_back(latest.seconds);
    }
    std::ranges::reverse(contestants);  // so that no one always runs first
  }
  for (const Contestant& peer : row.peers) {
    std::vector<double> ratios;
    for (std::size_t i = 0; i < seconds[&peer].size(); ++i) {
      const double ratio = seconds[&peer][i] / seconds[&row.ours][i];
      ratios.push_back(row.ours_over_peer ? 1 / ratio : ratio);
    }
    std::cout << "ratio " << row.name << "/" << row.ours.name
              << (row.ours_over_peer ? "_times_" : "_vs_") << peer.name << " " << median(ratios)
              << std::endl;
  }
}

// ---- Memory -------------------------------------------------------------------------------------

long status_kb(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(field + ":")) return std::atol(line.c_str() + field.size() + 1);
  }
  throw std::runtime_error("no " + field + " in the status of the process");
}

/// How far one call raises the resident memory at its highest, in bytes. In a process of its own,
/// after a small call has loaded and connected everything.
int print_peak(const Servers& servers, const std::string& name) {
  const bool json = name == "get_json_16MiB";
  const Call small = pooled({.url = servers.get_url("/small.json")});
  const Exchange large{.url = servers.get_url(json ? "/embeddings.json" : "/large.bin")};
  const Call call = json ? pooled(large) : pooled_body(large);
  small();
  malloc_trim(0);  // gives back what making the documents has left
  std::ofstream("/proc/self/clear_refs") << "5" << std::flush;  // resets VmHWM
  const long before = status_kb("VmRSS");
  call();
  std::cout << "peak " << name << "/body "
            << static_cast<double>(status_kb("VmHWM") - before) * 1024 / LARGE_BYTES << std::endl;
  return 0;
}

int call_often(const Servers& servers, const std::string& name, int count) {
  for (const Row& row : all_rows(servers)) {
    std::vector<Contestant> contestants = row.peers;
    contestants.push_back(row.ours);
    for (const Contestant& one : contestants) {
      if (row.name + "/" + one.name != name) continue;
      const Call call = one.make();
      call();  // connects
      CALLGRIND_START_INSTRUMENTATION;
      for (int i = 0; i < count; ++i) call();
      CALLGRIND_STOP_INSTRUMENTATION;
      return 0;
    }
  }
  throw std::runtime_error("nothing is called " + name);
}

int run(int argc, char** argv) {
  std::map<std::string, std::string> options{{"--rounds", "9"}, {"--only", ""}};
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() == 4 && arguments[0] == "--echo-server") {
    serve_echoes(std::stoi(arguments[2]));
  }
  const Servers servers;
  if (arguments.size() == 3 && arguments[0] == "--calls") {
    return call_often(servers, arguments[1], std::stoi(arguments[2]));
  }
  if (arguments.size() == 2 && arguments[0] == "--peak") return print_peak(servers, arguments[1]);
  for (std::size_t i = 0; i + 1 < arguments.size(); i += 2)
    options.at(arguments[i]) = arguments[i + 1];

  std::string library_arguments = "--benchmark_min_time=0.1";
  std::array<char*, 2> library_argv{argv[0], library_arguments.data()};
  int library_argc = library_argv.size();
  benchmark::Initialize(&library_argc, library_argv.data());
  for (const Row& row : all_rows(servers)) {
    if (row.name.find(options["--only"]) != std::string::npos) {
      compare(row, std::stoi(options["--rounds"]));
    }
  }
  return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  try {
    return bench::run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "bench: " << error.what() << "\n";
    return 1;
  }
}
