// SPDX-License-Identifier: Apache-2.0
#include "engines/http/retry.h"

#include <fmt/format.h>
#include <spdlog/sinks/sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>

namespace engines::http {
namespace {

constexpr const char* LOGGER_NAME = "engines.http";

/// Hands each line to the sinks of the application's default logger, whichever it is at that time.
/// The logger that spdlog itself begins with writes to standard output, which belongs to what the
/// application prints: as long as it is the default, its sink is replaced by standard error.
class DefaultSinks final : public spdlog::sinks::sink {
 public:
  DefaultSinks() {
    const std::shared_ptr<spdlog::logger> first = spdlog::default_logger();
    if (!first || !first->name().empty() || first->sinks().size() != 1) return;
    const spdlog::sink_ptr& only = first->sinks().front();
    if (!dynamic_cast<spdlog::sinks::stdout_color_sink_mt*>(only.get())) return;
    built_in_ = first;
    standard_output_ = only;
  }

  void log(const spdlog::details::log_msg& line) override {
    for_each([&line](sink& target) {
      if (target.should_log(line.level)) target.log(line);
    });
  }
  void flush() override {
    for_each([](sink& target) { target.flush(); });
  }
  // The default logger's sinks have their own format.
  void set_pattern(const std::string& pattern) override { standard_error_.set_pattern(pattern); }
  void set_formatter(std::unique_ptr<spdlog::formatter> formatter) override {
    standard_error_.set_formatter(std::move(formatter));
  }

 private:
  template <class Use>
  void for_each(Use use) {
    const std::shared_ptr<spdlog::logger> target = spdlog::default_logger();
    if (!target) return;
    for (const spdlog::sink_ptr& each : target->sinks()) {
      if (target == built_in_ && each == standard_output_) {
        use(standard_error_);
      } else if (each.get() != this) {  // our logger itself may be the default one
        use(*each);
      }
    }
  }

  std::shared_ptr<spdlog::logger> built_in_;  // null if it was replaced before the library loaded
  spdlog::sink_ptr standard_output_;          // the built-in logger's
  spdlog::sinks::stderr_color_sink_mt standard_error_;
};

std::shared_ptr<spdlog::logger> make_logger() {
  auto made = std::make_shared<spdlog::logger>(LOGGER_NAME, std::make_shared<DefaultSinks>());
  if (!spdlog::get(LOGGER_NAME)) spdlog::register_logger(made);
  return made;
}

const std::shared_ptr<spdlog::logger>& own_logger() {
  static const std::shared_ptr<spdlog::logger> made = make_logger();
  return made;
}

// Registers the logger as the library loads, so that an application can set it up by its name.
[[maybe_unused]] const bool registered = own_logger() != nullptr;

}  // namespace

std::shared_ptr<spdlog::logger> logger() {
  std::shared_ptr<spdlog::logger> named = spdlog::get(LOGGER_NAME);
  return named ? named : own_logger();
}

void detail::check_stop(const RetryPolicy& policy, const FailurePtr& last, std::string_view label) {
  if (!policy.should_stop()) return;
  throw Stopped(fmt::format("{} was asked to stop", label), {.last = last});
}

double _attempt_timeout(const RetryPolicy& policy, const FailurePtr& last, std::string_view label) {
  if (!policy.deadline) return policy.timeout_s;
  const double remaining = *policy.deadline - policy.clock();
  if (remaining <= 0) {
    throw DeadlineExceeded(fmt::format("{} had no time left for another attempt", label),
                           {.last = last});
  }
  return std::min<double>(policy.timeout_s, remaining);
}

void _back_off(const RetryPolicy& policy, int failed, const FailurePtr& last,
               std::string_view label, const Secrets& secrets) {
  const double delay = policy.backoff(failed);
  detail::check_stop(policy, last, label);
  if (policy.deadline && policy.clock() + delay >= *policy.deadline) {
    throw DeadlineExceeded(fmt::format("{} had no time left to wait {:.1f} s", label, delay),
                           {.last = last});
  }
  logger()->warn("{} failed (attempt {}/{}): {}; retrying in {:.1f} s", label, failed,
                 int{policy.attempts}, redact(last->message(), secrets), delay);
  policy.wait(delay, policy.should_stop);  // `retry` asks the stop signal itself
}

void detail::give_up(const RetryPolicy& policy, const FailurePtr& last, std::string_view label,
                     const Secrets& secrets) {
  if (policy.is_past_deadline()) {
    throw DeadlineExceeded(fmt::format("{} ran out of time", label), {.last = last});
  }
  throw Exhausted(fmt::format("{} failed after {} attempts: {}", label, int{policy.attempts},
                              redact(last->message(), secrets)),
                  {.attempts = policy.attempts, .last = last});
}

}  // namespace engines::http
