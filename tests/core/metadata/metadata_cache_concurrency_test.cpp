// The metadata cache under concurrent use: lookups and mutations are not held up by a
// folder listing in progress elsewhere, many threads looking up, creating, moving,
// removing and invalidating at once keep the overlay's own records, and records and
// population are safe to share. Meant to run under ThreadSanitizer.
#include "metadata/metadata_test_support.hpp"

#include <core/metadata/FileMetadata.hpp>
#include <core/metadata/MetadataCache.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/Gate.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

using storage::overlayprovider::FileMetadata;

namespace {

std::u16string u16(std::string const& text) { return std::u16string(text.begin(), text.end()); }

TEST(MetadataCacheConcurrencyTest, AHeldListingHoldsUpNoOneElse) {
  auto store = std::make_shared<MemStore>();
  store->elsewhere().createFolder(u"/d");
  store->elsewhere().createFolder(u"/e");
  store->elsewhere().writeFile(u"/d/a.txt", "abc");
  store->elsewhere().writeFile(u"/e/f.txt", "ffff");
  auto inner = std::make_shared<StorageItem>(store, store->root());
  MetadataCache cache(inner, true);
  cache.getFolderMetadata(iri(u"e"));  // the root
  cache.loadAndGetFolderContainer(iri(u"e"));

  auto& gate = store->gate(Operation::ListAll);
  gate.close();
  std::thread reader([&] { EXPECT_EQ(cache.loadAndGetFolderContainer(iri(u"d"))->getAllContent().size(), 1u); });
  ASSERT_TRUE(gate.waitForWaiters(1, std::chrono::seconds(60)));
  // A mutation in /d waits for /d's listing too, but not under the cache lock.
  std::thread writer([&] { cache.createFileMetadata(iri(u"d/new.txt")); });
  ASSERT_TRUE(gate.waitForWaiters(2, std::chrono::seconds(60)));

  // Meanwhile everything about other folders goes on.
  EXPECT_TRUE(cache.hasFile(iri(u"e/f.txt")));
  EXPECT_TRUE(cache.hasFolder(iri(u"d")));
  cache.createFileMetadata(iri(u"e/g.txt"));
  EXPECT_NE(cache.getFileMetadataFromCache(iri(u"e/g.txt")), nullptr);
  cache.enqueueInvalidationProcess(iri(u"x/y"));
  EXPECT_EQ(cache.getSpaceOccupiedByFolder(iri(u"e")), 4u);
  cache.moveFile(iri(u"e/g.txt"), iri(u"e/h.txt"));
  EXPECT_NE(cache.getFolderContainer(iri(u"e"))->getFileMetadata(iri(u"e/h.txt"), true), nullptr);
  EXPECT_EQ(gate.waiting(), 2u);

  gate.open();
  reader.join();
  writer.join();
  auto created = cache.getFileMetadataFromCache(iri(u"d/new.txt"));
  ASSERT_NE(created, nullptr);
  EXPECT_TRUE(created->isFrozen());
}

TEST(MetadataCacheConcurrencyTest, ManyThreadsKeepTheOverlaysOwnRecordsThroughInvalidations) {
  constexpr int kThreads = 4;
  constexpr int kIterations = 150;
  auto store = std::make_shared<MemStore>();
  for (int t = 0; t < kThreads; ++t) {
    auto const folder = u"/w" + u16(std::to_string(t));
    store->elsewhere().createFolder(folder);
    store->elsewhere().writeFile(folder + u"/base.txt", "b");
  }
  store->elsewhere().writeFile(u"/top.txt", "t");
  auto inner = std::make_shared<StorageItem>(store, store->root());
  MetadataCache cache(inner, true);

  // Per thread: names of its files that must exist at the end, and those that must not.
  std::vector<std::map<std::u16string, bool>> expected(kThreads);
  std::latch start(kThreads + 1);
  auto work = [&](int t) {
    std::mt19937 random(static_cast<unsigned>(t) + 1);
    auto const folder = u"w" + u16(std::to_string(t));
    auto other = [&] { return u"w" + u16(std::to_string(random() % kThreads)); };
    std::vector<std::u16string> mine;
    start.arrive_and_wait();
    for (int i = 0; i < kIterations; ++i) {
      switch (random() % 8) {
        case 0:
        case 1: {
          auto const name = folder + u"/f" + u16(std::to_string(i));
          cache.createFileMetadata(iri(name));
          expected[t][name] = true;
          mine.push_back(name);
          break;
        }
        case 2:
          cache.enqueueInvalidationProcess(iri(other() + u"/base.txt"));
          break;
        case 3:
          EXPECT_TRUE(cache.hasFile(iri(other() + u"/base.txt")));
          break;
        case 4:
          EXPECT_FALSE(cache.loadAndGetFolderContainer(iri(other()))->empty());
          break;
        case 5:
          if (!mine.empty()) {
            auto const name = mine[random() % mine.size()];
            cache.removeFile(iri(name));
            expected[t][name] = false;
          }
          break;
        case 6:
          if (!mine.empty()) {
            auto const name = mine[random() % mine.size()];
            auto const target = name + u".moved";
            try {
              cache.moveFile(iri(name), iri(target));
              expected[t][name] = false;
              expected[t][target] = true;
              mine.push_back(target);
            } catch (fsp::Exception const& e) {
              // Between being saved and put back, a frozen record is not found by a
              // move (nor by a removed one); nothing changed then.
              EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::DoesNotExist);
            }
          }
          break;
        default:
          cache.getSpaceOccupiedByFolder(iri(other()));
          cache.getFolderContainer(iri(other()));
          break;
      }
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(work, t);
  start.arrive_and_wait();
  for (auto& thread : threads) thread.join();

  // Work off what is still pending, then let one more folder access put every saved
  // record back.
  while (!cache.pendingInvalidations().empty()) cache.hasFile(iri(u"top.txt"));
  cache.enqueueInvalidationProcess(iri(u"top.txt"));
  cache.loadAndGetFolderContainer(iri(u""));
  for (int t = 0; t < kThreads; ++t) {
    for (auto const& [name, present] : expected[t]) {
      auto record = cache.getFileMetadataFromCache(iri(name));
      if (present) {
        ASSERT_NE(record, nullptr) << iri(name);
        EXPECT_TRUE(record->isFrozen());
      } else {
        EXPECT_EQ(record, nullptr) << iri(name);
      }
    }
  }
}

TEST(MetadataCacheConcurrencyTest, ConcurrentReadersRunAProducerOnce) {
  std::atomic<int> calls{0};
  FileMetadata record(iri(u"f"), false);
  record.withExtendedAttributes([&calls](std::u16string) {
    ++calls;
    fsp::ExtendedAttributes attributes;
    attributes.setAttribute("WATERMARK", std::string("w1"));
    return attributes;
  });
  constexpr int kReaders = 8;
  std::latch start(kReaders);
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&, i] {
      start.arrive_and_wait();
      if (i % 2 == 0) {
        EXPECT_EQ(record.getWatermark(), "w1");
      } else {
        record.setParentLocation(iri(u"p" + u16(std::to_string(i))));
      }
    });
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(calls.load(), 1);
  EXPECT_EQ(record.getName(), u"f");
}

