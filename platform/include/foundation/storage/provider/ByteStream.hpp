// ByteStream: the random-access byte stream that providers hand out for file content,
// the options it is opened with, the four stream failures, and an adapter for
// Boost.Iostreams.
#pragma once

#include <foundation/storage/provider/ErrorCode.hpp>

#include <boost/iostreams/categories.hpp>
#include <boost/iostreams/positioning.hpp>

#include <ios>
#include <memory>
#include <optional>
#include <string>

namespace foundation::storage::provider {

class ByteStream {
 public:
  virtual ~ByteStream() = default;
  // Reads up to `count` bytes at the position; returns the number read, or -1 at the end
  // of the stream. Throws ByteStreamReadFailure.
  virtual long read(char* buffer, long count) = 0;
  // Writes `count` bytes at the position (or at the end in append mode); returns the
  // number written. Throws ByteStreamWriteFailure.
  virtual long write(char const* buffer, long count) = 0;
  // Moves the position; returns the new absolute position. Throws ByteStreamSeekFailure.
  virtual long seek(long offset, std::ios_base::seekdir whence) = 0;
  // Ends the stream; content written becomes durable in the provider. Closing twice is
  // harmless. Throws ByteStreamCloseFailure.
  virtual void close() = 0;
};

using ByteStreamPtr = std::unique_ptr<ByteStream>;

struct ByteStreamOpenOptions {
  // 0: open the file, creating it when missing; 1: open an existing file only.
  int openMode = 0;
  // Empty the file on opening.
  bool truncate = false;
  // Every write goes to the end of the file.
  bool append = false;

  static constexpr int OpenOrCreate = 0;
  static constexpr int OpenExisting = 1;
};

// Base of the four stream failures: a std::ios_base::failure that carries the storage
// error code of the cause (TransientFailure for causes that are not the host's Exception).
class ByteStreamFailure : public std::ios_base::failure {
 public:
  ByteStreamFailure(std::string const& message, ErrorCode code) : std::ios_base::failure(message), code_(code) {}
  ErrorCode getErrorCode() const noexcept { return code_; }

 private:
  ErrorCode code_;
};

class ByteStreamReadFailure : public ByteStreamFailure {
 public:
  using ByteStreamFailure::ByteStreamFailure;
};
class ByteStreamWriteFailure : public ByteStreamFailure {
 public:
  using ByteStreamFailure::ByteStreamFailure;
};
class ByteStreamSeekFailure : public ByteStreamFailure {
 public:
  using ByteStreamFailure::ByteStreamFailure;
};
class ByteStreamCloseFailure : public ByteStreamFailure {
 public:
  using ByteStreamFailure::ByteStreamFailure;
};

// Adapts an owned ByteStream to a Boost.Iostreams seekable, closable device. The device
// borrows the owning pointer, which must outlive it.
template <class Stream>
class GenericByteStreamDevice {
 public:
  using char_type = char;
  struct category : boost::iostreams::seekable_device_tag, boost::iostreams::closable_tag {};

  explicit GenericByteStreamDevice(std::unique_ptr<Stream>& stream) : stream_(&stream) {}

  std::streamsize read(char* s, std::streamsize n) { return (*stream_)->read(s, static_cast<long>(n)); }
  std::streamsize write(char const* s, std::streamsize n) { return (*stream_)->write(s, static_cast<long>(n)); }
  std::streampos seek(boost::iostreams::stream_offset off, std::ios_base::seekdir way) {
    return (*stream_)->seek(static_cast<long>(off), way);
  }
  void close() { (*stream_)->close(); }

 private:
  std::unique_ptr<Stream>* stream_;
};

}  // namespace foundation::storage::provider
