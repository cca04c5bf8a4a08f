// Folder entries: type-checked and case-insensitive lookup, adding and removing children
// with the folder's timestamp, and entries filled by a background listing of the store.
#include "metadata/metadata_test_support.hpp"

#include <core/metadata/FutureFolderEntry.hpp>
#include <core/metadata/IFolderEntry.hpp>

#include <foundation/log/MemorySink.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/Gate.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using metadata_test::MemStore;
using providers::mem::Operation;
using storage::overlayprovider::AddFileOrFolderVisitor;
using storage::overlayprovider::FileMetadata;
using storage::overlayprovider::FileOrFolderMetadata;
using storage::overlayprovider::FolderMetadata;
using storage::overlayprovider::FutureFolderEntry;
using storage::overlayprovider::IFolderEntry;
using CheckType = IFolderEntry::CheckType;

namespace {

boost::posix_time::ptime at(char const* text) { return boost::posix_time::time_from_string(text); }
boost::posix_time::ptime now() { return boost::posix_time::microsec_clock::universal_time(); }

std::shared_ptr<FileMetadata> file(std::u16string const& iri, char const* time = "2020-01-01 00:00:00") {
  auto record = std::make_shared<FileMetadata>(StorageIRI(iri), false);
  record->withSize(1).withLastModified(at(time));
  return record;
}

std::shared_ptr<FolderMetadata> folder(std::u16string const& iri, char const* time = "2020-01-01 00:00:00") {
  auto record = std::make_shared<FolderMetadata>(StorageIRI(iri), false);
  record->withLastModified(at(time));
  return record;
}

// A plain entry for mem:///d holding the file "a.txt" and the folder "sub".
std::shared_ptr<IFolderEntry> plainEntry() {
  auto entry = std::make_shared<IFolderEntry>(StorageIRI(u"mem:///d"));
  entry->withMetadata(folder(u"mem:///d"));
  entry->addFileMetadata(file(u"mem:///d/a.txt"), false);
  entry->addFolderMetadata(folder(u"mem:///d/sub"), false);
  return entry;
}

TEST(FolderEntryTest, LookupAcceptsOnlyTheKindAsked) {
  auto entry = plainEntry();
  StorageIRI const a(u"mem:///d/a.txt");
  StorageIRI const sub(u"mem:///d/sub");

  EXPECT_NE(entry->getFileMetadata(a, true), nullptr);
  EXPECT_EQ(entry->getFolderMetadata(a, true), nullptr);
  EXPECT_EQ(entry->getFileMetadata(sub, true), nullptr);
  EXPECT_NE(entry->getFolderMetadata(sub, true), nullptr);
  EXPECT_NE(entry->getIteratorForFileOrFolderPath(sub, CheckType::ANY, true), entry->end());
  EXPECT_NE(entry->getIteratorForFileOrFolderPath(a, CheckType::ANY, true), entry->end());
  EXPECT_EQ(entry->getIteratorForFileOrFolderPath(sub, CheckType::FILE, true), entry->end());
  // Any value other than FILE and ANY accepts folders only.
  EXPECT_NE(entry->getIteratorForFileOrFolderPath(sub, static_cast<CheckType>(7), true), entry->end());
  EXPECT_EQ(entry->getIteratorForFileOrFolderPath(a, static_cast<CheckType>(7), true), entry->end());
  EXPECT_TRUE(entry->hasFileMetadata(a));
  EXPECT_FALSE(entry->hasFolderMetadata(a));
  EXPECT_TRUE(entry->hasFolderMetadata(sub));
  EXPECT_EQ(entry->getFileMetadata(StorageIRI(u"mem:///d/missing"), false), nullptr);
  EXPECT_FALSE(entry->empty());
  EXPECT_EQ(entry->getAllContent().size(), 2u);
}

TEST(FolderEntryTest, CaseInsensitiveLookupMatchesByLowerCaseHash) {
  auto entry = plainEntry();
  StorageIRI const upper(u"mem:///D/A.TXT");
  EXPECT_EQ(entry->getFileMetadata(upper, true), nullptr);
  auto found = entry->getFileMetadata(upper, false);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->getLocation(), StorageIRI(u"mem:///d/a.txt"));
  EXPECT_FALSE(entry->hasFileMetadata(upper)) << "the presence tests are case-sensitive";
  entry->removeFileMetadata(upper, true);
  EXPECT_EQ(entry->getAllContent().size(), 2u);
  entry->removeFileMetadata(upper, false);
  EXPECT_EQ(entry->getAllContent().size(), 1u);
  // The hash itself (long names, full Unicode lower-casing) is checked in
  // location_index_test.
}

