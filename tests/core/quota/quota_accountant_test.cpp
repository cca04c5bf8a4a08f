// The quota accountant: figures from the inner store, adjustments by the overlay's own
// operations, polling only while the queue is empty, and failures that stop polling.
#include <core/metadata/MetadataCache.hpp>
#include <core/quota/QuotaAccountant.hpp>

#include "exec/executor_test_support.hpp"

#include <foundation/log/MemorySink.hpp>
#include <foundation/log/Severity.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <optional>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using overlay_test::FakeExecutor;
using providers::mem::MemoryProvider;
using providers::mem::Operation;
using storage::overlayprovider::MetadataCache;
using storage::overlayprovider::ObservableTransactionType;
using storage::overlayprovider::QuotaAccountant;
using namespace std::chrono_literals;

namespace {

// An executor that runs nothing; its queue is empty or not as the test says, and it
// counts how often the accountant asked.
class QueueStub final : public FakeExecutor {
 public:
  explicit QueueStub(bool empty) : empty_(empty) {}
  void execute(Task, ObservableTransactionType, double) override {}
  bool isQueueEmpty() const override {
    std::lock_guard lock(mutex_);
    ++asked_;
    changed_.notify_all();
    return empty_;
  }

  int questions() const {
    std::lock_guard lock(mutex_);
    return asked_;
  }

  // Waits until the accountant asked `count` times in all.
  void waitForQuestions(int count) const {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return asked_ >= count; });
  }

 private:
  bool const empty_;
  mutable int asked_ = 0;                    // guarded by mutex_
  mutable std::mutex mutex_;                 // guards asked_
  mutable std::condition_variable changed_;  // signalled on every question
};

// A store whose storage information says what the test sets.
class ReportingStore final : public MemoryProvider {
 public:
  using MemoryProvider::MemoryProvider;
  std::optional<fsp::ProviderStorageInfo> report;
  fsp::ProviderStorageInfo doGetProviderStorageInfo(StorageIRI const& iri) const override {
    auto info = MemoryProvider::doGetProviderStorageInfo(iri);
    return report ? *report : info;
  }
};

MemoryProvider::Options withCapacity(unsigned long capacity) {
  MemoryProvider::Options options;
  options.capacity = capacity;
  return options;
}

struct Fixture {
  explicit Fixture(unsigned long capacity = 1000)
      : store(std::make_shared<ReportingStore>(withCapacity(capacity))),
        inner(std::make_shared<StorageItem>(store, store->root())),
        cache(inner, true) {}

  StorageIRI iri(std::u16string const& path) const { return store->root().withPath(path); }

  std::shared_ptr<ReportingStore> store;
  std::shared_ptr<StorageItem> inner;
  MetadataCache cache;
};

TEST(QuotaAccountant, FiguresFollowTheStoreAndTheOverlaysOwnChanges) {
  Fixture f;
  f.store->elsewhere().createFolder(u"/d");
  f.store->elsewhere().writeFile(u"/d/a.txt", std::string(300, 'a'));
  f.store->elsewhere().writeFile(u"/d/b.txt", std::string(100, 'b'));
  QuotaAccountant quota(*f.inner, std::chrono::hours(1), f.cache, std::make_shared<QueueStub>(true));
  EXPECT_EQ(quota.getTotalCapacity(), 1000u);
  EXPECT_EQ(quota.getSpaceAvailable(), 600u);

  // Written bytes are taken; a removed file gives its recorded size back.
  quota.addBytesWritten(50);
  EXPECT_EQ(quota.getSpaceAvailable(), 550u);
  quota.removeFile(f.iri(u"/d/a.txt"));
  EXPECT_EQ(quota.getSpaceAvailable(), 850u);
  // A removed folder tree gives back what its cached files hold, an added one takes it.
  ASSERT_TRUE(f.cache.hasFile(f.iri(u"/d/b.txt")));
  ASSERT_EQ(f.cache.getSpaceOccupiedByFolder(f.iri(u"/d")), 400u);
  quota.addFolderTree(f.iri(u"/d"));
  EXPECT_EQ(quota.getSpaceAvailable(), 450u);
  quota.removeFolderTree(f.iri(u"/d"));
  EXPECT_EQ(quota.getSpaceAvailable(), 850u);
  // Never above the capacity, never below 0.
  quota.removeFolderTree(f.iri(u"/d"));
  EXPECT_EQ(quota.getSpaceAvailable(), 1000u);
  quota.addBytesWritten(5000);
  EXPECT_EQ(quota.getSpaceAvailable(), 0u);
  EXPECT_EQ(quota.getTotalCapacity(), 1000u);
}

