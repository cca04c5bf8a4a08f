#include <core/content/WorkingFileEntry.hpp>

#include <core/content/EntryLogging.hpp>
#include <core/content/FilesystemCacheResource.hpp>
#include <core/content/NOOPCacheResource.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;
using Clock = std::chrono::steady_clock;

namespace {

// The largest run of zeros handed to the write buffer at once while filling a gap.
constexpr std::streamsize kGapChunk = 1 << 20;

// Whether a failed payload write is worth another attempt: a transient failure of the
// store, or an error that is not the store's answer at all.
bool worthRetrying(std::exception_ptr const& error) {
  try {
    std::rethrow_exception(error);
  } catch (fsp::Exception const& e) {
    return e.getErrorCode() == fsp::ErrorCode::TransientFailure;
  } catch (fsp::ByteStreamFailure const& e) {
    return e.getErrorCode() == fsp::ErrorCode::TransientFailure;
  } catch (...) {
    return true;
  }
}

std::int64_t offsetOf(std::streampos position) { return static_cast<std::int64_t>(std::streamoff(position)); }

}  // namespace

// Keeps one pending transaction counted until its body has run or the executor has
// dropped it unrun (then the token is destroyed with the task), so that readers waiting
// for pending write-behind are never left waiting for a transaction that will not come.
class WorkingFileEntry::PendingToken {
 public:
  explicit PendingToken(std::shared_ptr<WorkingFileEntry> entry) : entry_(std::move(entry)) {}
  ~PendingToken() { release(); }
  PendingToken(PendingToken const&) = delete;
  PendingToken& operator=(PendingToken const&) = delete;

  WorkingFileEntry& entry() const { return *entry_; }
  void release() {
    if (!released_.exchange(true)) entry_->pending_.remove();
  }

 private:
  std::shared_ptr<WorkingFileEntry> const entry_;
  std::atomic<bool> released_{false};
};

WorkingFileEntry::WorkingFileEntry(fl::filesystem::path cacheDirectory, std::shared_ptr<FileMetadata> metadata,
                                   std::shared_ptr<fsp::StorageItem> innerItem, std::shared_ptr<IExecutor> executor,
                                   std::shared_ptr<IQuotaAccountant> quotaAccountant, std::shared_ptr<TimedLatch> latch,
                                   WorkingFileEntryParams params, std::atomic<bool>& shutdownFlag, EntryTiming timing)
    : WorkingFileEntry(std::move(cacheDirectory), std::move(metadata), std::move(innerItem), std::move(executor),
                       std::move(quotaAccountant), std::move(latch), fl::filesystem::path(), std::streampos(0),
                       std::move(params), shutdownFlag, std::move(timing)) {}

WorkingFileEntry::WorkingFileEntry(fl::filesystem::path cacheDirectory, std::shared_ptr<FileMetadata> metadata,
                                   std::shared_ptr<fsp::StorageItem> innerItem, std::shared_ptr<IExecutor> executor,
                                   std::shared_ptr<IQuotaAccountant> quotaAccountant, std::shared_ptr<TimedLatch> latch,
                                   fl::filesystem::path const& sourceCheckoutPath, std::streampos initialCachePosition,
                                   WorkingFileEntryParams params, std::atomic<bool>& shutdownFlag, EntryTiming timing)
    : cacheDirectory_(std::move(cacheDirectory)),
      metadata_(std::move(metadata)),
      innerItem_(std::move(innerItem)),
      executor_(std::move(executor)),
      quotaAccountant_(std::move(quotaAccountant)),
      latch_(std::move(latch)),
      params_(std::move(params)),
      timing_(std::move(timing)),
      initialCachePosition_(offsetOf(initialCachePosition)),
      shutdownFlag_(shutdownFlag) {
  if (!metadata_) throw std::invalid_argument("WorkingFileEntry: no metadata record");
  if (!innerItem_) throw std::invalid_argument("WorkingFileEntry: no inner storage item");
  if (!executor_) throw std::invalid_argument("WorkingFileEntry: no executor");
  location_ = metadata_->getLocation();
  lastAccessTime_.store(timing_.now());
  cacheResource_ = buildCacheResource(metadata_, sourceCheckoutPath.empty() ? nullptr : &sourceCheckoutPath);
}

WorkingFileEntry::~WorkingFileEntry() {
  readAhead_.take();  // its thread refers to this entry
  backgroundSync_.join();
  try {
    if (cacheResource_) cacheResource_->close();
  } catch (...) {
  }
}

std::shared_ptr<CacheResource> WorkingFileEntry::buildCacheResource(
    std::shared_ptr<FileMetadata> const& metadata, fl::filesystem::path const* sourceCheckoutPath) const {
  if (!params_.usesDiskCaching()) return std::make_shared<NOOPCacheResource>();
  if (sourceCheckoutPath != nullptr)
    return std::make_shared<FilesystemCacheResource>(metadata, cacheDirectory_, *sourceCheckoutPath);
  return std::make_shared<FilesystemCacheResource>(metadata, cacheDirectory_);
}

fsp::StorageItem WorkingFileEntry::innerItemFor(fsp::StorageIRI const& location) const {
  return fsp::StorageItem(*innerItem_, location.getPath());
}

