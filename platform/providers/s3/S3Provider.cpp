#include <providers/s3/S3Provider.hpp>

#include "S3Client.hpp"
#include "S3Objects.hpp"
#include "S3Poller.hpp"
#include "S3Streams.hpp"

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/FolderEntry.hpp>
#include <foundation/storage/provider/IFolderEntryIterator.hpp>

#include <fl/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include <unistd.h>

namespace providers::s3 {

namespace sp = foundation::storage::provider;
namespace se = foundation::storage::events;
namespace pt = boost::posix_time;
using detail::Metadata;
using detail::S3Objects;
using sp::ErrorCode;
using sp::Exception;

namespace {

pt::ptime const kNoTime = pt::from_time_t(0);

std::string folderPrefix(std::string const& key) { return key.empty() ? std::string() : key + "/"; }

sp::FolderEntryIteratorPtr iterator(std::vector<sp::FolderEntry> entries) {
  return std::make_unique<sp::VectorFolderEntryIterator>(std::move(entries));
}

// The user's extended attributes: the metadata without the store's own keys.
sp::ExtendedAttributes userAttributes(Metadata const& metadata) {
  sp::ExtendedAttributes attributes;
  for (auto const& [name, value] : metadata) {
    if (name.rfind("ovl-", 0) != 0) attributes.setAttribute(name, value);
  }
  return attributes;
}

}  // namespace

S3Provider::S3Provider(std::string bucket, S3Settings settings)
    : bucket_(std::move(bucket)),
      client_(std::make_shared<detail::S3Client>(settings, bucket_)),
      poller_(std::make_unique<detail::S3Poller>([this] { return objects(); }, settings.pollInterval)) {}

S3Provider::~S3Provider() { poller_->stop(); }

S3Objects S3Provider::objects() const {
  std::lock_guard lock(mutex_);
  return S3Objects(client_);
}

S3Settings S3Provider::settings() const {
  std::lock_guard lock(mutex_);
  return client_->settings();
}

void S3Provider::doConfigure(boost::property_tree::ptree config) {
  auto settings = S3Settings::fromConfig(config, this->settings());
  poller_->setInterval(settings.pollInterval);
  std::lock_guard lock(mutex_);
  client_ = std::make_shared<detail::S3Client>(std::move(settings), bucket_);
}

std::string S3Provider::missingBucket() const {
  return "the bucket " + bucket_ + " does not exist at " + settings().endpoint;
}

std::string S3Provider::keyOf(StorageIRI const& iri) const {
  auto const path = iri.getResolvedIRI().getPath();
  try {
    return fl::i18n::ustring_to_utf8(path.size() > 1 ? path.substr(1) : std::u16string());
  } catch (std::exception const&) {
    throw Exception(ErrorCode::InvalidName, iri, "the name is not valid Unicode");
  }
}

bool S3Provider::isFolder(StorageIRI const& iri, std::string const& key) const {
  auto const objects = this->objects();
  if (key.empty()) return objects.bucketExists(iri);
  return objects.anyBelow(key + "/", iri);
}

void S3Provider::requireParentFolder(StorageIRI const& iri) const {
  auto const parent = iri.getResolvedIRI().getParent();
  auto const key = keyOf(parent);
  auto const objects = this->objects();
  if (key.empty()) {
    if (!objects.bucketExists(parent)) {
      throw Exception(ErrorCode::DoesNotExist, parent, missingBucket());
    }
    return;
  }
  if (auto marker = objects.head(key + "/", parent)) {
    if (!marker->writable()) throw Exception(ErrorCode::NotWritable, parent, "the folder is marked not writable");
    return;
  }
  if (!objects.anyBelow(key + "/", parent)) throw Exception(ErrorCode::DoesNotExist, parent);
}

void S3Provider::requireNothingAt(StorageIRI const& iri, std::string const& key) const {
  if (key.empty() || objects().head(key, iri) || isFolder(iri, key)) throw Exception(ErrorCode::AlreadyExists, iri);
}

void S3Provider::doCreateFile(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  forgetUploads(key);
  requireNothingAt(iri, key);
  requireParentFolder(iri);
  objects().put(key, detail::Body{}, {}, iri);
}

void S3Provider::doCreateFolder(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  requireNothingAt(iri, key);
  requireParentFolder(iri);
  objects().put(key + "/", detail::Body{}, {}, iri);
}

void S3Provider::doCreateFolderRecursive(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const objects = this->objects();
  if (key.empty()) {
    if (!objects.bucketExists(iri)) throw Exception(ErrorCode::DoesNotExist, iri, missingBucket());
    return;
  }
  if (objects.head(key, iri)) throw Exception(ErrorCode::AlreadyExists, iri);
  if (isFolder(iri, key)) return;
  // Every level gets its marker, so that the folders stay when emptied.
  for (std::size_t end = key.find('/'); ; end = key.find('/', end + 1)) {
    auto const level = key.substr(0, end);
    StorageIRI const levelIRI = iri.withPath(u"/" + fl::i18n::to_ustring(level));
    if (objects.head(level, levelIRI)) throw Exception(ErrorCode::AlreadyExists, levelIRI, "a file is there");
    if (!objects.head(level + "/", levelIRI)) objects.put(level + "/", detail::Body{}, {}, levelIRI);
    if (end == std::string::npos) break;
  }
}

bool S3Provider::doFileExists(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  return !key.empty() && objects().head(key, iri).has_value();
}

bool S3Provider::doFolderExists(StorageIRI const& iri) const { return isFolder(iri, keyOf(iri)); }

bool S3Provider::doExists(StorageIRI const& iri) const { return doExistsExtended(iri) != ExistenceKind::None; }

sp::ExistenceKind S3Provider::doExistsExtended(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  if (!key.empty() && objects().head(key, iri)) return ExistenceKind::File;
  return isFolder(iri, key) ? ExistenceKind::Folder : ExistenceKind::None;
}

void S3Provider::doRemoveFile(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  forgetUploads(key);
  auto const objects = this->objects();
  if (key.empty() || !objects.head(key, iri)) throw Exception(ErrorCode::DoesNotExist, iri);
  objects.remove(key, iri);
}

void S3Provider::doRemoveFolder(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const objects = this->objects();
  auto const prefix = folderPrefix(key);
  auto const listing = objects.list(prefix, "", iri, 2);
  bool const marked = !listing.objects.empty() && listing.objects.front().key == prefix && !prefix.empty();
  if (listing.objects.size() > (marked ? 1u : 0u)) throw Exception(ErrorCode::FolderNotEmpty, iri);
  if (key.empty()) {
    if (!objects.bucketExists(iri)) throw Exception(ErrorCode::DoesNotExist, iri);
    return;  // the root stays
  }
  if (!marked) throw Exception(ErrorCode::DoesNotExist, iri);
  objects.remove(prefix, iri);
}

void S3Provider::doRemoveFolderRecursively(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  forgetUploads(key);
  auto const objects = this->objects();
  auto const prefix = folderPrefix(key);
  auto listing = objects.list(prefix, "", iri);
  if (listing.objects.empty() && (!key.empty() || !objects.bucketExists(iri))) throw Exception(ErrorCode::DoesNotExist, iri);
  // Markers last, deepest first, so that a failure part-way leaves the folders in place.
  auto& keys = listing.objects;
  std::stable_partition(keys.begin(), keys.end(), [](auto const& o) { return o.key.back() != '/'; });
  auto const firstMarker = std::find_if(keys.begin(), keys.end(), [](auto const& o) { return o.key.back() == '/'; });
  std::sort(firstMarker, keys.end(), [](auto const& a, auto const& b) { return a.key.size() > b.key.size(); });
  auto const files = static_cast<std::size_t>(firstMarker - keys.begin());
  detail::forEachInParallel(files, objects.client().settings().objectTransfers,
                            [&](std::size_t i) { objects.remove(keys[i].key, iri); });
  for (std::size_t i = files; i < keys.size(); ++i) objects.remove(keys[i].key, iri);
}

std::pair<std::uint64_t, Metadata> S3Provider::checkFileTransfer(StorageIRI const& src, StorageIRI const& dst,
                                                                 ReplacementPolicy const& policy) const {
  auto const objects = this->objects();
  auto const srcKey = keyOf(src);
  auto const dstKey = keyOf(dst);
  auto const info = srcKey.empty() ? std::nullopt : objects.head(srcKey, src);
  if (!info) throw Exception(ErrorCode::DoesNotExist, src);
  if (dstKey.empty() || isFolder(dst, dstKey)) throw Exception(ErrorCode::AlreadyExists, dst, "a folder is there");
  if (policy != ReplacementPolicy::Always && objects.head(dstKey, dst)) throw Exception(ErrorCode::AlreadyExists, dst);
  requireParentFolder(dst);
  return {info->size, info->metadata};
}

void S3Provider::doMoveFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  auto const [size, metadata] = checkFileTransfer(src, dst, policy);
  auto const srcKey = keyOf(src);
  auto const dstKey = keyOf(dst);
  forgetUploads(srcKey);
  forgetUploads(dstKey);
  if (srcKey == dstKey) return;
  auto const objects = this->objects();
  objects.copy(srcKey, dstKey, size, metadata, dst);
  objects.remove(srcKey, src);
}

