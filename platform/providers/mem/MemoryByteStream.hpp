// MemoryByteStream: a stream on the content of one file of a `mem` store.
//
// Reads and writes go straight to the file's content under the store's tree mutex, so a
// write is visible to every other stream and call at once. Writing past the end fills
// the gap with zero bytes. Each call first runs the store's test controls for Read,
// Write, Seek or Close; an injected fault is raised as the matching ByteStream*Failure
// (or a std::runtime_error for an unexpected one).
//
// Failures: a write that would take the store beyond its capacity is
// ByteStreamWriteFailure with QuotaExceeded (8) and writes nothing; writing on a
// read-only stream is NotWritable (2); seeking before the start is InvalidName (1); any
// call after close() is NotSupported (7).
//
// One stream is used by one thread at a time; different streams on the same file may be
// used from different threads.
#pragma once

#include "MemoryTree.hpp"

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/extensions/IClosesWithTime.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <providers/mem/Operation.hpp>

#include <memory>

namespace providers::mem::detail {

struct StoreState;

class MemoryByteStream : public foundation::storage::provider::ByteStream,
                         public foundation::storage::provider::extensions::IClosesWithTime {
 public:
  // The caller holds the tree mutex and has counted this stream in data->readers or
  // data->writers and in state->openStreams. `changed`: the opening already changed the
  // content (truncation), so closing publishes Modified.
  MemoryByteStream(std::shared_ptr<StoreState> state, std::shared_ptr<FileData> data,
                   foundation::storage::provider::StorageIRI iri, bool readOnly, bool append, bool changed);
  // Closes the stream if needed, without running the test controls.
  ~MemoryByteStream() override;

  long read(char* buffer, long count) override;
  long write(char const* buffer, long count) override;
  long seek(long offset, std::ios_base::seekdir whence) override;
  // Publishes Modified when this stream changed the file and the file is still in the
  // tree. A Close fault leaves the stream open.
  void close() override;
  // The same, setting the file's time (true) when the stream was opened for writing;
  // a Close fault leaves the stream open and the time as it was.
  bool closeWithTime(boost::posix_time::ptime const& time) override;

 private:
  // Runs the test controls for `op`; throws the failure type of `op` when a fault is due.
  void enter(Operation op) const;
  [[noreturn]] void fail(Operation op, foundation::storage::provider::ErrorCode code, std::string const& why) const;
  // Caller holds the tree mutex. Ends the stream's bookkeeping.
  void finish();

  std::shared_ptr<StoreState> const state_;
  std::shared_ptr<FileData> const data_;  // its members are guarded by the tree mutex
  foundation::storage::provider::StorageIRI const iri_;
  bool const readOnly_;
  bool const append_;
  // Used only by the thread that uses the stream.
  long position_ = 0;
  bool changed_;
  bool closed_ = false;
};

}  // namespace providers::mem::detail
