#include <core/content/FilesystemCacheResource.hpp>

#include <core/content/CacheFileNaming.hpp>
#include <core/util/Logger.hpp>

#include <fl/i18n.hpp>
#include <foundation/log/Severity.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/property_tree/ptree.hpp>

#include <fcntl.h>
#include <unistd.h>
#include <utime.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;
namespace pt = boost::posix_time;

namespace {

std::shared_ptr<FileMetadata> const& requireMetadata(std::shared_ptr<FileMetadata> const& metadata) {
  if (!metadata) {
    throw std::invalid_argument("FilesystemCacheResource: the file metadata must not be null");
  }
  return metadata;
}

// UTF-8 of `text` for a log record: never throws, an unpaired surrogate becomes U+FFFD.
std::string utf8ForLog(std::u16string const& text) {
  try {
    return fl::i18n::to_string(text);
  } catch (...) {
  }
  std::string out;
  auto put = [&out](char32_t c) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t const unit = text[i];
    bool const pairs = unit >= 0xD800 && unit <= 0xDBFF && i + 1 < text.size() &&
                       text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF;
    if (pairs) {
      put(0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00));
      ++i;
    } else if (unit >= 0xD800 && unit <= 0xDFFF) {
      put(0xFFFD);
    } else {
      put(unit);
    }
  }
  return out;
}

// One past the last byte of the file as the metadata knows it.
std::streampos wholeFileEnd(FileMetadata const& metadata) {
  return std::streampos(static_cast<std::streamoff>(metadata.getFileSize()));
}

}  // namespace

std::int64_t FilesystemCacheResource::toEpochSeconds(pt::ptime time) {
  if (time.is_not_a_date_time() || time.is_neg_infinity()) return kMinEpochSeconds;
  if (time.is_pos_infinity()) return kMaxEpochSeconds;
  static pt::ptime const epoch(boost::gregorian::date(1970, 1, 1));
  return static_cast<std::int64_t>((time - epoch).ticks() / pt::time_duration::ticks_per_second());
}

fl::filesystem::path FilesystemCacheResource::checkoutPathFor(fl::filesystem::path const& cacheDirectory,
                                                              fsp::StorageIRI const& location) {
  return cacheDirectory / fl::filesystem::to_path(detail::computeHashForIRI(location) + u".cache");
}

FilesystemCacheResource::FilesystemCacheResource(std::shared_ptr<FileMetadata> const& metadata,
                                                 fl::filesystem::path cacheDirectory)
    : location_(requireMetadata(metadata)->getLocation()),
      expectedLastModified_(metadata->getLastModified()),
      cacheDirectory_(std::move(cacheDirectory)),
      checkoutPath_(checkoutPathFor(cacheDirectory_, location_)) {
  try {
    checkAndRemoveStaleEntry();
    if (fl::filesystem::exists(checkoutPath_)) {
      // Left by an earlier run and not older than the content: every byte is valid.
      cachedRanges_.emplace(std::streampos(0), wholeFileEnd(*metadata));
    }
  } catch (...) {
    cachedRanges_.clear();
    logFailure(foundation::log::Error, "Failure in checking file existence");
  }
}

FilesystemCacheResource::FilesystemCacheResource(std::shared_ptr<FileMetadata> const& metadata,
                                                 fl::filesystem::path cacheDirectory,
                                                 fl::filesystem::path const& sourcePath)
    : location_(requireMetadata(metadata)->getLocation()),
      expectedLastModified_(metadata->getLastModified()),
      cacheDirectory_(std::move(cacheDirectory)),
      checkoutPath_(checkoutPathFor(cacheDirectory_, location_)) {
  try {
    if (fl::filesystem::exists(sourcePath)) {
      fl::filesystem::copy_file(sourcePath, checkoutPath_, /*overwrite=*/true);
      unsynced_ = true;
      cachedRanges_.emplace(std::streampos(0), wholeFileEnd(*metadata));
    }
  } catch (...) {
    cachedRanges_.clear();
    logFailure(foundation::log::Error, "Failure in local cache writing");
  }
}

void FilesystemCacheResource::checkAndRemoveStaleEntry() {
  if (toEpochSeconds(expectedLastModified_) > toEpochSeconds(getCurrentLastModified())) {
    doRemove();
  }
}

