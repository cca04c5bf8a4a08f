#include <providers/throttle/ThrottleProvider.hpp>

#include <fl/i18n.hpp>
#include <foundation/storage/provider/extensions/IClosesWithTime.hpp>

#include <sys/prctl.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace providers::throttle {

using fsp::StorageIRI;
using Clock = Options::Clock;

void preciseSleepUntil(std::chrono::steady_clock::time_point deadline) {
  using std::chrono::nanoseconds;
  constexpr auto kMaxMargin = nanoseconds(500'000);
  thread_local bool const slackLowered = prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL) == 0;
  thread_local nanoseconds overrun{0};  // moving average of how late this thread's sleeps end
  (void)slackLowered;
  auto const wake = deadline - overrun;
  if (Clock::now() >= wake) return;
  std::this_thread::sleep_until(wake);
  auto const late = std::chrono::duration_cast<nanoseconds>(Clock::now() - wake);
  overrun += (std::clamp(late, nanoseconds(0), kMaxMargin) - overrun) / 8;
}

namespace {

std::u16string asciiLower(std::u16string text) {
  for (auto& c : text) {
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
  }
  return text;
}

bool sameContainer(StorageIRI const& a, StorageIRI const& b) {
  if (asciiLower(a.getScheme()) != asciiLower(b.getScheme())) return false;
  if (a.hasInnerIRI() != b.hasInnerIRI()) return false;
  if (a.hasInnerIRI()) return a.getInnerIRI() == b.getInnerIRI();
  return asciiLower(a.getAuthority()) == asciiLower(b.getAuthority());
}

// The throttle IRI for `inner` when it lies at or below `root` (whose path, ending in
// "/", is `rootPath`).
std::optional<StorageIRI> mapOutOf(StorageIRI const& root, std::u16string const& rootPath, StorageIRI const& inner) {
  if (!sameContainer(root, inner)) return std::nullopt;
  auto const& path = inner.getPath();
  if (path.size() + 1 == rootPath.size() && rootPath.compare(0, path.size(), path) == 0) {
    return StorageIRI(kScheme, root, u"/");  // the root itself, written without its trailing slash
  }
  if (path.compare(0, rootPath.size(), rootPath) == 0) {
    return StorageIRI(kScheme, root, u"/" + path.substr(rootPath.size()));
  }
  return std::nullopt;
}

Options const& validated(Options const& options) {
  if (options.latency.count() < 0) throw std::invalid_argument("throttle: latency must not be negative");
  if (!(options.bytesPerSecond >= 0) || std::isinf(options.bytesPerSecond)) {
    throw std::invalid_argument("throttle: bytesPerSecond must be a finite number >= 0");
  }
  if (!options.sleepUntil || !options.now) throw std::invalid_argument("throttle: sleepUntil and now must be set");
  return options;
}

}  // namespace

// One direction of the connection: a fixed throughput shared by every stream of a
// provider that moves bytes that way.
class ThrottleProvider::Link {
 public:
  explicit Link(Options const& options)
      : bytesPerSecond_(options.bytesPerSecond), sleepUntil_(options.sleepUntil), now_(options.now) {}

  void transfer(long bytes) {
    if (bytesPerSecond_ <= 0 || bytes <= 0) return;
    auto const cost = std::chrono::nanoseconds(
        std::llround(static_cast<double>(bytes) * 1e9 / bytesPerSecond_));
    Clock::time_point end;
    {
      std::lock_guard lock(mutex_);
      auto const now = now_();
      end = (freeAt_ > now ? freeAt_ : now) + std::chrono::duration_cast<Clock::duration>(cost);
      freeAt_ = end;
    }
    if (end > now_()) sleepUntil_(end);
  }

 private:
  double const bytesPerSecond_;
  std::function<void(Clock::time_point)> const sleepUntil_;
  std::function<Clock::time_point()> const now_;

  std::mutex mutex_;  // guards freeAt_
  Clock::time_point freeAt_{};  // when the last booking on the link ends
};

struct ThrottleProvider::Counters {
  std::atomic<std::uint64_t> requests{0};
  std::atomic<std::uint64_t> streamCalls{0};
};

