// StorageItem: a handle on one location of one provider.
//
// A copyable value: the provider (shared) plus the IRI of the location. Every call is
// const and forwards to the provider's slot with this item's IRI.
#pragma once

#include <foundation/storage/provider/IProvider.hpp>

#include <boost/property_tree/ptree.hpp>

#include <memory>

namespace foundation::storage::provider {

class StorageItem {
 public:
  StorageItem() = default;
  StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location)
      : provider_(std::move(provider)), location_(std::move(location)) {}
  // An item on the same provider whose IRI has the path `path` (scheme, authority and
  // inner IRI of `item`, path replaced).
  StorageItem(StorageItem const& item, std::u16string const& path);

  std::shared_ptr<IProvider> const& getProvider() const { return provider_; }
  StorageIRI const& getLocation() const { return location_; }
  bool hasProvider() const { return provider_ != nullptr; }

  void createFile() const;
  void createFolder() const;
  void createFolderRecursive() const;
  bool fileExists() const;
  bool folderExists() const;
  bool exists() const;
  ExistenceKind existsExtended() const;
  void removeFile() const;
  void removeFolder() const;
  void removeFolderRecursively() const;
  void moveFile(StorageIRI const& dst, ReplacementPolicy const& policy) const;
  void moveFolder(StorageIRI const& dst, ReplacementPolicy const& policy) const;
  void copyFile(StorageIRI const& dst, ReplacementPolicy const& policy) const;
  bool copyFileAtomic(StorageIRI const& dst, ReplacementPolicy const& policy, InterruptCallback const& interrupt) const;
  void setLastModified(boost::posix_time::ptime const& time) const;
  void setWritable(bool writable) const;
  void truncateToSize(unsigned long long size) const;

  FileAttributes getFileAttributes() const;
  FolderAttributes getFolderAttributes() const;
  ExtendedAttributes getExtendedAttributes() const;

  // The pattern is a wildcard pattern; empty means "everything".
  FolderEntryIteratorPtr listAll(std::u16string const& pattern = {}) const;
  FolderEntryIteratorPtr listFiles(std::u16string const& pattern = {}) const;
  FolderEntryIteratorPtr listFolders(std::u16string const& pattern = {}) const;
  FolderEntryIteratorPtr listAllRecursive(std::u16string const& pattern = {}) const;
  NameList listAllNamesOnly(std::u16string const& pattern = {}) const;
  NameList listFilesNamesOnly(std::u16string const& pattern = {}) const;
  NameList listFoldersNamesOnly(std::u16string const& pattern = {}) const;
  NameList listAllRecursiveNamesOnly(std::u16string const& pattern = {}) const;

  ByteStreamPtr openStream(ByteStreamOpenOptions const& options) const;
  ByteStreamPtr openReadOnlyStream() const;
  ByteStreamPtr openTransactionalStream(ByteStreamOpenOptions const& options) const;

  void publishFileEvents(events::Callback const& callback) const;
  void publishFolderEvents(events::Callback const& callback,
                           std::vector<events::Kind> const& kinds = {events::Kind::Added, events::Kind::Removed,
                                                                     events::Kind::Modified, events::Kind::Refresh},
                           events::RecursiveFileWatching recursive = events::RecursiveFileWatching::Enabled) const;
  void stopPublishingFileEvents() const;
  void stopPublishingFolderEvents() const;

  bool hasFeature(ExtendedFeature const& feature) const;
  FilenameSensitivity getFilenameSensitivity() const;
  PathComparator getPathComparator() const;
  StorageIRI getCanonicalLocation() const;
  ProviderStorageInfo getProviderStorageInfo() const;
  ProviderCacheUsage getProviderCacheUsage() const;

  // Passes the tree to the provider when it is an IConfigurableProvider; otherwise does
  // nothing.
  void configure(boost::property_tree::ptree const& config) const;
  // Flushes the provider when it implements IFlushableFilesystem; otherwise does nothing.
  void flushFilesystem() const;
  void shutdownProvider() const;

 private:
  IProvider& provider() const;  // throws std::logic_error on an item without provider

  std::shared_ptr<IProvider> provider_;
  StorageIRI location_;
};

// Asks the item's provider to drop what it caches for the item, where the provider
// implements IInvalidatable; does nothing otherwise.
void invalidateProvider(StorageItem const& item);

}  // namespace foundation::storage::provider
