// The provider's operations over an in-memory inner store: answers from the caches at
// once, checks with their codes and IRIs, the write-behind queue with its retries,
// streams through the content cache and the fallback after a caching failure, quota
// figures and changes made elsewhere.
#include <support/StreamContent.hpp>
#include <support/TempFolder.hpp>
#include <core/provider/OverlayProvider.hpp>

#include "provider/overlay_test_support.hpp"
#include <core/exec/SynchronousExecutor.hpp>

#include "content/working_file_test_support.hpp"

#include <foundation/log/MemorySink.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/Gate.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>


namespace {

using support::readAll;

class OverlayOperationsTest : public overlay_test::OverlayFixture {};

// The refusals every store gives (missing parents, occupied targets, missing items) are
// checked against the overlay by the conformance suite; here: a folder made read-only in
// the store, a name the overlay refuses itself, and refusals that never reach the store.
TEST_F(OverlayOperationsTest, ChecksFailWithTheirCodesNamingTheCallersIRI) {
  store->elsewhere().createFolder(u"/d");
  store->elsewhere().createFolder(u"/locked");
  store->elsewhere().writeFile(u"/d/a.txt", "abc");
  store->elsewhere().setWritable(u"/locked", false);

  EXPECT_EQ(failure([&] { provider->doCreateFile(at(u"/locked/x.txt")); }),
            std::make_pair(ErrorCode::NotWritable, at(u"/locked")));
  EXPECT_EQ(failure([&] { provider->doCreateFolder(at(u"/locked/sub")); }),
            std::make_pair(ErrorCode::NotWritable, at(u"/locked")));
  EXPECT_EQ(failure([&] { provider->doRemoveFile(at(u"/d/none.txt")); }),
            std::make_pair(ErrorCode::DoesNotExist, at(u"/d/none.txt")));
  EXPECT_EQ(failure([&] { provider->doRemoveFolder(at(u"/d")); }), std::make_pair(ErrorCode::FolderNotEmpty, at(u"/d")));
  EXPECT_EQ(failure([&] { provider->doMoveFile(at(u"/d/a.txt"), at(u"/nowhere/a.txt"), fsp::ReplacementPolicy::Never); }),
            std::make_pair(ErrorCode::DoesNotExist, at(u"/nowhere")));
  provider->doCreateFile(at(u"/d/b.txt"));
  EXPECT_EQ(failure([&] { provider->doMoveFile(at(u"/d/a.txt"), at(u"/d/b.txt"), fsp::ReplacementPolicy::Never); }),
            std::make_pair(ErrorCode::AlreadyExists, at(u"/d/b.txt")));
  // IRIs refuse C0 controls already; C1 controls reach the provider's own name check.
  EXPECT_EQ(failure([&] { provider->doOpenStream(at(u"/d/bad\u0085name"), {}); }),
            std::make_pair(ErrorCode::InvalidName, at(u"/d/bad\u0085name")));
  EXPECT_EQ(failure([&] { provider->doOpenStream(at(u"/locked/new.txt"), {}); }),
            std::make_pair(ErrorCode::NotWritable, at(u"/locked")));
  EXPECT_FALSE(provider->doFileExists(at(u"/locked/new.txt"))) << "a refused open leaves no record behind";
  // Nothing of the refused calls reached the store.
  provider->doFlushFilesystem();
  EXPECT_EQ(store->calls(Operation::MoveFile) + store->calls(Operation::RemoveFile) + store->calls(Operation::RemoveFolder), 0u);
}

TEST_F(OverlayOperationsTest, ChangesAreSeenAtOnceAndReachTheStoreInOrder) {
  auto& gate = store->gate(Operation::CreateFolder);
  gate.close();
  provider->doCreateFolder(at(u"/docs"));
  provider->doCreateFile(at(u"/docs/a.txt"));
  write(u"/docs/a.txt", "hello");
  // The caller sees everything while the store has nothing yet.
  EXPECT_TRUE(provider->doFolderExists(at(u"/docs")));
  EXPECT_EQ(provider->doGetFileAttributes(at(u"/docs/a.txt")).getSize(), 5u);
  EXPECT_EQ(read(u"/docs/a.txt"), "hello");
  auto listing = fsp::collect(*provider->doListAll(at(u"/docs")));
  ASSERT_EQ(listing.size(), 1u);
  EXPECT_EQ(listing[0].getName(), u"a.txt");
  EXPECT_FALSE(store->elsewhere().hasFolderAt(u"/docs"));

  gate.open();
  provider->doFlushFilesystem();
  EXPECT_EQ(store->elsewhere().contentOf(u"/docs/a.txt"), "hello");
}

TEST_F(OverlayOperationsTest, TransientFailuresAreRetriedTwiceThenDropped) {
  foundation::log::MemorySink sink;
  store->failNext(Operation::CreateFile, 2, ErrorCode::TransientFailure);
  provider->doCreateFile(at(u"/twice.txt"));
  provider->doFlushFilesystem();
  EXPECT_TRUE(store->elsewhere().hasFileAt(u"/twice.txt"));
  EXPECT_EQ(store->calls(Operation::CreateFile), 3u);

  store->failNext(Operation::CreateFile, 3, ErrorCode::TransientFailure);
  provider->doCreateFile(at(u"/thrice.txt"));
  EXPECT_TRUE(provider->doFileExists(at(u"/thrice.txt")));
  provider->doFlushFilesystem();
  EXPECT_FALSE(store->elsewhere().hasFileAt(u"/thrice.txt"));
  EXPECT_EQ(store->calls(Operation::CreateFile), 6u);

  // Another code ends the task at once; an error that is not the host's is retried too.
  store->failNext(Operation::CreateFile, 1, ErrorCode::NotWritable);
  provider->doCreateFile(at(u"/once.txt"));
  store->failNextUnexpected(Operation::CreateFolder, 3);
  provider->doCreateFolder(at(u"/never"));
  provider->doFlushFilesystem();
  EXPECT_EQ(store->calls(Operation::CreateFile), 7u);
  EXPECT_EQ(store->calls(Operation::CreateFolder), 3u);
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_TRUE(sink.contains("Unexpected exception in createFolder (attempt " + std::to_string(attempt) + ")"));
  }
}

