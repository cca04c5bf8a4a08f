// MetadataCache: lookups that load folders on demand, and the overlay's own changes
// (creation, removal, moves and copies of files and folders) applied to the tree at once.
#include "metadata/metadata_test_support.hpp"

#include <core/metadata/MetadataCache.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/Gate.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

using storage::overlayprovider::FileMetadata;
using storage::overlayprovider::FolderMetadata;
using storage::overlayprovider::IFolderEntry;

namespace {

boost::posix_time::ptime at(char const* text) { return boost::posix_time::time_from_string(text); }
boost::posix_time::ptime now() { return boost::posix_time::microsec_clock::universal_time(); }

class MetadataCacheTest : public metadata_test::CacheFixture {
 protected:
  void SetUp() override {
    auto& side = store->elsewhere();
    side.createFolder(u"/d/sub");
    side.writeFile(u"/d/a.txt", "abc");
    side.writeFile(u"/d/b.txt", "12345");
    side.writeFile(u"/d/sub/c.txt", "cc");
    side.setExtendedAttribute(u"/d", "colour", std::string("green"));
    side.createFolder(u"/e");
    side.setLastModified(u"/e", at("2000-01-01 00:00:00"));
    side.writeFile(u"/top.txt", "t");
  }
};

TEST_F(MetadataCacheTest, LookupsLoadEachFolderOnceAndMapEveryIRIToTheInnerMostForm) {
  EXPECT_EQ(cache.getFileMetadata(iri(u"")), nullptr) << "the root is no file";
  auto root = cache.getFolderMetadata(StorageIRI(u"mem://s1/"));
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->getLocation(), iri(u""));

  auto a = cache.getFileMetadata(StorageIRI(u"mem://s1/d/a.txt"));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->getLocation(), iri(u"d/a.txt"));
  EXPECT_EQ(a->getFileSize(), 3u);
  // Overlay and host forms reach the same record.
  EXPECT_EQ(cache.getFileMetadata(StorageIRI(u"overlay", store->root(), u"/d/a.txt")), a);
  EXPECT_EQ(cache.getFileMetadata(iri(u"d/./sub/../a.txt")), a);
  EXPECT_NE(cache.getFolderMetadata(iri(u"d/sub")), nullptr);
  EXPECT_EQ(store->calls(Operation::ListAll), 2u) << "the root and /d, each listed once";

  EXPECT_TRUE(cache.hasFile(iri(u"d/b.txt")));
  EXPECT_FALSE(cache.hasFile(iri(u"d/sub")));
  EXPECT_TRUE(cache.hasFolder(iri(u"d/sub")));
  EXPECT_FALSE(cache.hasFolder(iri(u"d/a.txt")));
  EXPECT_FALSE(cache.hasFile(iri(u"d/missing")));
  // A missing parent (code 4 from the store) is an answer, and nothing is cached for it.
  EXPECT_FALSE(cache.hasFile(iri(u"nowhere/x")));
  EXPECT_FALSE(cache.hasFolder(iri(u"nowhere/x")));
  EXPECT_EQ(cache.getFolderMetadata(iri(u"nowhere/x")), nullptr);
  EXPECT_FALSE(contains(cache.cachedFolders(), iri(u"nowhere")));

  // Any other failure reaches the caller and leaves the tree as it was: the next lookup
  // lists again.
  store->failNext(Operation::ListAll, 1, fsp::ErrorCode::TransientFailure);
  try {
    cache.getFileMetadata(iri(u"e/x"));
    FAIL() << "a transient failure must reach the caller";
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::TransientFailure);
  }
  EXPECT_FALSE(contains(cache.cachedFolders(), iri(u"e")));
  EXPECT_EQ(cache.getFileMetadata(iri(u"e/x")), nullptr);
  EXPECT_TRUE(contains(cache.cachedFolders(), iri(u"e")));
}

