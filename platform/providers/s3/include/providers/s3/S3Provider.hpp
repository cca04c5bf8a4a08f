// S3Provider: a bucket of an S3 object store as a storage provider.
//
// Items are addressed as `s3://BUCKET/PATH`; one provider serves one bucket (the
// registry makes one per authority). PATH without its leading "/" is the object key, in
// UTF-8. Settings (endpoint, region, credentials, thresholds) are described in
// S3Settings.hpp; doConfigure applies the "s3.*" keys of a configuration tree.
//
// Files and folders over objects:
// - A file is an object. A folder is a key prefix ending in "/": it exists when an object
//   named exactly so (a zero-byte marker, which creating a folder writes) or any object
//   below it exists. The bucket's root always exists while the bucket does. A folder that
//   only keys below it imply (written by other clients) goes away with its last entry.
// - Creating checks that nothing is there and that the parent folder exists and is
//   writable, then writes; S3 has no atomic "create if absent", so two clients creating
//   the same name at once may both succeed (the last one's object stays).
// - Streams work on a local copy and upload on close (S3Streams.hpp); opening a missing
//   file writes it empty at once. Streams of one file open through one store share the
//   copy; writers in different processes: the last close wins. Read-only streams read
//   with ranged GETs.
// - Moves are a server-side copy and a delete (in parts at or above the multipart
//   threshold). A folder moves object by object, several at once: not atomic; a failure
//   part-way leaves some objects at each place, none lost. Removing a folder recursively
//   deletes object by object, several at once.
// - A time set with setLastModified, the writable flag and the user's extended attributes
//   live in the object's metadata (a copy of the object onto itself changes them). The
//   flag is enforced by this store: a file not writable refuses write streams, a folder
//   not writable (its marker's flag) refuses new children. Writing new content drops a
//   time that was set. Folder moves and file moves keep the metadata; copies drop the set
//   time.
// - Listings come from one ListObjectsV2 walk and carry what S3 lists: a file's size and
//   the time the object was stored, writable true; a folder's time in a plain listing is
//   1970-01-01 (S3 lists no time for prefixes; the recursive listing gives a marker's
//   stored time). The attributes of one item carry the set time and the flag.
// - Extended attributes: the object's "x-amz-meta-*" user metadata, and for files
//   "WATERMARK", the ETag (which changes with the content; a multipart object's ETag also
//   changes when its time or flag is set, since that copies it).
// - Storage information: NotSupported unless a capacity is configured (s3.capacity); the
//   space occupied is then reported as 0 (S3 has no cheap figure for it).
// - Change events come from polling (S3Poller.hpp), every s3.poll_interval_ms.
//
// Errors: see S3Objects.hpp for how S3 answers become ErrorCodes. Every Exception names
// the IRI the caller used (or its parent, as the contract says).
//
// Thread-safe: every slot may be called from any number of threads at once; requests run
// in parallel over pooled connections.
#pragma once

#include <providers/s3/S3Settings.hpp>

#include <foundation/storage/provider/IConfigurableProvider.hpp>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace providers::s3 {

namespace detail {
class S3Client;
class S3Objects;
class S3Poller;
struct Spool;
}  // namespace detail

inline constexpr char16_t const* kScheme = u"s3";

class S3Provider : public foundation::storage::provider::IConfigurableProvider {
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
  using ExistenceKind = foundation::storage::provider::ExistenceKind;
  using ProviderStorageInfo = foundation::storage::provider::ProviderStorageInfo;

  // A store for `bucket` with `settings`. Makes no request.
  S3Provider(std::string bucket, S3Settings settings);
  ~S3Provider() override;
  S3Provider(S3Provider const&) = delete;
  S3Provider& operator=(S3Provider const&) = delete;