// ---- accessors ------------------------------------------------------------------------

std::shared_ptr<FileMetadata> WorkingFileEntry::getMetadata() const {
  LockGuard lock(mutex_);
  return metadata_;
}

fsp::StorageIRI WorkingFileEntry::getLocation() const {
  LockGuard lock(mutex_);
  return location_;
}

unsigned long WorkingFileEntry::getFileSize() const {
  LockGuard lock(mutex_);
  return metadata_->getFileSize();
}

Clock::time_point WorkingFileEntry::getLastAccessTime() const { return lastAccessTime_.load(); }

bool WorkingFileEntry::isOpen() const {
  LockGuard lock(mutex_);
  return openMode_ != kNotOpened;
}

bool WorkingFileEntry::hasPendingBackgroundIO() const { return pending_.any(); }

bool WorkingFileEntry::isReadOnly() const {
  LockGuard lock(mutex_);
  return openMode_ == kOpenedReadOnly;
}

std::int64_t WorkingFileEntry::getRefCount() const {
  LockGuard lock(mutex_);
  return refCount_;
}

fl::filesystem::path WorkingFileEntry::getCheckoutPath() const {
  LockGuard lock(mutex_);
  return cacheResource_->getCheckoutPath();
}

void WorkingFileEntry::incrementRefCount() {
  LockGuard lock(mutex_);
  ++refCount_;
}

void WorkingFileEntry::decrementRefCount() {
  LockGuard lock(mutex_);
  if (refCount_ > 0) --refCount_;
}

WorkingFileEntry& WorkingFileEntry::withNewLocation(fsp::StorageIRI location) {
  LockGuard lock(mutex_);
  location_ = location;
  cacheResource_->setLocation(std::move(location));
  return *this;
}

WorkingFileEntry& WorkingFileEntry::withNewMetadata(std::shared_ptr<FileMetadata> metadata) {
  if (!metadata) throw std::invalid_argument("WorkingFileEntry::withNewMetadata: no metadata record");
  LockGuard lock(mutex_);
  metadata_ = std::move(metadata);
  return *this;
}

void WorkingFileEntry::setInvalidationWasTriggered() { invalidationWasTriggered_.store(true); }

bool WorkingFileEntry::wasInvalidationTriggered() const { return invalidationWasTriggered_.load(); }

void WorkingFileEntry::removeCachedEntry() {
  LockGuard lock(mutex_);
  cacheResource_->remove();
}

bool WorkingFileEntry::hasDifferentWatermark(std::string const& watermark) const {
  LockGuard lock(mutex_);
  return metadata_->getWatermark() != watermark;
}

bool WorkingFileEntry::hasDifferentWatermark(FileMetadata const& record) const {
  {
    LockGuard lock(mutex_);
    if (&record == metadata_.get()) return false;
  }
  // Another record's attributes may still have to be fetched from the store: read
  // without mutex_.
  return hasDifferentWatermark(record.getWatermark());
}

// ---- abort state ------------------------------------------------------------------------

void WorkingFileEntry::setAbort() { abort_.set(timing_.now()); }

std::optional<Clock::time_point> WorkingFileEntry::getAbortTime() const { return abort_.time(); }

bool WorkingFileEntry::wasAbortedDueToWriteProblem() const { return abort_.hasWriteProblem(); }

bool WorkingFileEntry::canReturnEarlyWhenAbortIsSet(Clock::time_point since) const {
  return abort_.abortedSince(since) || abort_.hasWriteProblem();
}

// ---- opening ------------------------------------------------------------------------------

namespace {

// An OpenOperation body: waits for `opened`, giving up when the entry is aborted meanwhile.
template <class CanReturnEarly>
WorkingFileEntry::ByteStreamPtr awaitOpened(std::shared_future<WorkingFileEntry::ByteStreamPtr> const& opened,
                                            EntryTiming const& timing, fsp::StorageIRI const& location,
                                            CanReturnEarly const& canReturnEarly) {
  auto const since = timing.now();
  while (opened.wait_for(timing.abortPollInterval) != std::future_status::ready) {
    if (canReturnEarly(since))
      throw fsp::Exception(fsp::ErrorCode::TransientFailure, location,
                           "the wait for the inner stream to open ended because the file was aborted");
  }
  return opened.get();
}

}  // namespace

void WorkingFileEntry::runOpen(std::shared_ptr<std::promise<ByteStreamPtr>> const& promise,
                               fsp::StorageIRI const& location, bool forWriting,
                               fsp::ByteStreamOpenOptions const& options, std::uint64_t generation) {
  // Up to three attempts, as for every queued change (see runInnerWrite).
  for (int attempt = 1;; ++attempt) {
    try {
      promise->set_value(innerStream_.open(*innerItem_, location, forWriting, options, generation));
      return;
    } catch (...) {
      entrylog::caught();
      if (attempt < 3 && worthRetrying(std::current_exception())) continue;
      promise->set_exception(std::current_exception());
      return;
    }
  }
}