TEST_F(MetadataCacheTest, ALocallyCreatedFileIsSeenAtOnceWithItsParentsAttributesAndTime) {
  cache.getFolderMetadata(iri(u"d"));  // root listed
  cache.loadAndGetFolderContainer(iri(u"d"));
  auto const before = now();
  cache.createFileMetadata(StorageIRI(u"mem://s1/d/new.txt"));
  auto const after = now();

  auto created = cache.getFileMetadataFromCache(iri(u"d/new.txt"));
  ASSERT_NE(created, nullptr);
  EXPECT_TRUE(created->isFrozen());
  EXPECT_EQ(created->getFileSize(), 0u);
  EXPECT_TRUE(created->isWritable());
  EXPECT_GE(created->getLastModified(), before);
  EXPECT_LE(created->getLastModified(), after);
  EXPECT_EQ(created->getExtendedAttributes().getString("colour"), "green");
  // Both records of the folder carry the new file's time: its own entry's and the one
  // its parent lists.
  EXPECT_EQ(cache.getFolderContainer(iri(u"d"))->getMetadata()->getLastModified(), created->getLastModified());
  EXPECT_EQ(cache.getFolderMetadataFromCache(iri(u"d"))->getLastModified(), created->getLastModified());
  EXPECT_EQ(cache.getFileMetadata(iri(u"d/new.txt")), created);
  EXPECT_EQ(store->calls(Operation::CreateFile), 0u) << "the inner store is not told";

  // A folder: plain entry of its own, never listed from the store.
  auto const listings = store->calls(Operation::ListAll);
  cache.createFolderMetadata(iri(u"d/newdir"));
  auto folder = cache.getFolderMetadataFromCache(iri(u"d/newdir"));
  ASSERT_NE(folder, nullptr);
  EXPECT_TRUE(folder->isFrozen());
  EXPECT_TRUE(folder->isWritable());
  EXPECT_EQ(folder->getExtendedAttributes().getString("colour"), "green");
  auto entry = cache.loadAndGetFolderContainer(iri(u"d/newdir"));
  EXPECT_EQ(entry->getMetadata(), folder);
  EXPECT_TRUE(entry->empty());
  cache.createFileMetadata(iri(u"d/newdir/inside.txt"));
  EXPECT_TRUE(cache.hasFile(iri(u"d/newdir/inside.txt")));
  EXPECT_EQ(store->calls(Operation::ListAll), listings);

  // In a folder nobody looked at yet, the folder is listed and the file added to it.
  cache.createFileMetadata(iri(u"e/fresh.txt"));
  EXPECT_TRUE(cache.hasFile(iri(u"e/fresh.txt")));
  EXPECT_EQ(cache.loadAndGetFolderContainer(iri(u"e"))->getAllContent().size(), 1u);
}

TEST_F(MetadataCacheTest, FileMovesAndCopiesMakeNewFrozenRecords) {
  auto a = cache.getFileMetadata(iri(u"d/a.txt"));
  auto oldB = cache.getFileMetadata(iri(u"d/b.txt"));
  a->withLastModified(at("2022-02-02 02:02:02"));

  cache.moveFile(iri(u"d/a.txt"), iri(u"d/b.txt"));
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"d/a.txt")), nullptr);
  auto newB = cache.getFileMetadataFromCache(iri(u"d/b.txt"));
  ASSERT_NE(newB, nullptr);
  EXPECT_NE(newB, oldB);
  EXPECT_NE(newB, a);
  EXPECT_TRUE(newB->isFrozen());
  EXPECT_EQ(newB->getFileSize(), 3u);
  EXPECT_EQ(newB->getLastModified(), at("2022-02-02 02:02:02"));
  EXPECT_EQ(newB->getWatermark(), a->getWatermark());

  // A copy into another folder keeps the source.
  cache.copyFile(iri(u"d/b.txt"), iri(u"d/sub/copy.txt"));
  auto copy = cache.getFileMetadataFromCache(iri(u"d/sub/copy.txt"));
  ASSERT_NE(copy, nullptr);
  EXPECT_NE(copy, newB);
  EXPECT_EQ(copy->getFileSize(), 3u);
  EXPECT_TRUE(copy->isFrozen());
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"d/b.txt")), newB);

  // A missing source is reported and changes nothing.
  try {
    cache.moveFile(iri(u"d/gone.txt"), iri(u"d/sub/c.txt"));
    FAIL() << "a missing source must be reported";
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::DoesNotExist);
    EXPECT_EQ(e.getIRI(), iri(u"d/gone.txt"));
  }
  EXPECT_NE(cache.getFileMetadataFromCache(iri(u"d/sub/c.txt")), nullptr);
  EXPECT_EQ(store->calls(Operation::MoveFile) + store->calls(Operation::CopyFile), 0u);
}

