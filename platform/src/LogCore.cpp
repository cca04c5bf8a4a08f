// The process-wide side of logging: the main text sink, its threshold, the automatic
// set-up from the environment, and the bookkeeping behind isEnabled().
#include "LogCore.hpp"

#include "foundation/log/Configuration.hpp"
#include "foundation/log/Severity.hpp"
#include "foundation/log/detail/Enabled.hpp"

#include <boost/core/null_deleter.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <mutex>
#include <set>
#include <stdexcept>

namespace foundation::log {

namespace detail {
constinit std::atomic<unsigned> g_enabledFrom{kDefaultThreshold};
}  // namespace detail

namespace {

namespace bl = boost::log;
using TextSink = bl::sinks::synchronous_sink<bl::sinks::text_ostream_backend>;

// Read by the main sink's filter on every record, hence atomic. Written under
// LogCore::mutex.
std::atomic<unsigned> g_mainThreshold{kDefaultThreshold};

std::once_flag g_configured;

void formatRecord(bl::record_view const& rec, bl::formatting_ostream& out) {
  if (auto time = bl::extract<boost::posix_time::ptime>("TimeStamp", rec)) {
    // Fixed width, always with microseconds: 2024-05-01T12:00:00.123456Z
    auto const date = time->date();
    auto const clock = time->time_of_day();
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ",
                  static_cast<int>(date.year()), static_cast<int>(date.month()),
                  static_cast<int>(date.day()), static_cast<int>(clock.hours()),
                  static_cast<int>(clock.minutes()), static_cast<int>(clock.seconds()),
                  static_cast<int>(clock.fractional_seconds() * 1000000 /
                                   boost::posix_time::time_duration::ticks_per_second()));
    out << text;
  }
  out << " [";
  if (auto severity = bl::extract<unsigned>("Severity", rec)) out << severityName(*severity);
  out << "] ";
  if (auto channel = bl::extract<std::string>("Channel", rec)) out << *channel;
  out << ": " << rec[bl::expressions::smessage];
}

class LogCore {
 public:
  static LogCore& instance() {
    static LogCore core;
    return core;
  }

  // Throws std::runtime_error if `target` is a file that cannot be opened; the current
  // sink then stays.
  void install(std::string const& target, unsigned threshold) {
    auto backend = boost::make_shared<bl::sinks::text_ostream_backend>();
    if (target.empty() || target == "stderr") {
      backend->add_stream(boost::shared_ptr<std::ostream>(&std::cerr, boost::null_deleter()));
    } else {
      auto file = boost::make_shared<std::ofstream>(target, std::ios::out | std::ios::app);
      if (!file->is_open()) throw std::runtime_error("Cannot open log file " + target);
      backend->add_stream(file);
    }
    backend->auto_flush(true);
    auto sink = boost::make_shared<TextSink>(backend);
    sink->set_formatter(&formatRecord);
    sink->set_filter([](bl::attribute_value_set const& values) {
      auto severity = bl::extract<unsigned>("Severity", values);
      return severity && *severity >= g_mainThreshold.load(std::memory_order_relaxed);
    });

    std::lock_guard<std::mutex> lock(mutex_);
    // Add the new sink before removing the old one so that no record is lost.
    bl::core::get()->add_sink(sink);
    if (mainSink_) bl::core::get()->remove_sink(mainSink_);
    mainSink_ = sink;
    g_mainThreshold.store(threshold, std::memory_order_relaxed);
    publishEnabled();
  }

  void setThreshold(unsigned threshold) {
    std::lock_guard<std::mutex> lock(mutex_);
    g_mainThreshold.store(threshold, std::memory_order_relaxed);
    publishEnabled();
  }

  void addMemoryThreshold(unsigned threshold) {
    std::lock_guard<std::mutex> lock(mutex_);
    memoryThresholds_.insert(threshold);
    publishEnabled();
  }

  void removeMemoryThreshold(unsigned threshold) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = memoryThresholds_.find(threshold);
    if (it != memoryThresholds_.end()) memoryThresholds_.erase(it);
    publishEnabled();
  }

 private:
  LogCore() {
    bl::core::get()->add_global_attribute("TimeStamp", bl::attributes::utc_clock());
  }

  // Caller holds mutex_.
  void publishEnabled() {
    unsigned lowest = g_mainThreshold.load(std::memory_order_relaxed);
    if (!memoryThresholds_.empty()) lowest = std::min(lowest, *memoryThresholds_.begin());
    detail::g_enabledFrom.store(lowest, std::memory_order_relaxed);
  }

  std::mutex mutex_;  // guards mainSink_, memoryThresholds_ and writes of the thresholds
  boost::shared_ptr<TextSink> mainSink_;
  std::multiset<unsigned> memoryThresholds_;
};

unsigned parseLevel(char const* text) {
  if (text == nullptr || *text == '\0') return kDefaultThreshold;
  std::string_view const view(text);
  unsigned value = 0;
  auto [end, ec] = std::from_chars(view.data(), view.data() + view.size(), value);
  if (ec != std::errc() || end != view.data() + view.size()) return kDefaultThreshold;
  return value;
}

void configureFromEnvironmentNow() {
  char const* target = std::getenv("OVERLAY_LOG");
  unsigned const level = parseLevel(std::getenv("OVERLAY_LOG_LEVEL"));
  std::string const where = target ? target : "";
  try {
    LogCore::instance().install(where, level);
  } catch (std::exception const& e) {
    try {
      LogCore::instance().install("stderr", level);
      // Not through basic_diagnostic_logger: its constructor waits for this set-up.
      bl::sources::severity_channel_logger<unsigned, std::string> source(
          bl::keywords::channel = "foundation::log");
      if (auto rec = source.open_record(bl::keywords::severity = static_cast<unsigned>(Error))) {
        bl::record_ostream stream(rec);
        stream << e.what() << "; logging to stderr";
        stream.flush();
        source.push_record(std::move(rec));
      }
    } catch (...) {
      // Nowhere left to report to.
    }
  }
}

}  // namespace

namespace detail {

void ensureConfigured() { std::call_once(g_configured, configureFromEnvironmentNow); }

void addMemoryThreshold(unsigned threshold) { LogCore::instance().addMemoryThreshold(threshold); }

void removeMemoryThreshold(unsigned threshold) {
  LogCore::instance().removeMemoryThreshold(threshold);
}

}  // namespace detail

std::string severityName(unsigned severity) {
  switch (severity) {
    case Trace: return "trace";
    case Debug: return "debug";
    case Info: return "info";
    case Diagnostic: return "diagnostic";
    case Notice: return "notice";
    case Warning: return "warning";
    case Error: return "error";
  }
  return std::to_string(severity);
}

void configure(std::string const& target, unsigned threshold) {
  // An explicit configuration takes the place of the automatic one.
  std::call_once(g_configured, [] {});
  LogCore::instance().install(target, threshold);
}

void configureFromEnvironment() {
  std::call_once(g_configured, [] {});
  configureFromEnvironmentNow();
}

void setThreshold(unsigned threshold) {
  detail::ensureConfigured();
  LogCore::instance().setThreshold(threshold);
}

unsigned threshold() {
  detail::ensureConfigured();
  return g_mainThreshold.load(std::memory_order_relaxed);
}

}  // namespace foundation::log