void S3Provider::doCopyFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  auto [size, metadata] = checkFileTransfer(src, dst, policy);
  auto const srcKey = keyOf(src);
  auto const dstKey = keyOf(dst);
  forgetUploads(dstKey);
  if (srcKey == dstKey) return;
  metadata.erase(detail::kTimeKey);
  objects().copy(srcKey, dstKey, size, metadata, dst);
}

void S3Provider::doMoveFolder(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  auto const objects = this->objects();
  auto const srcKey = keyOf(src);
  auto const dstKey = keyOf(dst);
  if (!isFolder(src, srcKey)) throw Exception(ErrorCode::DoesNotExist, src);
  forgetUploads(srcKey);
  forgetUploads(dstKey);
  if (srcKey.empty() || dstKey == srcKey || dstKey.rfind(srcKey + "/", 0) == 0 || dstKey.empty()) {
    throw Exception(ErrorCode::InvalidName, dst, "the destination lies inside the folder moved");
  }
  if (objects.head(dstKey, dst)) throw Exception(ErrorCode::AlreadyExists, dst, "a file is there");
  bool const merge = isFolder(dst, dstKey);
  if (merge && policy == ReplacementPolicy::Never) throw Exception(ErrorCode::AlreadyExists, dst);
  requireParentFolder(dst);

  auto const srcPrefix = srcKey + "/";
  auto const dstPrefix = dstKey + "/";
  auto const sources = objects.list(srcPrefix, "", src).objects;
  std::set<std::string> existing;
  if (merge && policy == ReplacementPolicy::KeepExisting) {
    for (auto const& object : objects.list(dstPrefix, "", dst).objects) existing.insert(object.key);
  }
  auto const transfers = objects.client().settings().objectTransfers;
  // Copy everything first, then remove the sources: a failure part-way loses nothing.
  detail::forEachInParallel(sources.size(), transfers, [&](std::size_t i) {
    auto const target = dstPrefix + sources[i].key.substr(srcPrefix.size());
    if (existing.count(target) != 0) return;
    objects.copy(sources[i].key, target, sources[i].size, std::nullopt, dst);
  });
  if (!merge) {
    // The destination's own marker, so that it stays a folder even if the source was
    // only implied by its keys.
    if (!objects.head(dstPrefix, dst)) objects.put(dstPrefix, detail::Body{}, {}, dst);
  }
  detail::forEachInParallel(sources.size(), transfers, [&](std::size_t i) {
    if (sources[i].key != srcPrefix) objects.remove(sources[i].key, src);
  });
  objects.remove(srcPrefix, src);
}