class FolderMoveTest : public MetadataCacheTest {
 protected:
  void SetUp() override {
    MetadataCacheTest::SetUp();
    auto& side = store->elsewhere();
    side.createFolder(u"/src/sub/deeper");
    side.writeFile(u"/src/x.txt", "1");
    side.writeFile(u"/src/y.txt", "22");
    side.writeFile(u"/src/sub/z.txt", "333");
    side.writeFile(u"/src/sub/deeper/w.txt", "4444");
    side.createFolder(u"/dst");
    side.writeFile(u"/dst/x.txt", "0123456789");
  }

  void expectSourceGone() {
    for (auto const& key : cache.cachedFolders()) {
      EXPECT_FALSE(key == iri(u"src") || iri(u"src").isAncestorOf(key)) << key;
    }
    EXPECT_EQ(cache.getFolderMetadataFromCache(iri(u"src")), nullptr);
    EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"src/y.txt")), nullptr);
  }
};

TEST_F(FolderMoveTest, KeepExistingKeepsFilesAtTheDestinationAndMovesTheRestDeeply) {
  auto keptX = cache.getFileMetadata(iri(u"dst/x.txt"));
  auto y = cache.getFileMetadata(iri(u"src/y.txt"));
  auto const listings = store->calls(Operation::ListAll);

  cache.moveFolder(iri(u"src"), iri(u"dst"), fsp::ReplacementPolicy::KeepExisting);

  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"dst/x.txt")), keptX);
  EXPECT_EQ(keptX->getFileSize(), 10u);
  // A moved child keeps its record object: its holders see the new location.
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"dst/y.txt")), y);
  EXPECT_EQ(y->getLocation(), iri(u"dst/y.txt"));
  EXPECT_TRUE(y->isFrozen());
  // The uncached sub-folders were listed on the way and moved level by level.
  // src/sub and src/sub/deeper, and the root, which lists /dst, whose time the move sets.
  EXPECT_EQ(store->calls(Operation::ListAll), listings + 3);
  auto z = cache.getFileMetadataFromCache(iri(u"dst/sub/z.txt"));
  auto w = cache.getFileMetadataFromCache(iri(u"dst/sub/deeper/w.txt"));
  ASSERT_NE(z, nullptr);
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(w->getFileSize(), 4u);
  EXPECT_TRUE(w->isFrozen());
  EXPECT_TRUE(cache.getFolderMetadataFromCache(iri(u"dst/sub/deeper"))->isFrozen());
  EXPECT_TRUE(cache.getFolderContainer(iri(u"dst"))->isFrozen());
  expectSourceGone();
  EXPECT_EQ(store->calls(Operation::MoveFolder), 0u);
}

TEST_F(FolderMoveTest, OtherPoliciesReplaceAndANewDestinationIsRegisteredWithItsParent) {
  auto x = cache.getFileMetadata(iri(u"src/x.txt"));
  cache.getFileMetadata(iri(u"dst/x.txt"));
  cache.moveFolder(iri(u"src"), iri(u"dst"), fsp::ReplacementPolicy::Always);
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"dst/x.txt")), x);
  EXPECT_EQ(x->getFileSize(), 1u);
  expectSourceGone();

  // To a destination that does not exist yet: it is registered with its parent, whose
  // records (its own entry's and the one its parent lists) take a moved record's time.
  auto const eBefore = cache.getFolderMetadata(iri(u"e"));
  auto const eStoreTime = eBefore->getLastModified();
  cache.moveFolder(iri(u"dst/sub"), iri(u"e/moved"), fsp::ReplacementPolicy::Never);
  auto moved = cache.getFolderMetadataFromCache(iri(u"e/moved"));
  ASSERT_NE(moved, nullptr);
  EXPECT_TRUE(moved->isFrozen());
  EXPECT_TRUE(cache.hasFile(iri(u"e/moved/deeper/w.txt")));
  EXPECT_TRUE(cache.hasFile(iri(u"e/moved/z.txt")));
  EXPECT_FALSE(cache.hasFolder(iri(u"dst/sub")));
  EXPECT_NE(eBefore->getLastModified(), eStoreTime);
  EXPECT_EQ(cache.getFolderContainer(iri(u"e"))->getMetadata()->getLastModified(), eBefore->getLastModified());
}