TEST_F(OverlayOperationsTest, AfterShutdownChangesStayInTheCaches) {
  provider->doFolderExists(at(u"/"));
  provider->doShutdown();
  provider->doCreateFile(at(u"/late.txt"));
  EXPECT_TRUE(provider->doFileExists(at(u"/late.txt")));
  EXPECT_EQ(store->calls(Operation::CreateFile), 0u);
}

TEST_F(OverlayOperationsTest, CachedContentIsReadFromLocalDisk) {
  store->elsewhere().writeFile(u"/big.bin", std::string(100000, 'x'));
  EXPECT_EQ(read(u"/big.bin"), std::string(100000, 'x'));
  auto const inner = store->calls(Operation::Read);
  EXPECT_EQ(read(u"/big.bin"), std::string(100000, 'x'));
  EXPECT_EQ(store->calls(Operation::Read), inner);
}

TEST_F(OverlayOperationsTest, AttributeQueriesMakeNoContentEntryAndSeeTheLocalCopyWhileItIsWritten) {
  store->elsewhere().createFolder(u"/d");
  store->elsewhere().writeFile(u"/d/a.txt", "abc");
  store->elsewhere().setLastModified(u"/d/a.txt", boost::posix_time::time_from_string("2001-02-03 04:05:06"));
  auto const attributes = provider->doGetFileAttributes(at(u"/d/a.txt"));
  EXPECT_EQ(attributes.getSize(), 3u);
  EXPECT_EQ(attributes.getLastModified(), boost::posix_time::time_from_string("2001-02-03 04:05:06"));
  EXPECT_TRUE(provider->doFileExists(at(u"/d/a.txt")));
  EXPECT_FALSE(provider->doFileExists(at(u"/d")));
  EXPECT_FALSE(provider->doFileExists(at(u"/d/none.txt")));
  EXPECT_TRUE(provider->contentCache().entryLocations().empty()) << "a query needs no content entry";

  // While a stream writes, the attributes are the local copy's; afterwards as well.
  auto stream = provider->doOpenStream(at(u"/d/a.txt"), {});
  stream->seek(0, std::ios_base::end);
  stream->write("defg", 4);
  EXPECT_EQ(provider->doGetFileAttributes(at(u"/d/a.txt")).getSize(), 7u);
  stream->close();
  EXPECT_EQ(provider->doGetFileAttributes(at(u"/d/a.txt")).getSize(), 7u);
  provider->executor()->waitForPendingToFinish();
  EXPECT_EQ(store->elsewhere().contentOf(u"/d/a.txt"), "abcdefg");

  // Below a folder the overlay removed, nothing exists, whatever the store still holds.
  provider->doRemoveFolderRecursively(at(u"/d"));
  EXPECT_FALSE(provider->doFileExists(at(u"/d/a.txt")));
  EXPECT_EQ(failure([&] { provider->doGetFileAttributes(at(u"/d/a.txt")); }),
            std::make_pair(ErrorCode::DoesNotExist, at(u"/d/a.txt")));
}