sp::FileAttributes S3Provider::doGetFileAttributes(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const info = key.empty() ? std::nullopt : objects().head(key, iri);
  if (!info) throw Exception(ErrorCode::DoesNotExist, iri);
  return FileAttributes(static_cast<unsigned long>(info->size), info->lastModified(), info->writable());
}

sp::FolderAttributes S3Provider::doGetFolderAttributes(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const objects = this->objects();
  if (key.empty()) {
    if (!objects.bucketExists(iri)) throw Exception(ErrorCode::DoesNotExist, iri);
    return FolderAttributes(kNoTime, true);
  }
  if (auto marker = objects.head(key + "/", iri)) return FolderAttributes(marker->lastModified(), marker->writable());
  auto const listing = objects.list(key + "/", "", iri, 1);
  if (listing.objects.empty()) throw Exception(ErrorCode::DoesNotExist, iri);
  return FolderAttributes(listing.objects.front().stored, true);
}

sp::ByteStreamPtr S3Provider::doOpenStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const {
  auto const key = keyOf(iri);
  auto const objects = this->objects();
  auto const info = key.empty() ? std::nullopt : objects.head(key, iri);
  if (info && !info->writable()) throw Exception(ErrorCode::NotWritable, iri, "the file is marked not writable");
  if (!info) {
    if (options.openMode == ByteStreamOpenOptions::OpenExisting) throw Exception(ErrorCode::DoesNotExist, iri);
    if (isFolder(iri, key)) throw Exception(ErrorCode::AlreadyExists, iri, "a folder is there");
    requireParentFolder(iri);
    // The file exists from the opening on, as on a disk: other callers may open, list or
    // stat it before this stream closes.
    objects.put(key, detail::Body{}, {}, iri);
  }
  // The file's slot: held while its local copy is made, so that a second opening of the
  // same file waits for that copy while openings of other files go on.
  std::shared_ptr<SpoolSlot> slot;
  {
    std::lock_guard lock(spoolsMutex_);
    // Slots nobody else holds and whose copy is gone (no stream is open on it).
    std::erase_if(spools_, [](auto const& entry) {
      if (entry.second.use_count() != 1) return false;
      std::lock_guard slotLock(entry.second->mutex);
      return entry.second->spool.expired();
    });
    auto& found = spools_[key];
    if (!found) found = std::make_shared<SpoolSlot>();
    slot = found;
  }
  std::lock_guard slotLock(slot->mutex);
  auto spool = slot->spool.lock();
  if (!spool) {
    Metadata metadata = info ? info->metadata : Metadata();
    metadata.erase(detail::kTimeKey);  // new content, new time
    spool = std::make_shared<detail::Spool>(detail::makeSpoolFile(iri), std::move(metadata));
    if (info && !options.truncate) objects.download(key, info->size, spool->fd, iri);
    slot->spool = spool;
  }
  if (options.truncate && info && (info->size > 0 || spool->dirty)) {
    if (::ftruncate(spool->fd, 0) != 0) {
      throw Exception(ErrorCode::TransientFailure, iri, "cannot empty the local copy: " + std::string(std::strerror(errno)));
    }
    spool->dirty = true;
  }
  std::shared_ptr<detail::S3Client const> client;
  {
    std::lock_guard clientLock(mutex_);
    client = client_;
  }
  return std::make_unique<detail::SpoolStream>(
      client, key, iri, std::move(spool), options.append,
      [this, key](std::uint64_t size, Metadata const& metadata) {
        std::lock_guard uploadsLock(uploadsMutex_);
        // Bounded: only the latest uploads matter (a time stamp follows its close at once).
        if (uploads_.size() >= kKeptUploads) uploads_.clear();
        uploads_[key] = Upload{size, metadata, std::chrono::steady_clock::now()};
      });
}