void FilesystemCacheResource::setLocation(fsp::StorageIRI newLocation) {
  fl::filesystem::path newPath = checkoutPath_;
  try {
    newPath = checkoutPathFor(cacheDirectory_, newLocation);
    if (newPath != checkoutPath_) {
      if (fl::filesystem::exists(newPath)) {
        fl::filesystem::remove(newPath);
      }
      if (fl::filesystem::exists(checkoutPath_)) {
        fl::filesystem::rename(checkoutPath_, newPath);
      }
    }
  } catch (...) {
    logFailure(foundation::log::Error, "Failure in moving cached item");
  }
  checkoutPath_ = std::move(newPath);
  location_ = std::move(newLocation);
}

bool FilesystemCacheResource::exists() const {
  try {
    return fl::filesystem::exists(checkoutPath_);
  } catch (...) {
    return false;
  }
}

pt::ptime FilesystemCacheResource::getCurrentLastModified() const {
  try {
    if (fl::filesystem::exists(checkoutPath_)) {
      return fl::filesystem::status(checkoutPath_).last_write_time;
    }
  } catch (...) {
    // An unreadable file time reads as "now", like a missing file.
  }
  return pt::microsec_clock::universal_time();
}

void FilesystemCacheResource::remove() { doRemove(); }

void FilesystemCacheResource::doRemove() {
  try {
    if (fl::filesystem::exists(checkoutPath_)) {
      fl::filesystem::remove(checkoutPath_);
    }
    cachedRanges_.clear();
  } catch (...) {
    logFailure(foundation::log::Debug, "Function doRemove failed");
  }
}

IntegrityInfo FilesystemCacheResource::checkAndGetIntegrityInfo(std::streampos start, std::streamsize count) {
  std::streamoff const first = std::streamoff(start);
  std::streamoff const end = first + count;

  auto holder = cachedRanges_.end();
  for (auto it = cachedRanges_.begin(); it != cachedRanges_.end() && std::streamoff(it->first) <= first; ++it) {
    if (first < std::streamoff(it->second)) {
      holder = it;
      break;
    }
  }
  if (holder == cachedRanges_.end()) {
    return IntegrityInfo{IntegrityStatus::Absent, std::nullopt};
  }
  for (auto it = holder; it != cachedRanges_.end(); ++it) {
    if (std::streamoff(it->first) < end && end <= std::streamoff(it->second)) {
      if (it == holder) {
        return IntegrityInfo{IntegrityStatus::Complete, std::nullopt};
      }
      return IntegrityInfo{IntegrityStatus::Partial, std::make_pair(holder->second, it->first)};
    }
  }
  return IntegrityInfo{IntegrityStatus::Partial, std::make_pair(holder->second, std::streampos(end))};
}

std::streamsize FilesystemCacheResource::read(std::streampos position, char* buffer, std::streamsize count) const {
  if (writeErrored_ || count < 1) {
    return 0;
  }
  try {
    auto const device = getFileDevice();
    device->seek(std::streamoff(position), std::ios_base::beg);
    std::streamsize const n = device->read(buffer, count);
    return n < 0 ? 0 : n;  // the device answers -1 at the end of the file
  } catch (...) {
    logFailure(foundation::log::Error, "Failure in local cache reading");
    return 0;
  }
}

void FilesystemCacheResource::write(std::streampos position, char const* data, std::streamsize count) {
  if (count < 0) {
    return;
  }
  try {
    auto const device = getFileDevice();
    device->seek(std::streamoff(position), std::ios_base::beg);
    std::streamsize const written = device->write(data, count);
    if (written < 1) {
      return;
    }
    unsynced_ = true;
    recordWrite(position, position + std::streamoff(written));
  } catch (...) {
    logFailure(foundation::log::Error, "Failure in local cache writing");
    writeErrored_ = true;
  }
}

void FilesystemCacheResource::recordWrite(std::streampos start, std::streampos end) {
  std::streamoff const s = std::streamoff(start);

  // A write starting inside a run only extends that run; it merges nothing further.
  for (auto it = cachedRanges_.begin(); it != cachedRanges_.end() && std::streamoff(it->first) <= s; ++it) {
    if (s < std::streamoff(it->second)) {
      if (std::streamoff(end) > std::streamoff(it->second)) {
        it->second = end;
      }
      return;
    }
  }
  // A run already starting here is empty (it would have held `start` otherwise).
  if (cachedRanges_.count(start) != 0) {
    return;
  }

  auto current = cachedRanges_.emplace(start, end).first;
  if (current != cachedRanges_.begin()) {
    auto const previous = std::prev(current);
    if (std::streamoff(previous->second) >= s) {
      current = previous;  // the new run continues its predecessor
    }
  }
  for (auto next = std::next(current);
       next != cachedRanges_.end() && std::streamoff(next->first) <= std::streamoff(current->second);
       next = std::next(current)) {
    if (std::streamoff(next->second) > std::streamoff(current->second)) {
      current->second = next->second;
    }
    cachedRanges_.erase(next);
  }
}

