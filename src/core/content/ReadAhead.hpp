// ReadAhead: the fetch ahead of a working file entry: the next payload of a reader going
// through the file in order, fetched on a thread of its own while the reader stores the
// current one. At most one fetch is under way at a time. Its mutex is a leaf, held only
// briefly; a fetch is waited for with it released. Thread-safe.
#pragma once

#include <core/util/Mutex.hpp>

#include <cstdint>
#include <exception>
#include <functional>
#include <ios>
#include <memory>
#include <thread>

namespace storage::overlayprovider {

class ReadAhead {
 public:
  // One fetch ahead.
  struct Fetch {
    std::int64_t position = 0;
    std::int64_t size = 0;         // the bytes asked of the inner store
    std::uint64_t generation = 0;  // the opening of the entry it was fetched for
    std::unique_ptr<char[]> bytes;
    std::streamsize fetched = 0;   // written by the thread; read after it was joined
    std::exception_ptr failure;    // written by the thread; read after it was joined
    std::thread thread;            // joined by whoever takes the fetch
  };
  // Reads up to `size` bytes at `position` into `buffer` and returns how many it read.
  using Fetcher = std::function<std::streamsize(std::int64_t position, char* buffer, std::int64_t size)>;

  ReadAhead() = default;
  ReadAhead(ReadAhead const&) = delete;
  ReadAhead& operator=(ReadAhead const&) = delete;
  // Takes and waits for a fetch still under way. An owner whose fetcher refers to it
  // calls take() itself before it lets go of what the fetcher uses.
  ~ReadAhead();

  // Starts `fetch` of `size` bytes at `position` for the opening `generation` on a
  // thread of its own, unless a fetch is under way already. Without a thread to be had
  // it starts nothing.
  void start(std::int64_t position, std::int64_t size, std::uint64_t generation, Fetcher fetch) EXCLUDES(mutex_);

  // Takes the fetch, if any, and waits for its thread (taking the mutex only to take it).
  std::unique_ptr<Fetch> take() EXCLUDES(mutex_);

  // Records that `n` bytes at `start` were fetched from the inner store. Returns the
  // number of bytes fetched in order up to their end: `n` plus the run before, when the
  // last recorded payload ended at `start`.
  std::int64_t recordFetched(std::int64_t start, std::int64_t n) EXCLUDES(mutex_);

 private:
  std::unique_ptr<Fetch> fetch_ GUARDED_BY(mutex_);  // empty when none is under way
  std::int64_t sequentialEnd_ GUARDED_BY(mutex_) = -1;  // end of the last payload fetched
  std::int64_t sequentialRun_ GUARDED_BY(mutex_) = 0;   // bytes fetched in order up to it
  mutable Mutex mutex_;
};

}  // namespace storage::overlayprovider
