#include <core/util/PathLocks.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

using foundation::storage::provider::StorageIRI;
using storage::overlayprovider::PathLocks;

namespace {

// Starts `acquire` on another thread and reports whether it has returned.
struct Waiter {
  std::atomic<bool> acquired{false};
  std::promise<void> release;
  std::thread thread;

  template <class Acquire>
  explicit Waiter(Acquire acquire) {
    thread = std::thread([this, acquire] {
      auto guard = acquire();
      acquired = true;
      release.get_future().wait();
    });
  }
  ~Waiter() {
    if (thread.joinable()) thread.join();
  }
};

// True when a thread blocked in `locks` could not have acquired yet: the conflicting
// lock is still held, so the waiter's predicate is false. We check the registry's own
// state instead of waiting for time to pass.
void expectStillBlocked(Waiter const& waiter) { EXPECT_FALSE(waiter.acquired.load()); }

}  // namespace

TEST(PathLocks, AncestorsAndEqualsBlockDescendantsDoNot) {
  PathLocks locks;
  StorageIRI const a(u"mem://s1/a");
  StorageIRI const ab(u"mem://s1/a/b");
  StorageIRI const abc(u"mem://s1/a/b/c");
  StorageIRI const other(u"mem://s1/ab");

  {
    auto held = locks.acquire(ab);
    // A held descendant does not block its ancestor: the test is one-sided.
    auto ancestor = locks.acquire(a);
    EXPECT_TRUE(locks.isHeld(a));
    // A sibling whose name merely starts alike is unrelated.
    auto sibling = locks.acquire(other);
    EXPECT_TRUE(locks.isHeld(other));
  }
  EXPECT_FALSE(locks.isHeld(a));
  EXPECT_FALSE(locks.isHeld(ab));

  auto held = std::make_unique<PathLocks::Guard>(locks.acquire(a));
  Waiter below([&] { return locks.acquire(abc); });
  Waiter same([&] { return locks.acquire(a); });
  expectStillBlocked(below);
  expectStillBlocked(same);
  held.reset();
  // Both get through in some order (a/b/c waits while a is held by `same`, not the other
  // way round); let each go once it holds its path.
  while (!below.acquired && !same.acquired) std::this_thread::yield();
  Waiter* first = below.acquired ? &below : &same;
  Waiter* second = first == &below ? &same : &below;
  first->release.set_value();
  first->thread.join();
  while (!second->acquired) std::this_thread::yield();
  second->release.set_value();
  second->thread.join();
  EXPECT_FALSE(locks.isHeld(a));
  EXPECT_FALSE(locks.isHeld(abc));
}

TEST(PathLocks, PairsAreTakenTogetherSoOppositeMovesDoNotDeadlock) {
  PathLocks locks;
  StorageIRI const x(u"mem://s1/x");
  StorageIRI const y(u"mem://s1/y");
  constexpr int kRounds = 2000;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  auto mover = [&](StorageIRI const& from, StorageIRI const& to) {
    for (int i = 0; i < kRounds; ++i) {
      auto guard = locks.acquirePair(from, to);
      if (inside.fetch_add(1) != 0) overlapped = true;
      inside.fetch_sub(1);
    }
  };
  std::thread t1(mover, x, y);
  std::thread t2(mover, y, x);
  t1.join();
  t2.join();
  EXPECT_FALSE(overlapped.load());
  EXPECT_FALSE(locks.isHeld(x));
  EXPECT_FALSE(locks.isHeld(y));
}

TEST(PathLocks, GuardMovesOwnership) {
  PathLocks locks;
  StorageIRI const a(u"mem://s1/a");
  {
    auto first = locks.acquire(a);
    PathLocks::Guard moved(std::move(first));
    EXPECT_TRUE(locks.isHeld(a));
  }
  EXPECT_FALSE(locks.isHeld(a));
}

TEST(PathLocks, WhoWaitsIsDecidedByTheParentChainWhateverHowManyAreHeld) {
  // Held paths of every shape: plain, wrapped, with query or fragment, with a trailing
  // slash or an empty segment, roots, and names that only start alike.
  // Descendants come before their ancestors, so that taking them never waits.
  std::vector<StorageIRI> const heldShapes = {
      StorageIRI(u"mem://s1/a/b?q=1"),    StorageIRI(u"mem://s1/a"),      StorageIRI(u"mem://s1/ab"),
      StorageIRI(u"mem:///x/y/"),         StorageIRI(u"mem:///p//q"),     StorageIRI(u"overlay:<mem://s1/>/w"),
      StorageIRI(u"mem://s1/c#frag"),     StorageIRI(u"file:///a"),       StorageIRI(u"mem://s2/")};
  std::vector<StorageIRI> const wanted = {
      StorageIRI(u"mem://s1/a"),         StorageIRI(u"mem://s1/a/b"),      StorageIRI(u"mem://s1/a/b/c"),
      StorageIRI(u"mem://s1/a/b?q=1"),   StorageIRI(u"mem://s1/ab/c"),     StorageIRI(u"mem://s1/abc"),
      StorageIRI(u"mem://s1/"),          StorageIRI(u"mem://s2/any/thing"), StorageIRI(u"mem://s2/"),
      StorageIRI(u"mem:///x/y"),         StorageIRI(u"mem:///x/y/z"),      StorageIRI(u"mem:///x/y//z/"),
      StorageIRI(u"mem:///p/q"),         StorageIRI(u"mem:///p/q/r"),      StorageIRI(u"mem:///p//q/r"),
      StorageIRI(u"overlay:<mem://s1/>/w/v"), StorageIRI(u"overlay:<mem://s2/>/w/v"),
      StorageIRI(u"mem://s1/c"),         StorageIRI(u"mem://s1/c/d"),      StorageIRI(u"mem://s1/c#frag"),
      StorageIRI(u"file:///a/b"),        StorageIRI(u"mem://s1/a/b/c?q=2#f"), StorageIRI(u"mem://s3/a/b")};
  // What acquire waits for, by its definition: the IRI itself or a link of its parent
  // chain is held (compared by text).
  auto expected = [](std::multiset<StorageIRI> const& held, StorageIRI const& iri) {
    if (held.count(iri) != 0) return true;
    for (StorageIRI current = iri; current.hasParent();) {
      current = current.getParent();
      if (held.count(current) != 0) return true;
    }
    return false;
  };

  for (std::size_t filler : {0u, 40u}) {  // few held paths, then more than are compared one by one
    PathLocks locks;
    std::multiset<StorageIRI> held;
    std::vector<PathLocks::Guard> guards;
    for (std::size_t i = 0; i < filler; ++i) {
      StorageIRI const other(u"mem://s9/filler" + std::u16string(1, static_cast<char16_t>(u'a' + i % 26)) +
                             std::u16string(i / 26 + 1, u'z'));
      guards.push_back(locks.acquire(other));
      held.insert(other);
    }
    for (auto const& shape : heldShapes) {
      ASSERT_FALSE(expected(held, shape)) << shape;
      ASSERT_FALSE(locks.wouldWait(shape)) << "holding " << held.size() << " paths; wanted " << shape;
      guards.push_back(locks.acquire(shape));
      held.insert(shape);
      for (auto const& iri : wanted) {
        EXPECT_EQ(locks.wouldWait(iri), expected(held, iri))
            << "holding " << held.size() << " paths, the last " << shape << "; wanted " << iri;
      }
    }
    guards.clear();
    for (auto const& iri : wanted) EXPECT_FALSE(locks.wouldWait(iri)) << iri;
  }
}