TEST(FolderEntryTest, AddingKeepsAnExistingChildButMovesTheTimestamp) {
  auto entry = plainEntry();
  auto metadata = entry->getMetadata();
  auto original = entry->getFileMetadata(StorageIRI(u"mem:///d/a.txt"), true);

  entry->addFileMetadata(file(u"mem:///d/a.txt", "2024-06-01 10:00:00"), true);
  EXPECT_EQ(entry->getFileMetadata(StorageIRI(u"mem:///d/a.txt"), true), original);
  EXPECT_EQ(metadata->getLastModified(), at("2024-06-01 10:00:00"));

  entry->addFolderMetadata(folder(u"mem:///d/new", "2024-07-01 00:00:00"), false);
  EXPECT_EQ(metadata->getLastModified(), at("2024-06-01 10:00:00")) << "without the flag the time stays";
  EXPECT_TRUE(entry->hasFolderMetadata(StorageIRI(u"mem:///d/new")));

  // The visitor adds either kind with the timestamp update.
  FileOrFolderMetadata const child = file(u"mem:///d/v.txt", "2025-01-01 00:00:00");
  std::visit(AddFileOrFolderVisitor(*entry), child);
  EXPECT_TRUE(entry->hasFileMetadata(StorageIRI(u"mem:///d/v.txt")));
  EXPECT_EQ(metadata->getLastModified(), at("2025-01-01 00:00:00"));
}

TEST(FolderEntryTest, RemovingStampsTheFolderOnlyWhenSomethingWentAway) {
  auto entry = plainEntry();
  auto metadata = entry->getMetadata();
  entry->removeFileMetadata(StorageIRI(u"mem:///d/missing"), true);
  entry->removeFolderMetadata(StorageIRI(u"mem:///d/a.txt"), true);  // a file, not a folder
  EXPECT_EQ(metadata->getLastModified(), at("2020-01-01 00:00:00"));
  EXPECT_TRUE(entry->hasFileMetadata(StorageIRI(u"mem:///d/a.txt")));

  auto const before = now();
  entry->removeFolderMetadata(StorageIRI(u"mem:///d/sub"), true);
  auto const after = now();
  EXPECT_FALSE(entry->hasFolderMetadata(StorageIRI(u"mem:///d/sub")));
  EXPECT_GE(metadata->getLastModified(), before);
  EXPECT_LE(metadata->getLastModified(), after);

  // Freezing and thawing forward to the folder's own record.
  EXPECT_FALSE(entry->isFrozen());
  metadata->freeze();
  EXPECT_TRUE(entry->isFrozen());
  entry->thaw();
  EXPECT_FALSE(metadata->isFrozen());
  IFolderEntry bare(StorageIRI(u"mem:///bare"));
  EXPECT_FALSE(bare.isFrozen());
  bare.thaw();
  EXPECT_EQ(bare.getMetadata(), nullptr);
}

class FutureFolderEntryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store->elsewhere().createFolder(u"/d/sub");
    store->elsewhere().writeFile(u"/d/a.txt", "abc");
    store->elsewhere().writeFile(u"/d/b.txt", "12345");
    store->elsewhere().setExtendedAttribute(u"/d/b.txt", "colour", std::string("blue"));
    store->elsewhere().setLastModified(u"/d", at("2019-03-04 05:06:07"));
    store->elsewhere().setWritable(u"/d/a.txt", false);
  }

  std::shared_ptr<MemStore> store = std::make_shared<MemStore>();
  std::shared_ptr<StorageItem> inner = std::make_shared<StorageItem>(store, store->root());
  StorageIRI const d{u"mem:///d"};
};

TEST_F(FutureFolderEntryTest, ListsTheFolderWithAttributesFromTheListing) {
  FutureFolderEntry entry(d, inner);
  auto metadata = entry.getMetadata();
  ASSERT_NE(metadata, nullptr);
  EXPECT_EQ(metadata->getLocation(), d);
  EXPECT_EQ(metadata->getLastModified(), at("2019-03-04 05:06:07"));
  EXPECT_FALSE(metadata->isFrozen());

  auto content = entry.getAllContent();
  ASSERT_EQ(content.size(), 3u);
  auto a = entry.getFileMetadata(StorageIRI(u"mem:///d/a.txt"), true);
  auto b = entry.getFileMetadata(StorageIRI(u"mem:///d/b.txt"), true);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(a->getFileSize(), 3u);
  EXPECT_FALSE(a->isWritable());
  EXPECT_EQ(b->getFileSize(), 5u);
  EXPECT_TRUE(b->isWritable());
  EXPECT_TRUE(entry.hasFolderMetadata(StorageIRI(u"mem:///d/sub")));
  // The listing carried the attributes: no per-file query.
  EXPECT_EQ(b->getExtendedAttributes().getString("colour"), "blue");
  EXPECT_EQ(b->getWatermark(), std::to_string(*store->elsewhere().versionOf(u"/d/b.txt")));
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 0u);
  EXPECT_EQ(store->calls(Operation::GetFileAttributes), 0u);
  EXPECT_EQ(store->calls(Operation::ListAll), 1u);
  // The folder's own attributes are produced on first read, once.
  metadata->getExtendedAttributes();
  metadata->getExtendedAttributes();
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 1u);
}

