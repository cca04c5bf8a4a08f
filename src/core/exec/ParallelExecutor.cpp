#include <core/exec/ParallelExecutor.hpp>

#include <core/exec/BackendExecutor.hpp>

#include <core/util/Logger.hpp>

#include <stdexcept>
#include <string>
#include <system_error>

namespace storage::overlayprovider {

namespace {

std::size_t atLeastOne(std::size_t lanes) {
  if (lanes == 0) throw std::invalid_argument("ParallelExecutor needs at least one lane");
  return lanes;
}

}  // namespace

ParallelExecutor::ParallelExecutor(std::size_t lanes, std::function<void()> idleCallback, double maxQueueWeight,
                                   SteadyClockSource clock, bool captureMetrics)
    : lanes_(atLeastOne(lanes)),
      clock_(std::move(clock)),
      idleCallback_(std::move(idleCallback)),
      lastActivityTime_(clock_()),
      queue_(maxQueueWeight, captureMetrics, clock_) {
  // Every lane counts from the start, so that nobody takes the lanes for gone while
  // some have not begun yet.
  for (std::size_t i = 0; i < lanes_; ++i) queue_.laneJoined();
  {
    LockGuard lock(threadMutex_);
    workers_.reserve(lanes_);
    try {
      for (std::size_t i = 0; i < lanes_; ++i) workers_.emplace_back([this] { runLane(); });
    } catch (std::system_error const& e) {
      for (std::size_t i = workers_.size(); i < lanes_; ++i) queue_.laneLeft();
      notAccepting_.store(true);
      stopped_.store(true);
      queue_.stopLanes();
      for (auto& worker : workers_) worker.join();
      throw std::system_error(e.code(), "thread constructor failed");
    }
  }
  getLogger().log(foundation::log::Info, "ParallelExecutor initialized with " + std::to_string(lanes_) +
                                             " lanes and a max queue weight of " + BackendExecutor::decimal(maxQueueWeight));
}

void ParallelExecutor::execute(Task task, ObservableTransactionType type, double weight) {
  executeTouching(std::move(task), type, weight, Touches());
}

void ParallelExecutor::executeTouching(Task task, ObservableTransactionType type, double weight,
                                       Touches const& touches) {
  if (notAccepting_.load()) return BackendExecutor::logRefused(type);
  if (queue_.queued() == 0 && busyLanes_.load() == 0) idleCallback_();
  queue_.push(QueueRecord::of(std::move(task), type, weight, clock_(), touches.payloadBytes()), touches);
}

bool ParallelExecutor::tryRunHere(Task const& task, Touches const& touches) {
  if (notAccepting_.load()) return false;
  auto const id = queue_.claim(touches);
  if (!id) return false;
  // Whatever the task does, the transactions that came to wait for it are let go.
  struct Finish {
    DependencyQueue& queue;
    std::uint64_t id;
    ~Finish() { queue.finish(id); }
  } const finish{queue_, *id};
  try {
    task();
  } catch (...) {
    // A task reports its own failures; one that throws is abandoned silently.
  }
  return true;
}

void ParallelExecutor::shutdown(bool cancelOutstanding) {
  notAccepting_.store(true);
  if (cancelOutstanding) {
    getLogger().log(foundation::log::Debug, "Cancelling outstanding");
    queue_.clear();
  }
  queue_.waitUntilDrained();
  stopped_.store(true);
  queue_.stopLanes();
}

void ParallelExecutor::join() {
  LockGuard lock(threadMutex_);
  for (auto& worker : workers_) {
    if (worker.joinable()) worker.join();
  }
}

void ParallelExecutor::setMaxQueueWeight(double weight) {
  getLogger().log(foundation::log::Info, "Updating ParallelExecutor max queue weight to " + BackendExecutor::decimal(weight));
  queue_.setMaxWeight(weight);
}

void ParallelExecutor::runLane() {
  // However the loop ends, nobody may go on waiting for this lane.
  struct LeaveQueue {
    DependencyQueue& queue;
    ~LeaveQueue() { queue.laneLeft(); }
  } const leave{queue_};

  if (stopped_.load()) return;
  for (;;) {
    busyLanes_.fetch_add(1);
    auto taken = queue_.take();
    if (!taken) {
      busyLanes_.fetch_sub(1);
      return;
    }
    try {
      taken->record.task();
      lastActivityTime_.store(clock_());
    } catch (...) {
      // A task reports its own failures; one that throws is abandoned silently.
    }
    busyLanes_.fetch_sub(1);
    // What the task holds is released before the transactions waiting for it start.
    std::uint64_t const id = taken->id;
    taken.reset();
    queue_.finish(id);
    if (stopped_.load()) return;
  }
}

}  // namespace storage::overlayprovider
