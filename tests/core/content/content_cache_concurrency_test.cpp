// ContentCache under many threads: threads that open one location at once share one
// entry, and retrievals, reads, moves, evictions and invalidations from several threads
// at once keep every read correct and the cache's bookkeeping consistent. Run under
// ThreadSanitizer; the arbitrator keeps plain counters, so a call made outside the
// cache's lock shows as a data race.
#include "content/content_cache_test_support.hpp"

#include <core/exec/BackendExecutor.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <algorithm>
#include <latch>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace content_cache_test {
namespace {

using ovl::CachingErrorException;

// Refuses every `n`-th question; counts in plain fields (see above).
class EveryNthRefuses final : public ovl::ICacheSpaceArbitrator {
 public:
  explicit EveryNthRefuses(int n) : n_(n) {}
  bool spaceAvailable(unsigned long) const override { return ++asked_ % n_ != 0; }
  void setItemWasRemoved() override { ++removed_; }

 private:
  int const n_;
  mutable long asked_ = 0;
  long removed_ = 0;
};

class ContentCacheConcurrencyTest : public ContentCacheFixture {};

TEST_F(ContentCacheConcurrencyTest, ThreadsOpeningOneLocationAtOnceShareOneEntry) {
  constexpr int kThreads = 8;
  installArbitrator();
  std::vector<std::shared_ptr<ovl::WorkingFileEntry>> shared(kThreads);
  std::vector<std::shared_ptr<ovl::WorkingFileEntry>> own(kThreads);
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      shared[static_cast<std::size_t>(i)] = retrieve(u"same");
      own[static_cast<std::size_t>(i)] = retrieve(u"own" + std::u16string(1, static_cast<char16_t>(u'0' + i)));
    });
  }
  for (auto& thread : threads) thread.join();

  for (auto const& entry : shared) EXPECT_EQ(entry, shared.front());
  EXPECT_EQ(std::set<std::shared_ptr<ovl::WorkingFileEntry>>(own.begin(), own.end()).size(),
            static_cast<std::size_t>(kThreads));
  EXPECT_EQ(cache.entryLocations().size(), static_cast<std::size_t>(kThreads + 1));
  EXPECT_EQ(figures.asked.size(), static_cast<std::size_t>(kThreads + 1)) << "space asked once per entry made";
}

TEST_F(ContentCacheConcurrencyTest, RetrievalsReadsAndInvalidationsFromManyThreadsKeepEveryReadRight) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 250;
  // Every file holds the same bytes, so that an entry moved from one location to
  // another still describes what the store holds there.
  std::string const content = overlay_test::patternBytes(20000, 9);
  std::vector<std::u16string> const paths = {u"d/a", u"d/b", u"d/sub/c", u"e"};
  store->elsewhere().createFolder(u"/d/sub");
  for (auto const& path : paths) store->elsewhere().writeFile(u"/" + path, content);
  cache.setCacheSpaceArbitrator(std::make_unique<EveryNthRefuses>(7));
  auto backend = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);

  std::atomic<int> wrongReads{0};
  std::atomic<int> refusals{0};
  std::atomic<int> otherFailures{0};
  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(1234 + t));
      auto pick = [&] { return paths[random() % paths.size()]; };
      start.arrive_and_wait();
      for (int round = 0; round < kRounds; ++round) {
        auto const path = pick();
        try {
          switch (random() % 10) {
            case 0:
            case 1:
            case 2:
            case 3: {
              auto entry = cache.retrieveEntry(iri(path), std::make_shared<fsp::StorageItem>(store, iri(path)),
                                               metadataFor(path), backend, nullptr, nullptr,
                                               ovl::WorkingFileEntryParams(4096, 4096), shutdownFlag);
              entry->openReadOnly();
              long long const position = random() % 20000;
              long long const count = 1 + random() % 6000;
              std::string buffer(static_cast<std::size_t>(count), '\0');
              auto const n = entry->read(position, buffer.data(), count);
              // A read may end short (its entry was dropped meanwhile); what it delivers
              // must be the file's bytes.
              auto const delivered = static_cast<std::size_t>(std::max<long long>(n, 0));
              if (n < 0 || buffer.substr(0, delivered) != content.substr(static_cast<std::size_t>(position), delivered)) {
                ++wrongReads;
              }
              entry->flushContentCache();
              break;
            }
            case 4:
              cache.invalidate(iri(path), random() % 2 == 0);
              break;
            case 5:
              cache.invalidateOldEntry(iri(path), "another watermark", random() % 2 == 0);
              break;
            case 6: {
              auto const to = pick();
              if (to != path) cache.moveFile(iri(path), iri(to), metadataFor(to));
              break;
            }
            case 7:
              cache.hasAliveEntry(iri(path), random() % 2 == 0);
              cache.emptyRecycleBin();
              break;
            case 8:
              cache.invalidateAllDescendantsOf(iri(u"d"), random() % 2 == 0);
              break;
            default:
              if (random() % 8 == 0) cache.invalidateAll();
              break;
          }
        } catch (CachingErrorException const& e) {
          // Refused space with nothing left to evict.
          if (std::string(e.what()) == "Caching failed due to an unknown error.") {
            ++refusals;
          } else {
            ++otherFailures;
          }
        } catch (...) {
          ++otherFailures;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  backend->waitForPendingToFinish();

  EXPECT_EQ(wrongReads.load(), 0);
  EXPECT_EQ(otherFailures.load(), 0);
  for (auto const& location : cache.entryLocations()) {
    bool known = false;
    for (auto const& path : paths) known |= location == iri(path);
    EXPECT_TRUE(known) << location;
  }
  // Whatever the interleaving left, one call empties everything.
  cache.invalidateAll();
  EXPECT_TRUE(cache.entryLocations().empty());
  EXPECT_EQ(cache.recycleBinSize(), 0u);
  backend->shutdown(false);
  backend->join();
}

}  // namespace
}  // namespace content_cache_test
