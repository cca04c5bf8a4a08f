#include "MemoryByteStream.hpp"

#include "StoreState.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace providers::mem::detail {

using foundation::storage::events::Kind;
using foundation::storage::provider::ByteStreamCloseFailure;
using foundation::storage::provider::ByteStreamReadFailure;
using foundation::storage::provider::ByteStreamSeekFailure;
using foundation::storage::provider::ByteStreamWriteFailure;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::toString;

MemoryByteStream::MemoryByteStream(std::shared_ptr<StoreState> state, std::shared_ptr<FileData> data,
                                   foundation::storage::provider::StorageIRI iri, bool readOnly, bool append,
                                   bool changed)
    : state_(std::move(state)),
      data_(std::move(data)),
      iri_(std::move(iri)),
      readOnly_(readOnly),
      append_(append),
      changed_(changed) {}

MemoryByteStream::~MemoryByteStream() {
  if (closed_) return;
  try {
    std::lock_guard lock(state_->treeMutex);
    finish();
  } catch (...) {
    // Locking cannot fail in practice; a destructor must not throw either way.
  }
}

void MemoryByteStream::fail(Operation op, ErrorCode code, std::string const& why) const {
  std::string message = std::string(providers::mem::toString(op)) + " on " + iri_.toUtf8() + " failed: " + why + " (" +
                        toString(code) + ")";
  switch (op) {
    case Operation::Read: throw ByteStreamReadFailure(message, code);
    case Operation::Write: throw ByteStreamWriteFailure(message, code);
    case Operation::Seek: throw ByteStreamSeekFailure(message, code);
    default: throw ByteStreamCloseFailure(message, code);
  }
}

void MemoryByteStream::enter(Operation op) const {
  if (closed_) fail(op, ErrorCode::NotSupported, "the stream is closed");
  auto fault = state_->controls.enter(op);
  if (!fault) return;
  if (fault->unexpected) {
    throw std::runtime_error(std::string("Injected unexpected failure in ") + providers::mem::toString(op) + " on " +
                             iri_.toUtf8());
  }
  fail(op, fault->code, "injected fault");
}

long MemoryByteStream::read(char* buffer, long count) {
  enter(Operation::Read);
  if (count < 0) fail(Operation::Read, ErrorCode::InvalidName, "negative count");
  std::lock_guard lock(state_->treeMutex);
  auto const& bytes = data_->bytes;
  if (static_cast<std::size_t>(position_) >= bytes.size()) return -1;
  auto const n = std::min<std::size_t>(static_cast<std::size_t>(count), bytes.size() - static_cast<std::size_t>(position_));
  std::memcpy(buffer, bytes.data() + position_, n);
  position_ += static_cast<long>(n);
  return static_cast<long>(n);
}

long MemoryByteStream::write(char const* buffer, long count) {
  if (!closed_ && readOnly_) fail(Operation::Write, ErrorCode::NotWritable, "the stream is read-only");
  enter(Operation::Write);
  if (count < 0) fail(Operation::Write, ErrorCode::InvalidName, "negative count");
  if (count == 0) return 0;
  std::lock_guard lock(state_->treeMutex);
  auto& bytes = data_->bytes;
  std::size_t const start = append_ ? bytes.size() : static_cast<std::size_t>(position_);
  std::size_t const end = start + static_cast<std::size_t>(count);
  if (end > bytes.size()) {
    auto const grow = end - bytes.size();
    auto& tree = state_->tree;
    if (data_->node != nullptr && state_->capacity && tree.used() + grow > *state_->capacity) {
      fail(Operation::Write, ErrorCode::QuotaExceeded,
           "the store holds " + std::to_string(tree.used()) + " of " + std::to_string(*state_->capacity) +
               " bytes and the write needs " + std::to_string(grow) + " more");
    }
    auto const oldSize = bytes.size();
    bytes.resize(end, '\0');
    tree.resized(*data_, oldSize);
  }
  std::memcpy(bytes.data() + start, buffer, static_cast<std::size_t>(count));
  state_->tree.touched(*data_, StoreState::now());
  position_ = static_cast<long>(end);
  changed_ = true;
  return count;
}

long MemoryByteStream::seek(long offset, std::ios_base::seekdir whence) {
  enter(Operation::Seek);
  long base = 0;
  if (whence == std::ios_base::cur) {
    base = position_;
  } else if (whence == std::ios_base::end) {
    std::lock_guard lock(state_->treeMutex);
    base = static_cast<long>(data_->bytes.size());
  }
  long const target = base + offset;
  if (target < 0) fail(Operation::Seek, ErrorCode::InvalidName, "position " + std::to_string(target) + " is before the start");
  position_ = target;
  return position_;
}

void MemoryByteStream::close() {
  if (closed_) return;
  enter(Operation::Close);
  std::lock_guard lock(state_->treeMutex);
  finish();
}

bool MemoryByteStream::closeWithTime(boost::posix_time::ptime const& time) {
  if (closed_) return false;
  enter(Operation::Close);
  std::lock_guard lock(state_->treeMutex);
  bool const timed = !readOnly_ && !time.is_special();
  if (timed) data_->lastModified = time;
  finish();
  return timed;
}

void MemoryByteStream::finish() {
  closed_ = true;
  if (readOnly_) {
    --data_->readers;
  } else {
    --data_->writers;
  }
  state_->openStreams.fetch_sub(1, std::memory_order_relaxed);
  if (changed_ && data_->node != nullptr) state_->publish(Kind::Modified, *data_->node);
}

}  // namespace providers::mem::detail
