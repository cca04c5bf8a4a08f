// The event listener: which invalidations each event queues, collecting while paused,
// replay order, debouncing of folder changes, the immediate root refresh, and stopping.
#include <core/content/ContentCache.hpp>
#include <core/events/EventListener.hpp>
#include <core/metadata/MetadataCache.hpp>

#include "exec/executor_test_support.hpp"

#include <foundation/log/MemorySink.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <gtest/gtest.h>

#include <filesystem>

#include <mutex>
#include <string>
#include <vector>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using Kind = foundation::storage::events::Kind;
using EntryType = foundation::storage::events::EntryType;
using overlay_test::RecordingExecutor;
using providers::mem::MemoryProvider;
using providers::mem::Operation;
using storage::overlayprovider::ContentCache;
using storage::overlayprovider::EventListener;
using storage::overlayprovider::IQuotaAccountant;
using storage::overlayprovider::MetadataCache;
using storage::overlayprovider::ObservableTransactionType;
using storage::overlayprovider::OwnChanges;
using storage::overlayprovider::Touches;

namespace {

// Records what the listener gives back, as "file <iri>" or "tree <iri>".
class RecordingQuota final : public IQuotaAccountant {
 public:
  std::optional<std::uint64_t> getSpaceAvailable() const override { return std::nullopt; }
  std::optional<std::uint64_t> getTotalCapacity() const override { return std::nullopt; }
  void shutdown() override {}
  void removeFile(StorageIRI const& iri) override { record("file " + iri.toUtf8()); }
  void removeFolderTree(StorageIRI const& iri) override { record("tree " + iri.toUtf8()); }
  void addFolderTree(StorageIRI const&) override {}
  void addBytesWritten(std::size_t) override {}

  std::vector<std::string> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  void record(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  mutable std::mutex mutex_;  // guards calls_
  std::vector<std::string> calls_;
};

class EventListenerTest : public ::testing::Test {
 protected:
  StorageIRI iri(std::u16string const& path) const { return store->root().withPath(path); }
  std::string text(std::u16string const& path) const { return iri(path).toUtf8(); }

  std::unique_ptr<EventListener> makeListener(EventListener::Options options = {}) {
    return std::make_unique<EventListener>(*inner, metadata, content, queue, quota, std::move(options));
  }

  // The content cache makes its root on first use; nothing else removes it.
  ~EventListenerTest() override {
    std::error_code ignored;
    std::filesystem::remove_all(content.getCacheRoot(), ignored);
  }

