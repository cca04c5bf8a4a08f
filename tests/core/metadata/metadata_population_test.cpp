// Whole-tree population of the metadata cache from one recursive listing, and the space
// occupied by cached files and folders.
#include "metadata/metadata_test_support.hpp"

#include <core/metadata/MetadataCache.hpp>

#include <foundation/log/MemorySink.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/Gate.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

using fsp::ExtendedFeature;

namespace {

class MetadataPopulationTest : public metadata_test::CacheFixture {
 protected:
  void SetUp() override {
    auto& side = store->elsewhere();
    side.createFolder(u"/d/sub");
    side.createFolder(u"/e");
    side.writeFile(u"/d/a.txt", "abc");
    side.writeFile(u"/d/b.txt", "12345");
    side.writeFile(u"/d/sub/c.txt", "cc");
    side.writeFile(u"/e/f.txt", "ffff");
    side.writeFile(u"/top.txt", "t");
  }
};

TEST_F(MetadataPopulationTest, WithoutRecursiveListingNothingIsListedOrLoaded) {
  store->setFeatures({ExtendedFeature::ExtendedAttributes});
  cache.populateWholeFolderTreeWhenPossible(false);
  cache.populateWholeFolderTreeWhenPossible(true);
  cache.waitForFuturePopulationToFinish();
  EXPECT_TRUE(cache.cachedFolders().empty());
  EXPECT_EQ(store->calls(Operation::ListAll) + store->calls(Operation::ListAllRecursive), 0u);
}

TEST_F(MetadataPopulationTest, TheRootIsReadyAtReturnAndTheRestArrivesFromOneListing) {
  auto& gate = store->gate(Operation::ListAllRecursive);
  gate.close();
  cache.populateWholeFolderTreeWhenPossible(false);
  // The recursive listing is held, yet the root is there already.
  ASSERT_TRUE(gate.waitForWaiters(1, std::chrono::seconds(60)));
  EXPECT_EQ(cache.cachedFolders(), std::vector<StorageIRI>{iri(u"")});
  EXPECT_NE(cache.getFileMetadataFromCache(iri(u"top.txt")), nullptr);
  gate.open();
  cache.waitForFuturePopulationToFinish();

  EXPECT_EQ(cache.cachedFolders(), (std::vector<StorageIRI>{iri(u""), iri(u"d"), iri(u"d/sub"), iri(u"e")}));
  auto c = cache.getFileMetadataFromCache(iri(u"d/sub/c.txt"));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->getFileSize(), 2u);
  EXPECT_FALSE(c->isFrozen());
  EXPECT_EQ(c->getWatermark(), std::to_string(*store->elsewhere().versionOf(u"/d/sub/c.txt")));
  // Lookups need no further listing.
  EXPECT_TRUE(cache.hasFile(iri(u"e/f.txt")));
  EXPECT_TRUE(cache.hasFolder(iri(u"d/sub")));
  EXPECT_EQ(store->calls(Operation::ListAll), 1u) << "the root only";
  EXPECT_EQ(store->calls(Operation::ListAllRecursive), 1u);
  EXPECT_EQ(store->calls(Operation::GetFileAttributes) + store->calls(Operation::GetExtendedAttributes), 0u);

  // Later waits return at once; a new population is waited for by the explicit wait.
  gate.close();
  cache.populateWholeFolderTreeWhenPossible(false);
  cache.waitForFuturePopulationToFinish();
  gate.open();
  cache.doWaitForFuturePopulationToFinish();
  EXPECT_EQ(store->calls(Operation::ListAllRecursive), 2u);

  // Emptying the cache ends a population; one asked for afterwards runs whole.
  cache.invalidateAll();
  cache.populateWholeFolderTreeWhenPossible(true);
  EXPECT_EQ(cache.cachedFolders(), (std::vector<StorageIRI>{iri(u""), iri(u"d"), iri(u"d/sub"), iri(u"e")}));
}

// The recursive listing runs d, d/a.txt, d/b.txt, d/sub, d/sub/c.txt, e, e/f.txt,
// top.txt; its Descend gate holds it before d/a.txt, d/sub/c.txt and e/f.txt.
class PopulationHeldPartWay : public MetadataPopulationTest {
 protected:
  providers::mem::Gate& descend = store->gate(Operation::ListAllRecursiveDescend);

