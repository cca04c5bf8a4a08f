#include <core/content/ReadAhead.hpp>

#include <utility>

namespace storage::overlayprovider {

ReadAhead::~ReadAhead() { take(); }

void ReadAhead::start(std::int64_t position, std::int64_t size, std::uint64_t generation, Fetcher fetch) {
  LockGuard lock(mutex_);
  if (fetch_) return;  // another reader's is under way
  auto ahead = std::make_unique<Fetch>();
  ahead->position = position;
  ahead->size = size;
  ahead->generation = generation;
  ahead->bytes = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(size));
  Fetch* const target = ahead.get();
  try {
    // Whoever takes the fetch joins the thread before it reads the result.
    ahead->thread = std::thread([target, fetch = std::move(fetch)] {
      try {
        target->fetched = fetch(target->position, target->bytes.get(), target->size);
      } catch (...) {
        target->failure = std::current_exception();
      }
    });
  } catch (...) {
    return;  // no thread to be had: the payload is fetched when it is asked for
  }
  fetch_ = std::move(ahead);
}

std::unique_ptr<ReadAhead::Fetch> ReadAhead::take() {
  std::unique_ptr<Fetch> ahead;
  {
    LockGuard lock(mutex_);
    ahead = std::move(fetch_);
  }
  if (ahead && ahead->thread.joinable()) ahead->thread.join();
  return ahead;
}

std::int64_t ReadAhead::recordFetched(std::int64_t start, std::int64_t n) {
  LockGuard lock(mutex_);
  sequentialRun_ = start == sequentialEnd_ ? sequentialRun_ + n : n;
  sequentialEnd_ = start + n;
  return sequentialRun_;
}

}  // namespace storage::overlayprovider
