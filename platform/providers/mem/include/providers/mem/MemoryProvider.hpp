// MemoryProvider: the `mem` store, an in-memory tree of files and folders for tests and
// benchmarks, with switches that let a test make calls fail, slow down or wait.
//
// Addressing. Items are addressed as `mem://<name>/path`. The store looks only at the
// path of an IRI, so wrapped or rewritten IRIs with the same path reach the same item;
// errors name the IRI the caller used (or its parent where stated). Change events name
// the changed item as `mem://<name>/path`.
//
// What every store answers (create, remove, move, copy, attributes, listings, streams)
// follows the provider contract in IProvider.hpp. Choices of this store where the
// contract leaves room:
// - Streams work on the file's content directly: every write is visible to every other
//   reader at once, and there is nothing to flush on close. A stream keeps working on a
//   file that is moved, replaced or removed while it is open; once the file is out of
//   the tree its content no longer counts towards the capacity.
// - Removing a file that a stream has open (also by a replacing move, or a recursive
//   removal of its folder) needs feature RemoveOpenFiles, or RemoveFilesOpenForReading
//   when only read-only streams are open; otherwise it fails with InUse (6). Moving an
//   open file always works.
// - Write permission is checked when a stream is opened; a stream already open keeps
//   writing after setWritable(false).
// - "WATERMARK" is the file's version as decimal text: a number taken from one counter
//   per store on every content change (write, truncation, replacement by move or copy),
//   so no two contents ever share one. A file moved elsewhere keeps its watermark.
// - doGetExtendedAttributes always answers (WATERMARK plus the attributes set through the
//   side door); feature ExtendedAttributes decides whether listings carry them.
// - Folder moves onto an existing folder merge: Always lets the source's files replace
//   those at the destination, KeepExisting keeps the destination's and drops the
//   source's. A file meeting a folder of the same name during a merge fails the move
//   with AlreadyExists (3) before anything changes; a folder cannot merge into one of
//   its own ancestors (InvalidName, 1). Never fails on any existing destination. For
//   file moves and copies KeepExisting acts as Never.
// - The root cannot be removed or moved (InvalidName, 1).
// - Copies are new files: fresh watermark and modification time, the source's
//   writability, no extended attributes; a copy onto an existing file rewrites that
//   file's content in place (streams open on it see the new content).
// - Events are published for changes made through the provider and through the side
//   door: Added, Removed, Modified (content changes are published once, when the stream
//   that made them is closed; attribute changes at once), Refresh (side door only). A
//   move publishes Removed at the source and Added at the destination, both with details
//   "from" and "to" (the `mem://<name>/...` texts). A recursive removal publishes one
//   Removed for the folder. Subscriptions need an existing item (DoesNotExist, 4);
//   which events reach which subscription is described in EventDispatcher.hpp: changes
//   at or below (recursive) or directly inside a subscribed folder, changes of a
//   subscribed file, and Removed or Refresh of any of their ancestors. Folder
//   subscriptions with an empty kind list get every kind. Callbacks run on one delivery
//   thread per store, never on the caller's thread and never with the tree locked; a
//   callback that throws is ignored.
// - doShutdown delivers the events already queued, ends the delivery thread and drops
//   every subscription. The store keeps answering afterwards.
//
// Test controls (see Operation.hpp for the operations): every call of the store starts
// by counting itself, passing the operation's gate, sleeping the operation's latency, and
// raising an injected fault if one is due, in that order, before it takes the tree lock.
// The side door (`elsewhere()`) changes the tree as another client would and bypasses
// all of that.
//
// Thread-safe: one mutex guards the tree; no call holds it while it waits at a gate,
// sleeps, or runs a callback.
#pragma once

#include <providers/mem/Gate.hpp>
#include <providers/mem/Operation.hpp>

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/IConfigurableProvider.hpp>

#include <boost/property_tree/ptree.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace providers::mem {

namespace detail {
struct StoreState;
}  // namespace detail

class SideDoor;