TEST(MetadataCacheConcurrencyTest, ManyWaitersMeetOnePopulation) {
  auto store = std::make_shared<MemStore>();
  store->elsewhere().createFolder(u"/d");
  store->elsewhere().writeFile(u"/d/a.txt", "abc");
  auto inner = std::make_shared<StorageItem>(store, store->root());
  MetadataCache cache(inner, true);
  auto& gate = store->gate(Operation::ListAllRecursive);
  gate.close();
  cache.populateWholeFolderTreeWhenPossible(false);
  ASSERT_TRUE(gate.waitForWaiters(1, std::chrono::seconds(60)));
  std::vector<std::thread> waiters;
  for (int i = 0; i < 4; ++i) {
    waiters.emplace_back([&] {
      cache.waitForFuturePopulationToFinish();
      EXPECT_NE(cache.getFileMetadataFromCache(iri(u"d/a.txt")), nullptr);
    });
  }
  gate.open();
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(store->calls(Operation::ListAllRecursive), 1u);
}

// Readers that look into folders while the population fills the tree, and a writer that
// adds and removes files meanwhile: every answer is a whole folder, never a half-filled
// one, and nothing the writer did is undone by the population.
TEST(MetadataCacheConcurrencyTest, ReadersDuringPopulationSeeWholeFoldersAndWritesStay) {
  constexpr int kFolders = 24;
  constexpr int kFiles = 40;
  auto store = std::make_shared<MemStore>();
  for (int f = 0; f < kFolders; ++f) {
    auto const folder = u"/f" + std::u16string(1, static_cast<char16_t>(u'a' + f));
    store->elsewhere().createFolder(folder);
    for (int i = 0; i < kFiles; ++i) store->elsewhere().writeFile(folder + u"/" + std::u16string(1, static_cast<char16_t>(u'A' + i)), "x");
  }
  auto inner = std::make_shared<StorageItem>(store, store->root());
  MetadataCache cache(inner, true);
  auto folderIri = [](int f) { return iri(u"f" + std::u16string(1, static_cast<char16_t>(u'a' + f))); };
  cache.populateWholeFolderTreeWhenPossible(false);
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&, r] {
      for (int f = r; f < kFolders; f += 3) {
        auto const size = cache.loadAndGetFolderContainer(folderIri(f))->size();
        if (f < kFolders - 4) {
          EXPECT_EQ(size, static_cast<std::size_t>(kFiles)) << f;
        } else {  // the writer's folders: one file more between its create and its remove
          EXPECT_GE(size, static_cast<std::size_t>(kFiles)) << f;
          EXPECT_LE(size, static_cast<std::size_t>(kFiles + 1)) << f;
        }
      }
    });
  }
  // The writer works in the last folders, where the walk arrives last.
  std::thread writer([&] {
    for (int f = kFolders - 4; f < kFolders; ++f) {
      cache.createFileMetadata(StorageIRI(folderIri(f), u"new"));
      cache.removeFile(StorageIRI(folderIri(f), u"A"));
    }
  });
  for (auto& reader : readers) reader.join();
  writer.join();
  cache.doWaitForFuturePopulationToFinish();
  for (int f = kFolders - 4; f < kFolders; ++f) {
    EXPECT_TRUE(cache.hasFile(StorageIRI(folderIri(f), u"new")));
    EXPECT_FALSE(cache.hasFile(StorageIRI(folderIri(f), u"A")));
    EXPECT_EQ(cache.loadAndGetFolderContainer(folderIri(f))->size(), static_cast<std::size_t>(kFiles));
  }
}

}  // namespace
