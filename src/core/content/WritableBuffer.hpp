// WritableBuffer: one contiguous run of bytes that a working file entry collects from
// callers' writes before handing it to the inner store as one write-behind payload.
//
// A buffer only grows at its end. Its capacity is the entry's maximum write payload
// size, and payloads never exceed it unless a single caller's write alone does:
//   - a write elsewhere than at the buffer's end is Rejected (it needs a new buffer);
//   - a write smaller than the capacity that would bring the buffer to or beyond its
//     capacity is Rejected and leaves the buffer unchanged (send this one, start anew);
//   - a write of at least the capacity is taken whole, even into a buffer that already
//     holds bytes, and reports AcceptedFull (send the buffer at once);
//   - anything else is Accepted.
//
// Thread-safety: none; a buffer is used only under its entry's mutex.
#pragma once

#include <cstdint>
#include <ios>
#include <vector>

namespace storage::overlayprovider {

// The answer of WritableBuffer::write. The numbers are fixed.
enum class WriteOutcome : std::int32_t {
  Accepted = 0,      // stored; the buffer still has room
  Rejected = 1,      // not stored; the caller sends this buffer and starts a new one
  AcceptedFull = 2,  // stored (or nothing to store); the caller sends the buffer now
};

class WritableBuffer {
 public:
  // An empty buffer for the run that begins at `start` in the file.
  WritableBuffer(std::streampos start, unsigned long capacity);

  // Where the buffered run begins in the file.
  std::streampos getStartPosition() const { return startPosition_; }
  // One past the last buffered byte (equal to the start while the buffer is empty).
  std::streampos getCurrentPosition() const { return currentPosition_; }
  unsigned long getCapacity() const { return capacity_; }

  // The number of bytes buffered: the offset of the current position minus the offset
  // of the start position.
  std::int64_t getBytesWritten() const;

  // A copy of the buffered bytes.
  std::vector<char> data() const;

  // Offers `count` bytes at `data` for file position `position`; see the rules above.
  // In order: a position whose offset differs from the current position's is Rejected;
  // a count below the capacity that would bring the byte count to or beyond the
  // capacity is Rejected; a count below 1 stores nothing and answers Accepted when it is
  // below the capacity, else AcceptedFull; otherwise the bytes are appended, the current
  // position advances by `count` (its conversion state reset), and the answer is
  // Accepted when `count` is below the capacity, else AcceptedFull. Counts compare with
  // the capacity as numbers (a negative count is below any capacity). Throws only
  // std::bad_alloc.
  WriteOutcome write(std::streampos position, char const* data, std::streamsize count);

 private:
  bool belowCapacity(std::int64_t n) const;

  std::streampos const startPosition_;
  unsigned long const capacity_;
  std::vector<char> bytes_;
  std::streampos currentPosition_;
};

}  // namespace storage::overlayprovider
