// BackendExecutor: the overlay's write-behind queue.
//
// Tasks are queued by any number of producer threads and run one at a time, in the
// order their execute() calls completed the push (FIFO), by a single worker thread that
// the constructor starts. Owners rely on this order: a file's write payloads run before
// its close, a folder's creation before its children's.
//
// Back-pressure: each task has a weight, and while the maximum queue weight is above 0
// a producer waits in execute() as long as the weight of the queued tasks is above the
// maximum (see TaskQueue). A task that crosses the bound is admitted, so the queue may
// exceed the maximum by one task's weight. The wait has no time-out. A task must
// therefore never call execute() or waitForPendingToFinish() on its own executor from
// the worker thread.
//
// Weight quirk, kept on purpose: a pop subtracts a task's weight only if limiting is on
// at that moment, and a push adds it only if limiting was on when it was admitted.
// Raising the maximum from 0 while tasks are queued therefore makes later pops subtract
// weights that were never added, and the current weight can become negative (which only
// makes admission easier).
//
// Lifecycle: accepting (from construction) -> not accepting (first step of shutdown:
// execute() refuses tasks; queued tasks still run unless cancelled) -> stopped (queue
// drained or cleared) -> joined (after join()). There is no way back. The destructor
// does not stop the worker: destroying an executor whose worker was not joined
// terminates the process (std::thread semantics), so owners call shutdown() then join().
//
// Time (queue statistics, last activity time) is read through the injected
// SteadyClockSource. Whether the queue keeps statistics is fixed at construction.
//
// Thread safety: all public members may be called from any thread, with the exceptions
// noted on join(), waitForPendingToFinish() and execute() from within a task. Queue state
// is guarded by the queue's mutex; the flags and the last activity time are atomics.
#pragma once

#include <core/exec/IExecutor.hpp>
#include <core/util/Logger.hpp>
#include <core/util/SteadyClock.hpp>
#include <core/exec/TaskQueue.hpp>

#include <atomic>
#include <charconv>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

namespace storage::overlayprovider {

class BackendExecutor final : public IExecutor {
 public:
  // Starts the worker thread at once and logs "BackendExecutor initialized with a max
  // queue weight of <weight>" (informational). `idleCallback` runs on a producer's thread
  // when a task arrives while the worker is idle (see execute); `maxQueueWeight` <= 0
  // switches weight limiting off; `captureMetrics` false keeps no queue statistics (the
  // provider passes the environment's choice). Throws std::system_error ("thread
  // constructor failed") if the thread cannot be started.
  BackendExecutor(std::function<void()> idleCallback, double maxQueueWeight,
                  SteadyClockSource clock = &steadyNow, bool captureMetrics = true);
  ~BackendExecutor() override = default;
  BackendExecutor(BackendExecutor const&) = delete;
  BackendExecutor& operator=(BackendExecutor const&) = delete;

  // Once shutdown() has begun: logs "Attempted to execute task when no longer
  // accepting." (severity 512) and "ObservableTransactionType: <name>" (debug), and
  // drops `task` unrun; the idle callback is not called.
  // Otherwise: if the queue is empty and the worker is not busy, calls the idle callback
  // on this thread first (an empty callback throws std::bad_function_call here). The
  // worker counts as busy from the moment it starts waiting for work until the task it
  // got has returned, so this happens only in the short interval between the end of one
  // task and the worker's next wait, or before the worker first entered its loop. This
  // narrow condition is deliberate. Then queues the task, waiting on the weight bound.
  void execute(Task task, ObservableTransactionType type, double weight) override;
  // The same; `touches` only tells the payload bytes the task carries (queue figures).
  void executeTouching(Task task, ObservableTransactionType type, double weight, Touches const& touches) override;

  // Stops accepting tasks. With `cancelOutstanding`, logs "Cancelling outstanding"
  // (debug) and discards the queued tasks (their weight is not released and their
  // counters are not lowered). Then waits until the worker has dequeued every record
  // (without cancel, the last task may still be running on return), marks the executor
  // stopped and pushes a wake-up marker so that an idle worker wakes and leaves. The
  // marker is pushed without waiting on the weight bound. Producers held by the weight
  // bound stay held until a pop releases weight or the worker has left.
  // Safe to call more than once.
  void shutdown(bool cancelOutstanding) override;

  // Waits for the worker thread to end; does nothing if it was already joined. Call after
  // shutdown(), never from the worker thread. Serialised by `threadMutex_`.
  void join() override;

  bool isShutdown() const override { return stopped_.load(); }
  std::chrono::steady_clock::time_point getLastActivityTime() const override { return lastActivityTime_.load(); }
  bool isQueueEmpty() const override { return queue_.size() == 0; }

  // Pushes a wake-up marker (waiting on the weight bound like any task) and waits until
  // the queue is empty. The single worker dequeues the marker only after it has finished
  // every task queued ahead of it, so this returns only when those tasks have finished,
  // not merely been dequeued. Returns at once if the worker has already left. Never call
  // it from a task.
  void waitForPendingToFinish() override;

  // Logs "Updating BackendExecutor max queue weight to <weight>" (informational) and
  // stores the new maximum without taking the queue mutex and without waking anyone:
  // a producer held by the old bound re-examines the new one only at the next pop.
  void setMaxQueueWeight(double weight) override;