void WorkingFileEntry::enqueueOpenOperation(ObservableTransactionType type, fsp::ByteStreamOpenOptions const& options) {
  bool const forWriting = type != ObservableTransactionType::FILE_OPEN_READONLY;
  fsp::ByteStreamOpenOptions innerOptions = options;
  // Payloads are written at explicit positions; an inner stream in append mode would
  // move every one of them to the end.
  innerOptions.append = false;
  std::uint64_t const generation = ++openGeneration_;
  auto promise = std::make_shared<std::promise<ByteStreamPtr>>();
  std::shared_future<ByteStreamPtr> opened = promise->get_future().share();
  fsp::StorageIRI const location = location_;
  unstartedOpen_.reset();
  openOperation_ = [this, opened, location]() -> ByteStreamPtr {
    return awaitOpened(opened, timing_, location, [this](auto since) { return canReturnEarlyWhenAbortIsSet(since); });
  };
  // A task the executor drops unrun destroys the promise, which hands waiters a
  // broken-promise error instead of leaving them waiting.
  executor_->executeTouching(
      [self = shared_from_this(), promise, location, forWriting, innerOptions, generation]() {
        self->runOpen(promise, location, forWriting, innerOptions, generation);
      },
      type, params_.getMinItemWeight(), Touches::location(location.toString()));
}

void WorkingFileEntry::prepareReadOnlyOpen() {
  std::uint64_t const generation = ++openGeneration_;
  auto promise = std::make_shared<std::promise<ByteStreamPtr>>();
  std::shared_future<ByteStreamPtr> opened = promise->get_future().share();
  auto unstarted = std::make_shared<std::atomic<bool>>(true);
  auto once = std::make_shared<std::once_flag>();
  // Handed on at the start, so that a task the executor drops unrun destroys the promise
  // (waiters get a broken-promise error, as for a queued open).
  auto toStart = std::make_shared<std::shared_ptr<std::promise<ByteStreamPtr>>>(std::move(promise));
  unstartedOpen_ = unstarted;
  openOperation_ = [this, opened, toStart, generation, unstarted, once, location = location_]() -> ByteStreamPtr {
    std::call_once(*once, [&] {
      unstarted->store(false);
      startReadOnlyOpen(std::exchange(*toStart, nullptr), generation);
    });
    return awaitOpened(opened, timing_, location, [this](auto since) { return canReturnEarlyWhenAbortIsSet(since); });
  };
}

void WorkingFileEntry::startReadOnlyOpen(std::shared_ptr<std::promise<ByteStreamPtr>> promise,
                                         std::uint64_t generation) {
  fsp::StorageIRI location;
  {
    LockGuard lock(mutex_);
    location = location_;  // where the file is now, moves included
  }
  Touches const touches = Touches::location(location.toString());
  auto task = [self = shared_from_this(), promise, location, generation]() {
    self->runOpen(promise, location, false, {}, generation);
  };
  if (executor_->tryRunHere(task, touches)) return;
  executor_->executeTouching(std::move(task), ObservableTransactionType::FILE_OPEN_READONLY, params_.getMinItemWeight(),
                             touches);
}

WorkingFileEntry::OpenOperation WorkingFileEntry::currentOpenOperation() const {
  LockGuard lock(mutex_);
  return openOperation_;
}

WorkingFileEntry::ByteStreamPtr WorkingFileEntry::awaitOpen(OpenOperation const& openOperation) const {
  if (!openOperation) throw std::bad_function_call();
  return openOperation();
}

void WorkingFileEntry::openReadOnly() {
  OpenOperation toAwait;
  {
    LockGuard lock(mutex_);
    ++refCount_;
    if (openMode_ == kNotOpened) {
      openMode_ = kOpenedReadOnly;
      prepareReadOnlyOpen();
    }
    if (params_.isSynchronous()) toAwait = openOperation_;
  }
  if (toAwait) awaitOpen(toAwait);
}

void WorkingFileEntry::openReadWrite(fsp::ByteStreamOpenOptions const& options) {
  UniqueLock lock(mutex_);
  ++refCount_;
  bool const wasReadOnly = openMode_ == kOpenedReadOnly;
  bool const othersHoldIt = refCount_ > 1;
  bool const needsOpen = !(openMode_ == kOpenedReadWrite && !options.truncate);
  if (needsOpen) {
    if (options.truncate) {
      currentBuffer_.reset();
      setAbort();
      if (quotaAccountant_) quotaAccountant_->removeFile(location_);
      metadata_->withSize(0);
      cacheResource_->close();
      metadata_->withLastModified(cacheResource_->getCurrentLastModified());
      cacheResource_->remove();
    }
    initialCachePosition_ = 0;
  }
  openMode_ = kOpenedReadWrite;
  if (!needsOpen) return;

  auto const metadata = metadata_;
  std::uint64_t const readOnlyGeneration = openGeneration_;
  // Queued before mutex_ is let go: from the moment the entry is read-write, another
  // stream skips its own open and queues its payloads behind the latest one, which must
  // be this read-write open, not the read-only open before it (a payload run on the
  // read-only inner stream fails and aborts the entry).
  enqueueOpenOperation(ObservableTransactionType::FILE_OPEN_READWRITE, options);
  OpenOperation const toAwait = params_.isSynchronous() ? openOperation_ : OpenOperation();
  lock.unlock();
  // Readers on other streams keep the read-only inner stream until the read-write open
  // replaces it. Closing it after the open was queued is safe: a read-write open that has
  // run already claimed the inner stream, and this close leaves a claimed stream alone.
  if (wasReadOnly && !othersHoldIt && !hasPendingBackgroundIO()) closeInnerStreamNow(metadata, readOnlyGeneration);
  if (toAwait) awaitOpen(toAwait);
}

