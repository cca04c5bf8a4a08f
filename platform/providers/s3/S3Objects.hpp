// S3Objects: the object operations the S3 store is built from (HEAD, ranged GET, PUT,
// DELETE, listings, server-side copies, multipart uploads and copies), with S3's answers
// turned into the storage layer's errors.
//
// Error mapping (one place, `failure`): 404 DoesNotExist (a missing bucket names the
// bucket and the endpoint), 403 NotWritable (an access refusal or a signature that does
// not match names the endpoint and the access key, never the secret; the gateway's
// QuotaExceeded is QuotaExceeded), 409 and 412 AlreadyExists, 400 InvalidName,
// 507 QuotaExceeded, everything else, and no answer after the retries, TransientFailure.
// Every Exception names `subject`, the IRI the caller asked about.
//
// Metadata: a file's time set by the store's user lives in "x-amz-meta-ovl-mtime"
// (microseconds since 1970), the writable flag in "x-amz-meta-ovl-writable" ("false"
// only); every other "x-amz-meta-NAME" is the user's extended attribute NAME.
#pragma once

#include "S3Client.hpp"

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace providers::s3::detail {

namespace sp = foundation::storage::provider;

using Metadata = std::map<std::string, std::string>;  // "x-amz-meta-" names without the prefix

struct ObjectInfo {
  std::uint64_t size = 0;
  boost::posix_time::ptime stored;  // when the server stored the object
  std::string etag;                 // without quotes
  Metadata metadata;

  // The time set by the user when there is one, else the time the object was stored.
  boost::posix_time::ptime lastModified() const;
  bool writable() const;
};

struct ObjectSummary {
  std::string key;
  std::uint64_t size = 0;
  boost::posix_time::ptime stored;
  std::string etag;
};

struct Listing {
  std::vector<ObjectSummary> objects;
  std::vector<std::string> prefixes;  // with their trailing delimiter
};

inline constexpr char const* kTimeKey = "ovl-mtime";
inline constexpr char const* kWritableKey = "ovl-writable";

class S3Objects {
 public:
  explicit S3Objects(std::shared_ptr<S3Client const> client) : client_(std::move(client)) {}

  // The object's facts, or nothing when there is no such key.
  std::optional<ObjectInfo> head(std::string const& key, sp::StorageIRI const& subject) const;
  // Whether the bucket exists; throws for any other failure.
  bool bucketExists(sp::StorageIRI const& subject) const;
  // Keys below `prefix` in key order, following continuation tokens; with a delimiter,
  // the keys that hold it after the prefix come as prefixes. `limit` > 0 stops after
  // that many keys and prefixes (a hint; S3 pages hold up to 1,000).
  Listing list(std::string const& prefix, std::string const& delimiter, sp::StorageIRI const& subject,
               std::size_t limit = 0) const;
  // True when any key starts with `prefix`.
  bool anyBelow(std::string const& prefix, sp::StorageIRI const& subject) const;
  // `length` bytes from `offset` (fewer at the end, none past it).
  std::string getRange(std::string const& key, std::uint64_t offset, std::uint64_t length,
                       sp::StorageIRI const& subject) const;
  // The first `size` bytes of the object into the open file `fd` at the same offsets, in
  // parts of the part size, several at once.
  void download(std::string const& key, std::uint64_t size, int fd, sp::StorageIRI const& subject) const;
  // Stores `body` at `key` with `metadata`; in parts (in parallel) from the file `fd`
  // when it is at least the multipart threshold.
  void put(std::string const& key, Body const& body, Metadata const& metadata, sp::StorageIRI const& subject) const;
  void remove(std::string const& key, sp::StorageIRI const& subject) const;
  // Copy of `from` (of `size` bytes) to `to`; `metadata`, when given, replaces the
  // source's. On the server up to S3's limit for one copy (5 GiB); above it, through a
  // local copy uploaded in parts. (A server-side copy in parts needs the header
  // x-amz-copy-source-range, which Debian's libcurl 7.88 signs in the wrong order next to
  // x-amz-copy-source: the gateway refuses it, SignatureDoesNotMatch.)
  void copy(std::string const& from, std::string const& to, std::uint64_t size, std::optional<Metadata> const& metadata,
            sp::StorageIRI const& subject) const;

  // The storage error for an answer that is not a success.
  [[noreturn]] void failure(Response const& response, std::string const& what, sp::StorageIRI const& subject) const;
  // The storage error for a request that got no answer.
  [[noreturn]] void failure(TransportError const& error, sp::StorageIRI const& subject) const;
  S3Client const& client() const { return *client_; }

 private:
  Response send(Request const& request, sp::StorageIRI const& subject) const;
  void putInParts(std::string const& key, Body const& body, Metadata const& metadata, sp::StorageIRI const& subject) const;
  void copyThroughHere(std::string const& from, std::string const& to, std::uint64_t size, Metadata const& metadata,
                       sp::StorageIRI const& subject) const;
  static constexpr std::uint64_t kLargestSingleCopy = 5ull << 30;
  std::string startUpload(std::string const& key, Metadata const& metadata, sp::StorageIRI const& subject) const;
  void finishUpload(std::string const& key, std::string const& uploadId, std::vector<std::string> const& etags,
                    sp::StorageIRI const& subject) const;
  void abortUpload(std::string const& key, std::string const& uploadId) const;

  std::shared_ptr<S3Client const> client_;
};

// Runs fn(0) .. fn(count - 1) on up to `threads` threads; rethrows the first failure
// after every started call has returned (the calls not yet started are skipped).
void forEachInParallel(std::size_t count, unsigned threads, std::function<void(std::size_t)> const& fn);

// Headers "x-amz-meta-NAME: value" for `metadata`.
std::vector<std::string> metadataHeaders(Metadata const& metadata);

}  // namespace providers::s3::detail
