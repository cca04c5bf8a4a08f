#include <core/content/InnerStream.hpp>

#include <core/content/EntryLogging.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/extensions/IClosesWithTime.hpp>

#include <algorithm>
#include <utility>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

namespace {

long offsetOf(std::streampos position) { return static_cast<long>(static_cast<std::int64_t>(std::streamoff(position))); }

}  // namespace

InnerStream::ByteStreamPtr InnerStream::open(fsp::StorageItem const& innerItem, fsp::StorageIRI const& location,
                                             bool forWriting, fsp::ByteStreamOpenOptions const& options,
                                             std::uint64_t generation) {
  UniqueLock lock(mutex_);
  // Opened and closed again before this transaction ran: nobody is left to use it.
  if (generation <= closedGeneration_) return stream_;
  bool const reusable = stream_ && (!forWriting || (writable_ && !options.truncate));
  if (reusable) {
    streamGeneration_ = std::max(streamGeneration_, generation);
    return stream_;
  }
  closeQuietly();
  fsp::StorageItem const item(innerItem, location.getPath());
  if (forWriting) {
    stream_ = ByteStreamPtr(item.openStream(options));
    writable_ = true;
    streamGeneration_ = std::max(streamGeneration_, generation);
    return stream_;
  }

  // A read-only open runs without the lock: a reader whose bytes all come from the cache
  // closes its stream before the store has answered, and must not wait for the answer.
  // Whoever closes meanwhile only raises closedGeneration_; the stream opened here is then
  // closed again here.
  lock.unlock();
  ByteStreamPtr opened(item.openReadOnlyStream());
  lock.lock();
  if (generation <= closedGeneration_ || streamGeneration_ > generation) {
    lock.unlock();
    try {
      opened->close();
    } catch (...) {
      entrylog::failure("Unexpected exception during close operation");
    }
    lock.lock();
    return stream_;
  }
  closeQuietly();
  stream_ = std::move(opened);
  writable_ = false;
  streamGeneration_ = generation;
  return stream_;
}

void InnerStream::closeQuietly() {
  if (!stream_) return;
  try {
    stream_->close();
  } catch (...) {
    entrylog::failure("Unexpected exception during close operation");
  }
  stream_.reset();
  writable_ = false;
}

std::streamsize InnerStream::read(fsp::StorageIRI const& location, std::streampos position, char* buffer,
                                  std::streamsize count) {
  LockGuard lock(mutex_);
  if (!stream_) throw fsp::Exception(fsp::ErrorCode::TransientFailure, location, "the inner stream is closed");
  stream_->seek(offsetOf(position), std::ios_base::beg);
  long const n = stream_->read(buffer, static_cast<long>(count));
  return n < 0 ? 0 : n;
}

void InnerStream::write(fsp::StorageIRI const& location, std::streampos position, std::vector<char> const& bytes) {
  LockGuard lock(mutex_);
  if (!stream_) throw fsp::Exception(fsp::ErrorCode::TransientFailure, location, "the inner stream is closed");
  stream_->seek(offsetOf(position), std::ios_base::beg);
  std::size_t written = 0;
  while (written < bytes.size()) {
    long const n = stream_->write(bytes.data() + written, static_cast<long>(bytes.size() - written));
    if (n <= 0) throw fsp::Exception(fsp::ErrorCode::TransientFailure, location, "the inner stream wrote nothing");
    written += static_cast<std::size_t>(n);
  }
}

void InnerStream::dropAfterFailedWrite() {
  LockGuard lock(mutex_);
  if (!stream_) return;
  try {
    stream_->close();
  } catch (...) {
    entrylog::caught();
  }
  stream_.reset();
}

bool InnerStream::closeUnlessReclaimed(std::uint64_t generation, std::function<void()> const& onFailure,
                                       std::optional<boost::posix_time::ptime> const& time) {
  LockGuard lock(mutex_);
  try {
    closedGeneration_ = std::max(closedGeneration_, generation);
    if (!stream_ || streamGeneration_ > generation) return false;
    ByteStreamPtr const stream = std::move(stream_);
    stream_.reset();
    writable_ = false;
    if (time) {
      if (auto* timed = dynamic_cast<foundation::storage::provider::extensions::IClosesWithTime*>(stream.get())) {
        return timed->closeWithTime(*time);
      }
    }
    stream->close();
  } catch (...) {
    onFailure();
  }
  return false;
}

}  // namespace storage::overlayprovider