TEST(QuotaAccountant, OccupiedBeyondTheCapacityLeavesNothingAvailable) {
  Fixture f;
  f.store->report = fsp::ProviderStorageInfo().withStorageCapacity(100).withSpaceOccupied(250);
  QuotaAccountant quota(*f.inner, std::chrono::hours(1), f.cache, std::make_shared<QueueStub>(true));
  EXPECT_EQ(quota.getTotalCapacity(), 100u);
  EXPECT_EQ(quota.getSpaceAvailable(), 0u);
}

TEST(QuotaAccountant, AFailedQueryLeavesTheFiguresUnknownAndStopsPolling) {
  for (bool const hostError : {true, false}) {
    SCOPED_TRACE(hostError ? "host error" : "other error");
    Fixture f;
    f.store->elsewhere().writeFile(u"/a.txt", std::string(10, 'a'));
    if (hostError) {
      f.store->failNext(Operation::GetStorageInfo, 1, fsp::ErrorCode::TransientFailure);
    } else {
      f.store->failNextUnexpected(Operation::GetStorageInfo, 1);
    }
    foundation::log::MemorySink sink;
    auto queue = std::make_shared<QueueStub>(true);
    QuotaAccountant quota(*f.inner, 1ms, f.cache, queue);
    EXPECT_EQ(quota.getTotalCapacity(), std::nullopt);
    EXPECT_EQ(quota.getSpaceAvailable(), std::nullopt);
    EXPECT_TRUE(sink.contains("Problem getting quota info. Shutting down poll."));
    EXPECT_TRUE(sink.contains("Exception caught: "));
    EXPECT_EQ(sink.contains("Unexpected exception."), !hostError);
    EXPECT_EQ(sink.count(foundation::log::Error), hostError ? 0u : 1u);

    // The operations change nothing while the figures are unknown.
    quota.addBytesWritten(5);
    quota.removeFile(f.iri(u"/a.txt"));
    quota.removeFolderTree(f.iri(u"/"));
    EXPECT_EQ(quota.getSpaceAvailable(), std::nullopt);
    // The poll thread ended without asking again (joining it returns).
    quota.shutdown();
    EXPECT_EQ(f.store->calls(Operation::GetStorageInfo), 1u);
  }
}

TEST(QuotaAccountant, PollsOnlyWhileTheQueueIsEmpty) {
  {
    Fixture f;
    auto busy = std::make_shared<QueueStub>(false);
    QuotaAccountant quota(*f.inner, 1ms, f.cache, busy);
    busy->waitForQuestions(5);
    quota.shutdown();
    EXPECT_EQ(f.store->calls(Operation::GetStorageInfo), 1u) << "the constructor's query only";
  }
  {
    Fixture f;
    auto idle = std::make_shared<QueueStub>(true);
    QuotaAccountant quota(*f.inner, 1ms, f.cache, idle);
    EXPECT_EQ(quota.getSpaceAvailable(), 1000u);
    f.store->elsewhere().writeFile(u"/grown.txt", std::string(200, 'g'));
    // The question after the next one comes after a poll that began after the change.
    idle->waitForQuestions(idle->questions() + 2);
    EXPECT_EQ(quota.getSpaceAvailable(), 800u);
    quota.shutdown();
    EXPECT_GE(f.store->calls(Operation::GetStorageInfo), 3u);
  }
}

TEST(QuotaAccountant, ShutdownWakesASleepingPollAndMayBeRepeated) {
  Fixture f;
  auto queue = std::make_shared<QueueStub>(true);
  QuotaAccountant quota(*f.inner, std::chrono::hours(24), f.cache, queue);
  // Would wait a day if shutdown did not wake the poll thread.
  quota.shutdown();
  quota.shutdown();
  EXPECT_EQ(f.store->calls(Operation::GetStorageInfo), 1u);
  EXPECT_EQ(quota.getSpaceAvailable(), 1000u);
}

}  // namespace
