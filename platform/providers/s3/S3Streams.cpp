#include "S3Streams.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace providers::s3::detail {

using sp::ByteStreamCloseFailure;
using sp::ByteStreamReadFailure;
using sp::ByteStreamSeekFailure;
using sp::ByteStreamWriteFailure;
using sp::ErrorCode;

namespace {

// The stream failure of operation `what` ("read", "write", "seek", "close") on `iri`.
[[noreturn]] void raise(char const* what, ErrorCode code, sp::StorageIRI const& iri, std::string const& why) {
  std::string const op(what);
  std::string const message = op + " on " + iri.toUtf8() + " failed: " + why + " (" + sp::toString(code) + ")";
  if (op == "read") throw ByteStreamReadFailure(message, code);
  if (op == "write") throw ByteStreamWriteFailure(message, code);
  if (op == "seek") throw ByteStreamSeekFailure(message, code);
  throw ByteStreamCloseFailure(message, code);
}

long target(long base, long offset, std::ios_base::seekdir whence, long position, long end) {
  if (whence == std::ios_base::cur) return position + offset;
  if (whence == std::ios_base::end) return end + offset;
  return base + offset;
}

}  // namespace

int makeSpoolFile(sp::StorageIRI const& subject) {
  char const* tmp = std::getenv("TMPDIR");
  std::string folder = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
  std::string pattern = folder + "/ovl-s3-spool-XXXXXX";
  int const fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) {
    throw sp::Exception(ErrorCode::TransientFailure, subject,
                        "cannot make a local copy in " + folder + ": " + std::strerror(errno));
  }
  ::unlink(pattern.c_str());
  return fd;
}

// ---------------------------------------------------------------------------------------

Spool::~Spool() { ::close(fd); }

SpoolStream::SpoolStream(std::shared_ptr<S3Client const> client, std::string key, sp::StorageIRI iri,
                         std::shared_ptr<Spool> spool, bool append, Uploaded uploaded)
    : objects_(std::move(client)),
      key_(std::move(key)),
      iri_(std::move(iri)),
      spool_(std::move(spool)),
      append_(append),
      uploaded_(std::move(uploaded)) {}

SpoolStream::~SpoolStream() {
  if (!closed_) {
    try {
      if (spool_->dirty) upload(spool_->metadata);
    } catch (...) {
      // A destructor cannot report; close() is where failures reach the caller.
    }
  }
}

void SpoolStream::fail(char const* what, ErrorCode code, std::string const& why) const { raise(what, code, iri_, why); }

long SpoolStream::size() const {
  struct stat st {};
  if (::fstat(spool_->fd, &st) != 0) fail("seek", ErrorCode::TransientFailure, std::strerror(errno));
  return static_cast<long>(st.st_size);
}

long SpoolStream::read(char* buffer, long count) {
  if (closed_) fail("read", ErrorCode::NotSupported, "the stream is closed");
  if (count <= 0) return 0;
  auto const got = ::pread(spool_->fd, buffer, static_cast<std::size_t>(count), position_);
  if (got < 0) fail("read", ErrorCode::TransientFailure, std::string("the local copy: ") + std::strerror(errno));
  if (got == 0) return -1;
  position_ += got;
  return static_cast<long>(got);
}

long SpoolStream::write(char const* buffer, long count) {
  if (closed_) fail("write", ErrorCode::NotSupported, "the stream is closed");
  if (count <= 0) return 0;
  if (append_) position_ = size();
  long done = 0;
  while (done < count) {
    auto const n = ::pwrite(spool_->fd, buffer + done, static_cast<std::size_t>(count - done), position_ + done);
    if (n < 0) {
      auto const code = errno == ENOSPC || errno == EDQUOT ? ErrorCode::QuotaExceeded : ErrorCode::TransientFailure;
      fail("write", code, std::string("the local copy: ") + std::strerror(errno));
    }
    done += n;
  }
  position_ += done;
  spool_->dirty = true;
  return done;
}

long SpoolStream::seek(long offset, std::ios_base::seekdir whence) {
  if (closed_) fail("seek", ErrorCode::NotSupported, "the stream is closed");
  long const to = target(0, offset, whence, position_, whence == std::ios_base::end ? size() : 0);
  if (to < 0) fail("seek", ErrorCode::InvalidName, "position " + std::to_string(to) + " is before the start");
  position_ = to;
  return position_;
}

void SpoolStream::upload(Metadata const& metadata) {
  Body body;
  body.fd = spool_->fd;
  body.length = static_cast<std::uint64_t>(size());
  // Cleared first: a write by another stream during the upload makes it dirty again.
  spool_->dirty = false;
  try {
    objects_.put(key_, body, metadata, iri_);
    if (uploaded_) uploaded_(body.length, metadata);
  } catch (...) {
    spool_->dirty = true;
    throw;
  }
}

