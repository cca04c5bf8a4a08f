// BackendExecutor under contention: FIFO order with many producers, the weight bound's
// admit-then-wait rule, shutdown while producers wait, waitForPendingToFinish and the
// idle callback's narrow condition. Interleavings are forced with gates and the
// executor's back-pressure observer, never with sleeps.
#include "exec/executor_test_support.hpp"

#include <core/exec/BackendExecutor.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace overlay_test;
using storage::overlayprovider::BackendExecutor;
using T = storage::overlayprovider::ObservableTransactionType;
using foundation::log::MemorySink;

TEST(BackendExecutorConcurrencyTest, RunsTasksInOrderPerProducerUnderTheWeightBound) {
  constexpr int kProducers = 4;
  constexpr int kTasks = 2000;
  BackendExecutor executor([] {}, 20);
  ExecutorStopper stop(executor);

  std::vector<std::pair<int, int>> ran;  // appended by the worker only
  Signal start;
  std::atomic<bool> producing{true};
  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      start.wait();
      for (int i = 0; i < kTasks; ++i) {
        executor.execute([&ran, p, i] { ran.emplace_back(p, i); }, T::FILE_WRITE, 1 + (i % 3));
      }
    });
  }
  // On-demand reports and queries race with producers and the worker.
  std::thread observer([&] {
    start.wait();
    while (producing.load()) {
      executor.logQueueStatistics();
      (void)executor.isQueueEmpty();
      (void)executor.getLastActivityTime();
    }
  });
  start.set();
  for (auto& t : threads) t.join();
  producing.store(false);
  observer.join();
  executor.waitForPendingToFinish();

  ASSERT_EQ(std::size_t(kProducers * kTasks), ran.size());
  std::vector<int> next(kProducers, 0);
  for (auto const& [p, i] : ran) {
    ASSERT_EQ(next[p], i) << "producer " << p;
    ++next[p];
  }
  EXPECT_EQ(0.0, executor.getCurrentQueueWeight());

  MemorySink sink;
  auto const stats = statistics(executor, sink);
  EXPECT_EQ(std::to_string(kProducers * kTasks), stats.get<std::string>("overlay.queueStats.transaction.totalOverTime.write"));
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.transaction.now.write"));
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.size"));
}

TEST(BackendExecutorConcurrencyTest, AdmitsTheTaskThatCrossesTheBoundAndHoldsTheNext) {
  Gate first, second;
  BackendExecutor executor([] {}, 10);
  BackPressureWatch watch(executor);
  std::vector<char> ran;  // worker only
  std::vector<std::thread> producers;
  {
    ExecutorStopper stop(executor, {&first, &second});
    executor.execute([&] { first.pass(); }, T::FILE_OPEN_READWRITE, 0);
    first.waitArrived();  // the worker holds the gate task; nothing else is popped

    executor.execute([&] { ran.push_back('A'); }, T::FILE_WRITE, 10);
    EXPECT_EQ(10.0, executor.getCurrentQueueWeight());
    // 10 is not above 10: admitted, and the queue exceeds the maximum.
    executor.execute([&] { ran.push_back('B'); }, T::FILE_WRITE, 5);
    EXPECT_EQ(15.0, executor.getCurrentQueueWeight());

    Signal admitted;
    producers.emplace_back([&] {
      executor.execute([&] { ran.push_back('C'); }, T::FILE_WRITE, 1);
      admitted.set();
    });
    watch.waitFor(1);
    EXPECT_FALSE(admitted.isSet());
    EXPECT_EQ(2u, executor.getQueueSize());

    first.open();  // popping A brings the weight to 5: the producer goes on
    producers.back().join();
    producers.clear();
    EXPECT_TRUE(admitted.isSet());
    executor.waitForPendingToFinish();
    EXPECT_EQ((std::vector<char>{'A', 'B', 'C'}), ran);
    EXPECT_EQ(0.0, executor.getCurrentQueueWeight());

    // A pop that leaves the weight above the bound releases nobody.
    executor.execute([&] { first.pass(); }, T::FILE_OPEN_READWRITE, 0);  // already open: passes
    executor.waitForPendingToFinish();
    Gate hold;
    executor.execute([&] { hold.pass(); }, T::FILE_OPEN_READWRITE, 0);
    hold.waitArrived();
    executor.execute([&] { second.pass(); }, T::FILE_WRITE, 3);   // 0 -> 3
    executor.execute([&] { ran.push_back('Y'); }, T::FILE_WRITE, 12);  // 3 -> 15
    producers.emplace_back([&] { executor.execute([&] { ran.push_back('Z'); }, T::FILE_WRITE, 1); });
    watch.waitFor(1);
    hold.open();
    second.waitArrived();  // the 3 was popped: 12 is still above 10
    EXPECT_EQ(1u, watch.blocked());
    EXPECT_EQ(12.0, executor.getCurrentQueueWeight());
    EXPECT_EQ(1u, executor.getQueueSize());
    second.open();
    producers.back().join();
    executor.waitForPendingToFinish();
    EXPECT_EQ((std::vector<char>{'A', 'B', 'C', 'Y', 'Z'}), ran);
  }
}