sp::ByteStreamPtr S3Provider::doOpenReadOnlyStream(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const info = key.empty() ? std::nullopt : objects().head(key, iri);
  if (!info) throw Exception(ErrorCode::DoesNotExist, iri);
  std::lock_guard lock(mutex_);
  return std::make_unique<detail::RangedReadStream>(client_, key, iri, info->size);
}

std::vector<sp::FolderEntry> S3Provider::listFolder(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const prefix = folderPrefix(key);
  auto const objects = this->objects();
  auto const listing = objects.list(prefix, "/", iri);
  if (listing.objects.empty() && listing.prefixes.empty()) {
    if (!key.empty()) throw Exception(ErrorCode::DoesNotExist, iri);
    if (!objects.bucketExists(iri)) throw Exception(ErrorCode::DoesNotExist, iri, missingBucket());
  }
  std::vector<sp::FolderEntry> entries;
  auto name = [&](std::string const& rest) -> std::optional<std::u16string> {
    try {
      return fl::i18n::to_ustring(rest);
    } catch (std::exception const&) {
      return std::nullopt;  // a key that is not UTF-8 cannot be named by an IRI
    }
  };
  for (auto const& object : listing.objects) {
    if (object.key.size() <= prefix.size()) continue;  // the folder's own marker
    if (auto n = name(object.key.substr(prefix.size()))) {
      entries.emplace_back(*n, FileAttributes(static_cast<unsigned long>(object.size), object.stored, true));
    }
  }
  for (auto const& folder : listing.prefixes) {
    auto rest = folder.substr(prefix.size());
    if (!rest.empty()) rest.pop_back();
    if (rest.empty()) continue;  // "a//b" keys: a folder without a name
    if (auto n = name(rest)) entries.emplace_back(*n, FolderAttributes(kNoTime, true));
  }
  return entries;
}

