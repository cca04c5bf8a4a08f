// Helpers shared by the executor tests and the tests of the executor's users: the base of
// hand-made executors and one that records and holds what it is given, a gate that holds
// a task until the test opens it, and reading the queue statistics back from the log.
#pragma once

#include <core/exec/BackendExecutor.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/util/SteadyClock.hpp>

#include <foundation/log/MemorySink.hpp>
#include <foundation/log/Severity.hpp>
#include <support/LogRecords.hpp>
#include <support/ManualClock.hpp>
#include <support/Signal.hpp>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace overlay_test {

using namespace std::chrono_literals;
using support::ManualClock;
using support::messagesContaining;
using support::Signal;

// The base of the executors tests hand to the overlay. Every call goes to `inner` when
// there is one; without one, execute() runs the task at once and the rest does nothing,
// with a queue that is always empty and never shuts down. Subclasses override what their
// test observes or decides.
class FakeExecutor : public storage::overlayprovider::IExecutor {
 public:
  explicit FakeExecutor(std::shared_ptr<IExecutor> inner = nullptr) : inner_(std::move(inner)) {}

  void execute(Task task, storage::overlayprovider::ObservableTransactionType type, double weight) override {
    if (!inner_) return task();
    inner_->execute(std::move(task), type, weight);
  }
  void executeTouching(Task task, storage::overlayprovider::ObservableTransactionType type, double weight,
                       storage::overlayprovider::Touches const& touches) override {
    if (!inner_) return execute(std::move(task), type, weight);
    inner_->executeTouching(std::move(task), type, weight, touches);
  }
  bool tryRunHere(Task const& task, storage::overlayprovider::Touches const& touches) override {
    return inner_ && inner_->tryRunHere(task, touches);
  }
  void shutdown(bool cancelOutstanding) override {
    if (inner_) inner_->shutdown(cancelOutstanding);
  }
  void join() override {
    if (inner_) inner_->join();
  }
  bool isShutdown() const override { return inner_ && inner_->isShutdown(); }
  std::chrono::steady_clock::time_point getLastActivityTime() const override {
    return inner_ ? inner_->getLastActivityTime() : std::chrono::steady_clock::time_point();
  }
  bool isQueueEmpty() const override { return !inner_ || inner_->isQueueEmpty(); }
  void waitForPendingToFinish() override {
    if (inner_) inner_->waitForPendingToFinish();
  }
  void setMaxQueueWeight(double weight) override {
    if (inner_) inner_->setMaxQueueWeight(weight);
  }
  void logQueueStatistics() override {
    if (inner_) inner_->logQueueStatistics();
  }
  foundation::storage::provider::extensions::QueueFigures queueFigures() const override {
    return inner_ ? inner_->queueFigures() : IExecutor::queueFigures();
  }

 private:
  std::shared_ptr<IExecutor> const inner_;
};

// An executor that records every task it is given (kind, weight) and queues it; the
// test runs the queue on its own thread with runAll(), or, in inline mode, every task
// runs inside execute() as with a synchronous executor. Thread-safe.
class RecordingExecutor final : public FakeExecutor {
 public:
  struct Record {
    storage::overlayprovider::ObservableTransactionType type;
    double weight;
  };

  explicit RecordingExecutor(bool runInline = false) : inline_(runInline) {}

  void execute(Task task, storage::overlayprovider::ObservableTransactionType type, double weight) override {
    {
      std::lock_guard lock(mutex_);
      if (shutdown_) return;  // dropped unrun
      records_.push_back({type, weight});
      if (!inline_) {
        queue_.push_back(std::move(task));
        return;
      }
    }
    task();
  }
  void shutdown(bool cancelOutstanding) override {
    std::deque<Task> dropped;
    {
      std::lock_guard lock(mutex_);
      shutdown_ = true;
      if (cancelOutstanding) dropped.swap(queue_);
    }
  }
  bool isShutdown() const override {
    std::lock_guard lock(mutex_);
    return shutdown_;
  }
  bool isQueueEmpty() const override {
    std::lock_guard lock(mutex_);
    return queue_.empty();
  }
  void waitForPendingToFinish() override { runAll(); }
  // How many tasks wait in the queue.
  std::size_t queued() const {
    std::lock_guard lock(mutex_);
    return queue_.size();
  }

  // Runs queued tasks, oldest first, until the queue is empty (tasks queued meanwhile
  // included). Returns how many ran.
  int runAll() {
    int ran = 0;
    while (runNext()) ++ran;
    return ran;
  }
  // Runs the oldest queued task, if any.
  bool runNext() {
    Task task;
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty()) return false;
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    task();
    return true;
  }
  std::vector<Record> records() const {
    std::lock_guard lock(mutex_);
    return records_;
  }
  std::vector<Record> recordsOf(storage::overlayprovider::ObservableTransactionType type) const {
    std::vector<Record> out;
    for (auto const& r : records())
      if (r.type == type) out.push_back(r);
    return out;
  }

 private:
  bool const inline_;
  mutable std::mutex mutex_;  // guards records_, queue_, shutdown_
  std::vector<Record> records_;
  std::deque<Task> queue_;
  bool shutdown_ = false;
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

// Counts the producers the weight bound holds, as reported by the executor, and lets the
// test wait for a given number.
class BackPressureWatch {
 public:
  // `Executor`: BackendExecutor or ParallelExecutor.
  template <class Executor>
  explicit BackPressureWatch(Executor& executor) {
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
  ExecutorStopper(storage::overlayprovider::IExecutor& executor, std::vector<Gate*> gates = {})
      : executor_(executor), gates_(std::move(gates)) {}
  ~ExecutorStopper() {
    for (auto* gate : gates_) gate->open();
    executor_.shutdown(true);
    executor_.join();
  }

 private:
  storage::overlayprovider::IExecutor& executor_;
  std::vector<Gate*> gates_;
};

}  // namespace overlay_test
