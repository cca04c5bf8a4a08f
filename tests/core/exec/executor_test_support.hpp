// Helpers shared by the executor tests: a clock moved by hand, a gate that holds a task
// until the test opens it, and reading the queue statistics back from the log.
#pragma once

#include <core/exec/BackendExecutor.hpp>
#include <core/util/SteadyClock.hpp>

#include <foundation/log/MemorySink.hpp>
#include <foundation/log/Severity.hpp>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace overlay_test {

using namespace std::chrono_literals;

// A steady clock that stands still until the test advances it.
class ManualClock {
 public:
  storage::overlayprovider::SteadyClockSource source() {
    return [this] { return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(now_.load())); };
  }
  std::chrono::steady_clock::time_point now() const {
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(now_.load()));
  }
  void advance(std::chrono::nanoseconds by) { now_ += by.count(); }

 private:
  std::atomic<long long> now_{1'000'000'000'000};  // any fixed origin
};

// Holds the tasks that pass through it until the test opens it.
class Gate {
 public:
  // Task side: announce arrival, then wait until open.
  void pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++arrived_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  // Test side: wait until `count` tasks have arrived.
  void waitArrived(int count = 1) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return arrived_ >= count; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int arrived_ = 0;
  bool open_ = false;
};

// A one-shot event a thread can wait for.
class Signal {
 public:
  void set() {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = true;
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return set_; });
  }
  bool isSet() {
    std::lock_guard<std::mutex> lock(mutex_);
    return set_;
  }
  // As wait(), but gives up after `timeout`; for tests that would rather fail than hang
  // when the signal never comes.
  bool waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return set_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool set_ = false;
};

// Counts the producers the weight bound holds, as reported by the executor, and lets the
// test wait for a given number.
class BackPressureWatch {
 public:
  explicit BackPressureWatch(storage::overlayprovider::BackendExecutor& executor) {
    executor.setBackPressureObserver([this](std::size_t blocked) {
      std::lock_guard<std::mutex> lock(mutex_);
      blocked_ = blocked;
      changed_.notify_all();
    });
  }
  void waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return blocked_ == count; });
  }
  std::size_t blocked() {
    std::lock_guard<std::mutex> lock(mutex_);
    return blocked_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t blocked_ = 0;
};

inline boost::property_tree::ptree parseJson(std::string const& text) {
  std::istringstream in(text);
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(in, tree);
  return tree;
}

// Messages of the captured records that contain `needle`, oldest first.
inline std::vector<std::string> messagesContaining(foundation::log::MemorySink const& sink, std::string const& needle) {
  std::vector<std::string> found;
  for (auto const& record : sink.records()) {
    if (record.message.find(needle) != std::string::npos) found.push_back(record.message);
  }
  return found;
}

// Asks for the statistics report and returns it parsed. The report is the one record
// with "avQTime_ms" logged by this call (other threads log only time-to-empty records
// unless the test moved the clock by 11 s).
inline boost::property_tree::ptree statistics(storage::overlayprovider::IExecutor& executor,
                                              foundation::log::MemorySink& sink) {
  sink.clear();
  executor.logQueueStatistics();
  auto const reports = messagesContaining(sink, "avQTime_ms");
  EXPECT_EQ(1u, reports.size());
  if (reports.empty()) return {};
  return parseJson(reports.back());
}

// Polls `condition`, yielding between tries. For states no event announces (such as a
// record having been queued by another thread); never a substitute for a gate.
template <class Condition>
void waitUntil(Condition condition) {
  while (!condition()) std::this_thread::yield();
}

// Stops and joins an executor at the end of a scope, opening the given gates first so
// that a failed assertion cannot leave the worker held.
class ExecutorStopper {
 public:
  ExecutorStopper(storage::overlayprovider::BackendExecutor& executor, std::vector<Gate*> gates = {})
      : executor_(executor), gates_(std::move(gates)) {}
  ~ExecutorStopper() {
    for (auto* gate : gates_) gate->open();
    executor_.shutdown(true);
    executor_.join();
  }

 private:
  storage::overlayprovider::BackendExecutor& executor_;
  std::vector<Gate*> gates_;
};

}  // namespace overlay_test