TEST_F(MetadataCacheTest, RemovalsTouchOnlyCachedParents) {
  cache.removeFile(iri(u"e/x.txt"));
  cache.removeFolder(iri(u"e/y"));
  EXPECT_TRUE(cache.cachedFolders().empty()) << "nothing is loaded or created for an uncached parent";
  EXPECT_EQ(store->calls(Operation::ListAll), 0u);

  cache.getFolderMetadata(iri(u"d"));      // the root listed
  cache.getFolderMetadata(iri(u"d/sub"));  // /d listed
  ASSERT_NE(cache.getFolderMetadataFromCache(iri(u"d")), nullptr);
  auto const before = now();
  cache.removeFile(iri(u"d/a.txt"));
  EXPECT_EQ(cache.getFileMetadataFromCache(iri(u"d/a.txt")), nullptr);
  EXPECT_GE(cache.getFolderContainer(iri(u"d"))->getMetadata()->getLastModified(), before);
  EXPECT_GE(cache.getFolderMetadataFromCache(iri(u"d"))->getLastModified(), before);

  cache.removeFolder(iri(u"d/sub"));
  EXPECT_FALSE(contains(cache.cachedFolders(), iri(u"d/sub")));
  EXPECT_EQ(cache.getFolderMetadataFromCache(iri(u"d/sub")), nullptr);
  EXPECT_TRUE(contains(cache.cachedFolders(), iri(u"d")));
}

TEST_F(MetadataCacheTest, AFolderThatVanishedOnTheInnerSideIsDroppedWithItsCachedSubTree) {
  store->elsewhere().createFolder(u"/d/sub/deeper");
  cache.loadAndGetFolderContainer(iri(u"d/sub"));
  cache.loadAndGetFolderContainer(iri(u"d/sub/deeper"));
  ASSERT_FALSE(contains(cache.cachedFolders(), iri(u"d")));
  // /d is looked into while its listing is held; meanwhile it goes away elsewhere.
  auto& gate = store->gate(Operation::ListAll);
  gate.close();
  auto pending = cache.getFolderContainer(iri(u"d"));
  ASSERT_TRUE(gate.waitForWaiters(1, std::chrono::seconds(60)));
  store->elsewhere().remove(u"/d");
  gate.open();
  try {
    cache.loadAndGetFolderContainer(iri(u"d"));
    FAIL() << "the vanished folder must be reported";
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::DoesNotExist);
  }
  auto const folders = cache.cachedFolders();
  EXPECT_FALSE(contains(folders, iri(u"d")));
  EXPECT_FALSE(contains(folders, iri(u"d/sub")));
  EXPECT_FALSE(contains(folders, iri(u"d/sub/deeper")));
  EXPECT_FALSE(cache.hasFolder(iri(u"d/sub")));
}

