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