  // Starts the population of `populated` and lets it run until it is held at its `n`th
  // descent.
  void holdAtDescent(std::size_t n, MetadataCache* populated = nullptr) {
    std::size_t const before = descend.totalHeld();
    descend.close();
    (populated ? *populated : cache).populateWholeFolderTreeWhenPossible(false);
    for (std::size_t held = 1; held <= n; ++held) {
      ASSERT_TRUE(descend.waitForHeldInAll(before + held, std::chrono::seconds(60)));
      if (held < n) descend.release(1);
    }
  }
  std::size_t childrenOf(std::u16string const& path) { return cache.loadAndGetFolderContainer(iri(path))->size(); }
};

TEST_F(PopulationHeldPartWay, AFolderNotYetFilledIsListedOnItsOwnAndAnsweredWhole) {
  holdAtDescent(2);  // d is being filled, up to d/sub; d/sub is being filled, still empty
  EXPECT_EQ(cache.cachedFolders(), std::vector<StorageIRI>{iri(u"")}) << "nothing half-filled is shown";
  EXPECT_EQ(childrenOf(u"d"), 3u);
  EXPECT_EQ(childrenOf(u"d/sub"), 1u);
  EXPECT_TRUE(cache.hasFile(iri(u"d/sub/c.txt")));
  EXPECT_EQ(store->calls(Operation::ListAll), 3u) << "the root, d and d/sub, each on its own";

  descend.open();
  cache.doWaitForFuturePopulationToFinish();
  EXPECT_EQ(cache.cachedFolders(), (std::vector<StorageIRI>{iri(u""), iri(u"d"), iri(u"d/sub"), iri(u"e")}));
  EXPECT_EQ(childrenOf(u"d"), 3u) << "the folder's own listing stays, nothing added twice";
  EXPECT_EQ(childrenOf(u"e"), 1u);
  EXPECT_EQ(store->calls(Operation::ListAll), 3u) << "e came from the population";
}

TEST_F(PopulationHeldPartWay, AFolderFilledBeforeTheRestAnswersAtOnce) {
  holdAtDescent(3);  // the walk has met e, so d and d/sub are complete; e is not
  EXPECT_EQ(cache.cachedFolders(), (std::vector<StorageIRI>{iri(u""), iri(u"d"), iri(u"d/sub")}));
  EXPECT_EQ(childrenOf(u"d"), 3u);
  auto c = cache.getFileMetadata(iri(u"d/sub/c.txt"));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->getFileSize(), 2u);
  EXPECT_EQ(store->calls(Operation::ListAll), 1u) << "the root only";
  EXPECT_EQ(childrenOf(u"e"), 1u) << "e is listed on its own";
  EXPECT_EQ(store->calls(Operation::ListAll), 2u);
  descend.open();
  cache.doWaitForFuturePopulationToFinish();
}

TEST_F(PopulationHeldPartWay, AFolderRemovedOrMovedWhileBeingFilledDoesNotComeBack) {
  holdAtDescent(2);
  cache.removeFolder(iri(u"d"));
  descend.open();
  cache.doWaitForFuturePopulationToFinish();
  EXPECT_EQ(cache.cachedFolders(), (std::vector<StorageIRI>{iri(u""), iri(u"e")}));
  EXPECT_FALSE(cache.hasFolder(iri(u"d")));
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"d/sub/c.txt")), nullptr);

  // A move onto a folder being filled: the store's old content there is not put back.
  MetadataCache moving(inner, true);
  holdAtDescent(2, &moving);  // d and d/sub being filled
  moving.moveFolder(iri(u"e"), iri(u"d"), fsp::ReplacementPolicy::Always);
  descend.open();
  moving.doWaitForFuturePopulationToFinish();
  EXPECT_EQ(moving.loadAndGetFolderContainer(iri(u"d"))->size(), 1u) << "only what e held";
  EXPECT_NE(moving.getFileMetadataFromCache(iri(u"d/f.txt")), nullptr);
  EXPECT_FALSE(contains(moving.cachedFolders(), iri(u"d/sub")));
}

