#include <core/content/WritableBuffer.hpp>

namespace storage::overlayprovider {

WritableBuffer::WritableBuffer(std::streampos start, unsigned long capacity)
    : startPosition_(start), capacity_(capacity), currentPosition_(start) {}

std::int64_t WritableBuffer::getBytesWritten() const {
  return static_cast<std::int64_t>(std::streamoff(currentPosition_) - std::streamoff(startPosition_));
}

std::vector<char> WritableBuffer::data() const { return bytes_; }

bool WritableBuffer::belowCapacity(std::int64_t n) const {
  return n < 0 || static_cast<std::uint64_t>(n) < static_cast<std::uint64_t>(capacity_);
}

WriteOutcome WritableBuffer::write(std::streampos position, char const* data, std::streamsize count) {
  if (std::streamoff(position) != std::streamoff(currentPosition_)) {
    return WriteOutcome::Rejected;
  }
  std::int64_t const newSize = static_cast<std::int64_t>(bytes_.size()) + static_cast<std::int64_t>(count);
  if (belowCapacity(count) && !belowCapacity(newSize)) {
    return WriteOutcome::Rejected;
  }
  if (count < 1) {
    return belowCapacity(count) ? WriteOutcome::Accepted : WriteOutcome::AcceptedFull;
  }
  bytes_.insert(bytes_.end(), data, data + count);
  currentPosition_ = std::streampos(std::streamoff(currentPosition_) + count);
  return belowCapacity(count) ? WriteOutcome::Accepted : WriteOutcome::AcceptedFull;
}

}  // namespace storage::overlayprovider