sp::FolderEntryIteratorPtr S3Provider::doListAll(StorageIRI const& iri) const { return iterator(listFolder(iri)); }

sp::FolderEntryIteratorPtr S3Provider::doListFiles(StorageIRI const& iri) const {
  auto entries = listFolder(iri);
  std::erase_if(entries, [](auto const& e) { return !e.isFile(); });
  return iterator(std::move(entries));
}

sp::FolderEntryIteratorPtr S3Provider::doListFolders(StorageIRI const& iri) const {
  auto entries = listFolder(iri);
  std::erase_if(entries, [](auto const& e) { return e.isFile(); });
  return iterator(std::move(entries));
}

sp::FolderEntryIteratorPtr S3Provider::doListAllRecursive(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const prefix = folderPrefix(key);
  auto const objects = this->objects();
  auto const listing = objects.list(prefix, "", iri);
  if (listing.objects.empty()) {
    if (!key.empty()) throw Exception(ErrorCode::DoesNotExist, iri);
    if (!objects.bucketExists(iri)) throw Exception(ErrorCode::DoesNotExist, iri, missingBucket());
  }
  // By path segments, so that a folder comes before its content.
  struct Found {
    bool folder;
    std::uint64_t size;
    pt::ptime time;
  };
  std::map<std::vector<std::string>, Found> found;
  for (auto const& object : listing.objects) {
    std::string rel = object.key.substr(prefix.size());
    if (rel.empty()) continue;
    bool const marker = rel.back() == '/';
    if (marker) rel.pop_back();
    std::vector<std::string> segments;
    for (std::size_t start = 0;;) {
      auto const slash = rel.find('/', start);
      segments.push_back(rel.substr(start, slash - start));
      if (slash == std::string::npos) break;
      start = slash + 1;
    }
    if (std::any_of(segments.begin(), segments.end(), [](auto const& s) { return s.empty(); })) continue;
    for (std::size_t n = 1; n < segments.size(); ++n) {
      auto& folder = found.try_emplace({segments.begin(), segments.begin() + n}, Found{true, 0, object.stored}).first->second;
      folder.time = std::max(folder.time, object.stored);
    }
    if (marker) {
      found.insert_or_assign(segments, Found{true, 0, object.stored});
    } else {
      found[segments] = Found{false, object.size, object.stored};
    }
  }
  std::vector<sp::FolderEntry> entries;
  entries.reserve(found.size());
  for (auto const& [segments, what] : found) {
    std::string path;
    for (auto const& segment : segments) path += (path.empty() ? "" : "/") + segment;
    std::u16string name;
    try {
      name = fl::i18n::to_ustring(path);
    } catch (std::exception const&) {
      continue;
    }
    if (what.folder) {
      entries.emplace_back(std::move(name), FolderAttributes(what.time, true));
    } else {
      entries.emplace_back(std::move(name), FileAttributes(static_cast<unsigned long>(what.size), what.time, true));
    }
  }
  return iterator(std::move(entries));
}

std::optional<S3Provider::Upload> S3Provider::takeUpload(std::string const& key) const {
  std::lock_guard lock(uploadsMutex_);
  auto const it = uploads_.find(key);
  if (it == uploads_.end()) return std::nullopt;
  auto upload = std::move(it->second);
  uploads_.erase(it);
  if (std::chrono::steady_clock::now() - upload.when > kUploadKept) return std::nullopt;
  return upload;
}

void S3Provider::forgetUploads(std::string const& key) const {
  std::lock_guard lock(uploadsMutex_);
  auto const prefix = key + "/";
  std::erase_if(uploads_, [&](auto const& entry) { return entry.first == key || entry.first.rfind(prefix, 0) == 0; });
}