TEST(BackendExecutorConcurrencyTest, RaisedMaximumIsSeenByAHeldProducerAtTheNextPop) {
  MemorySink sink;
  Gate first, second;
  BackendExecutor executor([] {}, 10);
  BackPressureWatch watch(executor);
  ExecutorStopper stop(executor, {&first, &second});
  executor.execute([&] { first.pass(); }, T::FILE_WRITE, 0);
  first.waitArrived();
  executor.execute([&] { second.pass(); }, T::FILE_WRITE, 5);  // 0 -> 5
  executor.execute([] {}, T::FILE_WRITE, 20);                  // 5 -> 25

  std::thread producer([&] { executor.execute([] {}, T::FILE_WRITE, 1); });
  watch.waitFor(1);
  executor.setMaxQueueWeight(100);  // wakes nobody
  EXPECT_TRUE(sink.contains("Updating BackendExecutor max queue weight to 100"));

  // Popping the 5 leaves 20: above the old bound, within the new one. The producer
  // re-examines at that pop, while the worker is held by the second gate.
  first.open();
  producer.join();
  second.waitArrived();
  EXPECT_EQ(21.0, executor.getCurrentQueueWeight());
}

TEST(BackendExecutorConcurrencyTest, CancellingShutdownLeavesHeldProducersHeldUntilTheWorkerLeaves) {
  Gate gate;
  BackendExecutor executor([] {}, 10);
  BackPressureWatch watch(executor);
  std::atomic<int> ran{0};
  executor.execute([&] { gate.pass(); }, T::FILE_WRITE, 0);
  gate.waitArrived();
  executor.execute([&] { ++ran; }, T::FILE_WRITE, 11);

  std::vector<std::thread> producers;
  for (int i = 0; i < 2; ++i) {
    producers.emplace_back([&] { executor.execute([&] { ++ran; }, T::FILE_WRITE, 1); });
  }
  watch.waitFor(2);

  executor.shutdown(true);  // nothing left to drain: returns while the worker is held
  EXPECT_TRUE(executor.isShutdown());
  EXPECT_EQ(2u, watch.blocked()) << "clearing releases no weight";

  gate.open();
  executor.join();  // the worker leaves after its task without popping again...
  for (auto& p : producers) p.join();  // ...and then nobody holds the producers
  EXPECT_EQ(0u, watch.blocked());
  EXPECT_EQ(0, ran.load());
}

TEST(BackendExecutorConcurrencyTest, ShutdownWithoutCancelRunsWhatWasQueuedWhileProducersWait) {
  Gate gate;
  BackendExecutor executor([] {}, 10);
  BackPressureWatch watch(executor);
  std::mutex ranMutex;
  std::vector<int> ran;
  auto record = [&](int id) {
    return [&, id] {
      std::lock_guard<std::mutex> lock(ranMutex);
      ran.push_back(id);
    };
  };
  executor.execute([&] { gate.pass(); }, T::FILE_WRITE, 0);
  gate.waitArrived();
  executor.execute(record(1), T::FILE_WRITE, 6);
  executor.execute(record(2), T::FILE_WRITE, 6);  // 6 -> 12
  std::vector<std::thread> producers;
  for (int id : {3, 4}) producers.emplace_back([&, id] { executor.execute(record(id), T::FILE_WRITE, 1); });
  watch.waitFor(2);

  std::thread stopper([&] { executor.shutdown(false); });
  gate.open();
  stopper.join();
  for (auto& p : producers) p.join();
  executor.join();
  EXPECT_TRUE(executor.isShutdown());

  // The queued tasks ran in order; the held producers' tasks ran or not depending on
  // whether they were admitted before the queue drained, but never out of order.
  std::lock_guard<std::mutex> lock(ranMutex);
  ASSERT_GE(ran.size(), 2u);
  EXPECT_EQ(1, ran[0]);
  EXPECT_EQ(2, ran[1]);
  EXPECT_LE(ran.size(), 4u);
}

