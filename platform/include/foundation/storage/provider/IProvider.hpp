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

// Each slot's contract below says what holds afterwards, which ErrorCode each refusal
// carries and which IRI the Exception names ("names X": its IRI is X). The store
// conformance suite (tests/support/ConformanceSuite) checks these for every store and for
// the overlay over each; a refused change leaves the store as it was.
class IProvider {
 public:
  /* 1 */ virtual ~IProvider() = default;

  // An empty file (size 0) exists at `iri`. AlreadyExists names `iri` when a file or
  // folder is there; DoesNotExist names the parent when it is no folder (missing, or a
  // file); NotWritable names the parent folder when it is not writable (where the store
  // enforces the flag, see doSetWritable).
  /* 2 */ virtual void doCreateFile(StorageIRI const& iri) const = 0;
  // An empty folder exists at `iri`. Refusals as doCreateFile.
  /* 3 */ virtual void doCreateFolder(StorageIRI const& iri) const = 0;
  // The folder and every missing ancestor exist; an existing folder is accepted (the
  // overlay refuses it: AlreadyExists naming `iri`). A file at `iri`: AlreadyExists
  // naming `iri`; a file where an ancestor should be: an Exception (code not fixed).
  /* 4 */ virtual void doCreateFolderRecursive(StorageIRI const& iri) const = 0;
  // True exactly when a file is at `iri`: false for a folder, a missing item, and
  // anything below a missing folder or below a file. Never throws for a missing item.
  /* 5 */ virtual bool doFileExists(StorageIRI const& iri) const = 0;
  // True exactly when a folder is at `iri` (the root included); otherwise as doFileExists.
  /* 6 */ virtual bool doFolderExists(StorageIRI const& iri) const = 0;
  // Nothing is at `iri` any more. DoesNotExist names `iri` when no file is there (a
  // folder, a missing file, a missing parent).
  /* 7 */ virtual void doRemoveFile(StorageIRI const& iri) const = 0;
  // `dst` holds `src`'s content and size; `src` is gone. A file at `dst` is replaced only
  // with Always (Never and KeepExisting: AlreadyExists naming `dst`); a folder at `dst`:
  // AlreadyExists naming `dst` whatever the policy. No file at `src`: DoesNotExist naming
  // `src`; no folder above `dst`: DoesNotExist naming that parent or `dst`.
  /* 8 */ virtual void doMoveFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const = 0;
  // The empty folder at `iri` is gone. FolderNotEmpty names `iri` when it holds anything;
  // DoesNotExist names `iri` when no folder is there (a file included).
  /* 9 */ virtual void doRemoveFolder(StorageIRI const& iri) const = 0;
  // The folder and everything below it are gone; nothing beside it changes (not even a
  // sibling whose name starts alike). DoesNotExist names `iri` when no folder is there.
  /* 10 */ virtual void doRemoveFolderRecursively(StorageIRI const& iri) const = 0;
  // The whole tree is at `dst`, `src` is gone. Onto a folder: Never refuses (AlreadyExists
  // naming `dst`; the overlay merges into an empty one); KeepExisting and Always merge,
  // the destination's or the source's files winning. A file at `dst`: AlreadyExists naming
  // `dst`; no folder at `src`: DoesNotExist naming `src`; no folder above `dst`:
  // DoesNotExist naming it or `dst`; `dst` inside `src`: InvalidName naming either.
  /* 11 */ virtual void doMoveFolder(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const = 0;
  // The file's size, last modification (never a special time) and writable flag, as the
  // last change left them. DoesNotExist names `iri` when no file is there (a folder
  // included).
  /* 12 */ virtual FileAttributes doGetFileAttributes(StorageIRI const& iri) const = 0;
  // The folder's last modification and writable flag. DoesNotExist names `iri` when no
  // folder is there (a file included).
  /* 13 */ virtual FolderAttributes doGetFolderAttributes(StorageIRI const& iri) const = 0;
  // A read-write stream. OpenOrCreate makes a missing file, OpenExisting refuses it
  // (DoesNotExist naming `iri`); no folder above: DoesNotExist naming the parent. Only
  // `truncate` empties, only `append` writes at the end; a gap written past the end reads
  // as zeros. A file not writable: NotWritable, at the open (naming `iri`) or as the
  // stream failure of the first write or the close; its content stays.
  /* 14 */ virtual ByteStreamPtr doOpenStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const = 0;
  // A stream that reads (read() gives -1 at the end) and refuses every write with
  // ByteStreamWriteFailure. DoesNotExist names `iri` when no file is there.
  /* 15 */ virtual ByteStreamPtr doOpenReadOnlyStream(StorageIRI const& iri) const = 0;
  // As doOpenStream, but the file keeps its old content until the close puts the new one
  // in place; no scratch file is left. Default: a scratch file beside it (see above).
  /* 16 */ virtual ByteStreamPtr doOpenTransactionalStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const;
  // The same, writing to `scratch`.
  /* 17 */ virtual ByteStreamPtr doOpenTransactionalStreamAtScratchLocation(StorageIRI const& iri, StorageIRI const& scratch,
                                                                            ByteStreamOpenOptions const& options) const;
  // Every child once, with its kind and attributes (a file's size, writable), as the last
  // changes left the folder. DoesNotExist names `iri` when no folder is there (a file
  // included).
  /* 18 */ virtual FolderEntryIteratorPtr doListAll(StorageIRI const& iri) const = 0;
  // The children whose whole name matches `pattern`; errors as doListAll.
  /* 19 */ virtual FolderEntryIteratorPtr doListAllWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  // Files only; errors as doListAll.
  /* 20 */ virtual FolderEntryIteratorPtr doListFiles(StorageIRI const& iri) const = 0;
  /* 21 */ virtual FolderEntryIteratorPtr doListFilesWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  // Folders only; errors as doListAll.
  /* 22 */ virtual FolderEntryIteratorPtr doListFolders(StorageIRI const& iri) const = 0;
  /* 23 */ virtual FolderEntryIteratorPtr doListFoldersWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  // The names of the matching listing above; errors as doListAll.
  /* 24 */ virtual NameList doListAllNamesOnly(StorageIRI const& iri) const;
  /* 25 */ virtual NameList doListAllNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 26 */ virtual NameList doListFoldersNamesOnly(StorageIRI const& iri) const;
  /* 27 */ virtual NameList doListFoldersNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 28 */ virtual NameList doListFilesNamesOnly(StorageIRI const& iri) const;
  /* 29 */ virtual NameList doListFilesNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  // Everything below the folder once, named by its path relative to it ("docs/a.txt"), a
  // folder before its content; a pattern matches an entry's own name. DoesNotExist names
  // `iri` when no folder is there.
  /* 30 */ virtual FolderEntryIteratorPtr doListAllRecursive(StorageIRI const& iri) const;
  /* 31 */ virtual FolderEntryIteratorPtr doListAllRecursiveWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  /* 32 */ virtual NameList doListAllRecursiveNamesOnly(StorageIRI const& iri) const;
  /* 33 */ virtual NameList doListAllRecursiveNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const;
  // `dst` holds a copy of `src` that later changes of either leave the other alone;
  // `src` is unchanged. Replacement and refusals as doMoveFile (AlreadyExists naming
  // `dst`, DoesNotExist naming `src`, or the parent of `dst` or `dst`).
  /* 34 */ virtual void doCopyFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const = 0;
  // As doCopyFile, through a scratch file moved into place at the end. Returns false when
  // the callback interrupted the copy (nothing is left at `dst`).
  /* 35 */ virtual bool doCopyFileAtomic(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy,
                                         InterruptCallback const& interrupt) const;
  // The file's or folder's attributes and listings report `time`, to the second, until
  // a later change of the content moves it on. DoesNotExist names `iri` when nothing is
  // there.
  /* 36 */ virtual void doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const = 0;
  // Attributes and listings report `writable`. Where the store enforces it, a file not
  // writable refuses writes and a folder refuses new children (NotWritable naming the
  // folder); reading goes on. DoesNotExist names `iri` when nothing is there.
  /* 37 */ virtual void doSetWritable(StorageIRI const& iri, bool writable) const = 0;
  // Change events of the folder (and below, with `recursive`) go to `callback` on a thread
  // of the store. Default: NotSupported naming `iri`.
  /* 38 */ virtual void doPublishFolderEventsFor(StorageIRI const& iri, events::Callback const& callback,
                                                 std::vector<events::Kind> const& kinds,
                                                 events::RecursiveFileWatching recursive) const;
  // The same for one file. Default: NotSupported naming `iri`.
  /* 39 */ virtual void doPublishFileEventsFor(StorageIRI const& iri, events::Callback const& callback) const;
  // No more events for `iri`. Default: does nothing.
  /* 40 */ virtual void doStopPublishingEventsFor(StorageIRI const& iri) const;
  // Default: NotSupported naming `iri`; stopping does nothing.
  /* 41 */ virtual void doStartChangePollingMechanism(StorageIRI const& iri, events::Callback const& callback) const;
  /* 42 */ virtual void doStopChangePollingMechanism(StorageIRI const& iri) const;
  // Whether the store offers `feature` (RecursiveListing, ExtendedAttributes, ...).
  /* 43 */ virtual bool doHasFeature(ExtendedFeature const& feature) const = 0;
  // Default: compares names code unit by code unit, or lower-cased where names match
  // case-insensitively.
  /* 44 */ virtual PathComparator doGetPathComparator(StorageIRI const& iri) const;
  // Default: the resolved IRI.
  /* 45 */ virtual StorageIRI doGetCanonicalLocation(StorageIRI const& iri) const;
  // How names match: case-sensitive stores tell "Case.txt" and "case.txt" apart; others
  // find either by the other and refuse to create the second (AlreadyExists naming it).
  // Default: CaseSensitive (the overlay keeps it while matching as its store does).
  /* 46 */ virtual FilenameSensitivity doGetFilenameSensitivity(StorageIRI const& iri) const;
  // Default: does nothing.
  /* 47 */ virtual void doShutdown() {}
  // File or folder at `iri`; File, Folder or None. Never throws for a missing item.
  /* 48 */ virtual bool doExists(StorageIRI const& iri) const;
  /* 49 */ virtual ExistenceKind doExistsExtended(StorageIRI const& iri) const;
  // The named values the store keeps; a file's "WATERMARK" is a std::string that changes
  // when the content changes and stays through reads and listings (through the overlay,
  // once its queue has drained). DoesNotExist names `iri` when nothing is there.
  /* 50 */ virtual ExtendedAttributes doGetExtendedAttributes(StorageIRI const& iri) const = 0;
  // The store's capacity (above 0) and the space occupied (at most the capacity), for any
  // folder of it.
  /* 51 */ virtual ProviderStorageInfo doGetProviderStorageInfo(StorageIRI const& iri) const = 0;
  // The file has `size` bytes: the first ones kept, zero bytes added at the end.
  /* 52 */ virtual void doTruncateToSize(StorageIRI const& iri, unsigned long long size) const;
  // Default: no figure.
  /* 53 */ virtual ProviderCacheUsage doGetProviderCacheUsage(StorageIRI const& iri) const;
};

// True when `name` matches `pattern` (`*` any run, `?` one code unit), whole name.
bool matchesWildcard(std::u16string const& name, std::u16string const& pattern);

// A new scratch location beside `target`, as transactional streams use: "." + name + "."
// + eight random hexadecimal digits + ".partial", the name shortened so that the whole
// fits in 255 UTF-8 bytes. Each call draws a new name.
StorageIRI scratchLocationFor(StorageIRI const& target);

}  // namespace foundation::storage::provider
