// WorkingFileEntry on one thread: read-through and the local cache, read-ahead, the end
// of the file, write-behind payloads and their weights, gaps, truncation, quota and
// cache-space refusals, a failed payload, the read retry rule, reference counts, abort
// state, moves and copies, and a long random run checked against a model of the file.
#include "exec/executor_test_support.hpp"
#include "content/working_file_test_support.hpp"

#include <core/exec/BackendExecutor.hpp>
#include <core/content/FilesystemCacheResource.hpp>
#include <core/metadata/LazyExtendedAttributes.hpp>

#include <foundation/log/MemorySink.hpp>
#include <foundation/log/Severity.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <sys/stat.h>

#include <functional>

namespace overlay_test {
namespace {

using namespace std::chrono_literals;
using ovl::WorkingFileEntry;
using ovl::WorkingFileEntryParams;

constexpr long long kMiB = 1 << 20;

// What a read delivers: the bytes, or "<eof>" for -1.
std::string readAt(WorkingFileEntry& entry, long long position, long long count) {
  std::string buffer(static_cast<std::size_t>(count), '\0');
  auto const n = entry.read(position, buffer.data(), count);
  if (n == -1) return "<eof>";
  buffer.resize(static_cast<std::size_t>(n));
  return buffer;
}

fsp::ErrorCode codeOf(std::function<void()> const& call) {
  try {
    call();
  } catch (fsp::Exception const& e) {
    return e.getErrorCode();
  }
  ADD_FAILURE() << "no Exception thrown";
  return fsp::ErrorCode::TransientFailure;
}

class WorkingFileEntryTest : public EntryFixture {};

TEST_F(WorkingFileEntryTest, ReadsThroughOnceThenFromTheCache) {
  std::string const content = patternBytes(10000);
  store->elsewhere().writeFile(u"/f", content);
  auto executor = std::make_shared<RecordingExecutor>(/*runInline=*/true);
  auto entry = makeEntry(u"/f", WorkingFileEntryParams(4096, 4096), executor);
  entry->openReadOnly();
  EXPECT_TRUE(entry->isReadOnly());

  EXPECT_EQ(readAt(*entry, 0, 100), content.substr(0, 100));
  EXPECT_EQ(store->calls(Operation::Read), 1u);
  // The read-ahead payload (4096 bytes) was cached: a later read inside it makes no
  // inner read, nor does the same range again.
  EXPECT_EQ(readAt(*entry, 100, 3000), content.substr(100, 3000));
  EXPECT_EQ(readAt(*entry, 0, 100), content.substr(0, 100));
  EXPECT_EQ(store->calls(Operation::Read), 1u);
  EXPECT_EQ(readFile(entry->getCheckoutPath()).substr(0, 4096), content.substr(0, 4096));

  // Crossing the end returns only the bytes up to the size; at or after it, -1.
  EXPECT_EQ(readAt(*entry, 9990, 100), content.substr(9990));
  EXPECT_EQ(readAt(*entry, 10000, 10), "<eof>");
  EXPECT_EQ(readAt(*entry, 20000, 10), "<eof>");
  EXPECT_TRUE(entry->atEOF(10000));
  EXPECT_FALSE(entry->atEOF(9999));
  EXPECT_EQ(readAt(*entry, 5, 0), "");

  // A range that straddles cached and uncached bytes fetches only what is missing.
  auto const before = store->calls(Operation::Read);
  EXPECT_EQ(readAt(*entry, 4000, 200), content.substr(4000, 200));
  EXPECT_EQ(store->calls(Operation::Read), before + 1);
  EXPECT_EQ(readAt(*entry, 0, 10000), content);
  EXPECT_THROW(entry->read(0, nullptr, -1), std::invalid_argument);
}

TEST_F(WorkingFileEntryTest, ReadWriteEntryFetchesOnlyWhatIsAskedInBoundedPayloads) {
  std::string const content = patternBytes(5000);
  store->elsewhere().writeFile(u"/f", content);
  auto executor = std::make_shared<RecordingExecutor>(true);
  auto entry = makeEntry(u"/f", WorkingFileEntryParams(1000, 1000), executor);
  entry->openReadWrite({});

  EXPECT_EQ(readAt(*entry, 0, 10), content.substr(0, 10));
  EXPECT_EQ(store->calls(Operation::Read), 1u);
  EXPECT_EQ(readAt(*entry, 10, 10), content.substr(10, 10));  // no read-ahead: fetched anew
  EXPECT_EQ(store->calls(Operation::Read), 2u);
  // A large read goes out in payloads of at most 1000 bytes.
  EXPECT_EQ(readAt(*entry, 20, 4980), content.substr(20));
  EXPECT_EQ(store->calls(Operation::Read), 2u + 5u);
}

TEST_F(WorkingFileEntryTest, FetchedPayloadsNeverOverwriteBytesWrittenLocally) {
  std::string const content = patternBytes(1000);
  store->elsewhere().writeFile(u"/l", content);
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/l", WorkingFileEntryParams(1000, 1000), executor);
  entry->openReadWrite({});
  executor->runAll();  // the open
  ASSERT_EQ(readAt(*entry, 0, 10), content.substr(0, 10));
  entry->write(20, "XXXXXXXXXX", 10);  // waits in the write buffer, not yet at the store
  ASSERT_EQ(readAt(*entry, 40, 10), content.substr(40, 10));

  // [0, 50) is cached at its start and end; the gap between is fetched from the store,
  // whose bytes at [20, 30) are older than the cache's.
  std::string expected = content.substr(0, 50);
  expected.replace(20, 10, "XXXXXXXXXX");
  EXPECT_EQ(readAt(*entry, 0, 50), expected);
  EXPECT_EQ(readFile(entry->getCheckoutPath()).substr(0, 50), expected);
  EXPECT_EQ(readAt(*entry, 0, 50), expected);
}

TEST_F(WorkingFileEntryTest, TenSequentialMegabytesBecomeThreePayloadsWhileWritingAndOneAtClose) {
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/big", WorkingFileEntryParams(4 * kMiB, 4 * kMiB).withMinItemWeight(0.25), executor);
  entry->openReadWrite({});
  std::string const data = patternBytes(10 * kMiB);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(entry->write(i * kMiB, data.data() + i * kMiB, kMiB), kMiB);

  auto writes = executor->recordsOf(ObservableTransactionType::FILE_WRITE);
  ASSERT_EQ(writes.size(), 3u);
  for (auto const& w : writes) EXPECT_DOUBLE_EQ(w.weight, 3.0 * kMiB / 1000000.0 + 0.25);
  EXPECT_TRUE(entry->hasPendingBackgroundIO());
  EXPECT_EQ(entry->getFileSize(), 10u * kMiB);

  entry->flushContentCache();
  auto const records = executor->records();
  ASSERT_EQ(records.size(), 6u);
  EXPECT_EQ(records[0].type, ObservableTransactionType::FILE_OPEN_READWRITE);
  EXPECT_EQ(records[4].type, ObservableTransactionType::FILE_WRITE);
  EXPECT_DOUBLE_EQ(records[4].weight, 1.0 * kMiB / 1000000.0 + 0.25);
  EXPECT_EQ(records[5].type, ObservableTransactionType::FILE_CLOSE);
  EXPECT_DOUBLE_EQ(records[5].weight, 0.25);

  EXPECT_EQ(executor->runAll(), 6);
  EXPECT_EQ(store->calls(Operation::Write), 4u);
  EXPECT_EQ(storeContent(u"/big"), data);
  EXPECT_FALSE(entry->hasPendingBackgroundIO());
  EXPECT_FALSE(entry->isOpen());
  EXPECT_EQ(readFile(entry->getCheckoutPath()), data);
}

TEST_F(WorkingFileEntryTest, ClosingStampsTheCacheFileBeforeTheCloseTransactionRuns) {
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/stamped", WorkingFileEntryParams(4096, 4096), executor);
  entry->openReadWrite({});
  entry->openReadWrite({});  // a second caller stream
  entry->write(0, "hello", 5);
  auto const seconds = [](boost::posix_time::ptime time) {
    return ovl::FilesystemCacheResource::toEpochSeconds(time);
  };
  auto const cacheFileSeconds = [&] {
    struct stat st {};
    EXPECT_EQ(::stat(entry->getCheckoutPath().c_str(), &st), 0);
    return static_cast<std::int64_t>(st.st_mtime);
  };
  // The metadata is stamped a minute back, so that a stamp shows in the file's time.
  auto const stamp = entry->getMetadata()->getLastModified() - boost::posix_time::minutes(1);
  entry->getMetadata()->withLastModified(stamp);

  // The first of two streams closes: the time is stamped, nothing closes yet.
  entry->flushContentCache();
  EXPECT_EQ(cacheFileSeconds(), seconds(stamp));
  EXPECT_TRUE(executor->recordsOf(ObservableTransactionType::FILE_CLOSE).empty());

  // The last stream closes: the time is there before the queued close has run.
  entry->write(5, " world", 6);
  auto const later = entry->getMetadata()->getLastModified() - boost::posix_time::minutes(2);
  entry->getMetadata()->withLastModified(later);
  entry->flushContentCache();
  EXPECT_EQ(cacheFileSeconds(), seconds(later));
  ASSERT_EQ(executor->recordsOf(ObservableTransactionType::FILE_CLOSE).size(), 1u);
  EXPECT_EQ(storeContent(u"/stamped"), "<absent>");

  executor->runAll();
  EXPECT_EQ(storeContent(u"/stamped"), "hello world");
  EXPECT_EQ(readFile(entry->getCheckoutPath()), "hello world");
  EXPECT_EQ(cacheFileSeconds(), seconds(later));
  EXPECT_FALSE(entry->isOpen());
}

TEST_F(WorkingFileEntryTest, TheCloseLeavesItsAttributeReadToAWaitingFlush) {
  auto executor = std::make_shared<RecordingExecutor>();
  auto record = metadataFor(u"/attrs");
  auto entry = makeEntry(u"/attrs", WorkingFileEntryParams(4096, 4096), executor, {}, record);
  auto flushReads = std::make_shared<ovl::FlushAttributeReads>();
  entry->setFlushAttributeReads(flushReads);
  flushReads->beginWaiting();
  auto const storeWatermark = [&] { return ovl::LazyExtendedAttributes::watermarkOf(fsp::StorageItem(store, iriOf(u"/attrs")).getExtendedAttributes()); };

  // While a flush waits: the time is set on the inner file (by its close, which can), the
  // attributes are not read.
  entry->openReadWrite({});
  entry->write(0, "first", 5);
  record->freeze();
  entry->flushContentCache();
  executor->runAll();
  EXPECT_EQ(storeContent(u"/attrs"), "first");
  EXPECT_EQ(store->calls(Operation::SetLastModified), 0u) << "the stream's close set the time";
  EXPECT_EQ(fsp::StorageItem(store, iriOf(u"/attrs")).getFileAttributes().getLastModified(),
            record->getLastModified());
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 0u);
  EXPECT_FALSE(record->getExtendedAttributes().hasAttribute("WATERMARK"));
  EXPECT_FALSE(record->isFrozen()) << "thawed all the same";
  // The flush takes the read over; made, it reads the attributes then.
  auto deferred = flushReads->endWaiting();
  ASSERT_EQ(deferred.size(), 1u);
  EXPECT_TRUE(flushReads->endWaiting().empty()) << "handed over once";
  deferred.front()();
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 1u);
  EXPECT_EQ(record->getWatermark(), storeWatermark());

