// WorkingFileByteStream: the byte stream the overlay hands to a caller who opens a file.
//
// It keeps the caller's position and forwards every operation to the file's shared
// WorkingFileEntry, so reads are served from the local cache and writes go behind to
// the inner store. Every failure reaches the caller as the host's stream failure of the
// operation (ByteStreamReadFailure, ByteStreamWriteFailure, ByteStreamSeekFailure,
// ByteStreamCloseFailure): an inner store's Exception keeps its error code, anything
// else carries TransientFailure (9). Failures are thrown through boost::throw_exception,
// so boost::current_exception and boost::diagnostic_information work on them.
//
// One stream per opening; many streams may share one entry. Each stream holds one share
// of the entry's reference count from its opening until close(). close() is the entry's
// close path for this stream; destroying a stream only releases the entry.
//
// Thread-safety: like any ByteStream, one stream is used by one caller at a time; the
// stream itself does not lock (the entry does).
#pragma once

#include <core/content/WorkingFileEntry.hpp>

#include <foundation/storage/provider/ByteStream.hpp>

#include <ios>
#include <memory>

namespace storage::overlayprovider {

class WorkingFileByteStream final : public foundation::storage::provider::ByteStream {
 public:
  // A read-write stream: opens `entry` with openReadWrite(options). In append mode
  // (options.append) the position starts at the file's size and every write goes to the
  // end. Throws std::invalid_argument for a null entry and what openReadWrite throws
  // (the stream's share of the entry is then given back).
  WorkingFileByteStream(std::shared_ptr<WorkingFileEntry> entry,
                        foundation::storage::provider::ByteStreamOpenOptions const& options);

  // A read-only stream: takes its share of `entry`, then opens it with openReadOnly().
  // Throws as the constructor.
  static std::unique_ptr<WorkingFileByteStream> openReadOnly(std::shared_ptr<WorkingFileEntry> entry);

  ~WorkingFileByteStream() override = default;
  WorkingFileByteStream(WorkingFileByteStream const&) = delete;
  WorkingFileByteStream& operator=(WorkingFileByteStream const&) = delete;

  // Reads up to `count` bytes at the position and advances it by the number read;
  // returns -1 at the end of the file and leaves the position unchanged.
  // Throws ByteStreamReadFailure (also when the stream is closed).
  long read(char* buffer, long count) override;

  // Writes `count` bytes at the position, or at the end of the file in append mode, and
  // moves the position past them; returns `count`.
  // Throws ByteStreamWriteFailure (also when the stream is closed, and with NotWritable
  // on a read-only stream).
  long write(char const* data, long count) override;

  // Moves the position to `offset` from the beginning, the current position or the end
  // of the file (the entry's file size); returns the new position. A position before the
  // start is refused with ByteStreamSeekFailure code 1 (InvalidName, as the stores refuse
  // it) and the position stays where it was. Throws ByteStreamSeekFailure (also when the
  // stream is closed).
  long seek(long offset, std::ios_base::seekdir whence) override;

  // Runs the entry's close path for this stream once; later calls do nothing.
  // Throws ByteStreamCloseFailure.
  void close() override;

  std::streampos getPosition() const { return position_; }
  bool isAppendMode() const { return appendMode_; }
  bool isReadOnly() const { return readOnly_; }
  std::shared_ptr<WorkingFileEntry> const& getEntry() const { return entry_; }

 private:
  // Takes `entry` without opening it. Throws std::invalid_argument for a null entry.
  WorkingFileByteStream(std::shared_ptr<WorkingFileEntry> entry, bool appendMode, bool readOnly);

  std::shared_ptr<WorkingFileEntry> const entry_;
  std::streampos position_ = 0;
  bool const appendMode_;
  bool const readOnly_;
  bool closed_ = false;
};

}  // namespace storage::overlayprovider
