// WorkingFileEntry across threads: a read waits for the entry's pending write-behind (and
// no longer than the wait-for-zero period), an abort releases a wait for the open,
// writers and readers share one entry through their own streams, and read-only streams
// come and go while others read. Interleavings are driven by gates, a hand-run executor
// and injected clocks, never by sleeping.
#include "exec/executor_test_support.hpp"
#include "content/working_file_test_support.hpp"

#include <core/exec/BackendExecutor.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

namespace overlay_test {
namespace {

using namespace std::chrono_literals;
using ovl::WorkingFileEntry;
using ovl::WorkingFileEntryParams;

std::string readAt(WorkingFileEntry& entry, long long position, long long count) {
  std::string buffer(static_cast<std::size_t>(count), '\0');
  auto const n = entry.read(position, buffer.data(), count);
  if (n == -1) return "<eof>";
  buffer.resize(static_cast<std::size_t>(n));
  return buffer;
}

class WorkingFileEntryConcurrencyTest : public EntryFixture {
 protected:
  // An entry without disk caching (every read goes to the store) over a hand-run
  // executor, opened for writing, with "0000000000" in the store and "1111111111"
  // written and queued but not yet run; reads wait for pending writes at most `period`.
  std::shared_ptr<WorkingFileEntry> entryWithPendingWrite(
      ovl::EntryTiming timing, std::chrono::milliseconds period = WorkingFileEntryParams::kDefaultWaitForZeroPeriod) {
    store->elsewhere().writeFile(u"/p", "0000000000");
    auto params = WorkingFileEntryParams(64, 64).withDiskCaching(false).withWaitForZeroPeriod(period);
    auto entry = makeEntry(u"/p", params, executor, std::move(timing));
    entry->openReadWrite({});
    EXPECT_TRUE(executor->runNext());  // the open
    entry->write(0, "1111111111", 10);
    EXPECT_TRUE(entry->hasPendingBackgroundIO());
    return entry;
  }

  std::shared_ptr<RecordingExecutor> executor = std::make_shared<RecordingExecutor>();
  ManualClock clock;
};

TEST_F(WorkingFileEntryConcurrencyTest, AReadThatNeedsTheStoreWaitsForPendingWrites) {
  Signal waiting;
  std::vector<std::chrono::steady_clock::time_point> deadlines;
  auto timing = timingOn(clock);
  // Waits for a real notification only; the hand clock never reaches the deadline.
  timing.waitUntil = [&](std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                         std::chrono::steady_clock::time_point deadline) {
    deadlines.push_back(deadline);
    waiting.set();
    cv.wait(lock);
  };
  auto entry = entryWithPendingWrite(timing);

  std::string got;
  std::thread reader([&] { got = readAt(*entry, 0, 10); });
  waiting.wait();
  executor->runAll();  // the payload reaches the store and wakes the reader
  reader.join();

  EXPECT_EQ(got, "1111111111");
  ASSERT_FALSE(deadlines.empty());
  EXPECT_EQ(deadlines.front(), clock.now() + 2000ms);
  EXPECT_FALSE(entry->hasPendingBackgroundIO());
}

TEST_F(WorkingFileEntryConcurrencyTest, AReadWaitsNoLongerThanThePeriod) {
  int waits = 0;
  std::chrono::steady_clock::time_point lastDeadline;
  auto timing = timingOn(clock);
  // Time passes while the read waits: the deadline arrives without a notification.
  timing.waitUntil = [&](std::unique_lock<std::mutex>&, std::condition_variable&,
                         std::chrono::steady_clock::time_point deadline) {
    ++waits;
    lastDeadline = deadline;
    clock.advance(deadline - clock.now());
  };
  auto entry = entryWithPendingWrite(timing, 500ms);

  auto const start = clock.now();
  EXPECT_EQ(readAt(*entry, 0, 10), "0000000000");  // gave up: the payload has not run
  EXPECT_EQ(waits, 1);
  EXPECT_EQ(lastDeadline, start + 500ms);

  executor->runAll();
  EXPECT_EQ(readAt(*entry, 0, 10), "1111111111");
  EXPECT_EQ(waits, 1);  // nothing pending: no wait
}

TEST_F(WorkingFileEntryConcurrencyTest, APeriodOfZeroDoesNotWaitAtAll) {
  int waits = 0;
  ovl::EntryTiming timing;
  timing.now = clock.source();
  timing.waitUntil = [&](std::unique_lock<std::mutex>&, std::condition_variable&, std::chrono::steady_clock::time_point) {
    ++waits;
  };
  auto entry = entryWithPendingWrite(timing, 0ms);

  EXPECT_EQ(readAt(*entry, 0, 10), "0000000000");
  EXPECT_EQ(waits, 0);
  executor->runAll();
  EXPECT_EQ(readAt(*entry, 0, 10), "1111111111");
}

TEST_F(WorkingFileEntryConcurrencyTest, AnAbortReleasesAWaitForTheOpen) {
  store->elsewhere().writeFile(u"/o", "content");
  auto& gate = store->gate(providers::mem::Operation::OpenReadOnlyStream);
  gate.close();
  auto backend = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);
  auto timing = timingOn(clock);  // standing still: the abort is never earlier than the wait
  timing.abortPollInterval = 1ms;
  auto entry = makeEntry(u"/o", WorkingFileEntryParams(64, 64), backend, timing);
  entry->openReadOnly();
  std::string read = "?";
  std::thread reader([&] { read = readAt(*entry, 0, 7); });  // starts the open
  gate.waitForWaiters(1);  // the open transaction is held in the store

