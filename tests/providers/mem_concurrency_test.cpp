// The `mem` store under several threads: gates that hold calls, event delivery on the
// store's thread, faults and counters under concurrent calls, and a consistent tree
// after concurrent clients. Every wait here is on a condition; nothing sleeps.
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <support/Counter.hpp>
#include <support/Signal.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace providers::mem;
using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;
using foundation::storage::provider::ByteStreamOpenOptions;
using foundation::storage::provider::collect;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::Exception;
using foundation::storage::provider::ReplacementPolicy;
using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::StorageItem;
using support::Counter;
using support::Signal;

class MemConcurrencyTest : public ::testing::Test {
 protected:
  StorageIRI iri(std::u16string const& path) const { return StorageIRI(store->root(), path); }
  StorageItem item(std::u16string const& path) const { return StorageItem(store, iri(path)); }
  void write(std::u16string const& path, std::string const& content) const {
    ByteStreamOpenOptions options;
    options.truncate = true;
    auto stream = item(path).openStream(options);
    stream->write(content.data(), static_cast<long>(content.size()));
    stream->close();
  }
  std::string read(std::u16string const& path) const {
    auto stream = item(path).openReadOnlyStream();
    std::string content;
    char buffer[64];
    for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) content.append(buffer, static_cast<std::size_t>(n));
    stream->close();
    return content;
  }

  std::shared_ptr<MemoryProvider> store = std::make_shared<MemoryProvider>();
};

TEST_F(MemConcurrencyTest, AClosedGateHoldsItsOperationOnlyAndReleaseLetsOneThrough) {
  Gate& gate = store->gate(Operation::CreateFile);
  gate.close();
  std::thread creator([&] { item(u"/a.txt").createFile(); });
  gate.waitForWaiters(1);

  // The held call has counted itself and changed nothing; the rest of the store answers,
  // so the held call does not hold the tree.
  EXPECT_EQ(store->calls(Operation::CreateFile), 1u);
  EXPECT_FALSE(item(u"/a.txt").fileExists());
  item(u"/folder").createFolder();
  store->elsewhere().writeFile(u"/b.txt", "b");
  EXPECT_EQ(read(u"/b.txt"), "b");
  EXPECT_EQ(collect(*item(u"/").listAll()).size(), 2u);

  gate.release(1);
  creator.join();
  EXPECT_TRUE(store->hasFileAt(u"/a.txt"));
  EXPECT_FALSE(gate.isOpen()) << "release lets calls through; the gate stays closed";

  std::thread second([&] { item(u"/c.txt").createFile(); });
  gate.waitForWaiters(1);
  EXPECT_FALSE(store->hasFileAt(u"/c.txt"));
  gate.open();
  second.join();
  EXPECT_TRUE(store->hasFileAt(u"/c.txt"));
  EXPECT_EQ(gate.totalHeld(), 2u);
}

TEST_F(MemConcurrencyTest, ReleaseLetsExactlyTheGivenNumberOfHeldCallsThrough) {
  Gate& gate = store->gate(Operation::FileExists);
  gate.close();
  Counter done;
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i) {
    callers.emplace_back([&] {
      item(u"/x").fileExists();
      done.add();
    });
  }
  gate.waitForWaiters(3);
  EXPECT_EQ(done.value(), 0);
  gate.release(2);
  done.waitFor(2);
  EXPECT_EQ(gate.waiting(), 1u) << "one call must still be held";
  EXPECT_EQ(done.value(), 2);
  gate.open();
  for (auto& t : callers) t.join();
  EXPECT_EQ(done.value(), 3);

  // A pass handed out before any call arrives is used by the next call.
  gate.close();
  gate.release(1);
  item(u"/x").fileExists();
  EXPECT_EQ(gate.totalHeld(), 3u) << "that call did not wait";
  gate.open();
}