namespace {

// A stream whose reads and writes pay their transfer time on the provider's links. A
// close with a time is passed on as it is (false when the inner stream cannot).
template <class Link, class Counters>
class PacedStream : public fsp::ByteStream, public fsp::extensions::IClosesWithTime {
 public:
  PacedStream(fsp::ByteStreamPtr inner, std::shared_ptr<Link> download, std::shared_ptr<Link> upload,
              std::shared_ptr<Counters> counters)
      : inner_(std::move(inner)),
        download_(std::move(download)),
        upload_(std::move(upload)),
        counters_(std::move(counters)) {}

  long read(char* buffer, long count) override {
    counters_->streamCalls.fetch_add(1, std::memory_order_relaxed);
    long const n = inner_->read(buffer, count);
    download_->transfer(n);
    return n;
  }
  long write(char const* buffer, long count) override {
    counters_->streamCalls.fetch_add(1, std::memory_order_relaxed);
    long const n = inner_->write(buffer, count);
    upload_->transfer(n);
    return n;
  }
  long seek(long offset, std::ios_base::seekdir whence) override { return inner_->seek(offset, whence); }
  void close() override {
    counters_->streamCalls.fetch_add(1, std::memory_order_relaxed);
    inner_->close();
  }
  bool closeWithTime(boost::posix_time::ptime const& time) override {
    counters_->streamCalls.fetch_add(1, std::memory_order_relaxed);
    if (auto* timed = dynamic_cast<fsp::extensions::IClosesWithTime*>(inner_.get())) return timed->closeWithTime(time);
    inner_->close();
    return false;
  }

 private:
  fsp::ByteStreamPtr const inner_;
  std::shared_ptr<Link> const download_;
  std::shared_ptr<Link> const upload_;
  std::shared_ptr<Counters> const counters_;
};

}  // namespace

ThrottleProvider::ThrottleProvider(fsp::StorageItem inner, Options options)
    : inner_(std::move(inner)),
      outerRoot_(kScheme, inner_.getLocation(), u"/"),
      innerRootPath_([this] {
        auto path = inner_.getLocation().getPath();
        if (path.empty() || path.back() != u'/') path += u'/';
        return path;
      }()),
      options_(validated(options)),
      download_(std::make_shared<Link>(options_)),
      upload_(std::make_shared<Link>(options_)),
      counters_(std::make_shared<Counters>()) {
  if (!inner_.hasProvider()) {
    throw std::invalid_argument("throttle: the inner item " + inner_.getLocation().toUtf8() + " has no provider");
  }
}

ThrottleProvider::~ThrottleProvider() = default;

StorageIRI ThrottleProvider::toInner(StorageIRI const& outer) const {
  return StorageIRI(inner_.getLocation(), outer.getPath());
}

std::optional<StorageIRI> ThrottleProvider::mapOut(StorageIRI const& inner) const {
  return mapOutOf(inner_.getLocation(), innerRootPath_, inner);
}

StorageIRI ThrottleProvider::toOuter(StorageIRI const& inner) const { return mapOut(inner).value_or(inner); }

ThrottleProvider::CallCounts ThrottleProvider::callCounts() const {
  return {counters_->requests.load(std::memory_order_relaxed), counters_->streamCalls.load(std::memory_order_relaxed)};
}

void ThrottleProvider::waitLatency() const {
  counters_->requests.fetch_add(1, std::memory_order_relaxed);
  if (options_.latency.count() > 0) options_.sleepUntil(options_.now() + options_.latency);
}

void ThrottleProvider::waitTransfer(Direction direction, long bytes) const {
  (direction == Direction::Download ? download_ : upload_)->transfer(bytes);
}

void ThrottleProvider::rethrowAsOuter(fsp::Exception const& e,
                                      std::initializer_list<StorageIRI const*> outers) const {
  for (auto const* outer : outers) {
    if (toInner(*outer) == e.getIRI()) throw fsp::Exception(e.getErrorCode(), *outer, e.getDetail());
  }
  if (auto outer = mapOut(e.getIRI())) throw fsp::Exception(e.getErrorCode(), *outer, e.getDetail());
  throw;  // names no IRI of ours: pass it on untouched
}

template <class Call>
decltype(auto) ThrottleProvider::local(std::initializer_list<StorageIRI const*> outers, Call&& call) const {
  try {
    return call();
  } catch (fsp::Exception const& e) {
    rethrowAsOuter(e, outers);
  }
}

template <class Call>
decltype(auto) ThrottleProvider::remote(std::initializer_list<StorageIRI const*> outers, Call&& call) const {
  waitLatency();
  return local(outers, std::forward<Call>(call));
}