class MemoryProvider : public foundation::storage::provider::IConfigurableProvider {
 public:
  using ErrorCode = foundation::storage::provider::ErrorCode;
  using ExtendedFeature = foundation::storage::provider::ExtendedFeature;
  using FilenameSensitivity = foundation::storage::provider::FilenameSensitivity;
  using StorageIRI = foundation::storage::provider::StorageIRI;

  struct Options {
    // The authority of the store's IRIs: mem://<name>/.
    std::u16string name = u"s1";
    FilenameSensitivity sensitivity = FilenameSensitivity::CaseSensitive;
    std::set<ExtendedFeature> features = {ExtendedFeature::ExtendedAttributes, ExtendedFeature::RecursiveListing,
                                          ExtendedFeature::RemoveOpenFiles};
    // Bytes the files may hold in total; empty: unlimited.
    std::optional<unsigned long> capacity;
    // What doGetProviderCacheUsage reports as space available; empty: no figure.
    std::optional<unsigned long> cacheSpaceAvailable;
  };

  // A store with default Options. (Two constructors rather than a defaulted argument:
  // the nested Options cannot be default-constructed inside its own enclosing class.)
  MemoryProvider();
  explicit MemoryProvider(Options options);
  // Opens every gate, delivers queued events and ends the delivery thread. No call may
  // still be running in the store. Streams may outlive the provider.
  ~MemoryProvider() override;
  MemoryProvider(MemoryProvider const&) = delete;
  MemoryProvider& operator=(MemoryProvider const&) = delete;

  // mem://<name>/
  StorageIRI root() const;
  // The store's name (the authority of its IRIs).
  std::u16string const& name() const;