void WorkingFileEntry::checkAndOpenIfNecessary() {
  OpenOperation openOperation;
  {
    LockGuard lock(mutex_);
    if (refCount_ < 1) return;
    if (unstartedOpen_ && unstartedOpen_->load()) return;
    openOperation = openOperation_;
  }
  try {
    awaitOpen(openOperation);
  } catch (...) {
    entrylog::caught();
    throw;
  }
}

// ---- reading --------------------------------------------------------------------------------

std::streamsize WorkingFileEntry::readFromInnerStream(OpenOperation const& openOperation,
                                                      fsp::StorageIRI const& location, std::streampos position,
                                                      char* buffer, std::streamsize count) {
  awaitOpen(openOperation);
  return innerStream_.read(location, position, buffer, count);
}

std::streamsize WorkingFileEntry::mergePayloadWithCache(std::streamoff position, char* payload, std::streamsize fetched,
                                                       std::streamsize payloadSize) {
  if (cacheResource_->cacheWriteErrored()) return fetched;
  auto const* filesystemResource = dynamic_cast<FilesystemCacheResource const*>(cacheResource_.get());
  if (filesystemResource == nullptr) {
    if (fetched > 0) cacheResource_->write(position, payload, fetched);
    return fetched;
  }
  std::int64_t const fetchedEnd = position + fetched;
  std::int64_t const payloadEnd = position + payloadSize;
  std::int64_t cursor = position;  // bytes before it are stored or known to be cached
  std::int64_t known = fetchedEnd;
  auto storeFetched = [&](std::int64_t from, std::int64_t to) REQUIRES(mutex_) {
    to = std::min(to, fetchedEnd);
    if (to > from) cacheResource_->write(from, payload + (from - position), to - from);
  };
  // Runs may overlap (see FilesystemCacheResource); walking them in order of start and
  // keeping a cursor covers their union.
  for (auto const& [runStart, runEnd] : filesystemResource->getCachedRuns()) {
    if (runEnd <= cursor) continue;
    if (runStart >= payloadEnd) break;
    storeFetched(cursor, runStart);
    std::int64_t const from = std::max<std::int64_t>(runStart, cursor);
    std::int64_t const to = std::min<std::int64_t>(runEnd, payloadEnd);
    if (to > from) {
      // What the cache holds may be newer than the inner store (written behind later);
      // keep the fetched bytes only where the cache read falls short.
      std::streamsize const got = cacheResource_->read(from, payload + (from - position), to - from);
      if (got > 0 && from <= known) known = std::max<std::int64_t>(known, from + got);
    }
    cursor = std::max(cursor, to);
    if (cursor >= payloadEnd) break;
  }
  storeFetched(cursor, fetchedEnd);
  return known - position;
}

std::streamsize WorkingFileEntry::readFromInnerAndWriteToCache(std::streampos position, char* buffer,
                                                                  std::streamsize count) {
  if (count < 1) return 0;
  std::int64_t const start = offsetOf(position);
  std::int64_t size = 0;
  bool readOnly = false;
  std::uint64_t generation = 0;
  OpenOperation openOperation;
  fsp::StorageIRI location;
  {
    LockGuard lock(mutex_);
    size = static_cast<std::int64_t>(metadata_->getFileSize());
    readOnly = openMode_ == kOpenedReadOnly;
    generation = openGeneration_;
    openOperation = openOperation_;
    location = location_;
  }
  if (start >= size) return 0;
  auto const maxRead = static_cast<std::int64_t>(std::max<unsigned long long>(1, params_.getMaxReadPayloadSize()));
  bool const readAhead = readOnly && !hasPendingBackgroundIO();
  std::int64_t payload = readAhead ? maxRead : std::min<std::int64_t>(count, maxRead);
  payload = std::min(payload, size - start);

  // A payload fetched ahead is taken when it is exactly this one, for this same opening;
  // any other is let finish and dropped.
  std::unique_ptr<char[]> bytes;
  std::streamsize n = 0;
  std::exception_ptr failure;
  if (auto ahead = readAhead_.take()) {
    if (readAhead && ahead->position == start && ahead->size == payload && ahead->generation == generation) {
      bytes = std::move(ahead->bytes);
      n = ahead->fetched;
      failure = ahead->failure;
    }
  }
  if (!bytes) {
    bytes = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(payload) + 1);
    try {
      n = readFromInnerStream(openOperation, location, position, bytes.get(), payload);
    } catch (...) {
      failure = std::current_exception();
    }
  }
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (...) {
      entrylog::caught();
    }
    return -1;
  }
  n = std::min<std::streamsize>(n, payload);

  if (readAhead && params_.usesDiskCaching() && n == payload && start + n < size) {
    // A reader that has gone through enough of the file in order gets the next payload
    // fetched while this one is stored in the cache.
    bool const sequential = readAhead_.recordFetched(start, n) >= kReadAheadAfter;
    if (sequential) {
      // The thread refers to this entry without owning it: whoever takes the fetch, the
      // destructor included, joins the thread first.
      readAhead_.start(start + n, std::min<std::int64_t>(maxRead, size - (start + n)), generation,
                       [this, openOperation, location](std::int64_t at, char* into, std::int64_t length) {
                         return readFromInnerStream(openOperation, location, at, into, length);
                       });
    }
  }

  if (params_.usesDiskCaching()) {
    LockGuard lock(mutex_);
    n = mergePayloadWithCache(start, bytes.get(), n, payload);
  }
  std::streamsize const copied = std::min<std::streamsize>(n, count);
  if (copied > 0) std::memcpy(buffer, bytes.get(), static_cast<std::size_t>(copied));
  return copied;
}

