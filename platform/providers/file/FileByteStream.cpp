#include "FileByteStream.hpp"

#include "FileTree.hpp"
#include "OsErrors.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

namespace providers::file::detail {

FileByteStream::FileByteStream(int fd, std::string label, bool writable, bool append)
    : fd_(fd), label_(std::move(label)), writable_(writable), append_(append) {}

FileByteStream::~FileByteStream() {
  if (!closed_) ::close(fd_);
}

void FileByteStream::fail(Op op, char const* what, std::string const& message, sp::ErrorCode code) const {
  std::string text = std::string(what) + " " + label_ + ": " + message;
  switch (op) {
    case Op::Read:
      throw sp::ByteStreamReadFailure(text, code);
    case Op::Write:
      throw sp::ByteStreamWriteFailure(text, code);
    case Op::Seek:
      throw sp::ByteStreamSeekFailure(text, code);
    case Op::Close:
      break;
  }
  throw sp::ByteStreamCloseFailure(text, code);
}

void FileByteStream::failOs(Op op, char const* what, int err) const {
  fail(op, what, errorText(err), streamErrorCodeFor(err));
}

void FileByteStream::requireOpen(Op op, char const* what) const {
  if (closed_) fail(op, what, "the stream is closed", sp::ErrorCode::TransientFailure);
}

long FileByteStream::read(char* buffer, long count) {
  requireOpen(Op::Read, "Could not read");
  if (count < 0) fail(Op::Read, "Could not read", "negative byte count", sp::ErrorCode::TransientFailure);
  if (count == 0) return 0;
  long done = 0;
  while (done < count) {
    ssize_t n = ::pread(fd_, buffer + done, static_cast<size_t>(count - done), position_ + done);
    if (n < 0) {
      if (errno == EINTR) continue;
      failOs(Op::Read, "Could not read", errno);
    }
    if (n == 0) break;
    done += n;
  }
  position_ += done;
  return done == 0 ? -1 : done;
}

long FileByteStream::write(char const* buffer, long count) {
  requireOpen(Op::Write, "Could not write");
  if (!writable_) fail(Op::Write, "Could not write", "the stream is read-only", sp::ErrorCode::NotWritable);
  if (count < 0) fail(Op::Write, "Could not write", "negative byte count", sp::ErrorCode::TransientFailure);
  long done = 0;
  while (done < count) {
    // The descriptor was opened with O_APPEND in append mode, where the kernel places
    // every write at the end; pwrite's offset would be ignored there anyway.
    ssize_t n = append_ ? ::write(fd_, buffer + done, static_cast<size_t>(count - done))
                        : ::pwrite(fd_, buffer + done, static_cast<size_t>(count - done), position_ + done);
    if (n < 0) {
      if (errno == EINTR) continue;
      failOs(Op::Write, "Could not write", errno);
    }
    done += n;
  }
  if (append_) {
    off_t end = ::lseek(fd_, 0, SEEK_CUR);
    if (end < 0) failOs(Op::Write, "Could not write", errno);
    position_ = end;
  } else {
    position_ += done;
  }
  return done;
}

long FileByteStream::seek(long offset, std::ios_base::seekdir whence) {
  requireOpen(Op::Seek, "Could not seek in");
  long base = 0;
  if (whence == std::ios_base::cur) {
    base = position_;
  } else if (whence == std::ios_base::end) {
    struct stat st {};
    if (::fstat(fd_, &st) != 0) failOs(Op::Seek, "Could not seek in", errno);
    base = st.st_size;
  }
  long target = 0;
  if (__builtin_add_overflow(base, offset, &target) || target < 0) {
    fail(Op::Seek, "Could not seek in", "the position would be negative or out of range",
         sp::ErrorCode::TransientFailure);
  }
  position_ = target;
  return position_;
}

bool FileByteStream::closeWithTime(boost::posix_time::ptime const& time) {
  if (closed_ || !writable_ || time.is_special()) {
    close();
    return false;
  }
  struct timespec times[2];
  modificationTimes(time, times);
  bool const set = ::futimens(fd_, times) == 0;
  close();
  return set;
}

void FileByteStream::close() {
  if (closed_) return;
  closed_ = true;
  // The descriptor is released whatever close reports (Linux never leaves it open), so a
  // failure here must not be retried.
  if (::close(fd_) != 0 && errno != EINTR) failOs(Op::Close, "Could not close", errno);
}

}  // namespace providers::file::detail