fsp::ByteStreamPtr ThrottleProvider::paced(fsp::ByteStreamPtr inner) const {
  return std::make_unique<PacedStream<Link, Counters>>(std::move(inner), download_, upload_, counters_);
}

fse::Callback ThrottleProvider::wrapCallback(StorageIRI const& outerSubscribed, fse::Callback const& callback) const {
  // The callback may run on a store thread after this provider is gone; it holds copies
  // of everything it needs.
  auto const innerSubscribed = toInner(outerSubscribed);
  auto translate = [root = inner_.getLocation(), rootPath = innerRootPath_](StorageIRI const& inner) {
    return mapOutOf(root, rootPath, inner).value_or(inner);
  };
  return [callback, outerSubscribed, innerSubscribed, translate](
             fse::Kind const& kind, StorageIRI const& subscribed, StorageIRI const& changed,
             fse::EntryType const& type, boost::property_tree::ptree details) {
    for (char const* key : {"from", "to"}) {
      auto text = details.get_optional<std::string>(key);
      if (!text) continue;
      try {
        details.put(key, translate(StorageIRI(fl::i18n::to_ustring(*text))).toUtf8());
      } catch (std::exception const&) {
        // Not an IRI text: pass it on as the store wrote it.
      }
    }
    callback(kind, subscribed == innerSubscribed ? outerSubscribed : translate(subscribed), translate(changed), type,
             std::move(details));
  };
}