  // Otherwise the record takes the inner file's attributes at once.
  entry->openReadWrite({});
  entry->write(5, " second", 7);
  entry->flushContentCache();
  executor->runAll();
  EXPECT_EQ(storeContent(u"/attrs"), "first second");
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 3u) << "the close's, after the two above";
  EXPECT_EQ(record->getWatermark(), storeWatermark());

  // A copy hands its reads to the same flush.
  flushReads->beginWaiting();
  auto copyRecord = metadataFor(u"/copy");
  auto copy = entry->copy(copyRecord);
  copy->openReadWrite({});
  copy->write(0, "c", 1);
  copy->flushContentCache();
  executor->runAll();
  EXPECT_EQ(store->calls(Operation::GetExtendedAttributes), 4u);
  EXPECT_EQ(flushReads->endWaiting().size(), 1u);
}

TEST_F(WorkingFileEntryTest, PayloadWeightIsMegabytesPlusTheMinimum) {
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/w", WorkingFileEntryParams(kMiB, 4 * kMiB).withMinItemWeight(0.1), executor);
  entry->openReadWrite({});
  std::string const data = patternBytes(500000);
  entry->write(0, data.data(), static_cast<long long>(data.size()));
  entry->flushContentCache();
  auto writes = executor->recordsOf(ObservableTransactionType::FILE_WRITE);
  ASSERT_EQ(writes.size(), 1u);
  EXPECT_DOUBLE_EQ(writes[0].weight, 0.6);
  executor->runAll();
  EXPECT_EQ(storeContent(u"/w"), data);
}