  void doCreateFile(StorageIRI const& iri) const override;
  void doCreateFolder(StorageIRI const& iri) const override;
  void doCreateFolderRecursive(StorageIRI const& iri) const override;
  bool doFileExists(StorageIRI const& iri) const override;
  bool doFolderExists(StorageIRI const& iri) const override;
  void doRemoveFile(StorageIRI const& iri) const override;
  void doMoveFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const override;
  void doRemoveFolder(StorageIRI const& iri) const override;
  void doRemoveFolderRecursively(StorageIRI const& iri) const override;
  void doMoveFolder(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const override;
  FileAttributes doGetFileAttributes(StorageIRI const& iri) const override;
  FolderAttributes doGetFolderAttributes(StorageIRI const& iri) const override;
  ByteStreamPtr doOpenStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const override;
  ByteStreamPtr doOpenReadOnlyStream(StorageIRI const& iri) const override;
  FolderEntryIteratorPtr doListAll(StorageIRI const& iri) const override;
  FolderEntryIteratorPtr doListFiles(StorageIRI const& iri) const override;
  FolderEntryIteratorPtr doListFolders(StorageIRI const& iri) const override;
  FolderEntryIteratorPtr doListAllRecursive(StorageIRI const& iri) const override;
  void doCopyFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const override;
  void doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const override;
  void doSetWritable(StorageIRI const& iri, bool writable) const override;
  void doPublishFolderEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback,
                                std::vector<foundation::storage::events::Kind> const& kinds,
                                foundation::storage::events::RecursiveFileWatching recursive) const override;
  void doPublishFileEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback) const override;
  void doStopPublishingEventsFor(StorageIRI const& iri) const override;
  // True for ExtendedAttributes and RecursiveListing.
  bool doHasFeature(ExtendedFeature const& feature) const override;
  // Stops polling. Idempotent.
  void doShutdown() override;
  bool doExists(StorageIRI const& iri) const override;
  ExistenceKind doExistsExtended(StorageIRI const& iri) const override;
  ExtendedAttributes doGetExtendedAttributes(StorageIRI const& iri) const override;
  ProviderStorageInfo doGetProviderStorageInfo(StorageIRI const& iri) const override;
  // Applies the "s3.*" keys (S3Settings::fromConfig); requests already running finish
  // with the settings they started with.
  void doConfigure(boost::property_tree::ptree config) override;

  // Looks for changes made elsewhere now instead of at the next polling round, and
  // returns when their events have been delivered.
  void pollNow() const;
  S3Settings settings() const;

 private:
  detail::S3Objects objects() const;
  std::string keyOf(StorageIRI const& iri) const;
  // "the bucket B does not exist at ENDPOINT".
  std::string missingBucket() const;
  bool isFolder(StorageIRI const& iri, std::string const& key) const;
  // Throws DoesNotExist(parent) unless the parent of `iri` is a folder, NotWritable(parent)
  // when it is marked not writable.
  void requireParentFolder(StorageIRI const& iri) const;
  // Refuses with AlreadyExists(iri) when a file or folder is at `iri`.
  void requireNothingAt(StorageIRI const& iri, std::string const& key) const;
  // Rewrites the metadata of the file or folder at `iri` through `change`.
  void changeMetadata(StorageIRI const& iri, std::function<void(std::map<std::string, std::string>&)> const& change) const;
  // Checks a file move or copy and returns the source's size and metadata.
  std::pair<std::uint64_t, std::map<std::string, std::string>> checkFileTransfer(StorageIRI const& src, StorageIRI const& dst,
                                                                                 ReplacementPolicy const& policy) const;
  std::vector<foundation::storage::provider::FolderEntry> listFolder(StorageIRI const& iri) const;

  std::string const bucket_;
  mutable std::mutex mutex_;  // guards client_
  std::shared_ptr<detail::S3Client const> client_;
  std::unique_ptr<detail::S3Poller> const poller_;
  // The local copies of the files open for writing, by key (see S3Streams.hpp); a slot's
  // mutex is held while its copy is being made.
  struct SpoolSlot {
    std::mutex mutex;
    std::weak_ptr<detail::Spool> spool;  // guarded by mutex
  };
  mutable std::mutex spoolsMutex_;  // guards spools_
  mutable std::map<std::string, std::shared_ptr<SpoolSlot>> spools_;
  // What this store's write streams last uploaded, by key, until a change of the file's
  // metadata uses it (see changeMetadata), another change of this store at or below the
  // key forgets it, or it is older than kUploadKept.
  struct Upload {
    std::uint64_t size = 0;
    std::map<std::string, std::string> metadata;
    std::chrono::steady_clock::time_point when;
  };
  static constexpr std::chrono::seconds kUploadKept{10};
  // The upload of `key` if there is a recent one; forgets it either way.
  std::optional<Upload> takeUpload(std::string const& key) const;
  // Forgets the uploads of `key` and of every key below it.
  void forgetUploads(std::string const& key) const;
  static constexpr std::size_t kKeptUploads = 4096;
  mutable std::mutex uploadsMutex_;
  mutable std::map<std::string, Upload> uploads_;
};

}  // namespace providers::s3
