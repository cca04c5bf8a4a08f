// MetadataCache invalidation: queued invalidations worked off one parent folder per
// operation, frozen records saved before a folder is dropped and put back after it is
// listed again, and thawing.
#include "metadata/metadata_test_support.hpp"

#include <core/metadata/MetadataCache.hpp>

#include <foundation/log/MemorySink.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>


namespace {

class MetadataInvalidationTest : public metadata_test::CacheFixture {
 protected:
  void SetUp() override {
    auto& side = store->elsewhere();
    for (auto folder : {u"/a", u"/b", u"/c", u"/d/sub"}) side.createFolder(folder);
    side.writeFile(u"/d/x.txt", "x");
    side.writeFile(u"/top.txt", "t");
  }

  // Lists the root and /d.
  void loadD() {
    cache.getFolderMetadata(iri(u"d"));
    cache.loadAndGetFolderContainer(iri(u"d"));
  }
};

TEST_F(MetadataInvalidationTest, InvalidatingTheRootEmptiesTheTreeButKeepsTheSnapshot) {
  loadD();
  cache.createFileMetadata(iri(u"d/new.txt"));
  cache.snapshotFrozenMetadata();
  EXPECT_EQ(cache.frozenSnapshot(), std::vector<StorageIRI>{iri(u"d/new.txt")});

  foundation::log::MemorySink sink;
  cache.invalidateFolder(StorageIRI(u"mem://s1/"));
  EXPECT_TRUE(cache.cachedFolders().empty());
  EXPECT_EQ(metadata_test::countRecords(sink, "Invalidating root.", 8), 1u);
  EXPECT_EQ(cache.frozenSnapshot(), std::vector<StorageIRI>{iri(u"d/new.txt")});

  cache.invalidateAll();
  EXPECT_TRUE(cache.frozenSnapshot().empty());
}

TEST_F(MetadataInvalidationTest, InvalidatingAFolderDropsItsCachedDescendantsButAnUncachedOneDropsNothing) {
  cache.loadAndGetFolderContainer(iri(u"d/sub"));
  cache.invalidateFolder(iri(u"d/x.txt"));  // /d is not cached
  EXPECT_EQ(cache.cachedFolders(), std::vector<StorageIRI>{iri(u"d/sub")});

  loadD();
  cache.invalidateFolder(iri(u"d/x.txt"));  // drops /d and /d/sub, keeps the root
  EXPECT_EQ(cache.cachedFolders(), std::vector<StorageIRI>{iri(u"")});
  // The next lookup lists /d again.
  auto const listings = store->calls(Operation::ListAll);
  EXPECT_TRUE(cache.hasFile(iri(u"d/x.txt")));
  EXPECT_EQ(store->calls(Operation::ListAll), listings + 1);
}

TEST_F(MetadataInvalidationTest, PendingInvalidationsAreWorkedOffOneParentPerOperationInIRIOrder) {
  for (auto folder : {u"a", u"b", u"c"}) cache.loadAndGetFolderContainer(iri(folder));
  cache.getFolderMetadata(iri(u"a"));  // the root
  cache.enqueueInvalidationProcess(StorageIRI(u"mem://s1/c/1"));
  cache.enqueueInvalidationProcess(iri(u"a/1"));
  cache.enqueueInvalidationProcess(iri(u"b/1"));
  cache.enqueueInvalidationProcess(iri(u"a/1"));  // a duplicate counts once
  EXPECT_EQ(cache.pendingInvalidations(), (std::vector<StorageIRI>{iri(u"a/1"), iri(u"b/1"), iri(u"c/1")}));
  EXPECT_EQ(cache.cachedFolders().size(), 4u) << "nothing is dropped when queued";

  // Each operation drops exactly one parent, smallest IRI first.
  EXPECT_TRUE(cache.hasFile(iri(u"top.txt")));
  EXPECT_EQ(cache.cachedFolders(), (std::vector<StorageIRI>{iri(u""), iri(u"b"), iri(u"c")}));
  EXPECT_EQ(cache.getSpaceOccupiedByFile(iri(u"top.txt")), 1u);
  EXPECT_EQ(cache.cachedFolders(), (std::vector<StorageIRI>{iri(u""), iri(u"c")}));
  cache.createFileMetadata(iri(u"new.txt"));
  EXPECT_EQ(cache.cachedFolders(), std::vector<StorageIRI>{iri(u"")});
  EXPECT_TRUE(cache.pendingInvalidations().empty());

  // A pending root invalidation is done in the same operation as the next one.
  cache.loadAndGetFolderContainer(iri(u"a"));
  cache.enqueueInvalidationProcess(iri(u""));
  cache.enqueueInvalidationProcess(iri(u"a/1"));
  cache.hasFile(iri(u"zzz/none"));
  EXPECT_TRUE(cache.pendingInvalidations().empty());
  EXPECT_FALSE(contains(cache.cachedFolders(), iri(u"a")));
}

TEST_F(MetadataInvalidationTest, LocallyCreatedFrozenRecordsSurviveAnEventOnTheirFolder) {
  loadD();
  cache.createFileMetadata(iri(u"d/new.txt"));
  cache.createFolderMetadata(iri(u"d/newdir"));
  cache.createFileMetadata(iri(u"d/newdir/inner.txt"));
  auto created = cache.getFileMetadataFromCache(iri(u"d/new.txt"));
  auto existing = cache.getFileMetadataFromCache(iri(u"d/x.txt"));

  foundation::log::MemorySink sink;
  cache.enqueueInvalidationProcess(iri(u"d/x.txt"));  // changed elsewhere
  auto const listings = store->calls(Operation::ListAll);
  auto entry = cache.loadAndGetFolderContainer(iri(u"d"));
  EXPECT_EQ(store->calls(Operation::ListAll), listings + 1) << "the folder was listed again";
  EXPECT_NE(entry->getFileMetadata(iri(u"d/x.txt"), true), existing) << "unfrozen records come fresh from the store";
  EXPECT_EQ(entry->getFileMetadata(iri(u"d/new.txt"), true), created);
  EXPECT_TRUE(created->isFrozen());
  EXPECT_TRUE(entry->hasFolderMetadata(iri(u"d/newdir")));
  EXPECT_TRUE(cache.hasFile(iri(u"d/newdir/inner.txt")));
  EXPECT_TRUE(cache.frozenSnapshot().empty());
  EXPECT_EQ(metadata_test::countRecords(sink, "mem:///d/new.txt is frozen.", 4), 1u);
  EXPECT_EQ(metadata_test::countRecords(sink, "mem:///d/x.txt is not frozen.", 4), 1u);
  EXPECT_EQ(store->calls(Operation::ListAll), listings + 1) << "the local folder is never listed";
}

TEST_F(MetadataInvalidationTest, AThawedRecordIsNotPutBack) {
  loadD();
  cache.createFileMetadata(iri(u"d/early.txt"));
  cache.createFileMetadata(iri(u"d/late.txt"));
  // Thawed while its folder is cached: the record itself is thawed.
  cache.thawFile(iri(u"d/early.txt"));
  EXPECT_FALSE(cache.getFileMetadataFromCache(iri(u"d/early.txt"))->isFrozen());

  cache.enqueueInvalidationProcess(iri(u"d/x.txt"));
  cache.hasFile(iri(u"top.txt"));  // saves the frozen records and drops /d
  EXPECT_EQ(cache.frozenSnapshot(), std::vector<StorageIRI>{iri(u"d/late.txt")});
  // Thawed while its folder is not cached: only its saved copy is forgotten.
  cache.thawFile(iri(u"d/late.txt"));
  EXPECT_TRUE(cache.frozenSnapshot().empty());
  EXPECT_FALSE(contains(cache.cachedFolders(), iri(u"d")));

  auto entry = cache.loadAndGetFolderContainer(iri(u"d"));
  EXPECT_FALSE(entry->hasFileMetadata(iri(u"d/early.txt")));
  EXPECT_FALSE(entry->hasFileMetadata(iri(u"d/late.txt")));
  EXPECT_TRUE(entry->hasFileMetadata(iri(u"d/x.txt")));
}

TEST_F(MetadataInvalidationTest, ThawingAFolderThawsItsSubTreeButForgetsOnlyItsOwnSavedCopy) {
  loadD();
  cache.createFolderMetadata(iri(u"d/n"));
  cache.createFileMetadata(iri(u"d/n/g.txt"));
  cache.snapshotFrozenMetadata();
  EXPECT_EQ(cache.frozenSnapshot(), (std::vector<StorageIRI>{iri(u"d/n"), iri(u"d/n/g.txt")}));

  cache.thawFolder(iri(u"d/n"), true);
  EXPECT_FALSE(cache.getFolderContainer(iri(u"d/n"))->isFrozen());
  EXPECT_FALSE(cache.getFileMetadataFromCache(iri(u"d/n/g.txt"))->isFrozen());
  EXPECT_EQ(cache.frozenSnapshot(), std::vector<StorageIRI>{iri(u"d/n/g.txt")});

  // The next re-add finds the leftover thawed and discards it.
  store->elsewhere().createFolder(u"/d/n");
  cache.enqueueInvalidationProcess(iri(u"d/n/g.txt"));
  auto entry = cache.loadAndGetFolderContainer(iri(u"d/n"));
  EXPECT_TRUE(cache.frozenSnapshot().empty());
  EXPECT_FALSE(entry->hasFileMetadata(iri(u"d/n/g.txt")));

  // Removing a folder forgets the saved copies below it.
  cache.createFolderMetadata(iri(u"d/m"));
  cache.createFileMetadata(iri(u"d/m/h.txt"));
  cache.snapshotFrozenMetadata();
  cache.removeFolder(iri(u"d/m"));
  EXPECT_TRUE(cache.frozenSnapshot().empty());
}

TEST_F(MetadataInvalidationTest, SnapshotAndInvalidateDoesNotAskForARe_add) {
  loadD();
  cache.createFileMetadata(iri(u"d/new.txt"));
  cache.snapshotFrozenMetadataAndInvalidate(iri(u"d/x.txt"));
  EXPECT_FALSE(contains(cache.cachedFolders(), iri(u"d")));
  EXPECT_FALSE(cache.loadAndGetFolderContainer(iri(u"d"))->hasFileMetadata(iri(u"d/new.txt")));
  EXPECT_EQ(cache.frozenSnapshot(), std::vector<StorageIRI>{iri(u"d/new.txt")});
  // The next queued invalidation brings the saved record back.
  cache.enqueueInvalidationProcess(iri(u"a/1"));
  EXPECT_TRUE(cache.getFolderContainer(iri(u"d"))->hasFileMetadata(iri(u"d/new.txt")));
}

TEST_F(MetadataInvalidationTest, ASavedRecordWhoseFolderCannotBeReadIsPutBackAllTheSame) {
  loadD();
  cache.createFileMetadata(iri(u"d/new.txt"));
  auto created = cache.getFileMetadataFromCache(iri(u"d/new.txt"));
  cache.enqueueInvalidationProcess(iri(u"d/x.txt"));
  store->failNext(Operation::ListAll, 1, fsp::ErrorCode::TransientFailure);
  foundation::log::MemorySink sink;
  // The re-add meets the failed listing of /d (the root is cached, so it is the only one).
  cache.getFolderContainer(iri(u""));
  EXPECT_TRUE(sink.contains("Exception caught: "));
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"d/new.txt")), created);
}

}  // namespace
