#include <core/content/NOOPCacheResource.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace storage::overlayprovider {

void NOOPCacheResource::setLocation(foundation::storage::provider::StorageIRI) {}

bool NOOPCacheResource::exists() const { return false; }

boost::posix_time::ptime NOOPCacheResource::getCurrentLastModified() const {
  return boost::posix_time::second_clock::local_time();
}

void NOOPCacheResource::remove() {}

fl::filesystem::path NOOPCacheResource::getCheckoutPath() const { return {}; }

IntegrityInfo NOOPCacheResource::checkAndGetIntegrityInfo(std::streampos, std::streamsize) {
  return IntegrityInfo{IntegrityStatus::Uncached, std::nullopt};
}

std::streamsize NOOPCacheResource::read(std::streampos, char*, std::streamsize) const { return 0; }

void NOOPCacheResource::write(std::streampos, char const*, std::streamsize) {}

std::streampos NOOPCacheResource::seek(std::streampos, std::ios_base::seekdir) {
  return std::streampos(std::streamoff(-1));
}

void NOOPCacheResource::close() {}

void NOOPCacheResource::flush(boost::posix_time::ptime) {}

bool NOOPCacheResource::cacheWriteErrored() const { return true; }

}  // namespace storage::overlayprovider