TEST_F(WorkingFileEntryTest, WithoutDiskCachingEveryWriteLeavesAtOnceAndReadsGoToTheStore) {
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/n", WorkingFileEntryParams(kMiB, kMiB).withDiskCaching(false), executor);
  entry->openReadWrite({});
  EXPECT_TRUE(entry->getCheckoutPath().empty());
  entry->write(0, "aaaa", 4);
  entry->write(4, "bbbb", 4);
  entry->write(2, "CC", 2);  // elsewhere than the buffer's end
  EXPECT_EQ(executor->recordsOf(ObservableTransactionType::FILE_WRITE).size(), 3u);
  executor->runAll();
  EXPECT_EQ(storeContent(u"/n"), "aaCCbbbb");

  EXPECT_EQ(readAt(*entry, 0, 8), "aaCCbbbb");
  EXPECT_EQ(readAt(*entry, 0, 8), "aaCCbbbb");
  EXPECT_EQ(store->calls(Operation::Read), 2u);
  EXPECT_TRUE(std::filesystem::is_empty(cache.path()));
}

TEST_F(WorkingFileEntryTest, WriteBeyondTheEndFillsTheGapWithZeros) {
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/g", WorkingFileEntryParams(kMiB, kMiB), executor);
  entry->openReadWrite({});
  entry->write(0, "abc", 3);
  entry->write(10, "xyz", 3);
  std::string const expected = std::string("abc") + std::string(7, '\0') + "xyz";
  EXPECT_EQ(entry->getFileSize(), 13u);
  EXPECT_EQ(readFile(entry->getCheckoutPath()), expected);
  EXPECT_EQ(readAt(*entry, 0, 13), expected);
  EXPECT_EQ(store->calls(Operation::Read), 0u);
  entry->flushContentCache();
  executor->runAll();
  // The zeros went into the same payload as the bytes around them.
  EXPECT_EQ(executor->recordsOf(ObservableTransactionType::FILE_WRITE).size(), 1u);
  EXPECT_EQ(storeContent(u"/g"), expected);
  EXPECT_EQ(quota->lastBytesWritten(), 13u);
}