  std::shared_ptr<MemoryProvider> store = std::make_shared<MemoryProvider>();
  std::shared_ptr<StorageItem> inner = std::make_shared<StorageItem>(store, store->root());
  MetadataCache metadata{inner, true};
  ContentCache content;
  // Keeps the queued tasks until the test runs them, so the test decides what has run.
  std::shared_ptr<RecordingExecutor> queue = std::make_shared<RecordingExecutor>();
  std::shared_ptr<RecordingQuota> quota = std::make_shared<RecordingQuota>();
};

TEST_F(EventListenerTest, EachEventQueuesItsInvalidation) {
  auto listener = makeListener();
  listener->handle(Kind::Added, iri(u"/"), iri(u"/d/new.txt"), EntryType::File, {});
  listener->handle(Kind::Modified, iri(u"/"), iri(u"/d/changed.txt"), EntryType::File, {});
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/d/gone.txt"), EntryType::File, {});
  listener->handle(Kind::Refresh, iri(u"/"), iri(u"/d/x.txt"), EntryType::File, {});
  listener->handle(Kind::Added, iri(u"/"), iri(u"/e/sub"), EntryType::Folder, {});
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/f"), EntryType::Folder, {});
  EXPECT_EQ(queue->queued(), 5u) << "a file refresh queues nothing";
  for (auto const& record : queue->records()) {
    EXPECT_EQ(record.type, ObservableTransactionType::EXTERNAL_EVENT);
    EXPECT_EQ(record.weight, 0.0);
  }
  EXPECT_TRUE(quota->calls().empty()) << "nothing runs on the event thread";

  queue->runAll();
  EXPECT_EQ(quota->calls(), (std::vector<std::string>{"tree " + text(u"/d"), "tree " + text(u"/d"),
                                                      "file " + text(u"/d/gone.txt"), "tree " + text(u"/e"),
                                                      "tree " + text(u"/f")}));
  // The removal of /d/gone.txt already worked off /d; the last two are still queued.
  EXPECT_EQ(metadata.pendingInvalidations(),
            (std::vector<StorageIRI>{MetadataCache::getInnerMostURL(iri(u"/e")), MetadataCache::getInnerMostURL(iri(u"/f"))}));
}

TEST_F(EventListenerTest, PausedEventsAreReplayedOncePerIRIInIRIOrder) {
  auto listener = makeListener();
  listener->pause();
  listener->pause();  // not counted
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/z.txt"), EntryType::File, {});
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/a.txt"), EntryType::File, {});
  listener->handle(Kind::Added, iri(u"/"), iri(u"/z.txt"), EntryType::File, {});  // dropped: /z.txt has one
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/m.txt"), EntryType::File, {});
  EXPECT_EQ(queue->queued(), 0u);

  listener->unpause();
  queue->runAll();
  EXPECT_EQ(quota->calls(), (std::vector<std::string>{"file " + text(u"/a.txt"), "file " + text(u"/m.txt"),
                                                      "file " + text(u"/z.txt")}));
  // Nothing is collected any more.
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/b.txt"), EntryType::File, {});
  EXPECT_EQ(queue->queued(), 1u);
}

TEST_F(EventListenerTest, OnlyTheLatestFolderChangeIsInvalidated) {
  auto listener = makeListener();
  foundation::log::MemorySink sink;
  listener->handle(Kind::Modified, iri(u"/"), iri(u"/a"), EntryType::Folder, {});
  listener->handle(Kind::Modified, iri(u"/"), iri(u"/b"), EntryType::Folder, {});
  queue->runAll();
  EXPECT_EQ(quota->calls(), std::vector<std::string>{"tree " + text(u"/b")});
  EXPECT_TRUE(sink.contains("Triggering invalidation " + text(u"/b")));
  EXPECT_FALSE(sink.contains("Triggering invalidation " + text(u"/a")));

  // A refresh of another folder supersedes a queued change without queueing anything.
  listener->handle(Kind::Modified, iri(u"/"), iri(u"/c"), EntryType::Folder, {});
  listener->handle(Kind::Refresh, iri(u"/"), iri(u"/d"), EntryType::Folder, {});
  EXPECT_EQ(queue->queued(), 1u);
  queue->runAll();
  EXPECT_EQ(quota->calls().size(), 1u);
}

TEST_F(EventListenerTest, ARefreshOfTheRootEmptiesBothCachesAtOnce) {
  store->elsewhere().createFolder(u"/d");
  store->elsewhere().writeFile(u"/d/a.txt", "abc");
  ASSERT_TRUE(metadata.hasFile(iri(u"/d/a.txt")));
  ASSERT_FALSE(metadata.cachedFolders().empty());
  auto listener = makeListener();
  listener->handle(Kind::Modified, iri(u"/"), iri(u"/d"), EntryType::Folder, {});
  listener->handle(Kind::Refresh, iri(u"/"), iri(u"/"), EntryType::Folder, {});
  EXPECT_TRUE(metadata.cachedFolders().empty()) << "before any queued task ran";
  // The queued change of /d was not superseded by the root refresh.
  queue->runAll();
  EXPECT_EQ(quota->calls(), std::vector<std::string>{"tree " + text(u"/d")});
}

TEST_F(EventListenerTest, AfterStopHandlingNothingIsDoneOrReplayed) {
  auto listener = makeListener();
  listener->pause();
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/a.txt"), EntryType::File, {});
  listener->stopHandling();
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/b.txt"), EntryType::File, {});
  listener->unpause();
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/c.txt"), EntryType::File, {});
  EXPECT_EQ(queue->queued(), 0u);
}

TEST_F(EventListenerTest, EchoesOfTheOverlaysOwnFolderChangesAreDroppedWhenTheyArrive) {
  auto now = std::chrono::steady_clock::time_point(std::chrono::hours(1));
  auto own = std::make_shared<OwnChanges>(std::chrono::milliseconds(1000), [&now] { return now; });
  auto listener = makeListener({own, false, nullptr});
  auto const made = Touches::location(iri(u"/d").toString());
  own->taken(ObservableTransactionType::FOLDER_CREATION, made);
  listener->pause();
  listener->handle(Kind::Added, iri(u"/"), iri(u"/d"), EntryType::Folder, {});        // the echo
  listener->handle(Kind::Added, iri(u"/"), iri(u"/d/new.txt"), EntryType::File, {});  // counts
  listener->unpause();
  queue->runAll();
  EXPECT_EQ(quota->calls(), std::vector<std::string>{"tree " + text(u"/d")});

  // Once the change has settled and its window has passed, the same event counts.
  own->settled(ObservableTransactionType::FOLDER_CREATION, made);
  now += std::chrono::milliseconds(1001);
  listener->handle(Kind::Added, iri(u"/"), iri(u"/d"), EntryType::Folder, {});
  EXPECT_EQ(queue->queued(), 1u);
}

TEST_F(EventListenerTest, TheFeedHearsOfEachChangeOnceItsInvalidationHasRun) {
  auto feed = std::make_shared<storage::overlayprovider::AppliedChangeFeed>();
  std::vector<std::string> heard;
  feed->set([&](StorageIRI const& location) { heard.push_back(location.toUtf8()); });
  auto listener = makeListener({nullptr, true, feed});
  listener->handle(Kind::Modified, iri(u"/"), iri(u"/d/changed.txt"), EntryType::File, {});
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/d/gone.txt"), EntryType::File, {});
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/e"), EntryType::Folder, {});
  EXPECT_TRUE(heard.empty()) << "not before the caches have dropped the items";
  queue->runAll();
  EXPECT_EQ(heard, (std::vector<std::string>{text(u"/d/changed.txt"), text(u"/d/gone.txt"), text(u"/e")}));
  EXPECT_EQ(metadata.pendingInvalidations().size(), 0u) << "narrow invalidation pends items, not folders";

  // A refresh of the root empties the caches at once, and says so at once.
  listener->handle(Kind::Refresh, iri(u"/"), iri(u"/"), EntryType::Folder, {});
  EXPECT_EQ(heard.back(), text(u"/"));
}

TEST_F(EventListenerTest, NarrowInvalidationDropsOnlyTheListingsAnEventConcerns) {
  auto& side = store->elsewhere();
  for (auto folder : {u"/a/sub", u"/b", u"/c/deep"}) side.createFolder(folder);
  side.writeFile(u"/a/f.txt", "f");
  store->waitForEventsDelivered();
  auto const key = [&](std::u16string const& path) { return MetadataCache::getInnerMostURL(iri(path)); };
  auto const loadAll = [&] {
    for (auto folder : {u"/a/sub", u"/b", u"/c/deep"}) metadata.loadAndGetFolderContainer(iri(folder));
    metadata.getFolderMetadata(iri(u"/a"));  // the root
    metadata.getFolderMetadata(iri(u"/a/sub"));
    metadata.getFolderMetadata(iri(u"/c/deep"));
  };
  loadAll();
  ASSERT_EQ(metadata.cachedFolders().size(), 6u);
  auto listener = makeListener({nullptr, true, nullptr});

  // A file changed in /a: /a's listing goes, its sub-folder and the root stay.
  listener->handle(Kind::Modified, iri(u"/"), iri(u"/a/f.txt"), EntryType::File, {});
  queue->runAll();
  auto const listings = store->calls(Operation::ListAll);
  EXPECT_TRUE(metadata.hasFile(iri(u"/a/f.txt")));  // works the invalidation off, lists /a again
  EXPECT_EQ(store->calls(Operation::ListAll), listings + 1);
  EXPECT_EQ(metadata.cachedFolders().size(), 6u);
  EXPECT_EQ(quota->calls(), std::vector<std::string>{"tree " + text(u"/a")});

  // A folder removed: the folder above loses its listing, the folder its tree; the
  // other folders stay.
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/c"), EntryType::Folder, {});
  queue->runAll();
  metadata.loadAndGetFolderContainer(iri(u"/b"));  // works the invalidation off
  EXPECT_EQ(metadata.cachedFolders(), (std::vector<StorageIRI>{key(u"/a"), key(u"/a/sub"), key(u"/b")}));

  // Without narrow invalidation the same change to /a/f.txt drops the root's whole tree.
  loadAll();
  auto wide = makeListener();
  wide->handle(Kind::Modified, iri(u"/"), iri(u"/a/f.txt"), EntryType::File, {});
  queue->runAll();
  metadata.loadAndGetFolderContainer(iri(u"/b"));
  EXPECT_EQ(metadata.cachedFolders(), std::vector<StorageIRI>{key(u"/b")});
}

TEST_F(EventListenerTest, ChangesMadeElsewhereArriveThroughTheSubscription) {
  auto listener = makeListener();
  store->elsewhere().createFolder(u"/d");
  store->elsewhere().writeFile(u"/d/a.txt", "abc");
  store->waitForEventsDelivered();
  queue->runAll();
  auto const calls = quota->calls();
  EXPECT_NE(std::find(calls.begin(), calls.end(), "tree " + text(u"/d")), calls.end());

  // Once the listener is gone, the store's copy of the callback drops events.
  listener.reset();
  auto const before = queue->records().size();
  store->elsewhere().writeFile(u"/d/b.txt", "b");
  store->waitForEventsDelivered();
  EXPECT_EQ(queue->records().size(), before);
}

TEST_F(EventListenerTest, AFailedSubscriptionIsLoggedAndSurvived) {
  foundation::log::MemorySink sink;
  store->failNext(Operation::PublishEvents, 1, fsp::ErrorCode::TransientFailure);
  auto listener = makeListener();
  EXPECT_TRUE(sink.contains("Error subscribing to inner provider."));
  store->elsewhere().writeFile(u"/a.txt", "a");
  store->waitForEventsDelivered();
  EXPECT_EQ(queue->queued(), 0u);
  listener->handle(Kind::Removed, iri(u"/"), iri(u"/a.txt"), EntryType::File, {});
  EXPECT_EQ(queue->queued(), 1u);
}

}  // namespace