  // Writes the statistics report (TaskQueue::logStatistics) on this thread.
  void logQueueStatistics() override { queue_.logStatistics(); }
  foundation::storage::provider::extensions::QueueFigures queueFigures() const override { return queue_.figures(); }

  // Diagnostics: the current sum of queued weights (see the weight quirk above), the
  // number of queued records, whether statistics are captured.
  double getCurrentQueueWeight() const { return queue_.currentWeight(); }
  std::size_t getQueueSize() const { return queue_.size(); }
  bool isMetricsCaptureEnabled() const { return queue_.capturesMetrics(); }

  // Diagnostics: `observer` is told how many producers the weight bound holds each time
  // that number changes. It runs with the queue mutex held (see TaskQueue).
  void setBackPressureObserver(TaskQueue::BackPressureObserver observer) {
    queue_.setBackPressureObserver(std::move(observer));
  }

  // What both queues share. Shortest decimal text that reads back as `value` ("10",
  // "0.5", "104857600").
  static std::string decimal(double value);
  // Logs the refusal of a task of `type` queued after shutdown began.
  static void logRefused(ObservableTransactionType type);

 private:
  // The worker loop.
  void run();

  SteadyClockSource const clock_;
  std::function<void()> const idleCallback_;
  std::atomic<bool> stopped_{false};       // set by shutdown; the worker leaves when it sees it
  std::atomic<bool> notAccepting_{false};  // set first thing in shutdown; execute refuses then
  std::mutex threadMutex_;                 // guards joining worker_
  TaskQueue queue_;
  // Construction time, then the completion time of each task that returned normally.
  std::atomic<std::chrono::steady_clock::time_point> lastActivityTime_;
  // Raised by the worker before it waits for the next record, lowered after that record's
  // task has returned.
  std::atomic<bool> busy_{false};
  std::thread worker_;  // started in the constructor; joined under threadMutex_
};

inline BackendExecutor::BackendExecutor(std::function<void()> idleCallback, double maxQueueWeight,
                                        SteadyClockSource clock, bool captureMetrics)
    : clock_(std::move(clock)),
      idleCallback_(std::move(idleCallback)),
      queue_(maxQueueWeight, captureMetrics, clock_),
      lastActivityTime_(clock_()) {
  try {
    worker_ = std::thread([this] { run(); });
  } catch (std::system_error const& e) {
    throw std::system_error(e.code(), "thread constructor failed");
  }
  getLogger().log(foundation::log::Info,
                  "BackendExecutor initialized with a max queue weight " + std::string("of ") + decimal(maxQueueWeight));
}

inline void BackendExecutor::execute(Task task, ObservableTransactionType type, double weight) {
  executeTouching(std::move(task), type, weight, Touches());
}

inline void BackendExecutor::executeTouching(Task task, ObservableTransactionType type, double weight,
                                             Touches const& touches) {
  if (notAccepting_.load()) return logRefused(type);
  if (queue_.size() == 0 && !busy_.load()) idleCallback_();
  queue_.push(QueueRecord::of(std::move(task), type, weight, clock_(), touches.payloadBytes()));
}

inline void BackendExecutor::shutdown(bool cancelOutstanding) {
  notAccepting_.store(true);
  if (cancelOutstanding) {
    getLogger().log(foundation::log::Debug, "Cancelling outstanding");
    queue_.clear();
  }
  queue_.waitUntilDrained();
  stopped_.store(true);
  queue_.pushIgnoringWeightBound(QueueRecord::marker(clock_()));
}

inline void BackendExecutor::join() {
  std::lock_guard<std::mutex> lock(threadMutex_);
  if (worker_.joinable()) worker_.join();
}

inline void BackendExecutor::waitForPendingToFinish() {
  queue_.push(QueueRecord::marker(clock_()));
  queue_.waitUntilDrained();
}

inline void BackendExecutor::setMaxQueueWeight(double weight) {
  getLogger().log(foundation::log::Info, "Updating BackendExecutor max queue weight to " + decimal(weight));
  queue_.setMaxWeight(weight);
}

inline void BackendExecutor::run() {
  // However the loop ends, nobody may go on waiting for this worker.
  struct LeaveQueue {
    TaskQueue& queue;
    ~LeaveQueue() { queue.closeConsumer(); }
  } const leave{queue_};

  if (stopped_.load()) return;
  for (;;) {
    busy_.store(true);
    {
      QueueRecord record = queue_.pop();
      if (!record.wakeupMarker) {
        try {
          record.task();
          lastActivityTime_.store(clock_());
        } catch (...) {
          // A task reports its own failures; one that throws is abandoned silently.
        }
      }
      busy_.store(false);
    }  // the record (and what its task holds) is destroyed here, after busy_ went down
    if (stopped_.load()) return;
  }
}

inline void BackendExecutor::logRefused(ObservableTransactionType type) {
  auto& logger = getLogger();
  logger.log(foundation::log::Error, "Attempted to execute task when no longer accepting.");
  if (logger.isEnabled(foundation::log::Debug)) {
    std::ostringstream message;
    message << "ObservableTransactionType: " << type;
    logger.log(foundation::log::Debug, message.str());
  }
}

inline std::string BackendExecutor::decimal(double value) {
  char buffer[400];  // enough for any double in fixed notation
  auto const result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed);
  if (result.ec != std::errc()) return std::to_string(value);
  return std::string(buffer, result.ptr);
}

}  // namespace storage::overlayprovider
