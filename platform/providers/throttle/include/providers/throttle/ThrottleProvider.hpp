// ThrottleProvider: a decorator that makes any provider behave like a remote store.
//
// It serves wrapped IRIs `throttle:<INNER_ROOT>/path` and forwards every call to the inner
// provider at `INNER_ROOT` joined with `/path`, after making the caller wait as a remote
// store would.
//
// Timing model:
// - Latency: every call that reaches the store (creation, existence, removal, moves,
//   copies, attributes, listings, opening a stream, event subscriptions, storage info,
//   truncation) first waits `latency` once, then forwards. Calls that a client answers
//   from what it already knows (features, file name sensitivity, path comparator,
//   canonical location, cache usage, stopping subscriptions, configuration, flush,
//   shutdown) forward without waiting.
// - Bandwidth: the provider has a link of `bytesPerSecond` in each direction, as a
//   full-duplex network connection has: every stream's reads share the download link,
//   every stream's writes the upload link. A read or write of n bytes books
//   n / bytesPerSecond on its link, starting when the link's previous booking ends or
//   now, whichever is later, and returns when its booking ends. An idle link builds up no
//   credit. Reads and writes on an open stream pay no latency, so many small operations
//   cost only their transfer time; seek and close are free. A caller that reads a chunk,
//   then writes it, both through the throttle, waits for both bookings in turn.
// Waiting is always "sleep until a steady-clock deadline", so that the latency does not
// drift with scheduling overhead; both the clock and the sleep are injectable.
//
// Errors: the inner store's failures pass through unchanged, except that an `Exception`
// naming an inner IRI below the inner root is re-thrown with the same code and detail,
// naming the matching throttle IRI. Stream failures and other errors are not rewritten.
//
// Events: subscriptions forward to the inner store with the callback wrapped so that the
// subscribed IRI, the changed IRI and the "from" / "to" details come back as throttle IRIs.
//
// Ownership: the throttle shares the inner provider and does not own its life cycle:
// `doShutdown` does not shut the inner provider down (it may serve other items, for
// example through the registry, which shuts it down itself).
//
// Thread-safe: all slots may be called from several threads at once.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/IConfigurableProvider.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>

namespace providers::throttle {

namespace fsp = foundation::storage::provider;
namespace fse = foundation::storage::events;

// The scheme of the IRIs a throttle serves.
inline constexpr char16_t const* kScheme = u"throttle";

// Sleeps until `deadline` on the steady clock, aiming the mean wake-up time at the
// deadline. The calling thread's timer slack is lowered to the minimum (the Linux default
// lets a sleep overrun by 50 us, 5 % of a 1 ms latency), and the thread sleeps until
// its recent mean overrun (a per-thread moving average, at most 500 us) before the
// deadline. On an idle machine that margin is a few microseconds; on a busy one it
// cancels the scheduler's wake-up delay on average, so a single wait may end a little
// before or after the deadline, by about the spread of the wake-up delay.
void preciseSleepUntil(std::chrono::steady_clock::time_point deadline);

struct Options {
  using Clock = std::chrono::steady_clock;

  // Added once to every call that reaches the store, and once to opening a stream.
  std::chrono::microseconds latency{20000};
  // The throughput of stream content in each direction, in bytes per second; 0 = unlimited.
  double bytesPerSecond = 50e6;
  // How the provider waits. Tests replace it to observe the deadlines without sleeping.
  std::function<void(Clock::time_point)> sleepUntil = preciseSleepUntil;
  // What the provider takes for "now". Tests replace it together with `sleepUntil`.
  std::function<Clock::time_point()> now = [] { return Clock::now(); };
};

class ThrottleProvider : public fsp::IConfigurableProvider, public fsp::extensions::IFlushableFilesystem {
 public:
  using Options = throttle::Options;

  // Serves `throttle:<inner.getLocation()>/...` over `inner`'s provider. Throws
  // std::invalid_argument when `inner` has no provider or a negative rate / latency is
  // given.
  ThrottleProvider(fsp::StorageItem inner, Options options = {});
  ~ThrottleProvider() override;

  // The IRI of the throttle's root: `throttle:<inner root>/`.
  fsp::StorageIRI const& getRootIRI() const { return outerRoot_; }
  fsp::StorageItem const& getInnerItem() const { return inner_; }

  // The inner IRI that `outer` stands for: the inner root joined with `outer`'s path.
  // Only the path of `outer` is used.
  fsp::StorageIRI toInner(fsp::StorageIRI const& outer) const;
  // The throttle IRI for `inner` when it lies at or below the inner root; `inner`
  // unchanged otherwise.
  fsp::StorageIRI toOuter(fsp::StorageIRI const& inner) const;