std::streampos FilesystemCacheResource::seek(std::streampos position, std::ios_base::seekdir direction) {
  return getFileDevice()->seek(std::streamoff(position), direction);
}

void FilesystemCacheResource::close() {
  if (!fileDevice_) {
    return;
  }
  try {
    fileDevice_->close();
  } catch (...) {
    // Ignored: the handle is released either way and close() does not throw.
  }
  fileDevice_.reset();
}

void FilesystemCacheResource::flush(pt::ptime lastModified) {
  try {
    if (fileDevice_ && fileDevice_->is_open() && fileDevice_->handle() != -1) {
      ::fsync(fileDevice_->handle());
      unsynced_ = false;
    }
  } catch (...) {
    // A flush that fails leaves the cache file as it was; the content is still valid.
  }
  stampTimes(lastModified);
}

void FilesystemCacheResource::stampTimes(pt::ptime lastModified) noexcept {
  struct utimbuf times {};
  times.actime = static_cast<time_t>(toEpochSeconds(lastModified));
  times.modtime = times.actime;
  ::utime(checkoutPath_.c_str(), &times);
}

std::unique_ptr<FilesystemCacheResource::DurabilityHandle> FilesystemCacheResource::stampAndTakeDurabilityHandle(
    pt::ptime lastModified) {
  std::unique_ptr<DurabilityHandle> handle;
  int duplicate = -1;
  try {
    if (unsynced_ && fileDevice_ && fileDevice_->is_open() && fileDevice_->handle() != -1) {
      duplicate = ::fcntl(fileDevice_->handle(), F_DUPFD_CLOEXEC, 0);
      if (duplicate != -1) {
        handle = std::make_unique<DurabilityHandle>(duplicate);
        unsynced_ = false;
      }
    }
  } catch (...) {
    // Without a handle the content is not made durable, as a failing fsync would leave it.
    if (duplicate != -1 && !handle) ::close(duplicate);
  }
  stampTimes(lastModified);
  return handle;
}

FilesystemCacheResource::DurabilityHandle::~DurabilityHandle() {
  if (descriptor_ != -1) ::close(descriptor_);
}

void FilesystemCacheResource::DurabilityHandle::run() noexcept {
  if (descriptor_ == -1) return;
  // The content and what is needed to read it back (size, blocks). The times need no
  // sync of their own: the stamp set after the writes is what counts, and a new
  // resource that finds the file decides about staleness from it.
  ::fdatasync(descriptor_);
  ::close(descriptor_);
  descriptor_ = -1;
}

std::shared_ptr<boost::iostreams::file_descriptor> FilesystemCacheResource::getFileDevice() const {
  if (!fileDevice_) {
    int const fd = ::open(checkoutPath_.c_str(), O_RDWR | O_CREAT, S_IRWXU);
    if (fd == -1) {
      throw std::runtime_error("Bad file descriptor");
    }
    fileDevice_ = std::make_shared<boost::iostreams::file_descriptor>(fd, boost::iostreams::close_handle);
  }
  return fileDevice_;
}

std::vector<std::pair<std::streamoff, std::streamoff>> FilesystemCacheResource::getCachedRuns() const {
  std::vector<std::pair<std::streamoff, std::streamoff>> runs;
  runs.reserve(cachedRanges_.size());
  for (auto const& [start, end] : cachedRanges_) {
    runs.emplace_back(std::streamoff(start), std::streamoff(end));
  }
  return runs;
}

void FilesystemCacheResource::logFailure(unsigned severity, char const* message) const noexcept {
  try {
    std::string const description = describeCurrentException();
    char const* const word = severity == foundation::log::Debug ? "debug" : "error";
    std::string const prefix = std::string("overlay.") + word + ".";
    boost::property_tree::ptree record;
    record.put(prefix + "message", message);
    record.put(prefix + "location", utf8ForLog(location_.toString()));
    record.put(prefix + "checkoutPath", checkoutPath_.string());
    getLogger().logJson(severity, record);
    getLogger().log(foundation::log::Diagnostic, "Exception caught: " + description);
    if (deliveryReport_ && severity != foundation::log::Debug) {
      deliveryReport_->localCacheFailed(location_, message, std::current_exception());
    }
  } catch (...) {
    // Logging must not turn a swallowed failure into a thrown one.
  }
}

}  // namespace storage::overlayprovider