  // ---- provider contract -------------------------------------------------------------
  void doCreateFile(StorageIRI const& iri) const override;
  void doCreateFolder(StorageIRI const& iri) const override;
  void doCreateFolderRecursive(StorageIRI const& iri) const override;
  bool doFileExists(StorageIRI const& iri) const override;
  bool doFolderExists(StorageIRI const& iri) const override;
  void doRemoveFile(StorageIRI const& iri) const override;
  void doMoveFile(StorageIRI const& src, StorageIRI const& dst,
                  foundation::storage::provider::ReplacementPolicy const& policy) const override;
  void doRemoveFolder(StorageIRI const& iri) const override;
  void doRemoveFolderRecursively(StorageIRI const& iri) const override;
  void doMoveFolder(StorageIRI const& src, StorageIRI const& dst,
                    foundation::storage::provider::ReplacementPolicy const& policy) const override;
  foundation::storage::provider::FileAttributes doGetFileAttributes(StorageIRI const& iri) const override;
  foundation::storage::provider::FolderAttributes doGetFolderAttributes(StorageIRI const& iri) const override;
  foundation::storage::provider::ByteStreamPtr doOpenStream(
      StorageIRI const& iri, foundation::storage::provider::ByteStreamOpenOptions const& options) const override;
  foundation::storage::provider::ByteStreamPtr doOpenReadOnlyStream(StorageIRI const& iri) const override;
  foundation::storage::provider::FolderEntryIteratorPtr doListAll(StorageIRI const& iri) const override;
  foundation::storage::provider::FolderEntryIteratorPtr doListFiles(StorageIRI const& iri) const override;
  foundation::storage::provider::FolderEntryIteratorPtr doListFolders(StorageIRI const& iri) const override;
  // The whole subtree in one call (folders before their content, names relative to
  // `iri`); NotSupported (7) without feature RecursiveListing.
  foundation::storage::provider::FolderEntryIteratorPtr doListAllRecursive(StorageIRI const& iri) const override;
  void doCopyFile(StorageIRI const& src, StorageIRI const& dst,
                  foundation::storage::provider::ReplacementPolicy const& policy) const override;
  void doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const override;
  void doSetWritable(StorageIRI const& iri, bool writable) const override;
  void doPublishFolderEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback,
                                std::vector<foundation::storage::events::Kind> const& kinds,
                                foundation::storage::events::RecursiveFileWatching recursive) const override;
  void doPublishFileEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback) const override;
  void doStopPublishingEventsFor(StorageIRI const& iri) const override;
  bool doHasFeature(ExtendedFeature const& feature) const override;
  FilenameSensitivity doGetFilenameSensitivity(StorageIRI const& iri) const override;
  void doShutdown() override;
  foundation::storage::provider::ExtendedAttributes doGetExtendedAttributes(StorageIRI const& iri) const override;
  // Capacity: Options::capacity, or kUnlimitedCapacity; occupied: bytes in the files.
  foundation::storage::provider::ProviderStorageInfo doGetProviderStorageInfo(StorageIRI const& iri) const override;
  foundation::storage::provider::ProviderCacheUsage doGetProviderCacheUsage(StorageIRI const& iri) const override;
  // Keeps `config` (see lastConfiguration()) and otherwise ignores it.
  void doConfigure(boost::property_tree::ptree config) override;

  // The capacity reported when there is no limit: 1 PiB.
  static constexpr unsigned long kUnlimitedCapacity = 1UL << 50;

  // ---- test controls (all thread-safe) -----------------------------------------------

  // The next `count` calls of `op` throw Exception(code, iri of the call); on streams
  // (Read, Write, Seek, Close) the matching ByteStream*Failure carrying `code`. Faults
  // queue up behind those already armed for the operation. A failing call changes
  // nothing.
  void failNext(Operation op, int count, ErrorCode code);
  // The next `count` calls of `op` throw std::runtime_error, an error that is not the
  // store's Exception (streams included).
  void failNextUnexpected(Operation op, int count);
  // From now on one call of `op` in `n` fails with `code`, which calls is decided by a
  // pseudo-random sequence seeded with `seed` (so a seed repeats a run). Takes effect
  // once the failNext faults of the operation are used up; n == 0 switches it off.
  void failEvery(Operation op, unsigned n, ErrorCode code, std::uint64_t seed);
  // Drops every armed fault (failNext, failNextUnexpected, failEvery) of every operation.
  void clearFaults();

  // Every call of `op` (or of every operation) sleeps `latency` after its gate, without
  // holding the tree. Zero switches it off.
  void setLatency(Operation op, std::chrono::microseconds latency);
  void setLatency(std::chrono::microseconds latency);

  // The gate in front of `op` (open by default).
  Gate& gate(Operation op);

  // How many calls of `op` started since construction or resetCounters(), failed ones
  // and ones still held at a gate included.
  std::size_t calls(Operation op) const;
  void resetCounters();

  // Changes the tree as another client would (see SideDoor.hpp).
  SideDoor& elsewhere() const;

  // Blocks until every event published so far has been delivered to its subscribers.
  // Returns at once when called from a callback.
  void waitForEventsDelivered() const;

  // The last tree passed to doConfigure (empty before the first call).
  boost::property_tree::ptree lastConfiguration() const;

  // Changes the figures and features the store was made with; later calls see them.
  void setCapacity(std::optional<unsigned long> capacity);
  void setCacheSpaceAvailable(std::optional<unsigned long> spaceAvailable);
  void setFeatures(std::set<ExtendedFeature> features);

  // Raw inspection, as SideDoor offers it (see there).
  std::optional<std::string> contentOf(std::u16string const& path) const;
  bool hasFileAt(std::u16string const& path) const;
  bool hasFolderAt(std::u16string const& path) const;
  std::map<std::u16string, std::optional<std::string>> snapshot() const;

 private:
  // Runs the test controls for one call of `op` about `iri`; throws the injected fault.
  void enter(Operation op, StorageIRI const& iri) const;
  foundation::storage::provider::FolderEntryIteratorPtr list(Operation op, StorageIRI const& iri, bool files,
                                                             bool folders) const;
  void subscribe(StorageIRI const& iri, bool file, foundation::storage::events::Callback const& callback,
                 std::vector<foundation::storage::events::Kind> const& kinds, bool recursive) const;

  std::shared_ptr<detail::StoreState> const state_;  // shared with the streams and the side door
  std::unique_ptr<SideDoor> const sideDoor_;
};

}  // namespace providers::mem
