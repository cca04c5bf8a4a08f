// NOOPCacheResource: the cache resource of an entry with disk caching off. It stores
// nothing and answers every question with "nothing is cached".
//
// It reports itself as write-errored, so that a working entry never trusts it for
// content. Its current time is the local time (the filesystem resource answers in UTC);
// the asymmetry is intended.
//
// Thread-safety: stateless; safe from any thread.
#pragma once

#include <core/content/CacheResource.hpp>

namespace storage::overlayprovider {

class NOOPCacheResource final : public CacheResource {
 public:
  // Does nothing.
  void setLocation(foundation::storage::provider::StorageIRI newLocation) override;
  // false.
  bool exists() const override;
  // The current local time, at one-second resolution.
  boost::posix_time::ptime getCurrentLastModified() const override;
  // Does nothing.
  void remove() override;
  // An empty path.
  fl::filesystem::path getCheckoutPath() const override;
  // IntegrityStatus::Uncached with no missing range.
  IntegrityInfo checkAndGetIntegrityInfo(std::streampos start, std::streamsize count) override;
  // 0.
  std::streamsize read(std::streampos position, char* buffer, std::streamsize count) const override;
  // Does nothing.
  void write(std::streampos position, char const* data, std::streamsize count) override;
  // The invalid position -1.
  std::streampos seek(std::streampos position, std::ios_base::seekdir direction) override;
  // Does nothing.
  void close() override;
  // Does nothing.
  void flush(boost::posix_time::ptime lastModified) override;
  // true.
  bool cacheWriteErrored() const override;
};

}  // namespace storage::overlayprovider
