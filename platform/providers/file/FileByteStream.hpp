// FileByteStream: a ByteStream on an open file descriptor of the local file system.
//
// Random access: reads and writes go to the stream's own position with pread/pwrite, so
// the descriptor's offset is never used and several streams on one file do not disturb
// each other. Writing past the end leaves a hole that reads as zero bytes. In append
// mode every write goes to the end of the file (O_APPEND) and the position follows it.
//
// Failures are the four ByteStream*Failure types; their message names the IRI and holds
// the system's error text, their code is NotWritable for EACCES/EPERM/EROFS and
// TransientFailure otherwise. A stream is used by one thread at a time.
#pragma once

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/extensions/IClosesWithTime.hpp>

#include <string>

namespace providers::file::detail {

namespace sp = foundation::storage::provider;

class FileByteStream : public sp::ByteStream, public sp::extensions::IClosesWithTime {
 public:
  // Takes ownership of `fd`, which is open for reading, and for writing when `writable`.
  // `label` (the IRI's text) names the file in failure messages.
  FileByteStream(int fd, std::string label, bool writable, bool append);
  ~FileByteStream() override;  // closes the descriptor when close() was not called

  FileByteStream(FileByteStream const&) = delete;
  FileByteStream& operator=(FileByteStream const&) = delete;

  // Loops over short reads until `count` bytes or the end of the file; -1 at the end.
  long read(char* buffer, long count) override;
  // Writes all `count` bytes or throws.
  long write(char const* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir whence) override;
  // Closes the descriptor. Content is handed to the operating system on every write;
  // close does not force it to the device.
  void close() override;
  // Sets the modification time through the descriptor, then closes it; false (closed,
  // time not set) for a stream opened for reading, one closed already, or when the
  // time cannot be set so.
  bool closeWithTime(boost::posix_time::ptime const& time) override;

 private:
  enum class Op { Read, Write, Seek, Close };
  // Throws the failure type of `op` with the text "<what> <label>: <message>".
  [[noreturn]] void fail(Op op, char const* what, std::string const& message, sp::ErrorCode code) const;
  [[noreturn]] void failOs(Op op, char const* what, int err) const;
  void requireOpen(Op op, char const* what) const;

  int fd_;
  std::string const label_;
  bool const writable_;
  bool const append_;
  long position_ = 0;
  bool closed_ = false;
};

}  // namespace providers::file::detail