void S3Provider::changeMetadata(StorageIRI const& iri, std::function<void(Metadata&)> const& change) const {
  auto const key = keyOf(iri);
  auto const objects = this->objects();
  if (!key.empty()) {
    // A file this store has just uploaded (the time stamp that follows a close): its size
    // and metadata are known, so the copy needs no HEAD first. Another client's write in
    // between keeps its content; only the metadata is this store's, as it would be after
    // a HEAD answered just before that write.
    auto const upload = takeUpload(key);
    if (upload && upload->size < objects.client().settings().multipartThreshold) {
      auto metadata = upload->metadata;
      change(metadata);
      objects.copy(key, key, upload->size, metadata, iri);
      return;
    }
    if (auto info = objects.head(key, iri)) {
      auto metadata = info->metadata;
      change(metadata);
      objects.copy(key, key, info->size, metadata, iri);
      return;
    }
    if (auto marker = objects.head(key + "/", iri)) {
      auto metadata = marker->metadata;
      change(metadata);
      objects.copy(key + "/", key + "/", 0, metadata, iri);
      return;
    }
  }
  if (!isFolder(iri, key)) throw Exception(ErrorCode::DoesNotExist, iri);
  if (key.empty()) throw Exception(ErrorCode::NotSupported, iri, "the bucket's root keeps no time or flag");
  // A folder implied by the keys below it gets a marker to hold what is set.
  Metadata metadata;
  change(metadata);
  objects.put(key + "/", detail::Body{}, metadata, iri);
}

void S3Provider::doSetLastModified(StorageIRI const& iri, pt::ptime const& time) const {
  if (time.is_special()) throw std::invalid_argument("a special time cannot be set on " + iri.toUtf8());
  auto const micros = (time - kNoTime).total_microseconds();
  changeMetadata(iri, [&](Metadata& metadata) { metadata[detail::kTimeKey] = std::to_string(micros); });
}

void S3Provider::doSetWritable(StorageIRI const& iri, bool writable) const {
  changeMetadata(iri, [&](Metadata& metadata) {
    if (writable) {
      metadata.erase(detail::kWritableKey);
    } else {
      metadata[detail::kWritableKey] = "false";
    }
  });
}

sp::ExtendedAttributes S3Provider::doGetExtendedAttributes(StorageIRI const& iri) const {
  auto const key = keyOf(iri);
  auto const objects = this->objects();
  if (!key.empty()) {
    if (auto info = objects.head(key, iri)) {
      auto attributes = userAttributes(info->metadata);
      attributes.setAttribute("WATERMARK", info->etag);
      return attributes;
    }
    if (auto marker = objects.head(key + "/", iri)) return userAttributes(marker->metadata);
  }
  if (!isFolder(iri, key)) throw Exception(ErrorCode::DoesNotExist, iri);
  return {};
}

sp::ProviderStorageInfo S3Provider::doGetProviderStorageInfo(StorageIRI const& iri) const {
  auto const capacity = settings().capacity;
  if (!capacity) {
    throw Exception(ErrorCode::NotSupported, iri,
                    "an S3 store has no storage figures of its own; set s3.capacity to report one");
  }
  return ProviderStorageInfo().withStorageCapacity(static_cast<unsigned long>(*capacity)).withSpaceOccupied(0);
}

bool S3Provider::doHasFeature(ExtendedFeature const& feature) const {
  return feature == ExtendedFeature::ExtendedAttributes || feature == ExtendedFeature::RecursiveListing;
}

void S3Provider::doPublishFolderEventsFor(StorageIRI const& iri, se::Callback const& callback,
                                          std::vector<se::Kind> const& kinds, se::RecursiveFileWatching recursive) const {
  auto const key = keyOf(iri);
  if (!isFolder(iri, key)) throw Exception(ErrorCode::DoesNotExist, iri);
  poller_->subscribe(iri, iri, folderPrefix(key), recursive == se::RecursiveFileWatching::Enabled, kinds, callback);
}

void S3Provider::doPublishFileEventsFor(StorageIRI const& iri, se::Callback const& callback) const {
  auto const key = keyOf(iri);
  if (key.empty() || !objects().head(key, iri)) throw Exception(ErrorCode::DoesNotExist, iri);
  auto const parent = iri.getResolvedIRI().getParent();
  auto const slash = key.rfind('/');
  auto const name = slash == std::string::npos ? key : key.substr(slash + 1);
  // Published as changes of the parent's child `name`, under the file's own IRI.
  poller_->subscribe(iri, parent, folderPrefix(keyOf(parent)), false, {}, callback, name);
}

void S3Provider::doStopPublishingEventsFor(StorageIRI const& iri) const { poller_->unsubscribe(iri); }

void S3Provider::doShutdown() { poller_->stop(); }

void S3Provider::pollNow() const { poller_->pollNow(); }

}  // namespace providers::s3