TEST_F(WorkingFileEntryTest, TruncatingOpenEmptiesCacheSizeAndStore) {
  std::string const content = patternBytes(300);
  store->elsewhere().writeFile(u"/t", content);
  auto executor = std::make_shared<RecordingExecutor>(true);
  auto entry = makeEntry(u"/t", WorkingFileEntryParams(kMiB, kMiB), executor);
  entry->openReadOnly();
  EXPECT_EQ(readAt(*entry, 0, 300), content);
  entry->flushContentCache();
  EXPECT_TRUE(std::filesystem::exists(entry->getCheckoutPath()));
  int const removals = quota->removeFileCalls();

  fsp::ByteStreamOpenOptions truncate;
  truncate.truncate = true;
  entry->openReadWrite(truncate);
  EXPECT_EQ(entry->getFileSize(), 0u);
  EXPECT_FALSE(std::filesystem::exists(entry->getCheckoutPath()));
  EXPECT_EQ(quota->removeFileCalls(), removals + 1);
  EXPECT_TRUE(entry->getAbortTime().has_value());
  EXPECT_EQ(readAt(*entry, 0, 10), "<eof>");
  EXPECT_EQ(storeContent(u"/t"), "");

  entry->write(0, "new", 3);
  entry->flushContentCache();
  EXPECT_EQ(storeContent(u"/t"), "new");
}

