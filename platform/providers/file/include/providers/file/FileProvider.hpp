// FileProvider: the local file system as a storage provider.
//
// Items are addressed as `file:///absolute/path`; only the IRI's path is used (scheme and
// authority are not looked at). Paths are UTF-16 in IRIs and UTF-8 on disk; a path with an
// unpaired surrogate or a NUL character is InvalidName. Names on disk that are not valid
// UTF-8 cannot be addressed and are left out of listings and events (with a log record).
//
// What the store answers:
// - Files are regular files, folders are directories; symbolic links are followed.
//   Other kinds of entry (devices, sockets, FIFOs, dangling links) are neither files nor
//   folders and are left out of listings.
// - Failures are `Exception(code, iri, detail)`, the detail holding the system's error
//   text. The errno mapping lives in one function (OsErrors.hpp): ENOENT/ENOTDIR/EISDIR
//   DoesNotExist, EEXIST AlreadyExists, ENOTEMPTY FolderNotEmpty, EACCES/EPERM/EROFS
//   NotWritable, ENAMETOOLONG/EINVAL/EILSEQ/ELOOP InvalidName, EBUSY/ETXTBSY InUse,
//   ENOSPC/EDQUOT/EFBIG QuotaExceeded, ENOTSUP NotSupported, anything else
//   TransientFailure.
// - Creating names the parent when the parent folder is missing (DoesNotExist) or not
//   writable (NotWritable), and the item when something already exists there.
// - Moves use rename(2) and fall back to copy-and-remove across file systems. A move with
//   ReplacementPolicy::Never never replaces anything (the check and the rename are one
//   atomic step where the file system allows it). A folder moved onto an existing folder
//   is merged: with KeepExisting, entries already at the destination win and the
//   colliding source entries are dropped; with Always the source's entries win. A file
//   is never moved or copied onto a folder, nor a folder onto a file (AlreadyExists).
//   For file moves and copies any policy other than Always behaves as Never.
// - Copies write to a scratch file beside the destination and rename it into place, so a
//   failed copy leaves the destination as it was. A copy keeps the permission bits; a
//   move across file systems also keeps the modification time and the "user." xattrs.
// - `writable` in attributes is the owner-write permission bit. A process running as root
//   still sees the bit as it is, although root may write regardless.
//   setWritable(true) adds u+w; setWritable(false) removes every write bit.
// - lastModified is the modification time in UTC with microsecond resolution.
// - Extended attributes are the item's "user." xattrs (name without the prefix, value as
//   std::string) where the file system has them, plus, for files, "WATERMARK": a text
//   built from the modification time in nanoseconds, the size and the inode number. It
//   changes whenever the content changes, except for two same-size rewrites in place
//   within one tick of the file system's clock on kernels without fine-grained
//   timestamps. A "user.WATERMARK" xattr is shadowed by the watermark. Listings do not
//   carry extended attributes.
// - Listings are in name order (UTF-16 code units) with attributes; entries that vanish
//   while the folder is being listed are left out. The recursive listing walks the tree
//   in one pass (folders before their content, names relative to the listed folder,
//   "docs/a.txt") and does not enter a folder twice through a symbolic-link cycle.
// - removeFolderRecursively does not follow symbolic links: a link is removed, not what
//   it points to. The root folder "/" is never removed.
// - Change events come from inotify, on one thread of the provider that is started by the
//   first subscription and stopped by doShutdown (see the event slots below).
//
// Thread-safety: every slot may be called from any number of threads at once; the
// file-system calls themselves are the only shared state, apart from the event
// subscriptions, which the event hub guards.
#pragma once

#include <foundation/storage/provider/IConfigurableProvider.hpp>

#include <memory>

namespace providers::file {

namespace detail {
class FileEventHub;
}

class FileProvider : public foundation::storage::provider::IConfigurableProvider {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;
  using ReplacementPolicy = foundation::storage::provider::ReplacementPolicy;
  using FileAttributes = foundation::storage::provider::FileAttributes;
  using FolderAttributes = foundation::storage::provider::FolderAttributes;
  using ExtendedAttributes = foundation::storage::provider::ExtendedAttributes;
  using ByteStreamPtr = foundation::storage::provider::ByteStreamPtr;
  using ByteStreamOpenOptions = foundation::storage::provider::ByteStreamOpenOptions;
  using FolderEntryIteratorPtr = foundation::storage::provider::FolderEntryIteratorPtr;
  using ExtendedFeature = foundation::storage::provider::ExtendedFeature;
  using FilenameSensitivity = foundation::storage::provider::FilenameSensitivity;
  using ExistenceKind = foundation::storage::provider::ExistenceKind;
  using ProviderStorageInfo = foundation::storage::provider::ProviderStorageInfo;

  FileProvider();
  // Stops the event thread (as doShutdown).
  ~FileProvider() override;

  FileProvider(FileProvider const&) = delete;
  FileProvider& operator=(FileProvider const&) = delete;