// Keys of an inner store that is itself wrapped (a throttle over a folder of another
// store) keep their wrapped form; the lookups from cached folders work on them too.
TEST_F(MetadataCacheTest, KnownFolderLookupsWorkOnWrappedKeys) {
  auto wrapped = [](std::u16string const& path) { return StorageIRI(u"throttle:<mem:///r>/" + path); };
  ASSERT_EQ(MetadataCache::getInnerMostURL(wrapped(u"d/a.txt")), wrapped(u"d/a.txt"));
  EXPECT_EQ(cache.findFileBelowKnownFolders(wrapped(u"d/a.txt"), false), std::nullopt);

  ASSERT_NE(cache.getFolderMetadata(wrapped(u"d")), nullptr);  // lists the root and /d
  auto const a = cache.getFileMetadata(wrapped(u"d/a.txt"));
  ASSERT_NE(a, nullptr);
  auto const listings = store->calls(Operation::ListAll);
  EXPECT_EQ(cache.findFileBelowKnownFolders(wrapped(u"d/a.txt"), true), a);
  EXPECT_EQ(cache.findFolderBelowKnownFolders(wrapped(u"d"), false), cache.getFolderMetadata(wrapped(u"d")));
  EXPECT_EQ(cache.findFolderBelowKnownFolders(wrapped(u""), false), cache.getFolderMetadata(wrapped(u"")));
  EXPECT_EQ(cache.findFileBelowKnownFolders(wrapped(u"top.txt"), false), cache.getFileMetadata(wrapped(u"top.txt")));
  EXPECT_EQ(cache.findFileBelowKnownFolders(wrapped(u"d/none.txt"), false), std::shared_ptr<FileMetadata>());
  EXPECT_EQ(cache.findFileBelowKnownFolders(wrapped(u"nowhere/x.txt"), false), std::shared_ptr<FileMetadata>());
  EXPECT_EQ(cache.findFileBelowKnownFolders(wrapped(u"d/sub/c.txt"), false), std::nullopt);
  EXPECT_EQ(store->calls(Operation::ListAll), listings) << "answers come from what is cached";
  // The plain keys of the same store are other keys, with folders of their own.
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/a.txt"), false), std::nullopt);
}

TEST_F(MetadataCacheTest, KnownFolderLookupsAnswerAsTheWalkDoesOrLeaveItToTheWalk) {
  auto const ListAll = Operation::ListAll;
  // The walk the provider makes: every folder above known (nearest first, root
  // excluded), then the record itself.
  auto walkFile = [&](StorageIRI const& key) -> std::shared_ptr<FileMetadata> {
    for (auto folder = key.getParent(); folder.hasParent(); folder = folder.getParent()) {
      if (!cache.getFolderMetadata(folder)) return nullptr;
    }
    return cache.getFileMetadata(key);
  };

  // Nothing cached: no answer without listing, and nothing is listed.
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/a.txt"), false), std::nullopt);
  EXPECT_EQ(cache.findFolderBelowKnownFolders(iri(u""), false), std::nullopt);
  EXPECT_EQ(store->calls(ListAll), 0u);

  auto const a = walkFile(iri(u"d/a.txt"));  // lists / and /d
  ASSERT_NE(a, nullptr);
  auto const listings = store->calls(ListAll);
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/a.txt"), false), a);
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/a.txt"), true), a);
  EXPECT_EQ(cache.findFolderBelowKnownFolders(iri(u""), false), cache.getFolderMetadata(iri(u"")));
  EXPECT_EQ(cache.findFolderBelowKnownFolders(iri(u"d"), false), cache.getFolderMetadata(iri(u"d")));
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"top.txt"), false), cache.getFileMetadata(iri(u"top.txt")));
  // Known absences: no such file, a folder asked as a file, an unknown folder on the way.
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/none.txt"), false), std::shared_ptr<FileMetadata>());
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/sub"), false), std::shared_ptr<FileMetadata>());
  EXPECT_EQ(cache.findFolderBelowKnownFolders(iri(u"d/a.txt"), false), std::shared_ptr<FolderMetadata>());
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"nowhere/x.txt"), false), std::shared_ptr<FileMetadata>());
  // The walk would list /nowhere (to learn that /nowhere/deep is not there): left to it.
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"nowhere/deep/x.txt"), false), std::nullopt);
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u""), false), std::shared_ptr<FileMetadata>()) << "the root is no file";
  // A folder whose own listing is not cached is left to the walk.
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/sub/c.txt"), false), std::nullopt);
  EXPECT_EQ(store->calls(ListAll), listings) << "answers come from what is cached";
  // An IRI that is not a plain key is left to the walk too.
  EXPECT_EQ(cache.findFileBelowKnownFolders(StorageIRI(u"overlay:<mem://s1/>/d/a.txt"), false), std::nullopt);

  auto const c = walkFile(iri(u"d/sub/c.txt"));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/sub/c.txt"), false), c);
  // Removed by the overlay: the folder above is no longer known, whatever the inner
  // store still holds.
  cache.removeFolder(iri(u"d/sub"));
  EXPECT_EQ(walkFile(iri(u"d/sub/c.txt")), nullptr);
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/sub/c.txt"), false), std::shared_ptr<FileMetadata>());

  // With invalidations pending, a query that would work them off first is left to the
  // walk; one that would not still answers.
  cache.enqueueInvalidationProcess(iri(u"d/a.txt"));
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/a.txt"), true), std::nullopt);
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"d/a.txt"), false), a);
  EXPECT_TRUE(cache.hasFile(iri(u"d/a.txt")));  // works the invalidation off: /d is listed anew
  auto const relisted = cache.findFileBelowKnownFolders(iri(u"d/a.txt"), true);
  ASSERT_TRUE(relisted.has_value());
  EXPECT_EQ(*relisted, cache.getFileMetadata(iri(u"d/a.txt")));

  // A folder entry still listing is not waited for.
  auto& gate = store->gate(ListAll);
  gate.close();
  auto pending = cache.getFolderContainer(iri(u"e"));
  ASSERT_TRUE(gate.waitForWaiters(1, std::chrono::seconds(60)));
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"e/x.txt"), false), std::nullopt);
  EXPECT_EQ(cache.findFolderBelowKnownFolders(iri(u"e"), false), cache.getFolderMetadata(iri(u"e")))
      << "the record of /e is in the root's listing";
  gate.open();
  // The walk waits for the listing; the lookup after it answers from the built entry.
  auto const walked = walkFile(iri(u"e/x.txt"));
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"e/x.txt"), false), walked);
}