TEST_F(WorkingFileEntryTest, AFailedPayloadAbortsTheEntryForGood) {
  foundation::log::MemorySink sink;
  auto executor = std::make_shared<RecordingExecutor>();
  auto metadata = metadataFor(u"/a", /*frozen=*/true);
  auto entry = makeEntry(u"/a", WorkingFileEntryParams(kMiB, kMiB), executor, {}, metadata);
  entry->openReadWrite({});
  entry->openReadWrite({});  // a second stream on the same entry
  EXPECT_EQ(entry->getRefCount(), 2);
  entry->write(0, "first", 5);
  entry->flushContentCache();  // one stream closes: its bytes leave, the inner stream stays
  EXPECT_EQ(entry->getRefCount(), 1);
  // Transient failures in all three attempts.
  store->failNext(Operation::Write, 3, fsp::ErrorCode::TransientFailure);
  executor->runAll();
  EXPECT_EQ(store->calls(Operation::Write), 3u);

  EXPECT_TRUE(entry->wasAbortedDueToWriteProblem());
  EXPECT_TRUE(sink.contains("Unexpected exception during write operation"));
  EXPECT_TRUE(sink.contains("Exception caught: "));
  EXPECT_FALSE(metadata->isFrozen());
  EXPECT_GE(quota->removeFileCalls(), 1);
  EXPECT_EQ(storeContent(u"/a"), "");
  EXPECT_FALSE(entry->hasPendingBackgroundIO());

  // Later writes are accepted and store nothing; the close path only gives back the
  // stream's share.
  auto const cached = readFile(entry->getCheckoutPath());
  EXPECT_EQ(entry->write(5, "second", 6), 6);
  EXPECT_EQ(entry->getFileSize(), 5u);
  EXPECT_EQ(readFile(entry->getCheckoutPath()), cached);
  auto const queuedBefore = executor->records().size();
  entry->flushContentCache();
  EXPECT_EQ(executor->records().size(), queuedBefore);
  EXPECT_EQ(entry->getRefCount(), 0);
  auto const now = std::chrono::steady_clock::now() + 1h;
  EXPECT_TRUE(entry->canReturnEarlyWhenAbortIsSet(now));
}

TEST_F(WorkingFileEntryTest, QuotaAndCacheSpaceRefusals) {
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/q", WorkingFileEntryParams(kMiB, kMiB), executor);
  entry->openReadWrite({});
  std::string const data = patternBytes(100);

  quota->setSpace(10);
  EXPECT_EQ(codeOf([&] { entry->write(0, data.data(), 100); }), fsp::ErrorCode::QuotaExceeded);
  EXPECT_EQ(entry->getFileSize(), 0u);
  EXPECT_EQ(entry->write(0, data.data(), 9), 9);  // 9 < 0 + 10
  EXPECT_EQ(codeOf([&] { entry->append(data.data(), 10); }), fsp::ErrorCode::QuotaExceeded);  // 10 <= 10
  EXPECT_EQ(entry->append(data.data() + 9, 9), 0);
  EXPECT_EQ(entry->getFileSize(), 18u);
  quota->setSpace(std::nullopt);

  // The store's cache reports 30 bytes: a write ending at 31 is refused with code 5 after
  // the buffered bytes were pushed out; one ending at 30 passes. Append refuses already
  // when it would reach the figure.
  store->setCacheSpaceAvailable(30);
  EXPECT_TRUE(executor->recordsOf(ObservableTransactionType::FILE_WRITE).empty());
  EXPECT_EQ(codeOf([&] { entry->write(18, data.data(), 13); }), fsp::ErrorCode::NoCacheSpace);
  EXPECT_EQ(executor->recordsOf(ObservableTransactionType::FILE_WRITE).size(), 1u);
  EXPECT_EQ(entry->getFileSize(), 18u);
  EXPECT_EQ(entry->write(18, data.data() + 18, 12), 12);
  EXPECT_EQ(codeOf([&] { entry->append(data.data(), 0); }), fsp::ErrorCode::NoCacheSpace);  // 30 >= 30
  store->setCacheSpaceAvailable(std::nullopt);

  entry->flushContentCache();
  executor->runAll();
  EXPECT_EQ(storeContent(u"/q"), data.substr(0, 30));
}

TEST_F(WorkingFileEntryTest, FailedInnerReadsRetryOnlyWhenTheStartIsCached) {
  std::string const content = patternBytes(1000);
  store->elsewhere().writeFile(u"/r", content);
  std::vector<std::chrono::milliseconds> sleeps;
  ovl::EntryTiming timing;
  timing.sleepFor = [&](std::chrono::milliseconds d) { sleeps.push_back(d); };
  auto executor = std::make_shared<RecordingExecutor>(true);
  auto entry = makeEntry(u"/r", WorkingFileEntryParams(100, 100), executor, timing);
  entry->openReadOnly();
  ASSERT_EQ(readAt(*entry, 0, 10), content.substr(0, 10));  // caches [0, 100)

  // Partly cached: ten retries, 2 s apart (on the injected sleeper), then what it has.
  store->failNext(Operation::Read, 100, fsp::ErrorCode::TransientFailure);
  auto reads = store->calls(Operation::Read);
  EXPECT_EQ(readAt(*entry, 50, 100), content.substr(50, 50));
  EXPECT_EQ(sleeps, std::vector<std::chrono::milliseconds>(10, 2000ms));
  EXPECT_EQ(store->calls(Operation::Read), reads + 11);

  // Start not cached: one attempt, no retry.
  reads = store->calls(Operation::Read);
  EXPECT_EQ(readAt(*entry, 500, 10), "");
  EXPECT_EQ(sleeps.size(), 10u);
  EXPECT_EQ(store->calls(Operation::Read), reads + 1);

  // A failure that clears during the retries is recovered.
  store->clearFaults();
  store->failNext(Operation::Read, 3, fsp::ErrorCode::TransientFailure);
  sleeps.clear();
  EXPECT_EQ(readAt(*entry, 90, 20), content.substr(90, 20));
  EXPECT_EQ(sleeps.size(), 3u);
}