  // AlreadyExists(iri) if anything exists there; DoesNotExist(parent) when the parent
  // folder is missing (or is a file); NotWritable(parent) when it may not be written.
  void doCreateFile(StorageIRI const& iri) const override;
  void doCreateFolder(StorageIRI const& iri) const override;
  // Creates the missing ancestors too; succeeds when the folder exists.
  // AlreadyExists naming the first path that is taken by something other than a folder.
  void doCreateFolderRecursive(StorageIRI const& iri) const override;
  bool doFileExists(StorageIRI const& iri) const override;
  bool doFolderExists(StorageIRI const& iri) const override;
  // DoesNotExist when no file is there (a folder is not a file).
  void doRemoveFile(StorageIRI const& iri) const override;
  // DoesNotExist(src) when src is not a file; DoesNotExist(parent of dst) when that
  // folder is missing; AlreadyExists(dst) when dst is a folder, or exists and the policy
  // is not Always.
  void doMoveFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const override;
  // DoesNotExist when no folder is there; FolderNotEmpty when it has entries.
  void doRemoveFolder(StorageIRI const& iri) const override;
  void doRemoveFolderRecursively(StorageIRI const& iri) const override;
  // DoesNotExist(src) when src is not a folder; InvalidName(dst) when dst lies inside src;
  // DoesNotExist(parent of dst) when that folder is missing; AlreadyExists(dst) when dst
  // is a file, or a folder and the policy is Never. See the class comment for merges.
  void doMoveFolder(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const override;
  // DoesNotExist when the item is not a file (resp. folder).
  FileAttributes doGetFileAttributes(StorageIRI const& iri) const override;
  FolderAttributes doGetFolderAttributes(StorageIRI const& iri) const override;
  // OpenOrCreate: the parent folder must exist (else DoesNotExist(parent)); OpenExisting:
  // DoesNotExist(iri) when no file is there. A folder at the IRI is DoesNotExist for
  // OpenExisting and AlreadyExists for OpenOrCreate.
  ByteStreamPtr doOpenStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const override;
  // Writes fail with ByteStreamWriteFailure(NotWritable).
  ByteStreamPtr doOpenReadOnlyStream(StorageIRI const& iri) const override;
  // DoesNotExist when the item is not a folder; NotWritable when it may not be read.
  FolderEntryIteratorPtr doListAll(StorageIRI const& iri) const override;
  FolderEntryIteratorPtr doListFiles(StorageIRI const& iri) const override;
  FolderEntryIteratorPtr doListFolders(StorageIRI const& iri) const override;
  FolderEntryIteratorPtr doListAllRecursive(StorageIRI const& iri) const override;
  // Same checks as doMoveFile.
  void doCopyFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const override;
  // Sets the modification time of a file or folder. std::invalid_argument for a special
  // time value (not_a_date_time, infinities).
  void doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const override;
  void doSetWritable(StorageIRI const& iri, bool writable) const override;

  // Publishes changes below the folder `iri` to `callback`, on the provider's event
  // thread, until doStopPublishingEventsFor(iri) or doShutdown. The watch is in place when
  // the call returns. With RecursiveFileWatching::Enabled every folder below is watched
  // too, and so is every folder created (or moved in) later; the content such a folder
  // already holds when its watch is added is published as Added. `kinds` filters what is
  // published; an empty list publishes every kind.
  // Mapping: IN_CREATE/IN_MOVED_TO Added, IN_MODIFY/IN_CLOSE_WRITE/IN_ATTRIB Modified
  // (repeats for one item within one read of the queue are published once),
  // IN_DELETE/IN_MOVED_FROM Removed, queue overflow Refresh on the subscribed IRI; the
  // subscribed folder's own removal or move is Removed on the subscribed IRI. Callback
  // arguments: kind, the subscribed IRI, the changed item's IRI (the subscribed IRI with
  // the item's path), entry type, details: moves carry "cookie", and "from" and "to"
  // (IRI texts) when both halves were seen together.
  // DoesNotExist when `iri` is not a folder; TransientFailure when inotify refuses
  // (instance or watch limits); NotSupported after doShutdown.
  void doPublishFolderEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback,
                                std::vector<foundation::storage::events::Kind> const& kinds,
                                foundation::storage::events::RecursiveFileWatching recursive) const override;
  // Publishes every kind of change to the one file `iri` (watched through its folder, so
  // the file may be replaced, removed and created again). DoesNotExist when `iri` is not
  // a file.
  void doPublishFileEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback) const override;
  // Ends every subscription made for `iri` (compared after resolution). When it returns,
  // no callback of those subscriptions runs any more, unless it is called from such a
  // callback itself (then the running callback finishes normally).
  void doStopPublishingEventsFor(StorageIRI const& iri) const override;

  // True for exactly ExtendedAttributes, RecursiveListing and RemoveOpenFiles.
  bool doHasFeature(ExtendedFeature const& feature) const override;
  FilenameSensitivity doGetFilenameSensitivity(StorageIRI const& iri) const override;
  // Stops the event thread and ends every subscription. Idempotent. May be called from an
  // event callback (the thread then ends after that callback returns).
  void doShutdown() override;
  bool doExists(StorageIRI const& iri) const override;
  ExistenceKind doExistsExtended(StorageIRI const& iri) const override;
  ExtendedAttributes doGetExtendedAttributes(StorageIRI const& iri) const override;
  // From statvfs: capacity f_blocks*f_frsize, occupied capacity - f_bavail*f_frsize.
  ProviderStorageInfo doGetProviderStorageInfo(StorageIRI const& iri) const override;
  // truncate(2): shortens, or extends with a hole that reads as zeros.
  void doTruncateToSize(StorageIRI const& iri, unsigned long long size) const override;

  // Accepts any configuration; the file store has nothing to configure.
  void doConfigure(boost::property_tree::ptree config) override;

 private:
  std::unique_ptr<detail::FileEventHub> const events_;
};

}  // namespace providers::file