  std::optional<fsp::ErrorCode> code;
  std::thread waiter([&] {
    try {
      entry->checkAndOpenIfNecessary();
    } catch (fsp::Exception const& e) {
      code = e.getErrorCode();
    }
  });
  entry->setAbort();
  waiter.join();
  reader.join();
  EXPECT_EQ(code, fsp::ErrorCode::TransientFailure);
  EXPECT_EQ(read, "");  // the read that waited for the open ends short

  gate.open();
  backend->waitForPendingToFinish();
  backend->shutdown(false);
  backend->join();
}

// A reader whose bytes all come from the cache makes no store call: no open, no read, no
// close, while a gate holds every open the store is asked for. The opening for writing
// afterwards gets a stream of its own.
TEST_F(WorkingFileEntryConcurrencyTest, AReaderOfCachedBytesMakesNoStoreCall) {
  store->elsewhere().writeFile(u"/c", "cached content");
  auto backend = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);
  auto entry = makeEntry(u"/c", WorkingFileEntryParams(64, 64), backend, {});
  entry->openReadOnly();
  EXPECT_EQ(readAt(*entry, 0, 14), "cached content");  // fetched once into the cache
  entry->flushContentCache();
  backend->waitForPendingToFinish();

  auto& gate = store->gate(providers::mem::Operation::OpenReadOnlyStream);
  gate.close();
  store->resetCounters();
  entry->openReadOnly();
  EXPECT_EQ(readAt(*entry, 0, 14), "cached content");
  entry->flushContentCache();
  backend->waitForPendingToFinish();
  EXPECT_EQ(gate.totalHeld(), 0u);
  gate.open();
  EXPECT_EQ(store->calls(providers::mem::Operation::OpenReadOnlyStream), 0u);
  EXPECT_EQ(store->calls(providers::mem::Operation::Read), 0u);
  EXPECT_EQ(store->calls(providers::mem::Operation::Close), 0u);

  entry->openReadWrite({});
  entry->write(0, "CACHED", 6);
  entry->flushContentCache();
  backend->waitForPendingToFinish();
  EXPECT_EQ(store->contentOf(u"/c"), "CACHED content");
  backend->shutdown(false);
  backend->join();
}

// Four writers, each through its own stream, fill disjoint quarters of a file in
// shuffled 1000-byte chunks while two readers read random ranges. A reader may see any
// byte either as it was or as written, never anything else; at the end the store holds
// exactly the written file.
TEST_F(WorkingFileEntryConcurrencyTest, WritersAndReadersShareOneEntry) {
  constexpr int kWriters = 4;
  constexpr long long kQuarter = 100000;
  std::string const original = patternBytes(kWriters * kQuarter, 3);
  std::string const written = patternBytes(kWriters * kQuarter, 4);
  store->elsewhere().writeFile(u"/shared", original);
  auto backend = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);
  ovl::EntryTiming timing;
  timing.sleepFor = [](std::chrono::milliseconds) {};
  auto entry = makeEntry(u"/shared", WorkingFileEntryParams(4096, 8192), backend, timing);
  for (int i = 0; i < kWriters; ++i) entry->openReadWrite({});
  for (int i = 0; i < 2; ++i) entry->openReadOnly();  // the readers' streams

  std::atomic<bool> writing{true};
  std::atomic<int> badReads{0};
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      std::vector<long long> chunks;
      for (long long c = 0; c < kQuarter; c += 1000) chunks.push_back(w * kQuarter + c);
      std::shuffle(chunks.begin(), chunks.end(), std::mt19937(static_cast<unsigned>(w)));
      for (long long position : chunks) entry->write(position, written.data() + position, 1000);
      entry->flushContentCache();
    });
  }
  for (int r = 0; r < 2; ++r) {
    threads.emplace_back([&, r] {
      std::mt19937 random(static_cast<unsigned>(100 + r));
      while (writing.load()) {
        long long const position = std::uniform_int_distribution<long long>(0, kWriters * kQuarter - 1)(random);
        long long const count = std::uniform_int_distribution<long long>(1, 5000)(random);
        std::string const got = readAt(*entry, position, count);
        for (std::size_t i = 0; i < got.size(); ++i) {
          auto const at = static_cast<std::size_t>(position) + i;
          if (got[i] != original[at] && got[i] != written[at]) {
            ++badReads;
            break;
          }
        }
      }
      entry->flushContentCache();
    });
  }
  for (int w = 0; w < kWriters; ++w) threads[static_cast<std::size_t>(w)].join();
  writing.store(false);
  for (std::size_t t = kWriters; t < threads.size(); ++t) threads[t].join();
  backend->waitForPendingToFinish();
  backend->shutdown(false);
  backend->join();

  EXPECT_EQ(badReads.load(), 0);
  EXPECT_EQ(entry->getRefCount(), 0);
  EXPECT_FALSE(entry->hasPendingBackgroundIO());
  EXPECT_EQ(storeContent(u"/shared"), written);
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);

  // Read back through a new stream, as a caller would: until the end of the file.
  entry->openReadOnly();
  std::string back;
  for (std::string piece; (piece = readAt(*entry, static_cast<long long>(back.size()), 65536)) != "<eof>";) {
    ASSERT_FALSE(piece.empty()) << "a read delivered nothing at " << back.size();
    back += piece;
  }
  EXPECT_EQ(back, written);
  entry->flushContentCache();
}