void WorkingFileEntry::cacheInitialPartOfFileNotYetCached(std::streampos position) {
  std::int64_t target = 0;
  {
    LockGuard lock(mutex_);
    target = initialCachePosition_;
  }
  auto const maxRead = static_cast<std::streamsize>(std::max<unsigned long long>(1, params_.getMaxReadPayloadSize()));
  std::vector<char> scratch(static_cast<std::size_t>(maxRead));
  std::int64_t fetched = 0;
  std::int64_t next = offsetOf(position);
  while (fetched < target) {
    std::streamsize const n = readFromInnerAndWriteToCache(next, scratch.data(), maxRead);
    if (n < 1) break;
    fetched += n;
    next += n;
  }
}

bool WorkingFileEntry::cacheWholeFile() {
  auto const maxRead = static_cast<std::streamsize>(std::max<unsigned long long>(1, params_.getMaxReadPayloadSize()));
  std::vector<char> scratch(static_cast<std::size_t>(maxRead));
  for (;;) {
    std::int64_t size = 0;
    IntegrityInfo info;
    {
      LockGuard lock(mutex_);
      size = static_cast<std::int64_t>(metadata_->getFileSize());
      if (size == 0) return true;
      if (cacheResource_->cacheWriteErrored()) return false;
      info = cacheResource_->checkAndGetIntegrityInfo(0, size);
    }
    if (info.status == IntegrityStatus::Complete) return true;
    if (info.status == IntegrityStatus::Uncached) return false;
    std::int64_t next = 0;
    if (info.status == IntegrityStatus::Partial && info.missingRange) next = offsetOf(info.missingRange->first);
    std::streamsize const n =
        readFromInnerAndWriteToCache(next, scratch.data(), std::min<std::int64_t>(maxRead, size - next));
    if (n < 1) return false;
  }
}

bool WorkingFileEntry::atEOF(unsigned long long position) const {
  LockGuard lock(mutex_);
  return position >= metadata_->getFileSize();
}

void WorkingFileEntry::waitForPendingToDrain() {
  auto const period = params_.getWaitForZeroPeriod();
  if (period.count() <= 0) return;
  auto const deadline = timing_.now() + period;
  pending_.awaitNone(timing_, deadline);
}

std::streamsize WorkingFileEntry::read(std::streampos position, char* buffer, std::streamsize count) {
  if (count < 0) throw std::invalid_argument("WorkingFileEntry::read: negative count");
  lastAccessTime_.store(timing_.now());
  std::int64_t const start = offsetOf(position);

  IntegrityStatus status = IntegrityStatus::Absent;
  std::streamsize fromCache = 0;
  std::streamsize fromCacheTail = 0;
  std::int64_t tailStart = 0;
  {
    LockGuard lock(mutex_);
    auto const size = static_cast<std::int64_t>(metadata_->getFileSize());
    if (size <= start) return -1;
    if (count == 0) return 0;
    IntegrityInfo const info = cacheResource_->checkAndGetIntegrityInfo(position, count);
    status = info.status;
    if (status == IntegrityStatus::Complete) {
      fromCache = cacheResource_->read(position, buffer, count);
      // A complete range read back short means the cache file failed us: the rest is
      // fetched like missing bytes.
      if (fromCache >= count) return count;
      fromCache = std::max<std::streamsize>(fromCache, 0);
    } else if (status == IntegrityStatus::Partial && info.missingRange) {
      std::int64_t const missingStart = offsetOf(info.missingRange->first);
      std::int64_t const missingEnd = offsetOf(info.missingRange->second);
      std::streamsize const head = missingStart - start;
      if (head > 0) fromCache = std::max<std::streamsize>(cacheResource_->read(position, buffer, head), 0);
      if (fromCache == head && start + count > missingEnd && missingEnd > missingStart) {
        std::streamsize const tail = start + count - missingEnd;
        std::streamsize const got = cacheResource_->read(missingEnd, buffer + (missingEnd - start), tail);
        if (got == tail) {
          fromCacheTail = tail;
          tailStart = missingEnd;
        }
      }
    }
    if (start + fromCache >= size) return std::min<std::streamsize>(fromCache, count);
  }

  waitForPendingToDrain();

  std::streamsize remaining = count - (fromCache + fromCacheTail);
  std::int64_t next = start + fromCache;
  std::streamsize total = fromCache;
  try {
    int retries = 0;
    while (remaining >= 1) {
      {
        LockGuard lock(mutex_);
        if (static_cast<std::int64_t>(metadata_->getFileSize()) <= next) break;
      }
      std::streamsize const n = readFromInnerAndWriteToCache(next, buffer + total, remaining);
      if (n < 0) {
        if (status != IntegrityStatus::Partial || retries >= kMaxReadRetries) break;
        ++retries;
        timing_.sleepFor(kReadRetryPause);
        continue;
      }
      if (n == 0) break;  // the inner file ends before the size the overlay knows
      total += n;
      next += n;
      remaining -= n;
    }
  } catch (...) {
    if (status != IntegrityStatus::Absent) throw;
    LockGuard lock(mutex_);
    std::streamsize const got = cacheResource_->read(position, buffer, count);
    return std::min<std::streamsize>(std::max<std::streamsize>(got, 0), count);
  }
  // The cached tail joins the delivered bytes once the gap before it is filled.
  if (fromCacheTail > 0 && next == tailStart) total += fromCacheTail;
  return std::min<std::streamsize>(total, count);
}

