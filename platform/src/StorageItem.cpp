#include <foundation/storage/provider/StorageItem.hpp>

#include <foundation/storage/provider/IConfigurableProvider.hpp>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.hpp>
#include <foundation/storage/provider/extensions/IInvalidatable.hpp>

#include <stdexcept>

namespace foundation::storage::provider {

StorageItem::StorageItem(StorageItem const& item, std::u16string const& path)
    : provider_(item.provider_), location_(item.location_.withPath(path)) {}

IProvider& StorageItem::provider() const {
  if (!provider_) throw std::logic_error("Storage item " + location_.toUtf8() + " has no provider");
  return *provider_;
}

void StorageItem::createFile() const { provider().doCreateFile(location_); }
void StorageItem::createFolder() const { provider().doCreateFolder(location_); }
void StorageItem::createFolderRecursive() const { provider().doCreateFolderRecursive(location_); }
bool StorageItem::fileExists() const { return provider().doFileExists(location_); }
bool StorageItem::folderExists() const { return provider().doFolderExists(location_); }
bool StorageItem::exists() const { return provider().doExists(location_); }
ExistenceKind StorageItem::existsExtended() const { return provider().doExistsExtended(location_); }
void StorageItem::removeFile() const { provider().doRemoveFile(location_); }
void StorageItem::removeFolder() const { provider().doRemoveFolder(location_); }
void StorageItem::removeFolderRecursively() const { provider().doRemoveFolderRecursively(location_); }
void StorageItem::moveFile(StorageIRI const& dst, ReplacementPolicy const& policy) const {
  provider().doMoveFile(location_, dst, policy);
}
void StorageItem::moveFolder(StorageIRI const& dst, ReplacementPolicy const& policy) const {
  provider().doMoveFolder(location_, dst, policy);
}
void StorageItem::copyFile(StorageIRI const& dst, ReplacementPolicy const& policy) const {
  provider().doCopyFile(location_, dst, policy);
}
bool StorageItem::copyFileAtomic(StorageIRI const& dst, ReplacementPolicy const& policy,
                                 InterruptCallback const& interrupt) const {
  return provider().doCopyFileAtomic(location_, dst, policy, interrupt);
}
void StorageItem::setLastModified(boost::posix_time::ptime const& time) const {
  provider().doSetLastModified(location_, time);
}
void StorageItem::setWritable(bool writable) const { provider().doSetWritable(location_, writable); }
void StorageItem::truncateToSize(unsigned long long size) const { provider().doTruncateToSize(location_, size); }

FileAttributes StorageItem::getFileAttributes() const { return provider().doGetFileAttributes(location_); }
FolderAttributes StorageItem::getFolderAttributes() const { return provider().doGetFolderAttributes(location_); }
ExtendedAttributes StorageItem::getExtendedAttributes() const { return provider().doGetExtendedAttributes(location_); }

FolderEntryIteratorPtr StorageItem::listAll(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListAll(location_) : provider().doListAllWildcards(location_, pattern);
}
FolderEntryIteratorPtr StorageItem::listFiles(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListFiles(location_) : provider().doListFilesWildcards(location_, pattern);
}
FolderEntryIteratorPtr StorageItem::listFolders(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListFolders(location_) : provider().doListFoldersWildcards(location_, pattern);
}
FolderEntryIteratorPtr StorageItem::listAllRecursive(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListAllRecursive(location_)
                         : provider().doListAllRecursiveWildcards(location_, pattern);
}
NameList StorageItem::listAllNamesOnly(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListAllNamesOnly(location_)
                         : provider().doListAllNamesOnlyWildcards(location_, pattern);
}
NameList StorageItem::listFilesNamesOnly(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListFilesNamesOnly(location_)
                         : provider().doListFilesNamesOnlyWildcards(location_, pattern);
}
NameList StorageItem::listFoldersNamesOnly(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListFoldersNamesOnly(location_)
                         : provider().doListFoldersNamesOnlyWildcards(location_, pattern);
}
NameList StorageItem::listAllRecursiveNamesOnly(std::u16string const& pattern) const {
  return pattern.empty() ? provider().doListAllRecursiveNamesOnly(location_)
                         : provider().doListAllRecursiveNamesOnlyWildcards(location_, pattern);
}

ByteStreamPtr StorageItem::openStream(ByteStreamOpenOptions const& options) const {
  return provider().doOpenStream(location_, options);
}
ByteStreamPtr StorageItem::openReadOnlyStream() const { return provider().doOpenReadOnlyStream(location_); }
ByteStreamPtr StorageItem::openTransactionalStream(ByteStreamOpenOptions const& options) const {
  return provider().doOpenTransactionalStream(location_, options);
}

void StorageItem::publishFileEvents(events::Callback const& callback) const {
  provider().doPublishFileEventsFor(location_, callback);
}
void StorageItem::publishFolderEvents(events::Callback const& callback, std::vector<events::Kind> const& kinds,
                                      events::RecursiveFileWatching recursive) const {
  provider().doPublishFolderEventsFor(location_, callback, kinds, recursive);
}
void StorageItem::stopPublishingFileEvents() const { provider().doStopPublishingEventsFor(location_); }
void StorageItem::stopPublishingFolderEvents() const { provider().doStopPublishingEventsFor(location_); }

bool StorageItem::hasFeature(ExtendedFeature const& feature) const { return provider().doHasFeature(feature); }
FilenameSensitivity StorageItem::getFilenameSensitivity() const { return provider().doGetFilenameSensitivity(location_); }
PathComparator StorageItem::getPathComparator() const { return provider().doGetPathComparator(location_); }
StorageIRI StorageItem::getCanonicalLocation() const { return provider().doGetCanonicalLocation(location_); }
ProviderStorageInfo StorageItem::getProviderStorageInfo() const {
  return provider().doGetProviderStorageInfo(location_);
}
ProviderCacheUsage StorageItem::getProviderCacheUsage() const { return provider().doGetProviderCacheUsage(location_); }

void StorageItem::configure(boost::property_tree::ptree const& config) const {
  if (auto* configurable = dynamic_cast<IConfigurableProvider*>(&provider())) configurable->doConfigure(config);
}
void StorageItem::flushFilesystem() const {
  if (auto* flushable = dynamic_cast<extensions::IFlushableFilesystem*>(&provider())) flushable->doFlushFilesystem();
}
void StorageItem::shutdownProvider() const { provider().doShutdown(); }

void invalidateProvider(StorageItem const& item) {
  if (auto* invalidatable = dynamic_cast<extensions::IInvalidatable*>(item.getProvider().get())) {
    invalidatable->doInvalidate(item.getLocation());
  }
}

}  // namespace foundation::storage::provider