// Readers open and close read-only streams on one entry over and over while others
// read; without disk caching every read uses the inner stream, so a stream closed under
// a reader that has just reopened the entry would show as a short read.
TEST_F(WorkingFileEntryConcurrencyTest, ReadOnlyStreamsComeAndGoWhileOthersRead) {
  std::string const content = patternBytes(50000, 9);
  store->elsewhere().writeFile(u"/ro", content);
  auto backend = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);
  auto entry = makeEntry(u"/ro", WorkingFileEntryParams(4096, 4096).withDiskCaching(false), backend);
  // Slower inner reads make the threads' opens and closes overlap more often; nothing
  // here depends on how long anything takes.
  store->setLatency(providers::mem::Operation::Read, 20us);

  std::atomic<int> badReads{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int round = 0; round < 200; ++round) {
        entry->openReadOnly();
        for (int i = 0; i < 3; ++i) {
          long long const position = std::uniform_int_distribution<long long>(0, 49999)(random);
          long long const count = std::uniform_int_distribution<long long>(1, 3000)(random);
          long long const expected = std::min<long long>(count, 50000 - position);
          if (readAt(*entry, position, count) != content.substr(static_cast<std::size_t>(position),
                                                                static_cast<std::size_t>(expected)))
            ++badReads;
        }
        entry->flushContentCache();
      }
    });
  }
  for (auto& thread : threads) thread.join();
  backend->waitForPendingToFinish();
  backend->shutdown(false);
  backend->join();

  EXPECT_EQ(badReads.load(), 0);
  EXPECT_EQ(entry->getRefCount(), 0);
  EXPECT_FALSE(entry->isOpen());
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);
}

TEST_F(WorkingFileEntryConcurrencyTest, AReaderGoingThroughALargeFileGetsPayloadsFetchedAheadAndTheSameBytes) {
  constexpr long long kMiB = 1 << 20;
  constexpr long long kSize = 12 * kMiB;  // past the read-ahead threshold with payloads of 1 MiB
  std::string const content = patternBytes(kSize, 3);
  store->elsewhere().writeFile(u"/large", content);
  auto backend = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);

  // Through to the end: every payload is read from the store once, none more.
  {
    auto entry = makeEntry(u"/large", WorkingFileEntryParams(kMiB, kMiB), backend);
    entry->openReadOnly();
    std::string got;
    for (long long position = 0; position < kSize; position += 256 * 1024) got += readAt(*entry, position, 256 * 1024);
    EXPECT_EQ(got == content, true) << "the bytes read through differ from the store's";
    EXPECT_EQ(store->calls(Operation::Read), 12u);
    entry->flushContentCache();
    EXPECT_EQ(readFile(entry->getCheckoutPath()) == content, true);
  }

  // A reader that stops early leaves at most one payload fetched ahead; a writer that
  // opens the entry meanwhile makes the payload fetched ahead worthless, and readers see
  // its bytes.
  store->resetCounters();
  auto entry = makeEntry(u"/large", WorkingFileEntryParams(kMiB, kMiB), backend);
  entry->openReadOnly();
  Signal readTen;
  Signal written;
  std::string tail;
  std::thread reader([&] {
    for (long long position = 0; position < 10 * kMiB; position += kMiB) {
      if (readAt(*entry, position, kMiB) != content.substr(static_cast<std::size_t>(position), kMiB)) {
        ADD_FAILURE() << "bad bytes at " << position;
      }
    }
    readTen.set();
    written.wait();
    tail = readAt(*entry, 10 * kMiB, 2 * kMiB);
  });
  readTen.wait();
  EXPECT_LE(store->calls(Operation::Read), 11u);
  entry->openReadWrite({});
  entry->write(10 * kMiB + 10, "MARK", 4);
  written.set();
  reader.join();
  std::string expected = content.substr(10 * kMiB);
  expected.replace(10, 4, "MARK");
  EXPECT_EQ(tail.size(), expected.size());
  EXPECT_EQ(tail == expected, true) << "a payload fetched before the write hid it";
  entry->flushContentCache();
  entry->flushContentCache();
  backend->waitForPendingToFinish();
  EXPECT_EQ(storeContent(u"/large").substr(10 * kMiB, 20), expected.substr(0, 20));
  entry.reset();  // a fetch still under way is waited for
  backend->shutdown(false);
  backend->join();
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);
}

}  // namespace
}  // namespace overlay_test