// ---- writing ------------------------------------------------------------------------------

void WorkingFileEntry::incrementPendingCounter() { pending_.add(); }

void WorkingFileEntry::writeToCache(std::streampos position, char const* data, std::streamsize count) {
  if (!cacheResource_->cacheWriteErrored()) cacheResource_->write(position, data, count);
}

void WorkingFileEntry::writeToInner(std::streampos position, char const* data, std::streamsize count) {
  auto const capacity = static_cast<unsigned long>(params_.getMaxWritePayloadSize());
  if (!currentBuffer_) currentBuffer_ = std::make_unique<WritableBuffer>(position, capacity);
  WriteOutcome const outcome = currentBuffer_->write(position, data, count);
  if (params_.usesDiskCaching() && outcome == WriteOutcome::Accepted) return;
  enqueueInnerWrite();
  if (outcome == WriteOutcome::Rejected) {
    currentBuffer_ = std::make_unique<WritableBuffer>(position, capacity);
    WriteOutcome const retried = currentBuffer_->write(position, data, count);
    // Without disk caching every write leaves at once; a write as large as a payload
    // leaves at once anyway.
    if (!params_.usesDiskCaching() || retried != WriteOutcome::Accepted) enqueueInnerWrite();
  }
}

void WorkingFileEntry::enqueueInnerWrite() {
  if (!currentBuffer_ || currentBuffer_->getBytesWritten() <= 0) return;
  std::streampos const start = currentBuffer_->getStartPosition();
  auto bytes = std::make_shared<std::vector<char> const>(currentBuffer_->data());
  currentBuffer_.reset();

  double const weight = static_cast<double>(bytes->size()) / 1000000.0 + params_.getMinItemWeight();
  incrementPendingCounter();
  auto token = std::make_shared<PendingToken>(shared_from_this());
  executor_->executeTouching(
      [token, start, bytes, enqueued = timing_.now(), openOperation = openOperation_, location = location_,
       metadata = metadata_]() {
        token->entry().runInnerWrite(start, *bytes, enqueued, openOperation, location, metadata);
        token->release();
      },
      ObservableTransactionType::FILE_WRITE, weight, Touches::location(location_.toString()).carrying(bytes->size()));
}

void WorkingFileEntry::runInnerWrite(std::streampos start, std::vector<char> const& bytes,
                                     Clock::time_point enqueued, OpenOperation const& openOperation,
                                     fsp::StorageIRI const& location, std::shared_ptr<FileMetadata> const& metadata) {
  if (shutdownFlag_.load()) return;
  if (abort_.hasWriteProblem()) return;
  if (abort_.abortedSince(enqueued)) return;
  // Up to three attempts, as every other queued change gets: a transient failure of the
  // store or an unexpected error is tried again; a refusal (not writable, quota) is not.
  constexpr int kAttempts = 3;
  for (int attempt = 1;; ++attempt) {
    try {
      awaitOpen(openOperation);
      innerStream_.write(location, start, bytes);
      return;
    } catch (...) {
      if (attempt < kAttempts && worthRetrying(std::current_exception())) {
        entrylog::caught();
        continue;
      }
      entrylog::failure("Unexpected exception during write operation");
      reportUndelivered(location, "write");
    }
    break;
  }
  innerStream_.dropAfterFailedWrite();
  metadata->thaw();
  abort_.setWriteProblem();
  if (quotaAccountant_) {
    try {
      quotaAccountant_->removeFile(location);
    } catch (...) {
      entrylog::caught();
    }
  }
}

void WorkingFileEntry::reportUndelivered(fsp::StorageIRI const& location, char const* change) const noexcept {
  if (!deliveryReport_) return;
  try {
    // Named as the store names it (the inner-most IRI has no authority).
    deliveryReport_->undelivered(innerItemFor(location).getLocation(), change, std::current_exception());
  } catch (...) {
    // The failure is in the log either way.
  }
}

void WorkingFileEntry::flushBuffered() {
  cacheResource_->flush(metadata_->getLastModified());
  enqueueInnerWrite();
}