/* 2 */ void ThrottleProvider::doCreateFile(StorageIRI const& iri) const {
  remote({&iri}, [&] { innerProvider().doCreateFile(toInner(iri)); });
}
/* 3 */ void ThrottleProvider::doCreateFolder(StorageIRI const& iri) const {
  remote({&iri}, [&] { innerProvider().doCreateFolder(toInner(iri)); });
}
/* 4 */ void ThrottleProvider::doCreateFolderRecursive(StorageIRI const& iri) const {
  remote({&iri}, [&] { innerProvider().doCreateFolderRecursive(toInner(iri)); });
}
/* 5 */ bool ThrottleProvider::doFileExists(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doFileExists(toInner(iri)); });
}
/* 6 */ bool ThrottleProvider::doFolderExists(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doFolderExists(toInner(iri)); });
}
/* 7 */ void ThrottleProvider::doRemoveFile(StorageIRI const& iri) const {
  remote({&iri}, [&] { innerProvider().doRemoveFile(toInner(iri)); });
}
/* 8 */ void ThrottleProvider::doMoveFile(StorageIRI const& src, StorageIRI const& dst,
                                          fsp::ReplacementPolicy const& policy) const {
  remote({&src, &dst}, [&] { innerProvider().doMoveFile(toInner(src), toInner(dst), policy); });
}
/* 9 */ void ThrottleProvider::doRemoveFolder(StorageIRI const& iri) const {
  remote({&iri}, [&] { innerProvider().doRemoveFolder(toInner(iri)); });
}
/* 10 */ void ThrottleProvider::doRemoveFolderRecursively(StorageIRI const& iri) const {
  remote({&iri}, [&] { innerProvider().doRemoveFolderRecursively(toInner(iri)); });
}
/* 11 */ void ThrottleProvider::doMoveFolder(StorageIRI const& src, StorageIRI const& dst,
                                             fsp::ReplacementPolicy const& policy) const {
  remote({&src, &dst}, [&] { innerProvider().doMoveFolder(toInner(src), toInner(dst), policy); });
}
/* 12 */ fsp::FileAttributes ThrottleProvider::doGetFileAttributes(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doGetFileAttributes(toInner(iri)); });
}
/* 13 */ fsp::FolderAttributes ThrottleProvider::doGetFolderAttributes(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doGetFolderAttributes(toInner(iri)); });
}
/* 14 */ fsp::ByteStreamPtr ThrottleProvider::doOpenStream(StorageIRI const& iri,
                                                           fsp::ByteStreamOpenOptions const& options) const {
  return remote({&iri}, [&] { return paced(innerProvider().doOpenStream(toInner(iri), options)); });
}
/* 15 */ fsp::ByteStreamPtr ThrottleProvider::doOpenReadOnlyStream(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return paced(innerProvider().doOpenReadOnlyStream(toInner(iri))); });
}
/* 16 */ fsp::ByteStreamPtr ThrottleProvider::doOpenTransactionalStream(StorageIRI const& iri,
                                                                        fsp::ByteStreamOpenOptions const& options) const {
  return remote({&iri}, [&] { return paced(innerProvider().doOpenTransactionalStream(toInner(iri), options)); });
}
/* 17 */ fsp::ByteStreamPtr ThrottleProvider::doOpenTransactionalStreamAtScratchLocation(
    StorageIRI const& iri, StorageIRI const& scratch, fsp::ByteStreamOpenOptions const& options) const {
  return remote({&iri, &scratch}, [&] {
    return paced(innerProvider().doOpenTransactionalStreamAtScratchLocation(toInner(iri), toInner(scratch), options));
  });
}
/* 18 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListAll(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListAll(toInner(iri)); });
}
/* 19 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListAllWildcards(StorageIRI const& iri,
                                                                          std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListAllWildcards(toInner(iri), pattern); });
}
/* 20 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListFiles(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListFiles(toInner(iri)); });
}
/* 21 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListFilesWildcards(StorageIRI const& iri,
                                                                            std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListFilesWildcards(toInner(iri), pattern); });
}
/* 22 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListFolders(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListFolders(toInner(iri)); });
}
/* 23 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListFoldersWildcards(StorageIRI const& iri,
                                                                              std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListFoldersWildcards(toInner(iri), pattern); });
}
/* 24 */ fsp::NameList ThrottleProvider::doListAllNamesOnly(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListAllNamesOnly(toInner(iri)); });
}
/* 25 */ fsp::NameList ThrottleProvider::doListAllNamesOnlyWildcards(StorageIRI const& iri,
                                                                     std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListAllNamesOnlyWildcards(toInner(iri), pattern); });
}
/* 26 */ fsp::NameList ThrottleProvider::doListFoldersNamesOnly(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListFoldersNamesOnly(toInner(iri)); });
}
/* 27 */ fsp::NameList ThrottleProvider::doListFoldersNamesOnlyWildcards(StorageIRI const& iri,
                                                                         std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListFoldersNamesOnlyWildcards(toInner(iri), pattern); });
}
/* 28 */ fsp::NameList ThrottleProvider::doListFilesNamesOnly(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListFilesNamesOnly(toInner(iri)); });
}
/* 29 */ fsp::NameList ThrottleProvider::doListFilesNamesOnlyWildcards(StorageIRI const& iri,
                                                                       std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListFilesNamesOnlyWildcards(toInner(iri), pattern); });
}
/* 30 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListAllRecursive(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListAllRecursive(toInner(iri)); });
}
/* 31 */ fsp::FolderEntryIteratorPtr ThrottleProvider::doListAllRecursiveWildcards(StorageIRI const& iri,
                                                                                   std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListAllRecursiveWildcards(toInner(iri), pattern); });
}
/* 32 */ fsp::NameList ThrottleProvider::doListAllRecursiveNamesOnly(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doListAllRecursiveNamesOnly(toInner(iri)); });
}
/* 33 */ fsp::NameList ThrottleProvider::doListAllRecursiveNamesOnlyWildcards(StorageIRI const& iri,
                                                                              std::u16string const& pattern) const {
  return remote({&iri}, [&] { return innerProvider().doListAllRecursiveNamesOnlyWildcards(toInner(iri), pattern); });
}
/* 34 */ void ThrottleProvider::doCopyFile(StorageIRI const& src, StorageIRI const& dst,
                                           fsp::ReplacementPolicy const& policy) const {
  remote({&src, &dst}, [&] { innerProvider().doCopyFile(toInner(src), toInner(dst), policy); });
}
/* 35 */ bool ThrottleProvider::doCopyFileAtomic(StorageIRI const& src, StorageIRI const& dst,
                                                 fsp::ReplacementPolicy const& policy,
                                                 fsp::InterruptCallback const& interrupt) const {
  return remote({&src, &dst},
                [&] { return innerProvider().doCopyFileAtomic(toInner(src), toInner(dst), policy, interrupt); });
}
/* 36 */ void ThrottleProvider::doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const {
  remote({&iri}, [&] { innerProvider().doSetLastModified(toInner(iri), time); });
}
/* 37 */ void ThrottleProvider::doSetWritable(StorageIRI const& iri, bool writable) const {
  remote({&iri}, [&] { innerProvider().doSetWritable(toInner(iri), writable); });
}
/* 38 */ void ThrottleProvider::doPublishFolderEventsFor(StorageIRI const& iri, fse::Callback const& callback,
                                                         std::vector<fse::Kind> const& kinds,
                                                         fse::RecursiveFileWatching recursive) const {
  remote({&iri}, [&] {
    innerProvider().doPublishFolderEventsFor(toInner(iri), wrapCallback(iri, callback), kinds, recursive);
  });
}
/* 39 */ void ThrottleProvider::doPublishFileEventsFor(StorageIRI const& iri, fse::Callback const& callback) const {
  remote({&iri}, [&] { innerProvider().doPublishFileEventsFor(toInner(iri), wrapCallback(iri, callback)); });
}
/* 40 */ void ThrottleProvider::doStopPublishingEventsFor(StorageIRI const& iri) const {
  local({&iri}, [&] { innerProvider().doStopPublishingEventsFor(toInner(iri)); });
}
/* 41 */ void ThrottleProvider::doStartChangePollingMechanism(StorageIRI const& iri, fse::Callback const& callback) const {
  remote({&iri}, [&] { innerProvider().doStartChangePollingMechanism(toInner(iri), wrapCallback(iri, callback)); });
}
/* 42 */ void ThrottleProvider::doStopChangePollingMechanism(StorageIRI const& iri) const {
  local({&iri}, [&] { innerProvider().doStopChangePollingMechanism(toInner(iri)); });
}
/* 43 */ bool ThrottleProvider::doHasFeature(fsp::ExtendedFeature const& feature) const {
  return innerProvider().doHasFeature(feature);
}
/* 44 */ fsp::PathComparator ThrottleProvider::doGetPathComparator(StorageIRI const& iri) const {
  return local({&iri}, [&] { return innerProvider().doGetPathComparator(toInner(iri)); });
}
/* 45 */ StorageIRI ThrottleProvider::doGetCanonicalLocation(StorageIRI const& iri) const {
  return local({&iri}, [&] {
    auto outer = mapOut(innerProvider().doGetCanonicalLocation(toInner(iri)));
    return outer ? *outer : iri.getResolvedIRI();
  });
}
/* 46 */ fsp::FilenameSensitivity ThrottleProvider::doGetFilenameSensitivity(StorageIRI const& iri) const {
  return local({&iri}, [&] { return innerProvider().doGetFilenameSensitivity(toInner(iri)); });
}
/* 47 */ void ThrottleProvider::doShutdown() {}
/* 48 */ bool ThrottleProvider::doExists(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doExists(toInner(iri)); });
}
/* 49 */ fsp::ExistenceKind ThrottleProvider::doExistsExtended(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doExistsExtended(toInner(iri)); });
}
/* 50 */ fsp::ExtendedAttributes ThrottleProvider::doGetExtendedAttributes(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doGetExtendedAttributes(toInner(iri)); });
}
/* 51 */ fsp::ProviderStorageInfo ThrottleProvider::doGetProviderStorageInfo(StorageIRI const& iri) const {
  return remote({&iri}, [&] { return innerProvider().doGetProviderStorageInfo(toInner(iri)); });
}
/* 52 */ void ThrottleProvider::doTruncateToSize(StorageIRI const& iri, unsigned long long size) const {
  remote({&iri}, [&] { innerProvider().doTruncateToSize(toInner(iri), size); });
}
/* 53 */ fsp::ProviderCacheUsage ThrottleProvider::doGetProviderCacheUsage(StorageIRI const& iri) const {
  return local({&iri}, [&] { return innerProvider().doGetProviderCacheUsage(toInner(iri)); });
}
/* 54 */ void ThrottleProvider::doConfigure(boost::property_tree::ptree config) { inner_.configure(config); }
/* 55 */ void ThrottleProvider::doFlushFilesystem() { inner_.flushFilesystem(); }

std::shared_ptr<fsp::IProvider> ThrottleProviderFactory::createProvider(fsp::StorageItem const& item) {
  return std::make_shared<ThrottleProvider>(item, options_);
}

StorageIRI ThrottleProviderFactory::createContainerIRI(fsp::StorageItem const& item) {
  return StorageIRI(kScheme, item.getLocation(), u"/");
}

void registerWith(fsp::ProviderRegistry& registry, Options options) {
  registry.registerFactory(kScheme, std::make_shared<ThrottleProviderFactory>(std::move(options)));
}

}  // namespace providers::throttle