  /* 2 */ void doCreateFile(fsp::StorageIRI const& iri) const override;
  /* 3 */ void doCreateFolder(fsp::StorageIRI const& iri) const override;
  /* 4 */ void doCreateFolderRecursive(fsp::StorageIRI const& iri) const override;
  /* 5 */ bool doFileExists(fsp::StorageIRI const& iri) const override;
  /* 6 */ bool doFolderExists(fsp::StorageIRI const& iri) const override;
  /* 7 */ void doRemoveFile(fsp::StorageIRI const& iri) const override;
  /* 8 */ void doMoveFile(fsp::StorageIRI const& src, fsp::StorageIRI const& dst,
                          fsp::ReplacementPolicy const& policy) const override;
  /* 9 */ void doRemoveFolder(fsp::StorageIRI const& iri) const override;
  /* 10 */ void doRemoveFolderRecursively(fsp::StorageIRI const& iri) const override;
  /* 11 */ void doMoveFolder(fsp::StorageIRI const& src, fsp::StorageIRI const& dst,
                             fsp::ReplacementPolicy const& policy) const override;
  /* 12 */ fsp::FileAttributes doGetFileAttributes(fsp::StorageIRI const& iri) const override;
  /* 13 */ fsp::FolderAttributes doGetFolderAttributes(fsp::StorageIRI const& iri) const override;
  /* 14 */ fsp::ByteStreamPtr doOpenStream(fsp::StorageIRI const& iri,
                                           fsp::ByteStreamOpenOptions const& options) const override;
  /* 15 */ fsp::ByteStreamPtr doOpenReadOnlyStream(fsp::StorageIRI const& iri) const override;
  /* 16 */ fsp::ByteStreamPtr doOpenTransactionalStream(fsp::StorageIRI const& iri,
                                                        fsp::ByteStreamOpenOptions const& options) const override;
  /* 17 */ fsp::ByteStreamPtr doOpenTransactionalStreamAtScratchLocation(
      fsp::StorageIRI const& iri, fsp::StorageIRI const& scratch, fsp::ByteStreamOpenOptions const& options) const override;
  /* 18 */ fsp::FolderEntryIteratorPtr doListAll(fsp::StorageIRI const& iri) const override;
  /* 19 */ fsp::FolderEntryIteratorPtr doListAllWildcards(fsp::StorageIRI const& iri,
                                                          std::u16string const& pattern) const override;
  /* 20 */ fsp::FolderEntryIteratorPtr doListFiles(fsp::StorageIRI const& iri) const override;
  /* 21 */ fsp::FolderEntryIteratorPtr doListFilesWildcards(fsp::StorageIRI const& iri,
                                                            std::u16string const& pattern) const override;
  /* 22 */ fsp::FolderEntryIteratorPtr doListFolders(fsp::StorageIRI const& iri) const override;
  /* 23 */ fsp::FolderEntryIteratorPtr doListFoldersWildcards(fsp::StorageIRI const& iri,
                                                              std::u16string const& pattern) const override;
  /* 24 */ fsp::NameList doListAllNamesOnly(fsp::StorageIRI const& iri) const override;
  /* 25 */ fsp::NameList doListAllNamesOnlyWildcards(fsp::StorageIRI const& iri,
                                                     std::u16string const& pattern) const override;
  /* 26 */ fsp::NameList doListFoldersNamesOnly(fsp::StorageIRI const& iri) const override;
  /* 27 */ fsp::NameList doListFoldersNamesOnlyWildcards(fsp::StorageIRI const& iri,
                                                         std::u16string const& pattern) const override;
  /* 28 */ fsp::NameList doListFilesNamesOnly(fsp::StorageIRI const& iri) const override;
  /* 29 */ fsp::NameList doListFilesNamesOnlyWildcards(fsp::StorageIRI const& iri,
                                                       std::u16string const& pattern) const override;
  /* 30 */ fsp::FolderEntryIteratorPtr doListAllRecursive(fsp::StorageIRI const& iri) const override;
  /* 31 */ fsp::FolderEntryIteratorPtr doListAllRecursiveWildcards(fsp::StorageIRI const& iri,
                                                                   std::u16string const& pattern) const override;
  /* 32 */ fsp::NameList doListAllRecursiveNamesOnly(fsp::StorageIRI const& iri) const override;
  /* 33 */ fsp::NameList doListAllRecursiveNamesOnlyWildcards(fsp::StorageIRI const& iri,
                                                              std::u16string const& pattern) const override;
  /* 34 */ void doCopyFile(fsp::StorageIRI const& src, fsp::StorageIRI const& dst,
                           fsp::ReplacementPolicy const& policy) const override;
  /* 35 */ bool doCopyFileAtomic(fsp::StorageIRI const& src, fsp::StorageIRI const& dst,
                                 fsp::ReplacementPolicy const& policy,
                                 fsp::InterruptCallback const& interrupt) const override;
  /* 36 */ void doSetLastModified(fsp::StorageIRI const& iri, boost::posix_time::ptime const& time) const override;
  /* 37 */ void doSetWritable(fsp::StorageIRI const& iri, bool writable) const override;
  /* 38 */ void doPublishFolderEventsFor(fsp::StorageIRI const& iri, fse::Callback const& callback,
                                         std::vector<fse::Kind> const& kinds,
                                         fse::RecursiveFileWatching recursive) const override;
  /* 39 */ void doPublishFileEventsFor(fsp::StorageIRI const& iri, fse::Callback const& callback) const override;
  /* 40 */ void doStopPublishingEventsFor(fsp::StorageIRI const& iri) const override;
  /* 41 */ void doStartChangePollingMechanism(fsp::StorageIRI const& iri, fse::Callback const& callback) const override;
  /* 42 */ void doStopChangePollingMechanism(fsp::StorageIRI const& iri) const override;
  /* 43 */ bool doHasFeature(fsp::ExtendedFeature const& feature) const override;
  /* 44 */ fsp::PathComparator doGetPathComparator(fsp::StorageIRI const& iri) const override;
  // The inner store's canonical location mapped back to a throttle IRI; the resolved
  // throttle IRI when the inner answer lies outside the inner root.
  /* 45 */ fsp::StorageIRI doGetCanonicalLocation(fsp::StorageIRI const& iri) const override;
  /* 46 */ fsp::FilenameSensitivity doGetFilenameSensitivity(fsp::StorageIRI const& iri) const override;
  // Does nothing; see "Ownership" above.
  /* 47 */ void doShutdown() override;
  /* 48 */ bool doExists(fsp::StorageIRI const& iri) const override;
  /* 49 */ fsp::ExistenceKind doExistsExtended(fsp::StorageIRI const& iri) const override;
  /* 50 */ fsp::ExtendedAttributes doGetExtendedAttributes(fsp::StorageIRI const& iri) const override;
  /* 51 */ fsp::ProviderStorageInfo doGetProviderStorageInfo(fsp::StorageIRI const& iri) const override;
  /* 52 */ void doTruncateToSize(fsp::StorageIRI const& iri, unsigned long long size) const override;
  /* 53 */ fsp::ProviderCacheUsage doGetProviderCacheUsage(fsp::StorageIRI const& iri) const override;

