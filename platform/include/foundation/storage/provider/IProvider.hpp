// IProvider: the contract every storage provider implements.
//
// The slots are declared in their fixed order. Every IRI argument is the full IRI of the
// item as the caller addressed it; providers report failures as `Exception` with the
// `ErrorCode` of the cause and the IRI the caller used. Query and mutation operations are
// const and safe to call from several threads at once.
//
// Slots with a body here are the framework defaults, built from the other slots:
// - wildcard listings filter the plain listing by a pattern of `*` (any run of
//   characters) and `?` (one character), matched against the whole name;
// - names-only listings map the listing to names;
// - recursive listings walk the plain listings depth-first (a folder before its
//   content) and name each entry by its path relative to the listed folder ("docs/a.txt");
// - transactional streams write to a scratch file of their own beside the target
//   ("." + name + "." + eight hexadecimal digits + ".partial", the name shortened to
//   keep it within 255 UTF-8 bytes) and move it over the target on close;
// - an atomic copy copies through streams to a scratch file and moves it into place,
//   asking the callback between chunks whether to stop;
// - change polling is not supported (NotSupported);
// - the path comparator compares names code unit by code unit, or after lower-casing when
//   the provider is case-insensitive;
// - the canonical location is the resolved IRI;
// - names are case-sensitive;
// - existence is "file or folder";
// - truncation rewrites the file through streams (fine for the small files it is meant
//   for); extension pads with zero bytes;
// - cache usage has no figure (the provider keeps no local cache);
// - event subscriptions are not supported (NotSupported); stopping them does nothing;
// - shutdown does nothing.
#pragma once

#include <foundation/storage/events/Events.hpp>
#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/FileAttributes.hpp>
#include <foundation/storage/provider/FolderAttributes.hpp>
#include <foundation/storage/provider/IFolderEntryIterator.hpp>
#include <foundation/storage/provider/ProviderStorageInfo.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/Types.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <functional>
#include <string>
#include <vector>

