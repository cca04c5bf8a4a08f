// Helpers for the content cache tests: an arbitrator whose answers the test decides, and
// a fixture that retrieves entries for files of a `mem` store through a ContentCache
// rooted in a temporary directory, with access times from a clock the test moves.
#pragma once

#include "content/working_file_test_support.hpp"

#include <core/content/ContentCache.hpp>
#include <core/content/ICacheSpaceArbitrator.hpp>

#include <foundation/log/MemorySink.hpp>
#include <support/LogRecords.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace content_cache_test {

namespace ovl = storage::overlayprovider;
namespace fsp = foundation::storage::provider;
using overlay_test::RecordingExecutor;
using support::countRecords;
using support::ManualClock;
using support::messagesAt;

// Answers from a script: the queued answers first, then `otherwise`. Keeps its figures
// in plain fields: the cache promises to call it only under its own lock, so two calls
// at once would show as a data race under ThreadSanitizer.
class ScriptedArbitrator final : public ovl::ICacheSpaceArbitrator {
 public:
  struct Figures {
    std::vector<unsigned long> asked;  // the sizes asked for, in order
    int removals = 0;                  // setItemWasRemoved calls
  };

  // `figures` is the test's view; it must outlive the arbitrator.
  explicit ScriptedArbitrator(Figures& figures, bool otherwise = true) : figures_(figures), otherwise_(otherwise) {}

  // The next answers, before falling back to `otherwise`.
  ScriptedArbitrator& then(bool answer) {
    script_.push_back(answer);
    return *this;
  }
  // Every question from now on throws this text.
  ScriptedArbitrator& failing(std::string text) {
    failure_ = std::move(text);
    return *this;
  }

  bool spaceAvailable(unsigned long bytes) const override {
    figures_.asked.push_back(bytes);
    if (!failure_.empty()) throw std::runtime_error(failure_);
    if (script_.empty()) return otherwise_;
    bool const answer = script_.front();
    script_.pop_front();
    return answer;
  }
  void setItemWasRemoved() override { ++figures_.removals; }

 private:
  Figures& figures_;
  bool const otherwise_;
  mutable std::deque<bool> script_;
  std::string failure_;
};

// A ContentCache over files of a `mem` store. Locations are inner-most IRIs
// ("mem:///a"); the store looks only at their paths.
class ContentCacheFixture : public ::testing::Test {
 protected:
  ContentCacheFixture() { cache.withCacheRoot(root.path() / "cache"); }

  static fsp::StorageIRI iri(std::u16string const& path) { return fsp::StorageIRI(u"mem:///" + path); }

  // A record for the file at `path` with the size the store holds (0 if absent).
  std::shared_ptr<ovl::FileMetadata> metadataFor(std::u16string const& path) const {
    auto record = std::make_shared<ovl::FileMetadata>(iri(path), false);
    auto const content = store->contentOf(u"/" + path);
    // A time in whole seconds, as file times are: a cache file stamped with it is fresh.
    record->withSize(content ? static_cast<unsigned long>(content->size()) : 0)
        .withWritable(true)
        .withLastModified(boost::posix_time::ptime(boost::gregorian::date(2024, 1, 2), boost::posix_time::hours(3)));
    return record;
  }

  std::shared_ptr<ovl::WorkingFileEntry> retrieve(std::u16string const& path,
                                                  std::shared_ptr<ovl::FileMetadata> metadata = nullptr) {
    if (!metadata) metadata = metadataFor(path);
    return cache.retrieveEntry(iri(path), std::make_shared<fsp::StorageItem>(store, iri(path)), std::move(metadata),
                               executor, nullptr, nullptr, ovl::WorkingFileEntryParams(4096, 4096), shutdownFlag);
  }

  // Installs a scripted arbitrator (answering `otherwise` when its script is used up)
  // and returns it for scripting.
  ScriptedArbitrator& installArbitrator(bool otherwise = true) {
    auto arbitrator = std::make_unique<ScriptedArbitrator>(figures, otherwise);
    auto& handle = *arbitrator;
    cache.setCacheSpaceArbitrator(std::move(arbitrator));
    return handle;
  }

  // Reads `count` bytes at `position` through `entry` (opened read-only for it, closed
  // after).
  static std::string readThrough(ovl::WorkingFileEntry& entry, long long position, long long count) {
    entry.openReadOnly();
    std::string buffer(static_cast<std::size_t>(count), '\0');
    auto const n = entry.read(position, buffer.data(), count);
    entry.flushContentCache();
    buffer.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return buffer;
  }

  support::TempFolder root{"content-cache-test"};
  ManualClock clock;
  std::shared_ptr<providers::mem::MemoryProvider> store = std::make_shared<providers::mem::MemoryProvider>();
  std::shared_ptr<RecordingExecutor> executor = std::make_shared<RecordingExecutor>(/*runInline=*/true);
  std::atomic<bool> shutdownFlag{false};
  ScriptedArbitrator::Figures figures;
  ovl::ContentCache cache{overlay_test::timingOn(clock)};
};

}  // namespace content_cache_test