TEST_F(WorkingFileEntryTest, ReferenceCountsAndOpeningOnce) {
  store->elsewhere().writeFile(u"/c", "content");
  auto executor = std::make_shared<RecordingExecutor>();
  auto entry = makeEntry(u"/c", WorkingFileEntryParams(100, 100), executor);
  entry->decrementRefCount();
  EXPECT_EQ(entry->getRefCount(), 0);
  EXPECT_NO_THROW(entry->checkAndOpenIfNecessary());  // no stream: nothing to wait for
  entry->incrementRefCount();
  EXPECT_THROW(entry->checkAndOpenIfNecessary(), std::bad_function_call);  // never opened
  entry->decrementRefCount();

  // A read-only opening opens nothing in the store: two streams, no transaction, and no
  // open to wait for until a read needs the store.
  entry->openReadOnly();
  entry->openReadOnly();
  EXPECT_EQ(entry->getRefCount(), 2);
  EXPECT_TRUE(executor->records().empty());
  EXPECT_TRUE(entry->isOpen());
  EXPECT_NO_THROW(entry->checkAndOpenIfNecessary());
  entry->flushContentCache();
  EXPECT_TRUE(entry->isOpen());
  entry->flushContentCache();
  EXPECT_FALSE(entry->isOpen());
  EXPECT_EQ(entry->getRefCount(), 0);
  EXPECT_EQ(store->calls(Operation::OpenReadOnlyStream), 0u);
  entry->flushContentCache();
  EXPECT_EQ(entry->getRefCount(), 0);

  // The first read that needs the store starts one open for both streams; the last close
  // of a read-only entry with nothing pending closes the store's stream at once.
  entry->openReadOnly();
  entry->openReadOnly();
  std::string first;
  std::thread reader([&] { first = readAt(*entry, 0, 7); });
  waitUntil([&] { return executor->records().size() == 1; });
  EXPECT_EQ(executor->records().front().type, ObservableTransactionType::FILE_OPEN_READONLY);
  EXPECT_EQ(executor->runAll(), 1);
  reader.join();
  EXPECT_EQ(first, "content");
  EXPECT_EQ(readAt(*entry, 0, 7), "content");
  EXPECT_EQ(executor->records().size(), 1u);
  entry->flushContentCache();
  entry->flushContentCache();
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);

  // Opened, its open started by a read, and closed before the open transaction ran: the
  // open opens nothing, and the read waiting for it ends short.
  store->elsewhere().writeFile(u"/d", "content");
  auto uncached = makeEntry(u"/d", WorkingFileEntryParams(100, 100), executor);
  uncached->decrementRefCount();
  uncached->openReadOnly();
  std::string late = "?";
  std::thread lateReader([&] { late = readAt(*uncached, 0, 7); });
  waitUntil([&] { return executor->records().size() == 2; });
  uncached->flushContentCache();
  EXPECT_EQ(executor->runAll(), 1);
  lateReader.join();
  EXPECT_EQ(late, "");
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);
}

TEST_F(WorkingFileEntryTest, OpenFailureSurfacesAtTheFirstUseOfTheInnerStream) {
  foundation::log::MemorySink sink;
  store->elsewhere().writeFile(u"/o", "content");
  store->failNext(Operation::OpenReadOnlyStream, 1, fsp::ErrorCode::InUse);
  auto executor = std::make_shared<RecordingExecutor>(true);
  auto entry = makeEntry(u"/o", WorkingFileEntryParams(100, 100), executor);
  EXPECT_NO_THROW(entry->openReadOnly());
  EXPECT_NO_THROW(entry->checkAndOpenIfNecessary());  // no read has needed the store yet
  EXPECT_EQ(readAt(*entry, 0, 7), "");                // an uncached read ends short
  EXPECT_TRUE(sink.contains("Exception caught: "));
  EXPECT_EQ(codeOf([&] { entry->checkAndOpenIfNecessary(); }), fsp::ErrorCode::InUse);

  // With synchronous parameters the failure is thrown by the opening itself.
  store->failNext(Operation::OpenStream, 1, fsp::ErrorCode::NotWritable);
  auto sync = makeEntry(u"/o", WorkingFileEntryParams(100, 100).withSynchronous(true), executor);
  EXPECT_EQ(codeOf([&] { sync->openReadWrite({}); }), fsp::ErrorCode::NotWritable);
}