TEST(BackendExecutorConcurrencyTest, WaitForPendingToFinishReturnsOnlyAfterEarlierTasksFinished) {
  Gate gate;
  BackendExecutor executor([] {}, 0);
  ExecutorStopper stop(executor, {&gate});
  std::atomic<bool> firstDone{false}, secondDone{false};
  executor.execute([&] {
    gate.pass();
    firstDone = true;
  }, T::FILE_WRITE, 0);
  gate.waitArrived();  // dequeued, still running
  executor.execute([&] { secondDone = true; }, T::FILE_CLOSE, 0);

  Signal returned;
  bool sawFirst = false, sawSecond = false;
  std::thread waiter([&] {
    executor.waitForPendingToFinish();
    sawFirst = firstDone;
    sawSecond = secondDone;
    returned.set();
  });
  waitUntil([&] { return executor.getQueueSize() == 2; });  // the second task and the marker
  EXPECT_FALSE(returned.isSet()) << "the marker cannot be popped while the worker is held";
  gate.open();
  waiter.join();
  EXPECT_TRUE(sawFirst);
  EXPECT_TRUE(sawSecond);
}

// Holds the worker inside the destruction of a finished task's record, that is after it
// lowered its busy flag and before its next wait.
class HoldWhenDestroyed {
 public:
  explicit HoldWhenDestroyed(Gate& gate) : gate_(gate) {}
  HoldWhenDestroyed(HoldWhenDestroyed const&) = delete;
  HoldWhenDestroyed& operator=(HoldWhenDestroyed const&) = delete;
  ~HoldWhenDestroyed() { gate_.pass(); }

 private:
  Gate& gate_;
};

TEST(BackendExecutorConcurrencyTest, CallsTheIdleCallbackOnlyBetweenATaskAndTheNextWait) {
  std::atomic<int> idleCalls{0};
  std::thread::id idleThread;
  std::mutex idleMutex;
  BackendExecutor executor([&] {
    std::lock_guard<std::mutex> lock(idleMutex);
    idleThread = std::this_thread::get_id();
    ++idleCalls;
  }, 0);
  Gate running, window;
  ExecutorStopper stop(executor, {&running, &window});

  // Before the worker first enters its loop the callback may run; once it waits or
  // works, it is busy.
  executor.execute([&] { running.pass(); }, T::FILE_WRITE, 0);
  EXPECT_LE(idleCalls.load(), 1);
  running.waitArrived();
  int const beforeBusy = idleCalls.load();
  executor.execute([] {}, T::FILE_WRITE, 0);  // empty queue, busy worker
  EXPECT_EQ(beforeBusy, idleCalls.load());
  running.open();
  executor.waitForPendingToFinish();

  auto holder = std::make_shared<HoldWhenDestroyed>(window);
  executor.execute([holder = std::move(holder)] {}, T::FILE_WRITE, 0);
  window.waitArrived();  // task done, busy flag down, queue empty
  int const beforeWindow = idleCalls.load();
  executor.execute([] {}, T::FILE_WRITE, 0);
  EXPECT_EQ(beforeWindow + 1, idleCalls.load());
  {
    std::lock_guard<std::mutex> lock(idleMutex);
    EXPECT_EQ(std::this_thread::get_id(), idleThread) << "runs on the producer's thread";
  }
  window.open();
  executor.waitForPendingToFinish();
}

TEST(BackendExecutorConcurrencyTest, ProducersRacingACancellingShutdownKeepTheirOrder) {
  constexpr int kProducers = 3;
  constexpr int kTasks = 3000;
  MemorySink sink(foundation::log::Error);
  BackendExecutor executor([] {}, 0);
  std::mutex ranMutex;
  std::vector<std::vector<int>> ran(kProducers);
  Signal someRan;
  std::atomic<int> total{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kTasks; ++i) {
        executor.execute([&, p, i] {
          {
            std::lock_guard<std::mutex> lock(ranMutex);
            ran[p].push_back(i);
          }
          if (++total == 100) someRan.set();
        }, T::FILE_WRITE, 1);
      }
    });
  }
  someRan.wait();
  executor.shutdown(true);
  executor.join();
  for (auto& p : producers) p.join();

  std::lock_guard<std::mutex> lock(ranMutex);
  std::size_t ranCount = 0;
  for (int p = 0; p < kProducers; ++p) {
    for (std::size_t k = 1; k < ran[p].size(); ++k) ASSERT_LT(ran[p][k - 1], ran[p][k]) << "producer " << p;
    ranCount += ran[p].size();
  }
  EXPECT_GE(ranCount, 100u);
  // Every task submitted after shutdown began was refused with one failure record.
  EXPECT_EQ(sink.count(foundation::log::Error), messagesContaining(sink, "no longer accepting").size());
}

}  // namespace