void SpoolStream::close() {
  if (closed_) return;
  if (spool_->dirty) {
    try {
      upload(spool_->metadata);
    } catch (sp::Exception const& e) {
      fail("close", e.getErrorCode(), e.getDetail());
    }
  }
  closed_ = true;
}

bool SpoolStream::closeWithTime(boost::posix_time::ptime const& time) {
  if (closed_ || !spool_->dirty || time.is_special()) {
    close();
    return false;
  }
  Metadata metadata = spool_->metadata;
  metadata[kTimeKey] = std::to_string((time - boost::posix_time::from_time_t(0)).total_microseconds());
  try {
    upload(metadata);
  } catch (sp::Exception const& e) {
    fail("close", e.getErrorCode(), e.getDetail());
  }
  closed_ = true;
  return true;
}

// ---------------------------------------------------------------------------------------

RangedReadStream::RangedReadStream(std::shared_ptr<S3Client const> client, std::string key, sp::StorageIRI iri,
                                   std::uint64_t size)
    : objects_(std::move(client)), key_(std::move(key)), iri_(std::move(iri)), size_(size) {}

RangedReadStream::~RangedReadStream() {
  if (next_.valid()) next_.wait();
}

void RangedReadStream::fail(char const* what, ErrorCode code, std::string const& why) const {
  raise(what, code, iri_, why);
}

std::future<std::string> RangedReadStream::fetchAsync(std::uint64_t offset, std::uint64_t length) const {
  return std::async(std::launch::async, [objects = objects_, key = key_, iri = iri_, offset, length] {
    return objects.getRange(key, offset, length, iri);
  });
}

bool RangedReadStream::fill(std::uint64_t wanted) {
  if (position_ >= bufferStart_ && position_ < bufferStart_ + buffer_.size()) return true;
  if (position_ >= size_) return false;
  bool const sequential = position_ == bufferStart_ + buffer_.size() && !buffer_.empty();
  chunk_ = sequential ? std::min<std::uint64_t>(chunk_ * 2, 16u << 20) : (256u << 10);
  // One request for what the caller asked at least: a large read of a fresh stream is
  // one GET, not a run of growing ones.
  chunk_ = std::max(chunk_, std::min<std::uint64_t>(wanted, 64u << 20));
  try {
    if (next_.valid() && nextStart_ == position_) {
      buffer_ = next_.get();
    } else {
      if (next_.valid()) next_.wait();
      next_ = {};
      buffer_ = objects_.getRange(key_, position_, std::min<std::uint64_t>(chunk_, size_ - position_), iri_);
    }
  } catch (sp::Exception const& e) {
    next_ = {};
    fail("read", e.getErrorCode(), e.getDetail());
  }
  bufferStart_ = position_;
  if (buffer_.empty()) return false;  // the object became shorter since the opening
  auto const nextStart = bufferStart_ + buffer_.size();
  if (sequential && nextStart < size_ && !next_.valid()) {
    nextStart_ = nextStart;
    next_ = fetchAsync(nextStart, std::min<std::uint64_t>(chunk_, size_ - nextStart));
  }
  return true;
}

long RangedReadStream::read(char* buffer, long count) {
  if (closed_) fail("read", ErrorCode::NotSupported, "the stream is closed");
  if (count <= 0) return 0;
  long done = 0;
  while (done < count && fill(static_cast<std::uint64_t>(count - done))) {
    auto const offset = position_ - bufferStart_;
    auto const n = std::min<std::uint64_t>(static_cast<std::uint64_t>(count - done), buffer_.size() - offset);
    std::memcpy(buffer + done, buffer_.data() + offset, n);
    done += static_cast<long>(n);
    position_ += n;
  }
  return done == 0 ? -1 : done;
}

long RangedReadStream::write(char const*, long) {
  fail("write", ErrorCode::NotWritable, "the stream is read-only");
}

long RangedReadStream::seek(long offset, std::ios_base::seekdir whence) {
  if (closed_) fail("seek", ErrorCode::NotSupported, "the stream is closed");
  long const to = target(0, offset, whence, static_cast<long>(position_), static_cast<long>(size_));
  if (to < 0) fail("seek", ErrorCode::InvalidName, "position " + std::to_string(to) + " is before the start");
  position_ = static_cast<std::uint64_t>(to);
  return to;
}

void RangedReadStream::close() {
  if (next_.valid()) next_.wait();
  next_ = {};
  closed_ = true;
}

}  // namespace providers::s3::detail
