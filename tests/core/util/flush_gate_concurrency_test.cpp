// FlushGate: a flush waits for the operations inside, holds new ones back while it runs,
// and never blocks an operation that is already inside on the same thread. Threads are
// driven by the gate's own counters; nothing sleeps.
#include <core/util/FlushGate.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <thread>

using storage::overlayprovider::FlushGate;

namespace {

// Yields until `condition` holds: each condition here becomes true through another
// thread's progress alone.
template <class Condition>
void until(Condition condition) {
  while (!condition()) std::this_thread::yield();
}

}  // namespace

TEST(FlushGate, AFlushWaitsForOperationsInsideAndHoldsNewOnesBackUntilItIsDone) {
  FlushGate gate;
  std::promise<void> leave;
  std::atomic<bool> entered{false};
  std::thread inside([&] {
    auto pass = gate.enter();
    entered = true;
    leave.get_future().wait();
  });
  until([&] { return entered.load(); });

  std::promise<void> reopen;
  std::atomic<bool> flushing{false};
  std::thread flusher([&] {
    auto closed = gate.close();
    flushing = true;
    reopen.get_future().wait();
  });
  until([&] { return gate.isClosed(); });

  std::atomic<bool> lateEntered{false};
  std::thread late([&] {
    auto pass = gate.enter();
    lateEntered = true;
  });
  until([&] { return gate.waiting() == 1; });
  // The flush cannot have begun: the first operation is still inside.
  EXPECT_FALSE(flushing.load());
  EXPECT_EQ(1u, gate.inside());

  leave.set_value();
  inside.join();
  until([&] { return flushing.load(); });
  // While the flush runs, the late operation still waits at the gate.
  EXPECT_EQ(1u, gate.waiting());
  EXPECT_FALSE(lateEntered.load());
  EXPECT_EQ(0u, gate.inside());

  reopen.set_value();
  flusher.join();
  late.join();
  EXPECT_TRUE(lateEntered.load());
  EXPECT_FALSE(gate.isClosed());
  EXPECT_EQ(0u, gate.inside());
  EXPECT_EQ(0u, gate.waiting());
}

TEST(FlushGate, AnOperationInsideEntersAgainWithoutWaitingForAClosingFlush) {
  FlushGate gate;
  std::optional<FlushGate::Pass> outer(gate.enter());
  std::atomic<bool> flushed{false};
  std::thread flusher([&] {
    auto closed = gate.close();
    flushed = true;
  });
  until([&] { return gate.isClosed(); });
  {
    // A copy opening its streams: would deadlock if it waited for the flush.
    auto nested = gate.enter();
    EXPECT_EQ(2u, gate.inside());
    EXPECT_EQ(0u, gate.waiting());
  }
  EXPECT_FALSE(flushed.load()) << "the outer passage is still inside";
  outer.reset();
  flusher.join();
  EXPECT_TRUE(flushed.load());

  // Another thread is not nested: it waits for a closed gate.
  std::promise<void> reopen;
  std::thread second([&] {
    auto closed = gate.close();
    reopen.get_future().wait();
  });
  until([&] { return gate.isClosed(); });
  std::atomic<bool> entered{false};
  std::thread other([&] {
    auto pass = gate.enter();
    entered = true;
  });
  until([&] { return gate.waiting() == 1; });
  EXPECT_FALSE(entered.load());
  reopen.set_value();
  second.join();
  other.join();
  EXPECT_TRUE(entered.load());
}

TEST(FlushGate, TwoFlushesTakeTurnsAndPassagesMovedFromLeaveOnce) {
  FlushGate gate;
  {
    auto pass = gate.enter();
    auto moved = std::move(pass);
    EXPECT_EQ(1u, gate.inside());
  }
  EXPECT_EQ(0u, gate.inside());

  std::promise<void> reopen;
  std::atomic<int> closedBy{0};
  std::thread first([&] {
    auto closed = gate.close();
    closedBy = 1;
    reopen.get_future().wait();
  });
  until([&] { return closedBy.load() == 1; });
  std::thread second([&] {
    auto closed = gate.close();
    closedBy = 2;
  });
  until([&] { return gate.waiting() == 1; });
  EXPECT_EQ(1, closedBy.load()) << "the second flush waits for the first to open the gate";
  reopen.set_value();
  first.join();
  second.join();
  EXPECT_EQ(2, closedBy.load());
  EXPECT_FALSE(gate.isClosed());
}