TEST_F(FutureFolderEntryTest, AttributesMissingFromTheListingAreProducedLazilyAndFailuresGiveEmptyAttributes) {
  store->setFeatures({});
  store->sizeless = true;
  FutureFolderEntry entry(d, inner);
  auto b = entry.getFileMetadata(StorageIRI(u"mem:///d/b.txt"), true);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->getFileSize(), 5u) << "the size comes from the file's own attributes";
  EXPECT_EQ(store->calls(Operation::GetFileAttributes), 2u);
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 0u);
  EXPECT_EQ(b->getExtendedAttributes().getString("colour"), "blue");
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 1u);

  foundation::log::MemorySink sink;
  store->failNext(Operation::GetExtendedAttributes, 2, fsp::ErrorCode::TransientFailure);
  auto a = entry.getFileMetadata(StorageIRI(u"mem:///d/a.txt"), true);
  EXPECT_TRUE(a->getExtendedAttributes().empty());
  EXPECT_TRUE(entry.getMetadata()->getExtendedAttributes().empty());
  EXPECT_EQ(metadata_test::countRecords(sink, "Problem retrieving extended attributes (file)", 4), 1u);
  EXPECT_EQ(metadata_test::countRecords(sink, "Problem retrieving extended attributes (folder)", 4), 1u);
  EXPECT_TRUE(sink.contains("Exception caught: "));
  EXPECT_EQ(sink.count(16), 2u);
}

TEST_F(FutureFolderEntryTest, OneUnreadableChildIsSkippedAndLogged) {
  store->sizeless = true;
  store->failNext(Operation::GetFileAttributes, 1, fsp::ErrorCode::TransientFailure);
  foundation::log::MemorySink sink;
  FutureFolderEntry entry(d, inner);
  auto content = entry.getAllContent();
  EXPECT_EQ(content.size(), 2u);
  // Files are asked in listing order: the first one failed.
  EXPECT_FALSE(entry.hasFileMetadata(StorageIRI(u"mem:///d/a.txt")));
  EXPECT_TRUE(entry.hasFileMetadata(StorageIRI(u"mem:///d/b.txt")));
  EXPECT_TRUE(entry.hasFolderMetadata(StorageIRI(u"mem:///d/sub")));
  EXPECT_EQ(metadata_test::countRecords(sink, metadata_test::kListingFailureText, 512), 1u);
}

TEST_F(FutureFolderEntryTest, AFailedListingReachesTheFirstReaderOnly) {
  store->failNext(Operation::ListAll, 1, fsp::ErrorCode::TransientFailure);
  FutureFolderEntry entry(d, inner);
  try {
    entry.getMetadata();
    FAIL() << "the first reader must see the listing's failure";
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::TransientFailure);
  }
  // Later readers see what the listing left: the folder's record, no children.
  EXPECT_NE(entry.getMetadata(), nullptr);
  EXPECT_TRUE(entry.empty());

  FutureFolderEntry missing(StorageIRI(u"mem:///nowhere"), inner);
  EXPECT_FALSE(missing.awaitListing());
  EXPECT_FALSE(missing.isBuilt()) << "waiting does not consume the failure";
  try {
    missing.getAllContent();
    FAIL() << "a missing folder must be reported";
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::DoesNotExist);
  }
  EXPECT_TRUE(missing.isBuilt());
  EXPECT_EQ(missing.getMetadata(), nullptr);
}

TEST_F(FutureFolderEntryTest, AGivenRecordWinsOverTheListingWhicheverComesFirst) {
  auto given = folder(u"mem:///d", "2001-01-01 00:00:00");

  // Given while the listing has not read the folder's attributes yet.
  auto& attributesGate = store->gate(Operation::GetFolderAttributes);
  attributesGate.close();
  FutureFolderEntry early(d, inner);
  attributesGate.waitForWaiters(1);
  early.withMetadata(given);  // does not wait for the listing
  EXPECT_FALSE(early.isBuilt());
  attributesGate.open();
  EXPECT_EQ(early.getMetadata(), given);
  EXPECT_EQ(early.getAllContent().size(), 3u);

  // Given while the listing is held after it stored its own record.
  auto& listGate = store->gate(Operation::ListAll);
  listGate.close();
  FutureFolderEntry late(d, inner);
  listGate.waitForWaiters(1);
  auto listed = late.peekMetadata();
  ASSERT_NE(listed, nullptr);
  EXPECT_EQ(listed->getLastModified(), at("2019-03-04 05:06:07"));
  late.withMetadata(given);
  listGate.open();
  EXPECT_EQ(late.getMetadata(), given);
}

TEST_F(FutureFolderEntryTest, DestroyingAnEntryWaitsForItsListing) {
  auto& gate = store->gate(Operation::ListAll);
  gate.close();
  auto entry = std::make_unique<FutureFolderEntry>(d, inner);
  gate.waitForWaiters(1);
  std::thread destroyer([&entry] { entry.reset(); });
  gate.open();
  destroyer.join();
  EXPECT_EQ(entry, nullptr);
  EXPECT_EQ(store->calls(Operation::ListAll), 1u);
}

}  // namespace