TEST_F(WorkingFileEntryTest, AbortStateAndWatermark) {
  ManualClock clock;
  auto const timing = timingOn(clock);
  auto executor = std::make_shared<RecordingExecutor>();
  auto metadata = metadataFor(u"/m");
  metadata->withExtendedAttributes([] {
    fsp::ExtendedAttributes attributes;
    attributes.setAttribute("WATERMARK", std::string("7"));
    return attributes;
  }());
  auto entry = makeEntry(u"/m", WorkingFileEntryParams(100, 100), executor, timing, metadata);

  EXPECT_FALSE(entry->getAbortTime());
  auto const before = clock.now();
  EXPECT_FALSE(entry->canReturnEarlyWhenAbortIsSet(before));
  clock.advance(1s);
  entry->setAbort();
  EXPECT_EQ(entry->getAbortTime(), before + 1s);
  EXPECT_TRUE(entry->canReturnEarlyWhenAbortIsSet(before));
  EXPECT_TRUE(entry->canReturnEarlyWhenAbortIsSet(before + 1s));
  EXPECT_FALSE(entry->canReturnEarlyWhenAbortIsSet(before + 2s));
  clock.advance(5s);
  entry->setAbort();  // every call moves the time
  EXPECT_EQ(entry->getAbortTime(), before + 6s);
  EXPECT_FALSE(entry->wasAbortedDueToWriteProblem());

  EXPECT_FALSE(entry->hasDifferentWatermark("7"));
  EXPECT_TRUE(entry->hasDifferentWatermark("8"));
  EXPECT_TRUE(entry->hasDifferentWatermark("77"));
  EXPECT_TRUE(entry->hasDifferentWatermark(""));
}

TEST_F(WorkingFileEntryTest, MovesTakeTheCachedBytesAlong) {
  std::string const content = patternBytes(500);
  store->elsewhere().writeFile(u"/from", content);
  auto executor = std::make_shared<RecordingExecutor>(true);
  auto entry = makeEntry(u"/from", WorkingFileEntryParams(1000, 1000), executor);
  entry->openReadOnly();
  ASSERT_EQ(readAt(*entry, 0, 500), content);
  auto const oldPath = entry->getCheckoutPath();

  auto moved = metadataFor(u"/from");
  moved->setParentLocation(iriOf(u"/sub"));
  entry->moveToNewLocation(iriOf(u"/sub/from"), moved);
  EXPECT_EQ(entry->getLocation(), iriOf(u"/sub/from"));
  EXPECT_EQ(entry->getMetadata(), moved);
  EXPECT_EQ(entry->getCheckoutPath(), ovl::FilesystemCacheResource::checkoutPathFor(cache.path(), iriOf(u"/sub/from")));
  EXPECT_FALSE(std::filesystem::exists(oldPath));
  auto const reads = store->calls(Operation::Read);
  EXPECT_EQ(readAt(*entry, 0, 500), content);
  EXPECT_EQ(store->calls(Operation::Read), reads);

  entry->withNewLocation(iriOf(u"/other"));
  EXPECT_EQ(readFile(entry->getCheckoutPath()), content);
  EXPECT_THROW(entry->withNewMetadata(nullptr), std::invalid_argument);

  entry->removeCachedEntry();
  EXPECT_FALSE(std::filesystem::exists(entry->getCheckoutPath()));
}