std::streamsize WorkingFileEntry::write(std::streampos position, char const* data, std::streamsize count) {
  if (count < 0) throw std::invalid_argument("WorkingFileEntry::write: negative count");
  if (latch_) latch_->trigger();
  lastAccessTime_.store(timing_.now());
  std::int64_t const start = offsetOf(position);
  std::int64_t const end = start + count;

  auto const cacheSpace = innerItem_->getProviderCacheUsage().getSpaceAvailable();
  if (cacheSpace && end > static_cast<std::int64_t>(*cacheSpace)) {
    LockGuard lock(mutex_);
    flushBuffered();
    throw fsp::Exception(fsp::ErrorCode::NoCacheSpace, location_);
  }

  LockGuard lock(mutex_);
  if (abort_.hasWriteProblem()) return count;
  auto const size = static_cast<std::uint64_t>(metadata_->getFileSize());
  auto const newSize = std::max<std::uint64_t>(size, static_cast<std::uint64_t>(end));
  if (quotaAccountant_) {
    auto const quota = quotaAccountant_->getSpaceAvailable();
    if (quota && newSize >= size + *quota) throw fsp::Exception(fsp::ErrorCode::QuotaExceeded, location_);
  }
  if (start > static_cast<std::int64_t>(size)) {
    std::int64_t gapStart = static_cast<std::int64_t>(size);
    std::vector<char> const zeros(static_cast<std::size_t>(std::min<std::int64_t>(start - gapStart, kGapChunk)), 0);
    while (gapStart < start) {
      std::streamsize const n = std::min<std::int64_t>(start - gapStart, kGapChunk);
      writeToInner(gapStart, zeros.data(), n);
      writeToCache(gapStart, zeros.data(), n);
      gapStart += n;
    }
  }
  writeToInner(position, data, count);
  writeToCache(position, data, count);

  if (quotaAccountant_) quotaAccountant_->removeFile(location_);
  metadata_->withSize(static_cast<unsigned long>(newSize));
  if (quotaAccountant_) quotaAccountant_->addBytesWritten(static_cast<std::size_t>(newSize));
  metadata_->withLastModified(cacheResource_->getCurrentLastModified());
  return count;
}

std::streamsize WorkingFileEntry::append(char const* data, std::streamsize count) {
  if (count < 0) throw std::invalid_argument("WorkingFileEntry::append: negative count");
  lastAccessTime_.store(timing_.now());

  auto const cacheSpace = innerItem_->getProviderCacheUsage().getSpaceAvailable();
  LockGuard lock(mutex_);
  auto const size = static_cast<std::uint64_t>(metadata_->getFileSize());
  if (cacheSpace && size + static_cast<std::uint64_t>(count) >= *cacheSpace) {
    flushBuffered();
    throw fsp::Exception(fsp::ErrorCode::NoCacheSpace, location_);
  }
  if (abort_.hasWriteProblem()) return 0;
  if (quotaAccountant_) {
    auto const quota = quotaAccountant_->getSpaceAvailable();
    if (quota && *quota <= static_cast<std::uint64_t>(count))
      throw fsp::Exception(fsp::ErrorCode::QuotaExceeded, location_);
  }
  std::streampos const position(static_cast<std::streamoff>(size));
  writeToInner(position, data, count);
  writeToCache(position, data, count);

  std::uint64_t const newSize = size + static_cast<std::uint64_t>(count);
  if (quotaAccountant_) quotaAccountant_->removeFile(location_);
  metadata_->withSize(static_cast<unsigned long>(newSize));
  if (quotaAccountant_) quotaAccountant_->addBytesWritten(static_cast<std::size_t>(newSize));
  metadata_->withLastModified(cacheResource_->getCurrentLastModified());
  return 0;
}

// ---- closing ----------------------------------------------------------------------------------

void WorkingFileEntry::closeInnerStreamNow(std::shared_ptr<FileMetadata> const& metadata, std::uint64_t generation) {
  innerStream_.closeUnlessReclaimed(generation,
                                    [] { entrylog::failure("Unexpected exception during close operation"); });
  metadata->thaw();
}

void WorkingFileEntry::runInnerClose(fsp::StorageIRI const& location, std::shared_ptr<FileMetadata> const& metadata,
                                     std::uint64_t generation, DurabilityHandle* durability) {
  // The cache file is durable before the inner store's copy is final.
  if (durability) durability->run();
  fsp::StorageItem const item = innerItemFor(location);
  // A store whose stream can set the time in its close saves the call after it.
  bool const timed = innerStream_.closeUnlessReclaimed(
      generation,
      [this, &location] {
        entrylog::failure("Unexpected exception during close operation");
        reportUndelivered(location, "close");
      },
      metadata->getLastModified());
  if (!timed) {
    try {
      item.setLastModified(metadata->getLastModified());
    } catch (...) {
      entrylog::failure("Exception during attempt to set last modified time");
      reportUndelivered(location, "setLastModified");
    }
  }
  auto read = [metadata, item] {
    try {
      metadata->withExtendedAttributes(item.getExtendedAttributes());
    } catch (...) {
      entrylog::failure("Unexpected exception during attempt to update extended attributes");
    }
  };
  // While a flush waits for the queue, the read is the flush's to make or to forget.
  if (!flushReads_ || !flushReads_->defer(read)) read();
  if (thawWritten_) {
    try {
      thawWritten_(metadata);
      return;
    } catch (...) {
      entrylog::failure("Unexpected exception during close operation");
    }
  }
  metadata->thaw();
}

