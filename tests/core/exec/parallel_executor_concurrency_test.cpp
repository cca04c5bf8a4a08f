// ParallelExecutor: related transactions keep their order while unrelated ones overtake
// them, barriers hold both ways, waitForPendingToFinish and shutdown over busy lanes,
// the weight bound and the statistics with many producers, the idle callback. Lanes are
// held with gates; what no event announces is read from the queue's counts.
#include "exec/executor_test_support.hpp"

#include <core/exec/ParallelExecutor.hpp>
#include <core/exec/SwitchableExecutor.hpp>
#include <core/exec/Touches.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace overlay_test;
using storage::overlayprovider::IExecutor;
using storage::overlayprovider::ParallelExecutor;
using storage::overlayprovider::SwitchableExecutor;
using storage::overlayprovider::Touches;
using T = storage::overlayprovider::ObservableTransactionType;
using foundation::log::MemorySink;

// What ran, in the order it finished. Thread-safe.
class Journal {
 public:
  void add(std::string const& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(name);
  }
  std::string text() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string out;
    for (auto const& entry : entries_) out += (out.empty() ? "" : " ") + entry;
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

Touches at(char16_t const* iri) { return Touches::location(iri); }

// On two lanes: `held` occupies one lane until the test lets it go; `candidate` is queued
// next and a probe on an unrelated store after it. The free lane takes the candidate
// first if it may start, else the probe. Returns the order the three finished in:
// "candidate probe held" when the candidate overtook, "probe held candidate" when it
// waited for the held one. `throughHandle`: queued through a SwitchableExecutor.
std::string orderWithOneLaneHeld(Touches const& held, Touches const& candidate, bool throughHandle = false) {
  auto executor = std::make_shared<ParallelExecutor>(2, [] {}, 0);
  SwitchableExecutor handle;
  handle.set(executor);
  IExecutor& queue = throughHandle ? static_cast<IExecutor&>(handle) : *executor;
  Gate gate;
  Signal probeRan;
  Journal journal;
  ExecutorStopper stop(*executor, {&gate});
  queue.executeTouching([&] { gate.pass(); journal.add("held"); }, T::FILE_WRITE, 0, held);
  gate.waitArrived();
  queue.executeTouching([&] { journal.add("candidate"); }, T::FILE_WRITE, 0, candidate);
  queue.executeTouching([&] { journal.add("probe"); probeRan.set(); }, T::FILE_WRITE, 0, at(u"mem://other/probe"));
  probeRan.wait();
  gate.open();
  queue.waitForPendingToFinish();
  EXPECT_EQ(0, handle.changesInFlight());
  return journal.text();
}

TEST(ParallelExecutorConcurrencyTest, RelatedTransactionsWaitWhileUnrelatedOnesOvertakeThem) {
  std::string const waits = "probe held candidate";
  std::string const overtakes = "candidate probe held";
  // Related: the same location, one below, one above, either end of a move.
  EXPECT_EQ(waits, orderWithOneLaneHeld(at(u"mem://s/a.txt"), at(u"mem://s/a.txt")));
  EXPECT_EQ(waits, orderWithOneLaneHeld(at(u"mem://s/d"), at(u"mem://s/d/x/y.txt")));
  EXPECT_EQ(waits, orderWithOneLaneHeld(at(u"mem://s/d/x/y.txt"), at(u"mem://s/d")));
  EXPECT_EQ(waits, orderWithOneLaneHeld(at(u"mem://s/"), at(u"mem://s/a")));
  EXPECT_EQ(waits, orderWithOneLaneHeld(at(u"mem://s/a"), Touches::transfer(u"mem://s/b", u"mem://s/a/c")));
  EXPECT_EQ(waits, orderWithOneLaneHeld(Touches::transfer(u"mem://s/a", u"mem://s/t/a"), at(u"mem://s/t")));
  // Unrelated: a name that merely begins like another, siblings, another store.
  EXPECT_EQ(overtakes, orderWithOneLaneHeld(at(u"mem://s/a/b"), at(u"mem://s/a/bc")));
  EXPECT_EQ(overtakes, orderWithOneLaneHeld(at(u"mem://s/a/bc"), at(u"mem://s/a/b")));
  EXPECT_EQ(overtakes, orderWithOneLaneHeld(at(u"mem://s/a/x"), at(u"mem://s/a/y")));
  EXPECT_EQ(overtakes, orderWithOneLaneHeld(at(u"mem://s/a"), at(u"mem://t/a")));
  // The provider's executor handle passes what a task touches on.
  EXPECT_EQ(waits, orderWithOneLaneHeld(at(u"mem://s/a"), at(u"mem://s/a"), true));
  EXPECT_EQ(overtakes, orderWithOneLaneHeld(at(u"mem://s/a"), at(u"mem://s/b"), true));
}

TEST(ParallelExecutorConcurrencyTest, AWaitingTransactionHoldsBackLaterRelatedOnesOnly) {
  // /d/x waits for the held /d; /d/x/y must wait for /d/x (and so for /d) even though
  // nothing running touches /d/x/y's own location; /e goes ahead.
  ParallelExecutor executor(3, [] {}, 0);
  Gate gate;
  Journal journal;
  ExecutorStopper stop(executor, {&gate});
  executor.executeTouching([&] { gate.pass(); journal.add("d"); }, T::FOLDER_CREATION, 0, at(u"mem://s/d"));
  gate.waitArrived();
  executor.executeTouching([&] { journal.add("d/x"); }, T::FOLDER_CREATION, 0, at(u"mem://s/d/x"));
  executor.executeTouching([&] { journal.add("d/x/y"); }, T::FILE_WRITE, 0, at(u"mem://s/d/x/y"));
  Signal eRan;
  executor.executeTouching([&] { journal.add("e"); eRan.set(); }, T::FILE_WRITE, 0, at(u"mem://s/e"));
  eRan.wait();
  EXPECT_EQ(2u, executor.getWaitingCount());
  gate.open();
  executor.waitForPendingToFinish();
  EXPECT_EQ("e d d/x d/x/y", journal.text());
}

TEST(ParallelExecutorConcurrencyTest, ATransactionThatTouchesNothingIsABarrierBothWays) {
  ParallelExecutor executor(3, [] {}, 0);
  Gate first, second;
  Journal journal;
  ExecutorStopper stop(executor, {&first, &second});
  executor.executeTouching([&] { first.pass(); journal.add("a"); }, T::FILE_WRITE, 0, at(u"mem://s/a"));
  executor.executeTouching([&] { second.pass(); journal.add("b"); }, T::FILE_WRITE, 0, at(u"mem://s/b"));
  first.waitArrived();
  second.waitArrived();
  executor.execute([&] { journal.add("barrier"); }, T::EXTERNAL_EVENT, 0);
  executor.executeTouching([&] { journal.add("c"); }, T::FILE_WRITE, 0, at(u"mem://s/c"));
  // A free lane is left, yet neither the barrier nor what follows it may start.
  EXPECT_EQ(2u, executor.getQueueSize());
  EXPECT_EQ(2u, executor.getWaitingCount());

  // One of the two earlier transactions finishing is not enough.
  first.open();
  waitUntil([&] { return executor.getUnfinishedCount() == 3; });
  EXPECT_EQ(2u, executor.getWaitingCount());

  second.open();
  executor.waitForPendingToFinish();
  EXPECT_EQ("a b barrier c", journal.text());
}

TEST(ParallelExecutorConcurrencyTest, ATransactionRunsOnTheCallersThreadOnlyWhereNothingRelatedIsUnfinished) {
  ParallelExecutor executor(2, [] {}, 0);
  Gate gate;
  Journal journal;
  ExecutorStopper stop(executor, {&gate});
  executor.executeTouching([&] { gate.pass(); journal.add("held"); }, T::FILE_WRITE, 0, at(u"mem://s/a/f"));
  gate.waitArrived();
  auto const here = std::this_thread::get_id();
  std::thread::id ranOn;
  auto note = [&] { ranOn = std::this_thread::get_id(); };
  // The same location, one above it, a barrier: not here.
  EXPECT_FALSE(executor.tryRunHere(note, at(u"mem://s/a/f")));
  EXPECT_FALSE(executor.tryRunHere(note, at(u"mem://s/a")));
  EXPECT_FALSE(executor.tryRunHere(note, Touches()));
  EXPECT_EQ(std::thread::id(), ranOn);
  // Unrelated: here, at once, although a lane is held. A related transaction queued
  // while it runs waits for it; an unrelated one does not.
  EXPECT_TRUE(executor.tryRunHere(
      [&] {
        note();
        executor.executeTouching([&] { journal.add("below"); }, T::FILE_WRITE, 0, at(u"mem://s/b/x"));
        EXPECT_EQ(1u, executor.getWaitingCount());
        journal.add("here");
      },
      at(u"mem://s/b")));
  EXPECT_EQ(here, ranOn);
  waitUntil([&] { return executor.getUnfinishedCount() == 1; });
  EXPECT_EQ("here below", journal.text());

  // An unfinished barrier holds back what would run here.
  executor.execute([&] { journal.add("barrier"); }, T::EXTERNAL_EVENT, 0);
  EXPECT_FALSE(executor.tryRunHere(note, at(u"mem://s/c")));
  gate.open();
  executor.waitForPendingToFinish();
  EXPECT_EQ("here below held barrier", journal.text());
  EXPECT_TRUE(executor.tryRunHere([&] { journal.add("after"); }, at(u"mem://s/a/f")));
  EXPECT_EQ(0u, executor.getUnfinishedCount());
}

TEST(ParallelExecutorConcurrencyTest, WaitForPendingToFinishWaitsForEveryLaneButNotForLaterWork) {
  ParallelExecutor executor(3, [] {}, 0);
  Gate a, b, later;
  Journal journal;
  ExecutorStopper stop(executor, {&a, &b, &later});
  executor.executeTouching([&] { a.pass(); journal.add("a"); }, T::FILE_WRITE, 0, at(u"mem://s/a"));
  executor.executeTouching([&] { b.pass(); journal.add("b"); }, T::FILE_WRITE, 0, at(u"mem://s/b"));
  executor.executeTouching([&] { journal.add("a2"); }, T::FILE_CLOSE, 0, at(u"mem://s/a"));
  a.waitArrived();
  b.waitArrived();

  std::string seenOnReturn;
  std::thread waiter([&] {
    executor.waitForPendingToFinish();
    seenOnReturn = journal.text();
  });
  // The waiter has taken its place in the queue once its marker is counted.
  waitUntil([&] { return executor.queueFigures().transactions.count("wakeupFlush") == 1; });
  executor.executeTouching([&] { later.pass(); }, T::FILE_WRITE, 0, at(u"mem://s/later"));
  later.waitArrived();  // a later transaction holds the third lane

  b.open();
  a.open();
  waiter.join();  // returns although `later` is still held
  // a2 follows a; b finished anywhere among them.
  EXPECT_TRUE(seenOnReturn == "a a2 b" || seenOnReturn == "a b a2" || seenOnReturn == "b a a2") << seenOnReturn;
  EXPECT_EQ(1u, executor.getUnfinishedCount());
  later.open();
}

TEST(ParallelExecutorConcurrencyTest, ShutdownWithCancelDiscardsWhatHasNotStartedWhileLanesRun) {
  MemorySink sink(foundation::log::Error);
  ParallelExecutor executor(2, [] {}, 0);
  Gate a, b;
  Journal journal;
  executor.executeTouching([&] { a.pass(); journal.add("a"); }, T::FILE_WRITE, 0, at(u"mem://s/a").carrying(7));
  executor.executeTouching([&] { b.pass(); journal.add("b"); }, T::FILE_WRITE, 0, at(u"mem://s/b"));
  a.waitArrived();
  b.waitArrived();
  executor.executeTouching([&] { journal.add("a-close"); }, T::FILE_CLOSE, 0, at(u"mem://s/a"));
  executor.executeTouching([&] { journal.add("c"); }, T::FILE_WRITE, 0, at(u"mem://s/c").carrying(100));
  executor.execute([&] { journal.add("event"); }, T::EXTERNAL_EVENT, 0);
  // Only what waits counts: a's payload has started.
  EXPECT_EQ(100u, executor.queueFigures().queuedBytes);

  executor.shutdown(true);  // returns while both lanes still run
  EXPECT_TRUE(executor.isShutdown());
  EXPECT_TRUE(executor.isQueueEmpty());
  EXPECT_EQ(0u, executor.queueFigures().queuedBytes);
  executor.executeTouching([&] { journal.add("refused"); }, T::FILE_WRITE, 0, at(u"mem://s/z"));
  EXPECT_EQ(1u, messagesContaining(sink, "no longer accepting").size());

  a.open();
  b.open();
  executor.join();
  std::string const ran = journal.text();
  EXPECT_TRUE(ran == "a b" || ran == "b a") << ran;
  executor.waitForPendingToFinish();  // returns at once: the lanes have gone
}

TEST(ParallelExecutorConcurrencyTest, ShutdownWithoutCancelStartsEverythingQueuedInOrder) {
  ParallelExecutor executor(2, [] {}, 0);
  Gate a;
  Journal journal;
  executor.executeTouching([&] { a.pass(); journal.add("a"); }, T::FILE_WRITE, 0, at(u"mem://s/a"));
  a.waitArrived();
  executor.executeTouching([&] { journal.add("a-close"); }, T::FILE_CLOSE, 0, at(u"mem://s/a"));
  executor.execute([&] { journal.add("event"); }, T::EXTERNAL_EVENT, 0);

  std::thread stopper([&] {
    executor.shutdown(false);
    EXPECT_EQ(0u, executor.getQueueSize()) << "everything queued has started";
  });
  a.open();
  stopper.join();
  executor.join();
  EXPECT_EQ("a a-close event", journal.text());
}

TEST(ParallelExecutorConcurrencyTest, TheWeightBoundAdmitsTheCrossingTaskAndHoldsTheProducersAfterIt) {
  ParallelExecutor executor(2, [] {}, 10);
  BackPressureWatch watch(executor);
  Gate a, b;
  ExecutorStopper stop(executor, {&a, &b});
  executor.executeTouching([&] { a.pass(); }, T::FILE_WRITE, 10, at(u"mem://s/a"));
  executor.executeTouching([&] { b.pass(); }, T::FILE_WRITE, 0, at(u"mem://s/b"));
  a.waitArrived();
  b.waitArrived();  // started: the weight of `a` is released
  EXPECT_EQ(0.0, executor.getCurrentQueueWeight());

  executor.executeTouching([] {}, T::FILE_WRITE, 10, at(u"mem://s/c"));  // 10: not above the bound
  executor.executeTouching([] {}, T::FILE_WRITE, 5, at(u"mem://s/d"));   // crosses it: admitted
  EXPECT_EQ(15.0, executor.getCurrentQueueWeight());
  std::vector<std::thread> producers;
  for (int p = 0; p < 3; ++p) {
    producers.emplace_back([&executor, p] {
      std::u16string location = u"mem://s/p";
      location += static_cast<char16_t>(u'0' + p);
      executor.executeTouching([] {}, T::FILE_WRITE, 1, Touches::location(location));
    });
  }
  watch.waitFor(3);
  EXPECT_EQ(15.0, executor.getCurrentQueueWeight());

  a.open();  // a lane starts c (10 released): all three go on
  watch.waitFor(0);
  for (auto& producer : producers) producer.join();
  b.open();
  executor.waitForPendingToFinish();
  EXPECT_EQ(0.0, executor.getCurrentQueueWeight());
}

TEST(ParallelExecutorConcurrencyTest, ManyProducersKeepEveryOrderThatMattersUnderTheWeightBound) {
  constexpr int kProducers = 4;
  constexpr int kTasks = 600;
  constexpr int kFiles = 5;
  ParallelExecutor executor(4, [] {}, 20);
  ExecutorStopper stop(executor);

  // Producer p writes files mem://s/p/f<k> and now and then removes its folder
  // mem://s/p, which must wait for every earlier task of p and hold back the later
  // ones; producer 0 also queues barriers, which run alone.
  std::mutex mutex;
  std::vector<int> done(kProducers, 0);            // tasks of p finished
  std::vector<int> running(kProducers, 0);         // tasks of p running
  std::vector<bool> removing(kProducers, false);   // p's folder task running
  std::map<std::pair<int, int>, int> lastOfFile;   // (p, k) -> index of its last finished task
  int runningAll = 0;
  bool barrierRunning = false;
  std::vector<std::string> faults;
  auto const isRemoval = [](int i) { return i % 50 == 49; };
  // The index of the task before task i on the same file (-1 for none).
  auto const previousOnFile = [&](int i) {
    int previous = i - kFiles;
    if (previous >= 0 && isRemoval(previous)) previous -= kFiles;
    return previous < 0 ? -1 : previous;
  };

  std::vector<std::thread> producers;
  Signal start;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      start.wait();
      std::u16string const folder = u"mem://s/" + std::u16string(1, static_cast<char16_t>(u'0' + p));
      for (int i = 0; i < kTasks; ++i) {
        if (p == 0 && i % 150 == 75) {
          executor.execute([&] {
            {
              std::lock_guard<std::mutex> lock(mutex);
              if (runningAll != 0) faults.push_back("a barrier ran beside another task");
              barrierRunning = true;
            }
            std::this_thread::yield();
            std::lock_guard<std::mutex> lock(mutex);
            barrierRunning = false;
          }, T::EXTERNAL_EVENT, 0);
        }
        bool const removal = isRemoval(i);
        int const file = i % kFiles;
        auto task = [&, p, i, removal, file] {
          std::string const name = std::to_string(p) + "/" + std::to_string(i);
          {
            std::lock_guard<std::mutex> lock(mutex);
            ++running[p];
            ++runningAll;
            if (barrierRunning) faults.push_back(name + " ran beside a barrier");
            if (removing[p]) faults.push_back(name + " ran beside its folder's task");
            if (removal) {
              if (done[p] != i || running[p] != 1) faults.push_back(name + ": folder task overlapped");
              removing[p] = true;
            } else {
              auto const last = lastOfFile.find({p, file});
              if ((last == lastOfFile.end() ? -1 : last->second) != previousOnFile(i))
                faults.push_back(name + " out of order on its file");
            }
          }
          std::this_thread::yield();
          std::lock_guard<std::mutex> lock(mutex);
          --running[p];
          --runningAll;
          ++done[p];
          if (removal) {
            removing[p] = false;
          } else {
            lastOfFile[{p, file}] = i;
          }
        };
        std::u16string const location =
            removal ? folder : folder + u"/f" + std::u16string(1, static_cast<char16_t>(u'0' + file));
        executor.executeTouching(std::move(task), removal ? T::FOLDER_REMOVAL : T::FILE_WRITE, 1 + i % 3,
                                 Touches::location(location));
      }
    });
  }
  start.set();
  for (auto& producer : producers) producer.join();
  executor.waitForPendingToFinish();

  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_TRUE(faults.empty()) << faults.size() << " faults, the first: " << faults.front();
  for (int p = 0; p < kProducers; ++p) EXPECT_EQ(kTasks, done[p]) << "producer " << p;
  EXPECT_EQ(0.0, executor.getCurrentQueueWeight());
  EXPECT_EQ(0u, executor.getUnfinishedCount());

  MemorySink sink;
  auto const stats = statistics(executor, sink);
  int const removals = kProducers * (kTasks / 50);
  EXPECT_EQ(std::to_string(kProducers * kTasks - removals),
            stats.get<std::string>("overlay.queueStats.transaction.totalOverTime.write"));
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.transaction.now.write"));
  EXPECT_EQ("0", stats.get<std::string>("overlay.queueStats.size"));
}