TEST_F(WorkingFileEntryTest, CopyCarriesEveryByteOfAPartlyCachedFile) {
  std::string const content = patternBytes(1000);
  store->elsewhere().writeFile(u"/src", content);
  auto executor = std::make_shared<RecordingExecutor>(true);
  auto entry = makeEntry(u"/src", WorkingFileEntryParams(100, 100), executor);
  entry->openReadWrite({});
  ASSERT_EQ(readAt(*entry, 200, 50), content.substr(200, 50));
  entry->write(990, "0123456789", 10);  // buffered, not yet at the store

  auto copyMetadata = std::make_shared<ovl::FileMetadata>(iriOf(u"/dst"), true);
  copyMetadata->withSize(1000);
  auto copy = entry->copy(copyMetadata);
  ASSERT_NE(copy, entry);
  EXPECT_EQ(copy->getLocation(), iriOf(u"/dst"));
  EXPECT_EQ(copy->getRefCount(), 0);

  // The store has no /dst: every byte must come from the copied cache file.
  std::string expected = content;
  expected.replace(990, 10, "0123456789");
  auto const reads = store->calls(Operation::Read);
  copy->openReadOnly();
  EXPECT_EQ(readAt(*copy, 0, 1000), expected);
  EXPECT_EQ(store->calls(Operation::Read), reads);
}

// Random reads, writes, appends, seeks past the end and closes through several streams
// on one entry, over a real background executor, with one inner read in five failing.
// Every read must deliver a prefix of what the model holds (a failed read may end
// short), and once everything is closed and the queue has drained the store holds
// exactly the model.
TEST_F(WorkingFileEntryTest, RandomOperationsMatchAModelOfTheFile) {
  std::string model = patternBytes(2 * kMiB, 7);
  store->elsewhere().writeFile(u"/model", model);
  auto executor = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);
  ovl::EntryTiming timing;
  timing.sleepFor = [](std::chrono::milliseconds) {};
  auto entry = makeEntry(u"/model", WorkingFileEntryParams(3000, 5000), executor, timing);
  store->failEvery(Operation::Read, 5, fsp::ErrorCode::TransientFailure, 42);

  std::mt19937 random(1234);
  auto uniform = [&](long long lo, long long hi) { return std::uniform_int_distribution<long long>(lo, hi)(random); };
  int openStreams = 0;
  long long delivered = 0;
  for (int step = 0; step < 3000; ++step) {
    if (openStreams == 0) {
      entry->openReadWrite({});
      ++openStreams;
    }
    auto const size = static_cast<long long>(model.size());
    switch (uniform(0, 9)) {
      case 0:
      case 1:
      case 2:
      case 3: {  // read
        long long const position = uniform(0, size + 10);
        long long const count = uniform(0, 4000);
        std::string const got = readAt(*entry, position, count);
        if (position >= size) {
          EXPECT_EQ(got, "<eof>") << "step " << step;
        } else {
          ASSERT_LE(static_cast<long long>(got.size()), std::min(count, size - position)) << "step " << step;
          ASSERT_EQ(got, model.substr(static_cast<std::size_t>(position), got.size())) << "step " << step;
          delivered += static_cast<long long>(got.size());
        }
        break;
      }
      case 4:
      case 5:
      case 6: {  // write inside or a little past the end
        long long const position = uniform(0, size + 100);
        std::string const data = patternBytes(static_cast<std::size_t>(uniform(1, 6000)), static_cast<unsigned>(step));
        entry->write(position, data.data(), static_cast<long long>(data.size()));
        if (position > size) model.resize(static_cast<std::size_t>(position), '\0');
        if (position + static_cast<long long>(data.size()) > static_cast<long long>(model.size()))
          model.resize(static_cast<std::size_t>(position) + data.size(), '\0');
        model.replace(static_cast<std::size_t>(position), data.size(), data);
        break;
      }
      case 7: {  // append
        std::string const data = patternBytes(static_cast<std::size_t>(uniform(1, 3000)), static_cast<unsigned>(step));
        entry->append(data.data(), static_cast<long long>(data.size()));
        model += data;
        break;
      }
      case 8:  // another stream
        if (openStreams < 4) {
          entry->openReadWrite({});
          ++openStreams;
        }
        break;
      case 9:  // a stream closes
        entry->flushContentCache();
        --openStreams;
        break;
    }
    ASSERT_EQ(entry->getFileSize(), model.size()) << "step " << step;
  }
  while (openStreams-- > 0) entry->flushContentCache();
  executor->waitForPendingToFinish();
  executor->shutdown(false);
  executor->join();

  EXPECT_FALSE(entry->wasAbortedDueToWriteProblem());
  EXPECT_FALSE(entry->hasPendingBackgroundIO());
  EXPECT_GT(delivered, 0);
  EXPECT_EQ(storeContent(u"/model"), model);
}

}  // namespace
}  // namespace overlay_test
