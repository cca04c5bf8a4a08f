#include <core/content/WorkingFileByteStream.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <boost/throw_exception.hpp>

#include <stdexcept>
#include <utility>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

namespace {

// Runs `operation`; turns whatever it throws into `Failure` named `name`, carrying the
// inner store's error code, or TransientFailure for anything else.
template <class Failure, class Operation>
auto wrapFailures(char const* name, Operation&& operation) -> decltype(operation()) {
  try {
    return operation();
  } catch (fsp::Exception const& e) {
    BOOST_THROW_EXCEPTION(Failure(name, e.getErrorCode()));
  } catch (...) {
    BOOST_THROW_EXCEPTION(Failure(name, fsp::ErrorCode::TransientFailure));
  }
}

void requireOpen(bool closed) {
  if (closed) throw std::logic_error("the stream is closed");
}

}  // namespace

WorkingFileByteStream::WorkingFileByteStream(std::shared_ptr<WorkingFileEntry> entry, bool appendMode, bool readOnly)
    : entry_(std::move(entry)), appendMode_(appendMode), readOnly_(readOnly) {
  if (!entry_) throw std::invalid_argument("WorkingFileByteStream: no entry");
}

WorkingFileByteStream::WorkingFileByteStream(std::shared_ptr<WorkingFileEntry> entry,
                                             fsp::ByteStreamOpenOptions const& options)
    : WorkingFileByteStream(std::move(entry), options.append, false) {
  try {
    entry_->openReadWrite(options);
  } catch (...) {
    entry_->decrementRefCount();
    throw;
  }
  if (appendMode_) position_ = static_cast<std::streamoff>(entry_->getFileSize());
}

std::unique_ptr<WorkingFileByteStream> WorkingFileByteStream::openReadOnly(std::shared_ptr<WorkingFileEntry> entry) {
  std::unique_ptr<WorkingFileByteStream> stream(new WorkingFileByteStream(std::move(entry), false, true));
  try {
    stream->entry_->openReadOnly();
  } catch (...) {
    stream->entry_->decrementRefCount();
    throw;
  }
  return stream;
}

long WorkingFileByteStream::read(char* buffer, long count) {
  return wrapFailures<fsp::ByteStreamReadFailure>("ByteStreamReadFailure", [&]() -> long {
    requireOpen(closed_);
    std::streamsize const n = entry_->read(position_, buffer, count);
    if (n != -1) position_ += n;
    return static_cast<long>(n);
  });
}

long WorkingFileByteStream::write(char const* data, long count) {
  return wrapFailures<fsp::ByteStreamWriteFailure>("ByteStreamWriteFailure", [&]() -> long {
    requireOpen(closed_);
    if (readOnly_)
      throw fsp::Exception(fsp::ErrorCode::NotWritable, entry_->getLocation(), "the stream was opened read-only");
    if (appendMode_) {
      entry_->append(data, count);
      position_ = static_cast<std::streamoff>(entry_->getFileSize());
    } else {
      entry_->write(position_, data, count);
      position_ += count;
    }
    return count;
  });
}

long WorkingFileByteStream::seek(long offset, std::ios_base::seekdir whence) {
  return wrapFailures<fsp::ByteStreamSeekFailure>("ByteStreamSeekFailure", [&]() -> long {
    requireOpen(closed_);
    std::streamoff base = 0;
    if (whence == std::ios_base::end)
      base = static_cast<std::streamoff>(entry_->getFileSize());
    else if (whence == std::ios_base::cur)
      base = std::streamoff(position_);
    std::streamoff target = 0;
    if (__builtin_add_overflow(base, static_cast<std::streamoff>(offset), &target) || target < 0) {
      // A position before the start would make the next write fail only later, in the
      // cache and in the queue, after the caller was told it was done; refused here as
      // the stores refuse it.
      throw fsp::Exception(fsp::ErrorCode::InvalidName, entry_->getLocation(),
                           "position " + std::to_string(base) + " + " + std::to_string(offset) + " is before the start");
    }
    position_ = target;
    return static_cast<long>(target);
  });
}

void WorkingFileByteStream::close() {
  wrapFailures<fsp::ByteStreamCloseFailure>("ByteStreamCloseFailure", [&]() {
    if (closed_) return;
    closed_ = true;
    entry_->flushContentCache();
  });
}

}  // namespace storage::overlayprovider