TEST(MetadataCacheCaseTest, CaseInsensitiveLookupFindsTheCachedSpelling) {
  auto store = std::make_shared<MemStore>(metadata_test::caseInsensitive());
  store->elsewhere().createFolder(u"/docs/Inner");
  store->elsewhere().writeFile(u"/docs/readme.txt", "hello");
  auto inner = std::make_shared<StorageItem>(store, store->root());

  MetadataCache cache(inner, false);
  auto lower = cache.loadAndGetFolderContainer(iri(u"docs"));
  EXPECT_EQ(cache.getFolderContainer(iri(u"DOCS")), lower);
  EXPECT_EQ(cache.loadAndGetFolderContainer(iri(u"Docs")), lower);
  auto readme = cache.getFileMetadata(iri(u"DOCS/README.TXT"));
  ASSERT_NE(readme, nullptr);
  EXPECT_EQ(readme->getLocation(), iri(u"docs/readme.txt"));
  EXPECT_TRUE(cache.hasFolder(iri(u"docs/inner")));
  EXPECT_EQ(cache.cachedFolders(), std::vector<StorageIRI>{iri(u"docs")}) << "docs, once";

  // The lookups answered from the cache alone match names the same way.
  cache.getFolderMetadata(iri(u""));
  EXPECT_EQ(cache.findFileBelowKnownFolders(iri(u"DOCS/README.TXT"), true), readme);
  EXPECT_EQ(cache.findFolderBelowKnownFolders(iri(u"Docs/INNER"), false), cache.getFolderMetadata(iri(u"docs/inner")));

  MetadataCache exact(inner, true);
  exact.loadAndGetFolderContainer(iri(u"docs"));
  exact.getFolderMetadata(iri(u""));
  EXPECT_EQ(exact.findFileBelowKnownFolders(iri(u"docs/README.TXT"), false), std::shared_ptr<FileMetadata>());
  EXPECT_NE(exact.findFileBelowKnownFolders(iri(u"docs/readme.txt"), false).value_or(nullptr), nullptr);
  EXPECT_EQ(exact.getFileMetadata(iri(u"docs/README.TXT")), nullptr);
  EXPECT_NE(exact.getFileMetadata(iri(u"docs/readme.txt")), nullptr);
}

}  // namespace