TEST_F(MetadataPopulationTest, AFolderMarkedInitiallyInvalidIsListedOnItsOwn) {
  store->elsewhere().setExtendedAttribute(u"/e", "initiallyInvalid", std::string("1"));
  cache.populateWholeFolderTreeWhenPossible(true);
  EXPECT_TRUE(cache.hasFile(iri(u"e/f.txt")));
  // The root's entry and /e's own listing.
  EXPECT_EQ(store->calls(Operation::ListAll), 2u);
  EXPECT_TRUE(contains(cache.cachedFolders(), iri(u"e")));
  auto e = cache.loadAndGetFolderContainer(iri(u"e"));
  EXPECT_TRUE(e->getMetadata()->getExtendedAttributes().hasAttribute("initiallyInvalid"));
  EXPECT_EQ(e->getAllContent().size(), 1u) << "a child in both listings is held once";
}

TEST_F(MetadataPopulationTest, OneUnreadableEntryIsSkippedAndTheRestIsCached) {
  store->sizeless = true;  // every file's attributes are asked for
  cache.loadAndGetFolderContainer(iri(u""));  // so that only the population asks from here on
  foundation::log::MemorySink sink;
  // The recursive listing names /d before its content: /d/a.txt is the first file.
  store->failNext(Operation::GetFileAttributes, 1, fsp::ErrorCode::TransientFailure);
  cache.populateWholeFolderTreeWhenPossible(true);
  EXPECT_EQ(metadata_test::countRecords(sink, metadata_test::kRecursiveListingFailureText, 512), 1u);
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"d/a.txt")), nullptr);
  for (auto path : {u"d/b.txt", u"d/sub/c.txt", u"e/f.txt", u"top.txt"}) {
    auto record = cache.getFileMetadataFromCache(iri(path));
    ASSERT_NE(record, nullptr) << StorageIRI(iri(path));
    EXPECT_GT(record->getFileSize(), 0u);
  }
  EXPECT_TRUE(contains(cache.cachedFolders(), iri(u"d/sub")));
}

TEST_F(MetadataPopulationTest, AFailedRecursiveListingEmptiesTheCache) {
  foundation::log::MemorySink sink;
  store->failNext(Operation::ListAllRecursive, 1, fsp::ErrorCode::TransientFailure);
  try {
    cache.populateWholeFolderTreeWhenPossible(true);
    FAIL() << "a waiting start must see the failure";
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::TransientFailure);
  }
  EXPECT_EQ(metadata_test::countRecords(sink, "Recursive folder listing failure", 512), 1u);
  EXPECT_TRUE(cache.cachedFolders().empty());

  // Without waiting the failure is swallowed, and the root loaded first is gone again.
  MetadataCache background(inner, true);
  store->failNext(Operation::ListAllRecursive, 1, fsp::ErrorCode::TransientFailure);
  background.populateWholeFolderTreeWhenPossible(false);
  background.waitForFuturePopulationToFinish();
  EXPECT_EQ(metadata_test::countRecords(sink, "Recursive folder listing failure", 512), 2u);
  EXPECT_TRUE(background.cachedFolders().empty());
  EXPECT_TRUE(background.hasFile(iri(u"d/a.txt"))) << "everything loads on demand afterwards";
}

TEST_F(MetadataPopulationTest, SpaceCountsCachedFilesOnly) {
  EXPECT_EQ(cache.getSpaceOccupiedByFolder(iri(u"d")), 0u) << "an uncached folder occupies nothing";
  EXPECT_EQ(cache.getSpaceOccupiedByFile(iri(u"d/missing.txt")), 0u);
  EXPECT_EQ(cache.getSpaceOccupiedByFile(iri(u"d/b.txt")), 5u);
  EXPECT_EQ(cache.getSpaceOccupiedByFolder(iri(u"d")), 8u) << "/d/sub is not cached";
  cache.loadAndGetFolderContainer(iri(u"d/sub"));
  EXPECT_EQ(cache.getSpaceOccupiedByFolder(StorageIRI(u"mem://s1/d")), 10u);
  cache.createFileMetadata(iri(u"d/sub/empty.txt"));
  EXPECT_EQ(cache.getSpaceOccupiedByFolder(iri(u"d")), 10u);
  auto const listings = store->calls(Operation::ListAll);
  EXPECT_EQ(cache.getSpaceOccupiedByFolder(iri(u"e")), 0u);
  EXPECT_EQ(store->calls(Operation::ListAll), listings) << "nothing is loaded for space";

  MetadataCache whole(inner, true);
  whole.populateWholeFolderTreeWhenPossible(true);
  EXPECT_EQ(whole.getSpaceOccupiedByFolder(iri(u"")), 15u);
}

}  // namespace