void WorkingFileEntry::setFlushAttributeReads(std::shared_ptr<FlushAttributeReads> reads) {
  flushReads_ = std::move(reads);
}

void WorkingFileEntry::setThawWritten(ThawWritten thaw) { thawWritten_ = std::move(thaw); }

// Runs before the entry is shared (see the header), so cacheResource_ needs no lock yet.
void WorkingFileEntry::setDeliveryReport(std::shared_ptr<DeliveryReport> report) NO_THREAD_SAFETY_ANALYSIS {
  deliveryReport_ = std::move(report);
  if (auto* const resource = dynamic_cast<FilesystemCacheResource*>(cacheResource_.get())) {
    resource->setDeliveryReport(deliveryReport_);
  }
}

std::shared_ptr<WorkingFileEntry::DurabilityHandle> WorkingFileEntry::stampCacheFile() {
  auto* const filesystemResource = dynamic_cast<FilesystemCacheResource*>(cacheResource_.get());
  if (filesystemResource == nullptr) {
    cacheResource_->flush(metadata_->getLastModified());
    return nullptr;
  }
  return filesystemResource->stampAndTakeDurabilityHandle(metadata_->getLastModified());
}

void WorkingFileEntry::flushContentCache() {
  UniqueLock lock(mutex_);
  if (refCount_ > 0) --refCount_;
  if (abort_.hasWriteProblem()) return;
  if (openMode_ == kNotOpened) {
    flushBuffered();
    return;
  }
  if (refCount_ > 0) {
    // Other caller streams still use the entry: the cache file gets its time now and is
    // made durable when the last of them closes.
    if (auto* const filesystemResource = dynamic_cast<FilesystemCacheResource*>(cacheResource_.get())) {
      filesystemResource->stampTimes(metadata_->getLastModified());
    } else {
      cacheResource_->flush(metadata_->getLastModified());
    }
    enqueueInnerWrite();
    return;
  }
  std::shared_ptr<DurabilityHandle> durability = stampCacheFile();
  enqueueInnerWrite();

  bool const wasReadOnly = openMode_ == kOpenedReadOnly;
  openMode_ = kNotOpened;
  auto const metadata = metadata_;
  auto const location = location_;
  std::uint64_t const generation = openGeneration_;
  if (wasReadOnly && !hasPendingBackgroundIO()) {
    lock.unlock();
    if (durability) backgroundSync_.run(std::move(durability));
    closeInnerStreamNow(metadata, generation);
    return;
  }
  incrementPendingCounter();
  auto token = std::make_shared<PendingToken>(shared_from_this());
  // A read-only close waits only for the store's stream to be free of the writes queued
  // before it: the writers' own close has set the file's time and re-read its attributes.
  executor_->executeTouching(
      [token, location, metadata, generation, wasReadOnly, durability = std::move(durability)]() {
        if (wasReadOnly) {
          if (durability) durability->run();
          token->entry().closeInnerStreamNow(metadata, generation);
        } else {
          token->entry().runInnerClose(location, metadata, generation, durability.get());
        }
        token->release();
      },
      ObservableTransactionType::FILE_CLOSE, params_.getMinItemWeight(), Touches::location(location.toString()));
}

// ---- copies and moves ---------------------------------------------------------------------------

std::shared_ptr<WorkingFileEntry> WorkingFileEntry::copy(std::shared_ptr<FileMetadata> newMetadata) {
  if (!newMetadata) throw std::invalid_argument("WorkingFileEntry::copy: no metadata record");
  cacheInitialPartOfFileNotYetCached(0);
  // The copy adopts its cache file as wholly valid, so the source's must hold every
  // byte; when that cannot be achieved the copy starts without cached content.
  bool const complete = params_.usesDiskCaching() && cacheWholeFile();

  fl::filesystem::path checkoutPath;
  std::int64_t initialCachePosition = 0;
  {
    LockGuard lock(mutex_);
    cacheResource_->flush(metadata_->getLastModified());
    enqueueInnerWrite();
    if (complete) checkoutPath = cacheResource_->getCheckoutPath();
    initialCachePosition = initialCachePosition_;
  }
  auto item = std::make_shared<fsp::StorageItem>(*innerItem_, newMetadata->getLocation().getPath());
  auto copied = std::make_shared<WorkingFileEntry>(cacheDirectory_, std::move(newMetadata), std::move(item), executor_,
                                                   quotaAccountant_, latch_, checkoutPath,
                                                   std::streampos(static_cast<std::streamoff>(initialCachePosition)),
                                                   params_, shutdownFlag_, timing_);
  copied->setFlushAttributeReads(flushReads_);
  copied->setThawWritten(thawWritten_);
  copied->setDeliveryReport(deliveryReport_);
  return copied;
}

void WorkingFileEntry::moveToNewLocation(fsp::StorageIRI newLocation, std::shared_ptr<FileMetadata> newMetadata) {
  if (!newMetadata) throw std::invalid_argument("WorkingFileEntry::moveToNewLocation: no metadata record");
  LockGuard lock(mutex_);
  metadata_ = std::move(newMetadata);
  location_ = newLocation;
  cacheResource_->setLocation(std::move(newLocation));
}

}  // namespace storage::overlayprovider