// Holds the lane that destroys it (after its task returned) until the gate opens.
class HoldWhenDestroyed {
 public:
  explicit HoldWhenDestroyed(Gate& gate) : gate_(gate) {}
  ~HoldWhenDestroyed() { gate_.pass(); }

 private:
  Gate& gate_;
};

TEST(ParallelExecutorConcurrencyTest, CallsTheIdleCallbackOnlyWhenNoLaneIsBusy) {
  std::atomic<int> idleCalls{0};
  std::atomic<std::thread::id> idleThread;
  ParallelExecutor executor(2, [&] {
    idleThread.store(std::this_thread::get_id());
    ++idleCalls;
  }, 0);
  Gate windowA, running, windowC, windowD;
  ExecutorStopper stop(executor, {&windowA, &running, &windowC, &windowD});

  // One lane between its task and its next wait, the other running a task: busy.
  executor.executeTouching([holder = std::make_shared<HoldWhenDestroyed>(windowA)] {}, T::FILE_WRITE, 0,
                           at(u"mem://s/a"));
  executor.executeTouching([&] { running.pass(); }, T::FILE_WRITE, 0, at(u"mem://s/b"));
  windowA.waitArrived();
  running.waitArrived();
  int const beforeBusy = idleCalls.load();
  executor.executeTouching([] {}, T::FILE_WRITE, 0, at(u"mem://s/p"));
  EXPECT_EQ(beforeBusy, idleCalls.load());
  windowA.open();
  running.open();
  executor.waitForPendingToFinish();

  // Both lanes between a task and their next wait, nothing queued: idle.
  executor.executeTouching([holder = std::make_shared<HoldWhenDestroyed>(windowC)] {}, T::FILE_WRITE, 0,
                           at(u"mem://s/c"));
  executor.executeTouching([holder = std::make_shared<HoldWhenDestroyed>(windowD)] {}, T::FILE_WRITE, 0,
                           at(u"mem://s/d"));
  windowC.waitArrived();
  windowD.waitArrived();
  int const beforeIdle = idleCalls.load();
  executor.executeTouching([] {}, T::FILE_WRITE, 0, at(u"mem://s/q"));
  EXPECT_EQ(beforeIdle + 1, idleCalls.load());
  EXPECT_EQ(std::this_thread::get_id(), idleThread.load()) << "runs on the producer's thread";
  windowC.open();
  windowD.open();
  executor.waitForPendingToFinish();
}

}  // namespace
