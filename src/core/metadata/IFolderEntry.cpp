#include <core/metadata/IFolderEntry.hpp>

#include <core/util/LocationIndex.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>


namespace storage::overlayprovider {

namespace {

bool fits(FileOrFolderMetadata const& child, IFolderEntry::CheckType type) {
  switch (static_cast<int>(type)) {
    case static_cast<int>(IFolderEntry::CheckType::FILE):
      return child.index() == 0;
    case static_cast<int>(IFolderEntry::CheckType::ANY):
      return true;
    default:
      return child.index() == 1;
  }
}

}  // namespace

IFolderEntry::IFolderEntry(fsp::StorageIRI location)
    : location_(std::make_shared<fsp::StorageIRI const>(std::move(location))), children_(*location_) {}

IFolderEntry::~IFolderEntry() = default;

void IFolderEntry::doBuildFolder() const {}

IFolderEntry& IFolderEntry::withMetadata(std::shared_ptr<FolderMetadata> metadata) {
  std::lock_guard lock(metadataGuard_);
  metadata_ = std::move(metadata);
  metadataGiven_ = true;
  return *this;
}

void IFolderEntry::setListedMetadata(std::shared_ptr<FolderMetadata> metadata) {
  std::lock_guard lock(metadataGuard_);
  if (!metadataGiven_) metadata_ = std::move(metadata);
}

std::shared_ptr<FolderMetadata> IFolderEntry::peekMetadata() const {
  std::lock_guard lock(metadataGuard_);
  return metadata_;
}

std::shared_ptr<FolderMetadata> IFolderEntry::getMetadata() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return peekMetadata();
}

std::size_t IFolderEntry::lowerCaseHash(fsp::StorageIRI const& iri) { return lowerCaseHashOf(iri); }

IFolderEntry::const_iterator IFolderEntry::find(std::u16string_view text, CheckType type, bool caseSensitive) const {
  auto const found = caseSensitive ? children_.findExact(text) : children_.findFolded(text);
  if (found != children_.end() && !fits(*found, type)) return children_.end();
  return found;
}

IFolderEntry::const_iterator IFolderEntry::getIteratorForFileOrFolderPath(fsp::StorageIRI const& iri, CheckType type,
                                                                          bool caseSensitive) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return find(iri, type, caseSensitive);
}

std::shared_ptr<FileMetadata> IFolderEntry::getFileMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const {
  return getFileMetadata(std::u16string_view(iri.toString()), caseSensitive);
}

std::shared_ptr<FolderMetadata> IFolderEntry::getFolderMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const {
  return getFolderMetadata(std::u16string_view(iri.toString()), caseSensitive);
}

std::shared_ptr<FileMetadata> IFolderEntry::getFileMetadata(std::u16string_view text, bool caseSensitive) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  auto it = find(text, CheckType::FILE, caseSensitive);
  return it == children_.end() ? nullptr : std::get<0>(*it);
}

std::shared_ptr<FolderMetadata> IFolderEntry::getFolderMetadata(std::u16string_view text, bool caseSensitive) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  auto it = find(text, CheckType::FOLDER, caseSensitive);
  return it == children_.end() ? nullptr : std::get<1>(*it);
}

bool IFolderEntry::hasFileMetadata(fsp::StorageIRI const& iri) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return find(iri, CheckType::FILE, true) != children_.end();
}

bool IFolderEntry::hasFolderMetadata(fsp::StorageIRI const& iri) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return find(iri, CheckType::FOLDER, true) != children_.end();
}

void IFolderEntry::stampNow() const { stampWith(boost::posix_time::microsec_clock::universal_time()); }

void IFolderEntry::stampWith(boost::posix_time::ptime time) const {
  if (auto metadata = peekMetadata()) metadata->withLastModified(time);
}

void IFolderEntry::removeFileMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  auto it = find(iri, CheckType::FILE, caseSensitive);
  if (it == children_.end()) return;
  children_.erase(it);
  stampNow();
}

void IFolderEntry::removeFolderMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  auto it = find(iri, CheckType::FOLDER, caseSensitive);
  if (it == children_.end()) return;
  children_.erase(it);
  stampNow();
}

void IFolderEntry::addFileMetadata(std::shared_ptr<FileMetadata> child, bool updateLastModified) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  if (updateLastModified) stampWith(child->getLastModified());
  children_.insert(FileOrFolderMetadata(std::move(child)));
}

void IFolderEntry::addFolderMetadata(std::shared_ptr<FolderMetadata> child, bool updateLastModified) const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  if (updateLastModified) stampWith(child->getLastModified());
  children_.insert(FileOrFolderMetadata(std::move(child)));
}

IFolderEntry::const_iterator IFolderEntry::begin() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return children_.begin();
}

IFolderEntry::const_iterator IFolderEntry::end() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return children_.end();
}

IFolderEntry::Content IFolderEntry::getAllContent() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return Content(children_.begin(), children_.end());
}

std::size_t IFolderEntry::size() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return children_.size();
}

bool IFolderEntry::empty() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  return children_.empty();
}

bool IFolderEntry::isFrozen() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  auto metadata = peekMetadata();
  return metadata && metadata->isFrozen();
}

void IFolderEntry::thaw() const {
  std::lock_guard lock(guard_);
  doBuildFolder();
  if (auto metadata = peekMetadata()) metadata->thaw();
}

AddFileOrFolderVisitor::AddFileOrFolderVisitor(IFolderEntry const& entry) : entry_(entry) {}
void AddFileOrFolderVisitor::operator()(std::shared_ptr<FileMetadata> const& file) const {
  entry_.addFileMetadata(file, true);
}
void AddFileOrFolderVisitor::operator()(std::shared_ptr<FolderMetadata> const& folder) const {
  entry_.addFolderMetadata(folder, true);
}

}  // namespace storage::overlayprovider
