// CacheResource: the local store of one overlay file's bytes, owned by its working file
// entry.
//
// Two kinds exist: FilesystemCacheResource keeps a cache file on local disk plus a record
// of which byte runs of it hold valid content; NOOPCacheResource (disk caching off)
// stores nothing and answers every question with "nothing is cached". A cache resource
// never talks to the inner store; what to fetch and when is the entry's business.
//
// Failures: local-disk failures are logged and swallowed (the entry then falls back to
// the inner store). Only `seek` throws to its caller.
//
// Thread-safety: no lock of its own. The owning entry serialises every call on it under
// the entry's mutex.
#pragma once

#include <core/content/IntegrityInfo.hpp>

#include <fl/filesystem.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <ios>

namespace storage::overlayprovider {

class CacheResource {
 public:
  virtual ~CacheResource() = default;

  // The overlay file moved to `newLocation`: follow it, keeping the cached bytes.
  virtual void setLocation(foundation::storage::provider::StorageIRI newLocation) = 0;

  // True if a cache file exists on disk.
  virtual bool exists() const = 0;

  // The last-modified time of the cache file.
  virtual boost::posix_time::ptime getCurrentLastModified() const = 0;

  // Drops all cached content.
  virtual void remove() = 0;

  // The cache file's path (empty when there is none).
  virtual fl::filesystem::path getCheckoutPath() const = 0;

  // How much of [start, start + count) is cached.
  virtual IntegrityInfo checkAndGetIntegrityInfo(std::streampos start, std::streamsize count) = 0;

  // Reads up to `count` cached bytes at absolute `position` into `buffer`; returns the
  // number read, 0 at the end of the file or on failure. Does not consult the record of
  // valid runs: callers check integrity first.
  virtual std::streamsize read(std::streampos position, char* buffer, std::streamsize count) const = 0;

  // Stores `count` bytes at absolute `position` and records them as valid.
  virtual void write(std::streampos position, char const* data, std::streamsize count) = 0;

  // Repositions the cache file; returns the new absolute position. Throws when the cache
  // file cannot be opened or positioned.
  virtual std::streampos seek(std::streampos position, std::ios_base::seekdir direction) = 0;

  // Releases the open cache file, if any; it is reopened on demand.
  virtual void close() = 0;

  // Makes the cache file durable and stamps `lastModified` as its access and
  // modification time.
  virtual void flush(boost::posix_time::ptime lastModified) = 0;

  // True once a write to the cache file has failed; the content is then not trusted.
  virtual bool cacheWriteErrored() const = 0;
};

}  // namespace storage::overlayprovider
