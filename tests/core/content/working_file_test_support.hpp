// Helpers shared by the working file entry and stream tests: a temporary cache
// directory, an executor that records what it is given and runs it when the test says,
// a quota accountant with a settable figure, and a fixture that builds entries over a
// `mem` store.
#pragma once

#include <core/metadata/FileMetadata.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/quota/IQuotaAccountant.hpp>
#include <core/content/WorkingFileEntry.hpp>
#include <core/content/WorkingFileEntryParams.hpp>

#include <foundation/storage/provider/StorageItem.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

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

// A directory of its own below the system's temporary directory, removed with its
// content at destruction.
class TempDir {
 public:
  TempDir() {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("overlay-entry-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(TempDir const&) = delete;
  TempDir& operator=(TempDir const&) = delete;
  std::filesystem::path const& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline std::string readWholeFile(std::filesystem::path const& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
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

// An executor that records every task it is given (kind, weight) and queues it; the
// test runs the queue on its own thread with runAll(), or, in inline mode, every task
// runs inside execute() as with a synchronous executor. Thread-safe.
class RecordingExecutor final : public ovl::IExecutor {
 public:
  struct Record {
    ObservableTransactionType type;
    double weight;
  };

  explicit RecordingExecutor(bool runInline = false) : inline_(runInline) {}

  void execute(Task task, ObservableTransactionType type, double weight) override {
    {
      std::lock_guard lock(mutex_);
      if (shutdown_) return;  // dropped unrun
      records_.push_back({type, weight});
      if (!inline_) {
        queue_.push_back(std::move(task));
        return;
      }
    }
    task();
  }
  void shutdown(bool cancelOutstanding) override {
    std::deque<Task> dropped;
    {
      std::lock_guard lock(mutex_);
      shutdown_ = true;
      if (cancelOutstanding) dropped.swap(queue_);
    }
  }
  void join() override {}
  bool isShutdown() const override {
    std::lock_guard lock(mutex_);
    return shutdown_;
  }
  std::chrono::steady_clock::time_point getLastActivityTime() const override { return {}; }
  bool isQueueEmpty() const override {
    std::lock_guard lock(mutex_);
    return queue_.empty();
  }
  void waitForPendingToFinish() override { runAll(); }
  void setMaxQueueWeight(double) override {}
  void logQueueStatistics() override {}

  // Runs queued tasks, oldest first, until the queue is empty (tasks queued meanwhile
  // included). Returns how many ran.
  int runAll() {
    int ran = 0;
    while (runNext()) ++ran;
    return ran;
  }
  // Runs the oldest queued task, if any.
  bool runNext() {
    Task task;
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty()) return false;
      task = std::move(queue_.front());
      queue_.pop_front();
    }
    task();
    return true;
  }
  std::vector<Record> records() const {
    std::lock_guard lock(mutex_);
    return records_;
  }
  std::vector<Record> recordsOf(ObservableTransactionType type) const {
    std::vector<Record> out;
    for (auto const& r : records())
      if (r.type == type) out.push_back(r);
    return out;
  }

 private:
  bool const inline_;
  mutable std::mutex mutex_;  // guards records_, queue_, shutdown_
  std::vector<Record> records_;
  std::deque<Task> queue_;
  bool shutdown_ = false;
};

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
  TempDir cache;
  std::shared_ptr<TestQuota> quota = std::make_shared<TestQuota>();
  std::atomic<bool> shutdownFlag{false};
};

}  // namespace overlay_test
