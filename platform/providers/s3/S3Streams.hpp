// The S3 store's byte streams.
//
// SpoolStream (read-write): S3 cannot change part of an object, so the stream works on a
// local copy (a Spool), a temporary file that is unlinked as soon as it is made (nothing
// is left behind, even after a crash). Opening an existing file without truncation
// downloads it first. Streams of one file open at the same time through one store share
// its local copy, so that each sees what the others wrote, as on a local disk. close() uploads the copy when anything changed (in parallel parts at or above the
// multipart threshold) with the metadata given at opening; until then the store keeps the
// old content. A failed upload is a ByteStreamCloseFailure carrying the storage code and
// leaves the stream open, so that close() can be called again. A stream destroyed without
// close() uploads too (best effort: failures are dropped), as a local file keeps what was
// written to it.
//
// RangedReadStream (read-only): reads with ranged GETs into a buffer of at least what the
// read asks, growing while reads are sequential (256 KiB doubling to 16 MiB); a
// sequential reader has the next buffer fetched in the background while it consumes the
// current one. Writes fail with ByteStreamWriteFailure (NotWritable).
//
// One stream is used by one thread at a time.
#pragma once

#include "S3Objects.hpp"

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/extensions/IClosesWithTime.hpp>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>

namespace providers::s3::detail {

// A new unlinked temporary file, open for reading and writing, in $TMPDIR (or /tmp).
// Throws Exception(TransientFailure, subject) naming the folder when it cannot be made.
int makeSpoolFile(sp::StorageIRI const& subject);

// The local copy of one file, shared by the streams open on it.
struct Spool {
  explicit Spool(int fd, Metadata metadata) : fd(fd), metadata(std::move(metadata)) {}
  ~Spool();
  Spool(Spool const&) = delete;
  Spool& operator=(Spool const&) = delete;

  int const fd;
  Metadata const metadata;  // what the uploaded object carries
  // Changed since the last upload (or created or truncated by an opening).
  std::atomic<bool> dirty{false};
};

class SpoolStream : public sp::ByteStream, public sp::extensions::IClosesWithTime {
 public:
  // Told of each upload: the new object's size and metadata.
  using Uploaded = std::function<void(std::uint64_t size, Metadata const& metadata)>;

  SpoolStream(std::shared_ptr<S3Client const> client, std::string key, sp::StorageIRI iri, std::shared_ptr<Spool> spool,
              bool append, Uploaded uploaded);
  ~SpoolStream() override;

  long read(char* buffer, long count) override;
  long write(char const* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir whence) override;
  void close() override;
  // The upload of the close carries the time in the object's metadata; false (closed as
  // close() does) when there is nothing of this stream's to upload.
  bool closeWithTime(boost::posix_time::ptime const& time) override;

 private:
  [[noreturn]] void fail(char const* what, sp::ErrorCode code, std::string const& why) const;
  long size() const;
  void upload(Metadata const& metadata);

  S3Objects const objects_;
  std::string const key_;
  sp::StorageIRI const iri_;
  std::shared_ptr<Spool> const spool_;
  bool const append_;
  Uploaded const uploaded_;
  long position_ = 0;
  bool closed_ = false;
};

class RangedReadStream : public sp::ByteStream {
 public:
  RangedReadStream(std::shared_ptr<S3Client const> client, std::string key, sp::StorageIRI iri, std::uint64_t size);
  ~RangedReadStream() override;

  long read(char* buffer, long count) override;
  long write(char const* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir whence) override;
  void close() override;

 private:
  [[noreturn]] void fail(char const* what, sp::ErrorCode code, std::string const& why) const;
  // Makes the buffer hold the byte at position_ (fetching at least `wanted` bytes when it
  // must fetch), false at the end.
  bool fill(std::uint64_t wanted);
  std::future<std::string> fetchAsync(std::uint64_t offset, std::uint64_t length) const;

  S3Objects const objects_;
  std::string const key_;
  sp::StorageIRI const iri_;
  std::uint64_t const size_;
  std::uint64_t position_ = 0;
  std::string buffer_;
  std::uint64_t bufferStart_ = 0;
  std::uint64_t chunk_ = 256u << 10;
  // The next buffer, fetched in the background for a sequential reader.
  std::future<std::string> next_;
  std::uint64_t nextStart_ = 0;
  bool closed_ = false;
};

}  // namespace providers::s3::detail