  // Passes the tree to the inner provider when it is configurable.
  /* 54 */ void doConfigure(boost::property_tree::ptree config) override;
  // Flushes the inner provider when it is flushable; returns at once otherwise.
  /* 55 */ void doFlushFilesystem() override;

  // The calls that reached the inner store since construction: those that paid the
  // latency (requests), and the reads, writes and closes of the streams they opened.
  struct CallCounts {
    std::uint64_t requests = 0;
    std::uint64_t streamCalls = 0;
    std::uint64_t total() const { return requests + streamCalls; }
  };
  CallCounts callCounts() const;

  // Waits `latency` from now (nothing when the latency is zero) and counts a request.
  void waitLatency() const;
  enum class Direction { Download, Upload };
  // Books `bytes` on the link of `direction` and waits until the booking ends (nothing
  // when the rate is unlimited or `bytes` is not positive). What stream reads (download)
  // and writes (upload) call. Thread-safe.
  void waitTransfer(Direction direction, long bytes) const;

 private:
  class Link;  // one direction of the connection; shared with open streams, which may outlive us
  struct Counters;  // shared with open streams likewise

  // Waits the latency, then runs `call`; an Exception naming an inner IRI is re-thrown
  // naming the throttle IRI (one of `outers` when it maps to that inner IRI).
  template <class Call>
  decltype(auto) remote(std::initializer_list<fsp::StorageIRI const*> outers, Call&& call) const;
  // As `remote`, without the latency.
  template <class Call>
  decltype(auto) local(std::initializer_list<fsp::StorageIRI const*> outers, Call&& call) const;
  [[noreturn]] void rethrowAsOuter(fsp::Exception const& e,
                                   std::initializer_list<fsp::StorageIRI const*> outers) const;
  // The throttle IRI for `inner`, or nothing when `inner` lies outside the inner root.
  std::optional<fsp::StorageIRI> mapOut(fsp::StorageIRI const& inner) const;
  fse::Callback wrapCallback(fsp::StorageIRI const& outerSubscribed, fse::Callback const& callback) const;
  fsp::ByteStreamPtr paced(fsp::ByteStreamPtr inner) const;
  fsp::IProvider& innerProvider() const { return *inner_.getProvider(); }

  fsp::StorageItem const inner_;
  fsp::StorageIRI const outerRoot_;
  std::u16string const innerRootPath_;  // the inner root's path, ending in "/"
  Options const options_;
  std::shared_ptr<Link> const download_;
  std::shared_ptr<Link> const upload_;
  std::shared_ptr<Counters> const counters_;
};

// Makes throttles over the inner items the registry resolves for `throttle:<...>` IRIs.
class ThrottleProviderFactory : public fsp::ContainerProviderFactory {
 public:
  explicit ThrottleProviderFactory(Options options = {}) : options_(std::move(options)) {}

  // A ThrottleProvider over `item` with this factory's options.
  std::shared_ptr<fsp::IProvider> createProvider(fsp::StorageItem const& item) override;
  // `throttle:<item location>/`.
  fsp::StorageIRI createContainerIRI(fsp::StorageItem const& item) override;

 private:
  Options const options_;
};

// Registers a ThrottleProviderFactory with `options` under the scheme "throttle".
void registerWith(fsp::ProviderRegistry& registry, Options options = {});

}  // namespace providers::throttle