namespace foundation::storage::provider {

using NameList = std::vector<std::u16string>;
using InterruptCallback = std::function<InterruptSignal()>;

class IProvider {
 public:
  /* 1 */ virtual ~IProvider() = default;
  /* 2 */ virtual void doCreateFile(StorageIRI const& iri) const = 0;
  /* 3 */ virtual void doCreateFolder(StorageIRI const& iri) const = 0;
  /* 4 */ virtual void doCreateFolderRecursive(StorageIRI const& iri) const = 0;
  /* 5 */ virtual bool doFileExists(StorageIRI const& iri) const = 0;
  /* 6 */ virtual bool doFolderExists(StorageIRI const& iri) const = 0;
  /* 7 */ virtual void doRemoveFile(StorageIRI const& iri) const = 0;
  /* 8 */ virtual void doMoveFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const = 0;
  /* 9 */ virtual void doRemoveFolder(StorageIRI const& iri) const = 0;
  /* 10 */ virtual void doRemoveFolderRecursively(StorageIRI const& iri) const = 0;
  /* 11 */ virtual void doMoveFolder(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const = 0;
  /* 12 */ virtual FileAttributes doGetFileAttributes(StorageIRI const& iri) const = 0;
  /* 13 */ virtual FolderAttributes doGetFolderAttributes(StorageIRI const& iri) const = 0;
  /* 14 */ virtual ByteStreamPtr doOpenStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const = 0;
  /* 15 */ virtual ByteStreamPtr doOpenReadOnlyStream(StorageIRI const& iri) const = 0;
  /* 16 */ virtual ByteStreamPtr doOpenTransactionalStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const;
  /* 17 */ virtual ByteStreamPtr doOpenTransactionalStreamAtScratchLocation(StorageIRI const& iri, StorageIRI const& scratch,
                                                                            ByteStreamOpenOptions const& options) const;
  /* 18 */ virtual FolderEntryIteratorPtr doListAll(StorageIRI const& iri) const = 0;
  /* 19 */ virtual FolderEntryIteratorPtr doListAllWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 20 */ virtual FolderEntryIteratorPtr doListFiles(StorageIRI const& iri) const = 0;
  /* 21 */ virtual FolderEntryIteratorPtr doListFilesWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 22 */ virtual FolderEntryIteratorPtr doListFolders(StorageIRI const& iri) const = 0;
  /* 23 */ virtual FolderEntryIteratorPtr doListFoldersWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 24 */ virtual NameList doListAllNamesOnly(StorageIRI const& iri) const;
  /* 25 */ virtual NameList doListAllNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 26 */ virtual NameList doListFoldersNamesOnly(StorageIRI const& iri) const;
  /* 27 */ virtual NameList doListFoldersNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 28 */ virtual NameList doListFilesNamesOnly(StorageIRI const& iri) const;
  /* 29 */ virtual NameList doListFilesNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 30 */ virtual FolderEntryIteratorPtr doListAllRecursive(StorageIRI const& iri) const;
  /* 31 */ virtual FolderEntryIteratorPtr doListAllRecursiveWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 32 */ virtual NameList doListAllRecursiveNamesOnly(StorageIRI const& iri) const;
  /* 33 */ virtual NameList doListAllRecursiveNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 34 */ virtual void doCopyFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const = 0;
  // Returns false when the callback interrupted the copy (nothing is left at `dst`).
  /* 35 */ virtual bool doCopyFileAtomic(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy,
                                         InterruptCallback const& interrupt) const;
  /* 36 */ virtual void doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const = 0;
  /* 37 */ virtual void doSetWritable(StorageIRI const& iri, bool writable) const = 0;
  /* 38 */ virtual void doPublishFolderEventsFor(StorageIRI const& iri, events::Callback const& callback,
                                                 std::vector<events::Kind> const& kinds,
                                                 events::RecursiveFileWatching recursive) const;
  /* 39 */ virtual void doPublishFileEventsFor(StorageIRI const& iri, events::Callback const& callback) const;
  /* 40 */ virtual void doStopPublishingEventsFor(StorageIRI const& iri) const;
  /* 41 */ virtual void doStartChangePollingMechanism(StorageIRI const& iri, events::Callback const& callback) const;
  /* 42 */ virtual void doStopChangePollingMechanism(StorageIRI const& iri) const;
  /* 43 */ virtual bool doHasFeature(ExtendedFeature const& feature) const = 0;
  /* 44 */ virtual PathComparator doGetPathComparator(StorageIRI const& iri) const;
  /* 45 */ virtual StorageIRI doGetCanonicalLocation(StorageIRI const& iri) const;
  /* 46 */ virtual FilenameSensitivity doGetFilenameSensitivity(StorageIRI const& iri) const;
  /* 47 */ virtual void doShutdown() {}
  /* 48 */ virtual bool doExists(StorageIRI const& iri) const;
  /* 49 */ virtual ExistenceKind doExistsExtended(StorageIRI const& iri) const;
  /* 50 */ virtual ExtendedAttributes doGetExtendedAttributes(StorageIRI const& iri) const = 0;
  /* 51 */ virtual ProviderStorageInfo doGetProviderStorageInfo(StorageIRI const& iri) const = 0;
  /* 52 */ virtual void doTruncateToSize(StorageIRI const& iri, unsigned long long size) const;
  /* 53 */ virtual ProviderCacheUsage doGetProviderCacheUsage(StorageIRI const& iri) const;
};

// True when `name` matches `pattern` (`*` any run, `?` one code unit), whole name.
bool matchesWildcard(std::u16string const& name, std::u16string const& pattern);

// A new scratch location beside `target`, as transactional streams use: "." + name + "."
// + eight random hexadecimal digits + ".partial", the name shortened so that the whole
// fits in 255 UTF-8 bytes. Each call draws a new name.
StorageIRI scratchLocationFor(StorageIRI const& target);

}  // namespace foundation::storage::provider