TEST_F(OverlayOperationsTest, AfterAFlushTheAttributesOfWrittenFilesAreTheStores) {
  for (auto const* path : {u"/w1.txt", u"/w2.txt", u"/w3.txt"}) write(path, "written");
  provider->doFlushFilesystem();
  for (auto const* path : {u"/w1.txt", u"/w2.txt", u"/w3.txt"}) {
    auto const theirs = StorageItem(store, StorageIRI(store->root(), path)).getExtendedAttributes();
    auto const ours = provider->doGetExtendedAttributes(at(path));
    ASSERT_TRUE(ours.hasAttribute("WATERMARK"));
    EXPECT_EQ(boost::any_cast<std::string>(ours.getAttribute("WATERMARK")),
              boost::any_cast<std::string>(theirs.getAttribute("WATERMARK")));
    EXPECT_EQ(provider->doGetFileAttributes(at(path)).getLastModified(),
              StorageItem(store, StorageIRI(store->root(), path)).getFileAttributes().getLastModified());
  }
}

TEST_F(OverlayOperationsTest, AFlushLeavesOutAttributeReadsOnlyForTheRecordsItDrops) {
  // A hand-run queue: a flush runs every queued transaction while it waits.
  auto executor = std::make_shared<overlay_test::RecordingExecutor>();
  provider = std::make_unique<OverlayProvider>(StorageItem(store, store->root()), executor);
  auto const storeWatermark = [&](std::u16string const& path) {
    auto const attributes = StorageItem(store, StorageIRI(store->root(), path)).getExtendedAttributes();
    return boost::any_cast<std::string>(attributes.getAttribute("WATERMARK"));
  };
  auto const ourWatermark = [&](std::u16string const& path) {
    auto const attributes = provider->doGetExtendedAttributes(at(path));
    return attributes.hasAttribute("WATERMARK") ? boost::any_cast<std::string>(attributes.getAttribute("WATERMARK"))
                                                : std::string("<none>");
  };

  // Dropped: the closes run while the flush waits, and nothing is read back.
  write(u"/a.txt", "a");
  write(u"/b.txt", "b");
  auto reads = store->calls(Operation::GetExtendedAttributes);
  provider->doFlushFilesystem();
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), reads);
  EXPECT_TRUE(provider->metadataCache()->cachedFolders().empty()) << "the caches were dropped";
  EXPECT_EQ(ourWatermark(u"/a.txt"), storeWatermark(u"/a.txt"));

  // Kept, because a stream stays open for writing: the reads left out are made before
  // the flush returns, so the kept records show the store's attributes.
  write(u"/c.txt", "c");
  auto open = provider->doOpenStream(at(u"/d.txt"), {});
  open->write("d", 1);
  reads = store->calls(Operation::GetExtendedAttributes);
  provider->doFlushFilesystem();
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), reads + 1);
  EXPECT_FALSE(provider->metadataCache()->cachedFolders().empty()) << "the caches were kept";
  EXPECT_EQ(ourWatermark(u"/c.txt"), storeWatermark(u"/c.txt"));
  open->close();
  executor->runAll();
  EXPECT_EQ(store->elsewhere().contentOf(u"/d.txt"), "d");
}

TEST_F(OverlayOperationsTest, AFileOpenForWritingCannotBeRemoved) {
  MemoryProvider::Options options;
  options.features = {fsp::ExtendedFeature::RemoveFilesOpenForReading};
  store = std::make_shared<MemoryProvider>(options);
  provider = std::make_unique<OverlayProvider>(StorageItem(store, store->root()));
  auto stream = provider->doOpenStream(at(u"/open.txt"), {});
  stream->write("x", 1);
  EXPECT_EQ(failure([&] { provider->doRemoveFile(at(u"/open.txt")); }), std::make_pair(ErrorCode::InUse, at(u"/open.txt")));
  stream->close();
}

TEST_F(OverlayOperationsTest, ACachingFailureFallsBackToTheStoresOwnStreams) {
  support::TempFolder const scratch("overlay-test-blocker");
  auto const blocker = scratch.path("blocker");
  std::ofstream(blocker) << "a file where the cache root's parent should be";
  boost::property_tree::ptree config;
  config.put("overlay.cacheRoot", (blocker / "cache").string());
  provider->doConfigure(config);
  foundation::log::MemorySink sink;
  write(u"/direct.txt", "straight through");
  EXPECT_TRUE(sink.contains("Caching error when opening stream. Falling back."));
  EXPECT_TRUE(provider->isFallingBack());
  EXPECT_EQ(store->elsewhere().contentOf(u"/direct.txt"), "straight through") << "no queue in between";
  EXPECT_EQ(read(u"/direct.txt"), "straight through");
  std::filesystem::remove(blocker);
}

TEST_F(OverlayOperationsTest, StorageInformationComesFromTheQuotaFigures) {
  MemoryProvider::Options options;
  options.capacity = 100;
  store = std::make_shared<MemoryProvider>(options);
  store->elsewhere().writeFile(u"/a.txt", std::string(70, 'a'));
  provider = std::make_unique<OverlayProvider>(StorageItem(store, store->root()));
  auto const info = provider->doGetProviderStorageInfo(at(u"/"));
  EXPECT_EQ(info.getStorageCapacity(), 100u);
  EXPECT_EQ(info.getSpaceOccupied(), 70u);
}