TEST_F(MemConcurrencyTest, AHeldStreamWriteLeavesReadersAndOtherWritersFree) {
  write(u"/f", "");
  store->gate(Operation::Write).close();
  std::thread writer([&] {
    auto stream = item(u"/f").openStream({});
    stream->write("held", 4);
    stream->close();
  });
  store->gate(Operation::Write).waitForWaiters(1);
  EXPECT_EQ(read(u"/f"), "");
  store->elsewhere().writeFile(u"/f", "side");
  EXPECT_EQ(read(u"/f"), "side");
  store->gate(Operation::Write).release(1);
  writer.join();
  EXPECT_EQ(read(u"/f"), "held");
}

TEST_F(MemConcurrencyTest, EventsArriveInChangeOrderOnOneStoreThreadThatMayCallTheStore) {
  std::mutex mutex;  // guards seen and threads
  std::vector<std::string> seen;
  std::set<std::thread::id> threads;
  std::atomic<int> sizeMismatches{0};
  item(u"/").publishFolderEvents(
      [&](Kind const& kind, StorageIRI const&, StorageIRI const& location, EntryType const&, boost::property_tree::ptree) {
        if (kind == Kind::Added) {
          // Calls back into the store: the tree is not locked while a callback runs.
          StorageItem changed(store, location);
          if (!changed.fileExists() || changed.getFileAttributes().getSize() != 0u) ++sizeMismatches;
        }
        std::lock_guard lock(mutex);
        seen.push_back(location.toUtf8());
        threads.insert(std::this_thread::get_id());
      },
      {Kind::Added});

  constexpr int kThreads = 4;
  constexpr int kFiles = 50;
  auto nameOf = [](int thread, int file) {
    return "t" + std::to_string(thread) + "-" + std::to_string(100 + file);  // "t2-107"
  };
  std::vector<std::thread> workers;
  std::set<std::thread::id> workerIds;
  for (int t = 0; t < kThreads; ++t) {
    workers.emplace_back([&, t] {
      for (int i = 0; i < kFiles; ++i) {
        auto const name = nameOf(t, i);
        item(u"/" + std::u16string(name.begin(), name.end())).createFile();
      }
    });
    workerIds.insert(workers.back().get_id());
  }
  for (auto& w : workers) w.join();
  store->waitForEventsDelivered();

  std::lock_guard lock(mutex);
  ASSERT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kFiles));
  EXPECT_EQ(sizeMismatches.load(), 0);
  ASSERT_EQ(threads.size(), 1u) << "one delivery thread per store";
  EXPECT_NE(*threads.begin(), std::this_thread::get_id());
  EXPECT_EQ(workerIds.count(*threads.begin()), 0u);
  // Each worker's files arrive in the order it made them.
  for (int t = 0; t < kThreads; ++t) {
    std::vector<std::string> expected, arrived;
    for (int i = 0; i < kFiles; ++i) expected.push_back("mem://s1/" + nameOf(t, i));
    std::string const prefix = "mem://s1/t" + std::to_string(t) + "-";
    for (auto const& location : seen) {
      if (location.rfind(prefix, 0) == 0) arrived.push_back(location);
    }
    EXPECT_EQ(arrived, expected);
  }
}

TEST_F(MemConcurrencyTest, StoppingEventsFromACallbackOrWhileOneRunsIsSafe) {
  // From the callback itself, on the delivery thread.
  Counter received;
  item(u"/").publishFolderEvents([&](Kind const&, StorageIRI const& subscribed, StorageIRI const&, EntryType const&,
                                     boost::property_tree::ptree) {
    received.add();
    store->doStopPublishingEventsFor(subscribed);
  });
  store->elsewhere().writeFile(u"/one", "1");
  store->elsewhere().writeFile(u"/two", "2");
  store->waitForEventsDelivered();
  EXPECT_EQ(received.value(), 1) << "events queued behind the stop are not delivered";

  // From another thread while the callback runs: the stop returns after the callback.
  Signal entered, release;
  std::atomic<bool> finished{false};
  item(u"/").publishFolderEvents([&](Kind const&, StorageIRI const&, StorageIRI const&, EntryType const&,
                                     boost::property_tree::ptree) {
    entered.set();
    release.wait();
    finished = true;
  });
  store->elsewhere().writeFile(u"/three", "3");
  entered.wait();
  std::atomic<bool> finishedWhenStopReturned{false};
  std::thread stopper([&] {
    item(u"/").stopPublishingFolderEvents();
    finishedWhenStopReturned = finished.load();
  });
  release.set();
  stopper.join();
  EXPECT_TRUE(finishedWhenStopReturned.load());
  store->waitForEventsDelivered();
}

