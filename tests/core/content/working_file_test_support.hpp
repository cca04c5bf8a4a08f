// Helpers shared by the working file entry and stream tests: a quota accountant with a
// settable figure, and a fixture that builds entries over a `mem` store, with their cache
// files in a temporary folder.
#pragma once

#include "exec/executor_test_support.hpp"

#include <core/metadata/FileMetadata.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/quota/IQuotaAccountant.hpp>
#include <core/content/WorkingFileEntry.hpp>
#include <core/content/WorkingFileEntryParams.hpp>

#include <foundation/storage/provider/StorageItem.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>
#include <support/ManualClock.hpp>
#include <support/TempFolder.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace overlay_test {

namespace ovl = storage::overlayprovider;
namespace fsp = foundation::storage::provider;
using ovl::ObservableTransactionType;
using support::ManualClock;
using support::readFile;

// Entry times read from `clock`; the rest as the entries' defaults.
inline ovl::EntryTiming timingOn(support::ManualClock const& clock) {
  ovl::EntryTiming timing;
  timing.now = clock.source();
  return timing;
}

// Bytes that differ from position to position (and from seed to seed), so that a byte
// in the wrong place shows.
inline std::string patternBytes(std::size_t size, unsigned seed = 1) {
  std::string out(size, '\0');
  std::uint32_t x = seed * 2654435761u + 12345u;
  for (auto& c : out) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 24);
  }
  return out;
}

// A quota accountant whose figure the test sets; counts the calls the entry makes.
class TestQuota final : public ovl::IQuotaAccountant {
 public:
  std::optional<std::uint64_t> getSpaceAvailable() const override {
    std::lock_guard lock(mutex_);
    return space_;
  }
  std::optional<std::uint64_t> getTotalCapacity() const override { return std::nullopt; }
  void shutdown() override {}
  void removeFile(fsp::StorageIRI const&) override {
    std::lock_guard lock(mutex_);
    ++removeFileCalls_;
  }
  void removeFolderTree(fsp::StorageIRI const&) override {}
  void addFolderTree(fsp::StorageIRI const&) override {}
  void addBytesWritten(std::size_t bytes) override {
    std::lock_guard lock(mutex_);
    lastBytesWritten_ = bytes;
  }

  void setSpace(std::optional<std::uint64_t> space) {
    std::lock_guard lock(mutex_);
    space_ = space;
  }
  int removeFileCalls() const {
    std::lock_guard lock(mutex_);
    return removeFileCalls_;
  }
  std::size_t lastBytesWritten() const {
    std::lock_guard lock(mutex_);
    return lastBytesWritten_;
  }

 private:
  mutable std::mutex mutex_;  // guards every field below
  std::optional<std::uint64_t> space_;
  int removeFileCalls_ = 0;
  std::size_t lastBytesWritten_ = 0;
};

// Builds entries for files of one `mem` store, with their cache files in a temporary
// directory.
class EntryFixture : public ::testing::Test {
 protected:
  using Operation = providers::mem::Operation;

  EntryFixture() : store(std::make_shared<providers::mem::MemoryProvider>()) {}

  fsp::StorageIRI iriOf(std::u16string const& path) const { return fsp::StorageIRI(store->root(), path); }

  // A record for the file at `path` with the size the store holds (0 if absent).
  std::shared_ptr<ovl::FileMetadata> metadataFor(std::u16string const& path, bool frozen = false) const {
    auto record = std::make_shared<ovl::FileMetadata>(iriOf(path), frozen);
    auto const content = store->contentOf(path);
    record->withSize(content ? static_cast<unsigned long>(content->size()) : 0).withWritable(true);
    return record;
  }

  std::shared_ptr<ovl::WorkingFileEntry> makeEntry(std::u16string const& path, ovl::WorkingFileEntryParams params,
                                                   std::shared_ptr<ovl::IExecutor> executor,
                                                   ovl::EntryTiming timing = {},
                                                   std::shared_ptr<ovl::FileMetadata> metadata = nullptr) {
    if (!metadata) metadata = metadataFor(path);
    auto item = std::make_shared<fsp::StorageItem>(store, iriOf(path));
    return std::make_shared<ovl::WorkingFileEntry>(cache.path(), std::move(metadata), std::move(item),
                                                   std::move(executor), quota, nullptr, std::move(params),
                                                   shutdownFlag, std::move(timing));
  }

  std::string storeContent(std::u16string const& path) const { return store->contentOf(path).value_or("<absent>"); }

  std::shared_ptr<providers::mem::MemoryProvider> store;
  support::TempFolder cache{"overlay-entry-test"};
  std::shared_ptr<TestQuota> quota = std::make_shared<TestQuota>();
  std::atomic<bool> shutdownFlag{false};
};

}  // namespace overlay_test