TEST_F(OverlayOperationsTest, ChangesMadeElsewhereReachTheCaches) {
  store->elsewhere().writeFile(u"/a.txt", "old");
  // Queries do not pause event handling (streams and mutations do, for a while).
  EXPECT_EQ(provider->doGetFileAttributes(at(u"/a.txt")).getSize(), 3u);
  store->elsewhere().writeFile(u"/a.txt", "newer");
  store->elsewhere().writeFile(u"/b.txt", "b");
  store->waitForEventsDelivered();
  provider->executor()->waitForPendingToFinish();
  EXPECT_TRUE(provider->doFileExists(at(u"/b.txt")));
  EXPECT_EQ(provider->doGetFileAttributes(at(u"/a.txt")).getSize(), 5u);
  EXPECT_EQ(read(u"/a.txt"), "newer");
}

}  // namespace

namespace {

TEST_F(OverlayOperationsTest, AWriteBeyondTheQuotaIsRefusedWithCodeEight) {
  MemoryProvider::Options options;
  options.capacity = 100;
  store = std::make_shared<MemoryProvider>(options);
  store->elsewhere().writeFile(u"/a.txt", std::string(40, 'a'));
  provider = std::make_unique<OverlayProvider>(StorageItem(store, store->root()));
  auto stream = provider->doOpenStream(at(u"/b.txt"), {});
  std::string const fits(50, 'b');
  EXPECT_EQ(stream->write(fits.data(), static_cast<long>(fits.size())), 50);
  std::string const tooMuch(20, 'c');
  try {
    stream->write(tooMuch.data(), static_cast<long>(tooMuch.size()));
    ADD_FAILURE() << "the write beyond the quota was accepted";
  } catch (fsp::ByteStreamWriteFailure const& failure) {
    EXPECT_EQ(failure.getErrorCode(), ErrorCode::QuotaExceeded);
  }
  stream->close();
  provider->doFlushFilesystem();
  EXPECT_EQ(store->elsewhere().contentOf(u"/b.txt"), fits) << "what was accepted reached the store";
}

TEST_F(OverlayOperationsTest, TheOverlaysOwnChangesDoNotInvalidateItsCaches) {
  provider = std::make_unique<OverlayProvider>(StorageItem(store, store->root()));
  storage::overlayprovider::OverlayOptions latch;
  latch.eventRobustnessTimeout = std::chrono::milliseconds(600000);
  provider->setEnvironmentOptions(latch);
  provider->doCreateFolder(at(u"/d"));
  write(u"/d/a.txt", "mine");
  // The store's echoes of the overlay's own changes arrive while event handling is
  // paused: they are collected, not acted on.
  provider->executor()->waitForPendingToFinish();
  store->waitForEventsDelivered();
  provider->executor()->waitForPendingToFinish();
  EXPECT_TRUE(provider->metadataCache()->pendingInvalidations().empty());
  EXPECT_FALSE(provider->metadataCache()->cachedFolders().empty());
  auto const listings = store->calls(Operation::ListAll);
  EXPECT_EQ(read(u"/d/a.txt"), "mine");
  EXPECT_TRUE(provider->doFileExists(at(u"/d/a.txt")));
  EXPECT_EQ(store->calls(Operation::ListAll), listings) << "nothing was listed again";
}

}  // namespace

namespace {

TEST_F(OverlayOperationsTest, ACacheFileDeletedBehindTheCachesBackIsFetchedAgain) {
  std::string const content(50000, 'z');
  store->elsewhere().writeFile(u"/f.bin", content);
  EXPECT_EQ(read(u"/f.bin"), content);
  auto const dataDirectory = provider->contentCache().getDataDirectory();
  std::size_t removed = 0;
  for (auto const& file : std::filesystem::directory_iterator(dataDirectory)) {
    removed += std::filesystem::remove(file.path()) ? 1 : 0;
  }
  ASSERT_EQ(removed, 1u);
  EXPECT_EQ(read(u"/f.bin"), content);
}

TEST_F(OverlayOperationsTest, ACacheFileTruncatedBehindTheCachesBackIsFetchedAgain) {
  std::string const content(50000, 'y');
  store->elsewhere().writeFile(u"/g.bin", content);
  EXPECT_EQ(read(u"/g.bin"), content);
  for (auto const& file : std::filesystem::directory_iterator(provider->contentCache().getDataDirectory())) {
    std::filesystem::resize_file(file.path(), 100);
  }
  EXPECT_EQ(read(u"/g.bin"), content);
}

}  // namespace