TEST_F(MemConcurrencyTest, ShutdownDeliversWhatIsQueuedBeforeItReturns) {
  Signal entered, release;
  Counter received;
  item(u"/").publishFolderEvents([&](Kind const&, StorageIRI const&, StorageIRI const&, EntryType const&,
                                     boost::property_tree::ptree) {
    entered.set();
    release.wait();
    received.add();
  });
  for (char c = 'a'; c < 'f'; ++c) store->elsewhere().writeFile(std::u16string(u"/") + static_cast<char16_t>(c), "x");
  entered.wait();
  std::atomic<int> receivedWhenShutdownReturned{-1};
  std::thread closer([&] {
    store->doShutdown();
    receivedWhenShutdownReturned = received.value();
  });
  release.set();
  closer.join();
  EXPECT_EQ(receivedWhenShutdownReturned.load(), 5);
}

TEST_F(MemConcurrencyTest, FaultsAndCountersAreExactUnderConcurrentCalls) {
  store->failNext(Operation::FileExists, 50, ErrorCode::TransientFailure);
  std::atomic<int> failures{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 4; ++t) {
    callers.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        try {
          item(u"/x").fileExists();
        } catch (Exception const& e) {
          if (e.getErrorCode() == ErrorCode::TransientFailure) ++failures;
        }
      }
    });
  }
  for (auto& t : callers) t.join();
  EXPECT_EQ(failures.load(), 50);
  EXPECT_EQ(store->calls(Operation::FileExists), 400u);
}

TEST_F(MemConcurrencyTest, ConcurrentClientsLeaveAConsistentTree) {
  constexpr int kClients = 4;
  constexpr int kRounds = 40;
  std::atomic<bool> stop{false};
  // A reader that lists and reads everything while the others change it.
  std::thread reader([&] {
    while (!stop.load()) {
      for (auto const& entry : collect(*item(u"/").listAllRecursive())) {
        if (!entry.isFile()) continue;
        try {
          read(u"/" + entry.getName());
        } catch (Exception const& e) {
          EXPECT_EQ(e.getErrorCode(), ErrorCode::DoesNotExist);  // removed since the listing
        }
      }
    }
  });
  std::thread elsewhere([&] {
    for (int i = 0; i < kRounds; ++i) store->elsewhere().writeFile(u"/shared", std::string(static_cast<std::size_t>(i), 's'));
  });
  std::vector<std::thread> clients;
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      std::u16string const folder = u"/c" + std::u16string(1, static_cast<char16_t>(u'0' + c));
      item(folder).createFolder();
      for (int i = 0; i < kRounds; ++i) {
        write(folder + u"/work", std::string(static_cast<std::size_t>(i + 1), 'w'));
        item(folder + u"/work").copyFile(iri(folder + u"/copy"), ReplacementPolicy::Always);
        item(folder + u"/work").moveFile(iri(folder + u"/kept"), ReplacementPolicy::Always);
        if (i % 2 == 0) item(folder + u"/copy").removeFile();
      }
    });
  }
  for (auto& t : clients) t.join();
  elsewhere.join();
  stop = true;
  reader.join();

  std::map<std::u16string, std::optional<std::string>> expected{{u"/shared", std::string(kRounds - 1, 's')}};
  for (int c = 0; c < kClients; ++c) {
    std::u16string const folder = u"/c" + std::u16string(1, static_cast<char16_t>(u'0' + c));
    expected[folder] = std::nullopt;
    expected[folder + u"/copy"] = std::string(kRounds, 'w');
    expected[folder + u"/kept"] = std::string(kRounds, 'w');
  }
  auto const snapshot = store->snapshot();
  EXPECT_EQ(snapshot, expected);
  unsigned long bytes = 0;
  for (auto const& [path, content] : snapshot) bytes += content ? content->size() : 0;
  EXPECT_EQ(item(u"/").getProviderStorageInfo().getSpaceOccupied(), bytes);
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);
}

}  // namespace
