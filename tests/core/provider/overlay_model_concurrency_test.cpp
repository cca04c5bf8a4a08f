// A randomised model test of the whole overlay over the `mem` store: several threads,
// each in its own folder, create, write at random offsets, truncate, read, move, copy,
// remove, list and make folders through the overlay, read files of a shared folder that
// nobody changes, and keep an exact model of what their folder must hold (contents,
// sizes, listings and the error codes of refused operations). Every queued change that
// the provider retries (creations, removals, moves, streams' queued payloads) meets zero,
// one or two transient failures (code 9) at the store, which its three attempts must
// absorb. Every store call is slowed down by a
// few microseconds. After each round the overlay is flushed; then the store, every read
// and every listing through the overlay must equal the models.
//
// Replaying a failure: every failure message names the seed ("seed 1234"), and the seed
// is printed when the test starts. Run
//   OVL_MODEL_SEED=1234 ./overlay_model_concurrency_test
// to repeat each thread's operations and the configuration (payload sizes, latency);
// the interleaving of the threads, and so which queued change meets which failures, may
// differ from run to run. OVL_MODEL_STEPS sets the number of operations per thread and
// round.
//
// Run time: the default number of operations keeps a release run at a few seconds;
// under AddressSanitizer or ThreadSanitizer (detected at compile time through
// __SANITIZE_ADDRESS__ / __SANITIZE_THREAD__, or __has_feature with clang) the default
// is a third of that, so that a sanitizer run on two loaded cores stays under 20 s.
#include <support/Problems.hpp>
#include <support/StreamContent.hpp>
#include <core/exec/BackendExecutor.hpp>
#include <core/content/ContentCache.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/exec/ParallelExecutor.hpp>
#include <core/provider/OverlayProvider.hpp>

#include "exec/executor_test_support.hpp"

#include <foundation/log/MemorySink.hpp>
#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace fsp = foundation::storage::provider;
using fsp::ErrorCode;
using fsp::ReplacementPolicy;
using fsp::StorageIRI;
using fsp::StorageItem;
using overlay_test::FakeExecutor;
using providers::mem::MemoryProvider;
using providers::mem::Operation;
using storage::overlayprovider::BackendExecutor;
using storage::overlayprovider::ContentCache;
using storage::overlayprovider::IExecutor;
using storage::overlayprovider::ObservableTransactionType;
using storage::overlayprovider::OverlayProvider;
using storage::overlayprovider::ParallelExecutor;
using storage::overlayprovider::Touches;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

constexpr int kThreads = 4;
constexpr int kRounds = 3;

std::uint64_t seedFromEnvironment() {
  if (char const* text = std::getenv("OVL_MODEL_SEED"); text != nullptr && *text != '\0') {
    return std::strtoull(text, nullptr, 10);
  }
  std::random_device device;
  return (static_cast<std::uint64_t>(device()) << 32) ^ device();
}

int stepsFromEnvironment() {
  if (char const* text = std::getenv("OVL_MODEL_STEPS"); text != nullptr && std::atoi(text) > 0) {
    return std::atoi(text);
  }
  return kSanitized ? 100 : 300;
}

std::u16string u16(std::string const& text) { return std::u16string(text.begin(), text.end()); }
std::string u8(std::u16string const& text) { return std::string(text.begin(), text.end()); }

// The store operation that the queued change of `type` calls, for the changes the
// provider retries (stream payloads included); nothing for every other transaction
// (opens and closes, event handling), which get no second attempt.
std::optional<Operation> retriedOperation(ObservableTransactionType type) {
  switch (type) {
    case ObservableTransactionType::FILE_CREATION: return Operation::CreateFile;
    case ObservableTransactionType::FILE_REMOVAL: return Operation::RemoveFile;
    case ObservableTransactionType::FILE_MOVE: return Operation::MoveFile;
    case ObservableTransactionType::FOLDER_CREATION: return Operation::CreateFolder;
    case ObservableTransactionType::FOLDER_REMOVAL: return Operation::RemoveFolder;
    case ObservableTransactionType::FILE_WRITE: return Operation::Write;
    default: return std::nullopt;
  }
}

// The provider's queue with a fault plan: right before a retried change runs, the store
// is told to fail its next 0, 1 or 2 calls of that change's operation with code 9.
// Retried changes run one at a time (on whichever lane; only they call those
// operations), so each change meets exactly the failures drawn for it, always fewer than
// its three attempts. Everything else runs as the queue lets it, on several lanes at once
// when the queue has several.
class FaultPlanExecutor final : public FakeExecutor {
 public:
  FaultPlanExecutor(std::shared_ptr<IExecutor> inner, MemoryProvider& store, std::uint64_t seed)
      : FakeExecutor(std::move(inner)), store_(store), random_(seed) {}

  void execute(Task task, ObservableTransactionType type, double weight) override {
    executeTouching(std::move(task), type, weight, Touches());
  }
  void executeTouching(Task task, ObservableTransactionType type, double weight, Touches const& touches) override {
    auto const op = retriedOperation(type);
    if (!op) return FakeExecutor::executeTouching(std::move(task), type, weight, touches);
    FakeExecutor::executeTouching(
        [this, op = *op, task = std::move(task)] {
          std::lock_guard serial(serial_);
          int const failures = static_cast<int>(random_() % 5) / 2;  // 0, 0, 1, 1, 2
          if (failures > 0) store_.failNext(op, failures, ErrorCode::TransientFailure);
          auto const callsBefore = store_.calls(op);
          task();
          // A payload of a file removed meanwhile is skipped and meets none of its
          // failures: count those that were met (each call met one, up to the number armed).
          auto const calls = static_cast<int>(store_.calls(op) - callsBefore);
          injected_.fetch_add(op == Operation::Write ? std::min(failures, calls) : failures);
          // A change that ended for another reason leaves nothing armed for the next one.
          store_.clearFaults();
        },
        type, weight, touches);
  }

  // Failures armed so far.
  int injected() const { return injected_.load(); }

 private:
  MemoryProvider& store_;
  std::mutex serial_;       // one retried change at a time
  std::mt19937_64 random_;  // drawn from with serial_ held
  std::atomic<int> injected_{0};
};

// What the overlay must show below one folder: files with their content, and folders.
struct Model {
  std::map<std::u16string, std::string> files;
  std::set<std::u16string> folders;

  bool isFile(std::u16string const& path) const { return files.count(path) != 0; }
  bool isFolder(std::u16string const& path) const { return folders.count(path) != 0; }
  bool exists(std::u16string const& path) const { return isFile(path) || isFolder(path); }
  // Names directly inside `folder`.
  std::map<std::u16string, std::optional<std::size_t>> children(std::u16string const& folder) const {
    std::map<std::u16string, std::optional<std::size_t>> result;
    auto const prefix = folder + u"/";
    for (auto const& [path, content] : files) {
      if (path.rfind(prefix, 0) == 0 && path.find(u'/', prefix.size()) == std::u16string::npos) {
        result[path.substr(prefix.size())] = content.size();
      }
    }
    for (auto const& path : folders) {
      if (path.rfind(prefix, 0) == 0 && path.find(u'/', prefix.size()) == std::u16string::npos) {
        result[path.substr(prefix.size())] = std::nullopt;
      }
    }
    return result;
  }
};

// "{ a: 12 s0/ }": names with sizes, folders with a slash.
std::string describe(std::map<std::u16string, std::optional<std::size_t>> const& entries) {
  std::string text = "{";
  for (auto const& [name, size] : entries) text += " " + u8(name) + (size ? ": " + std::to_string(*size) : "/");
  return text + " }";
}

using support::Problems;
using support::readAll;

class OverlayModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Made first and destroyed last: no thread of the overlay may still log into it.
    sink_ = std::make_unique<foundation::log::MemorySink>(foundation::log::Debug);
    seed_ = seedFromEnvironment();
    steps_ = stepsFromEnvironment();
    std::mt19937_64 random(seed_);

    MemoryProvider::Options options;
    store_ = std::make_shared<MemoryProvider>(options);
    latencyMicros_ = static_cast<long>(1 + random() % 20);
    store_->setLatency(std::chrono::microseconds(latencyMicros_));
    store_->elsewhere().createFolder(u"/shared");
    for (int i = 0; i < 4; ++i) {
      std::string content(static_cast<std::size_t>(random() % 30000), '\0');
      for (auto& c : content) c = static_cast<char>('a' + random() % 26);
      store_->elsewhere().writeFile(u"/shared/r" + u16(std::to_string(i)), content);
      shared_[u"/shared/r" + u16(std::to_string(i))] = content;
    }

    planSeed_ = random();
    // Small payloads make one write several queued transactions.
    long const payloads[] = {512, 4096, 65536, 4194304};
    writePayload_ = payloads[random() % 4];
    readPayload_ = payloads[random() % 4];
  }

  // The overlay over the store, its queue with `lanes` lanes (1: the single-worker queue).
  void makeOverlay(std::size_t lanes) {
    lanes_ = lanes;
    auto cache = std::make_unique<ContentCache>();
    ContentCache* const cacheView = cache.get();
    auto emptyRecycleBin = [cacheView] { cacheView->emptyRecycleBin(); };
    std::shared_ptr<IExecutor> queue;
    if (lanes > 1) {
      queue = std::make_shared<ParallelExecutor>(lanes, emptyRecycleBin, 0.0);
    } else {
      queue = std::make_shared<BackendExecutor>(emptyRecycleBin, 0.0);
    }
    executor_ = std::make_shared<FaultPlanExecutor>(queue, *store_, planSeed_);
    provider_ = std::make_unique<OverlayProvider>(StorageItem(store_, store_->root()), std::move(cache), nullptr,
                                                  executor_);
    boost::property_tree::ptree config;
    config.put("overlay.maxWritePayloadSize", std::to_string(writePayload_));
    config.put("overlay.maxReadPayloadSize", std::to_string(readPayload_));
    provider_->doConfigure(config);
  }

  std::string context() const {
 return "seed " + std::to_string(seed_) + " (" + std::to_string(lanes_) + " lanes, write payload " + std::to_string(writePayload_) + ", read payload " +
           std::to_string(readPayload_) + ", store latency " + std::to_string(latencyMicros_) + " us)";
  }

  StorageIRI at(std::u16string const& path) const { return StorageIRI(u"overlay", store_->root(), path); }

  std::string read(std::u16string const& path) const {
    auto stream = provider_->doOpenReadOnlyStream(at(path));
    auto content = readAll(*stream);
    stream->close();
    return content;
  }

  // The overlay's listing of `folder`: name -> size (files) or nothing (folders).
  std::map<std::u16string, std::optional<std::size_t>> listing(std::u16string const& folder) const {
    std::map<std::u16string, std::optional<std::size_t>> result;
    for (auto const& entry : fsp::collect(*provider_->doListAll(at(folder)))) {
      if (entry.isFile()) {
        result[entry.getName()] = entry.getFileAttributes().getSize().value_or(~std::size_t{0});
      } else {
        result[entry.getName()] = std::nullopt;
      }
    }
    return result;
  }

  // Runs `call`, which the model says must fail with `code`; reports what happened
  // otherwise.
  template <class Call, class Report>
  void expectFailure(ErrorCode code, std::string const& what, Call&& call, Report&& report) const {
    try {
      call();
      report(what + ": succeeded, expected code " + std::to_string(static_cast<int>(code)));
    } catch (fsp::Exception const& e) {
      if (e.getErrorCode() != code) {
        report(what + ": code " + std::to_string(static_cast<int>(e.getErrorCode())) + ", expected " +
                     std::to_string(static_cast<int>(code)) + " (" + e.what() + ")");
      }
    }
  }

  // One thread's round of `steps` random operations below `root`, checked against `model`.
  void work(int thread, std::u16string const& root, std::mt19937_64& random, Model& model, Problems& problems) const;

  // After a flush: the store and the overlay against the models.
  void compareWithModels(std::vector<Model> const& models, int round) const;

  // The whole test: kRounds rounds of every thread's operations, each followed by a flush
  // and the comparison, with the latch time-out `latchMillis`; with `flushMidRound`,
  // thread 0 also flushes now and then while the others work.
  void run(long latchMillis, bool flushMidRound, std::size_t lanes);

  std::unique_ptr<foundation::log::MemorySink> sink_;  // captures the provider's log lines
  std::uint64_t seed_ = 0;
  std::uint64_t planSeed_ = 0;
  std::size_t lanes_ = 1;
  int steps_ = 0;
  bool flushMidRound_ = false;
  long writePayload_ = 0;
  long readPayload_ = 0;
  long latencyMicros_ = 0;
  std::map<std::u16string, std::string> shared_;  // files nobody changes
  std::shared_ptr<MemoryProvider> store_;
  std::shared_ptr<FaultPlanExecutor> executor_;
  std::unique_ptr<OverlayProvider> provider_;
};

void OverlayModelTest::work(int thread, std::u16string const& root, std::mt19937_64& random, Model& model,
                            Problems& problems) const {
  auto pick = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
  auto folderPath = [&]() -> std::u16string {
    switch (pick(3)) {
      case 0: return root;
      case 1: return root + u"/s0";
      default: return root + u"/s1";
    }
  };
  auto filePath = [&] { return folderPath() + u"/f" + u16(std::to_string(pick(5))); };
  auto bytes = [&](std::size_t n) {
    std::string content(n, '\0');
    char const letter = static_cast<char>('A' + pick(26));
    for (std::size_t i = 0; i < n; ++i) content[i] = static_cast<char>(letter + static_cast<char>(i % 7));
    return content;
  };
  auto parentOf = [](std::u16string const& path) { return path.substr(0, path.rfind(u'/')); };
  auto policy = [&] { return pick(2) == 0 ? ReplacementPolicy::Never : ReplacementPolicy::Always; };
  // What this thread did, so that its first problem can be told with the steps before it.
  std::vector<std::string> journal;
  bool told = false;
  auto fail = [&](std::string text) {
    if (!told) {
      told = true;
      auto const from = journal.size() > 12 ? journal.size() - 12 : 0;
      text += "; the thread's steps before:";
      for (auto i = from; i < journal.size(); ++i) text += "\n      " + journal[i];
    }
    problems.add(std::move(text));
  };

  for (int step = 0; step < steps_; ++step) {
    auto const path = filePath();
    auto const text = u8(path);
    auto const where = "thread " + std::to_string(thread) + " step " + std::to_string(step) + " ";
    std::string did;  // for the journal
    try {
      if (flushMidRound_ && thread == 0 && pick(40) == 0) {
        did = "flush";
        provider_->doFlushFilesystem();
        journal.push_back(where + did);
        continue;
      }
      switch (pick(13)) {
        case 0: {  // create
          did = "create " + text;
          if (!model.isFolder(parentOf(path))) {
            expectFailure(ErrorCode::DoesNotExist, where + "create " + text, [&] { provider_->doCreateFile(at(path)); },
                          fail);
          } else if (model.exists(path)) {
            expectFailure(ErrorCode::AlreadyExists, where + "create " + text, [&] { provider_->doCreateFile(at(path)); },
                          fail);
          } else {
            provider_->doCreateFile(at(path));
            model.files[path] = "";
          }
          break;
        }
        case 1:
        case 2: {  // write at random offsets through one stream, with a gap now and then
          if (!model.isFolder(parentOf(path))) break;
          auto stream = provider_->doOpenStream(at(path), {});
          auto& content = model.files[path];
          did = "write " + text + " (" + std::to_string(content.size()) + " bytes) at";
          int const writes = 1 + static_cast<int>(pick(3));
          for (int w = 0; w < writes; ++w) {
            auto const offset = pick(content.size() + 3000);
            auto const data = bytes(1 + pick(6000));
            if (stream->seek(static_cast<long>(offset), std::ios_base::beg) != static_cast<long>(offset)) {
              fail(where + "seek on " + text + " answered another position");
            }
            if (stream->write(data.data(), static_cast<long>(data.size())) != static_cast<long>(data.size())) {
              fail(where + "short write on " + text);
            }
            if (content.size() < offset + data.size()) content.resize(offset + data.size(), '\0');
            content.replace(offset, data.size(), data);
            did += " " + std::to_string(offset) + "+" + std::to_string(data.size());
          }
          if (pick(2) == 0) {  // read back through the same stream
            stream->seek(0, std::ios_base::beg);
            if (readAll(*stream) != content) fail(where + "read through the writing stream differs: " + text);
          }
          stream->close();
          break;
        }
        case 3: {  // truncate and rewrite
          if (!model.isFolder(parentOf(path))) break;
          fsp::ByteStreamOpenOptions options;
          options.truncate = true;
          auto stream = provider_->doOpenStream(at(path), options);
          auto const data = bytes(pick(4) == 0 ? 0 : pick(9000));
          did = "truncate " + text + " and write " + std::to_string(data.size());
          if (!data.empty()) stream->write(data.data(), static_cast<long>(data.size()));
          stream->close();
          model.files[path] = data;
          break;
        }
        case 4:
        case 5: {  // read, whole or from an offset
          did = "read " + text;
          if (!model.isFile(path)) {
            expectFailure(ErrorCode::DoesNotExist, where + "open " + text,
                          [&] { provider_->doOpenReadOnlyStream(at(path)); }, fail);
            break;
          }
          auto const& content = model.files[path];
          auto stream = provider_->doOpenReadOnlyStream(at(path));
          auto const offset = pick(content.size() + 1);
          stream->seek(static_cast<long>(offset), std::ios_base::beg);
          if (readAll(*stream) != content.substr(offset)) {
            fail(where + "read of " + text + " from " + std::to_string(offset) + " differs");
          }
          stream->close();
          if (provider_->doGetFileAttributes(at(path)).getSize() != content.size()) {
            fail(where + "size of " + text + " differs");
          }
          break;
        }
        case 6: {  // move
          auto const target = filePath();
          auto const how = policy();
          auto const what = where + "move " + text + " to " + u8(target);
          did = what.substr(where.size()) + (how == ReplacementPolicy::Always ? " (always)" : " (never)");
          if (!model.isFile(path)) {
            expectFailure(ErrorCode::DoesNotExist, what, [&] { provider_->doMoveFile(at(path), at(target), how); },
                          fail);
          } else if (model.isFolder(target) || (model.isFile(target) && how != ReplacementPolicy::Always)) {
            expectFailure(ErrorCode::AlreadyExists, what, [&] { provider_->doMoveFile(at(path), at(target), how); },
                          fail);
          } else if (path == target) {
            provider_->doMoveFile(at(path), at(target), how);
          } else if (!model.isFolder(parentOf(target))) {
            expectFailure(ErrorCode::DoesNotExist, what, [&] { provider_->doMoveFile(at(path), at(target), how); },
                          fail);
          } else {
            provider_->doMoveFile(at(path), at(target), how);
            model.files[target] = model.files[path];
            model.files.erase(path);
          }
          break;
        }
        case 7: {  // copy
          auto const target = filePath();
          auto const how = policy();
          if (!model.isFile(path) || path == target) break;
          auto const what = where + "copy " + text + " to " + u8(target);
          did = what.substr(where.size()) + (how == ReplacementPolicy::Always ? " (always)" : " (never)");
          if (model.isFolder(target) || (model.isFile(target) && how != ReplacementPolicy::Always)) {
            expectFailure(ErrorCode::AlreadyExists, what, [&] { provider_->doCopyFile(at(path), at(target), how); },
                          fail);
          } else if (!model.isFolder(parentOf(target))) {
            expectFailure(ErrorCode::DoesNotExist, what, [&] { provider_->doCopyFile(at(path), at(target), how); },
                          fail);
          } else {
            provider_->doCopyFile(at(path), at(target), how);
            model.files[target] = model.files[path];
          }
          break;
        }
        case 8: {  // remove
          did = "remove " + text;
          if (!model.isFile(path)) {
            expectFailure(ErrorCode::DoesNotExist, where + "remove " + text, [&] { provider_->doRemoveFile(at(path)); },
                          fail);
          } else {
            provider_->doRemoveFile(at(path));
            model.files.erase(path);
          }
          break;
        }
        case 9: {  // list
          auto const folder = folderPath();
          did = "list " + u8(folder);
          if (!model.isFolder(folder)) {
            expectFailure(ErrorCode::DoesNotExist, where + "list " + u8(folder),
                          [&] { provider_->doListAll(at(folder)); }, fail);
          } else if (auto const listed = listing(folder); listed != model.children(folder)) {
            fail(where + "listing of " + u8(folder) + " is " + describe(listed) + ", expected " +
                 describe(model.children(folder)));
          }
          break;
        }
        case 10: {  // make or remove a sub-folder
          auto const folder = root + (pick(2) == 0 ? u"/s0" : u"/s1");
          did = "create or remove folder " + u8(folder);
          if (!model.isFolder(folder)) {
            provider_->doCreateFolder(at(folder));
            model.folders.insert(folder);
          } else if (!model.children(folder).empty()) {
            expectFailure(ErrorCode::FolderNotEmpty, where + "remove folder " + u8(folder),
                          [&] { provider_->doRemoveFolder(at(folder)); }, fail);
          } else {
            provider_->doRemoveFolder(at(folder));
            model.folders.erase(folder);
          }
          break;
        }
        case 11: {  // a file nobody changes, in the shared folder
          auto const it = std::next(shared_.begin(), static_cast<long>(pick(shared_.size())));
          if (read(it->first) != it->second) fail(where + "shared file " + u8(it->first) + " differs");
          break;
        }
        case 12: {  // existence queries
          if (provider_->doFileExists(at(path)) != model.isFile(path)) fail(where + "fileExists " + text);
          if (provider_->doFolderExists(at(path)) != model.isFolder(path)) fail(where + "folderExists " + text);
          break;
        }
      }
    } catch (std::exception const& e) {
      fail(where + "on " + text + ": " + e.what());
    }
    if (!did.empty()) journal.push_back(where + did);
  }
}

void OverlayModelTest::compareWithModels(std::vector<Model> const& models, int round) const {
  SCOPED_TRACE(context() + ", after the flush of round " + std::to_string(round));
  std::map<std::u16string, std::optional<std::string>> expected;
  for (auto const& [path, content] : shared_) expected[path] = content;
  expected[u"/shared"] = std::nullopt;
  for (auto const& model : models) {
    for (auto const& [path, content] : model.files) expected[path] = content;
    for (auto const& folder : model.folders) expected[folder] = std::nullopt;
  }
  auto const stored = store_->elsewhere().snapshot();
  for (auto const& [path, content] : expected) {
    auto const it = stored.find(path);
    if (it == stored.end()) {
      ADD_FAILURE() << "the store lacks " << u8(path);
    } else if (it->second != content) {
      ADD_FAILURE() << "the store holds other content at " << u8(path) << " ("
                    << (it->second ? std::to_string(it->second->size()) + " bytes" : std::string("a folder"))
                    << " instead of "
                    << (content ? std::to_string(content->size()) + " bytes" : std::string("a folder")) << ")";
    }
  }
  for (auto const& [path, content] : stored) {
    if (!expected.count(path)) ADD_FAILURE() << "the store holds " << u8(path) << ", which the model does not";
  }
  // The overlay reloads everything from the store after the flush: the same view.
  Model all;
  for (auto const& model : models) {
    all.files.insert(model.files.begin(), model.files.end());
    all.folders.insert(model.folders.begin(), model.folders.end());
  }
  all.files.insert(shared_.begin(), shared_.end());
  all.folders.insert(u"/shared");
  EXPECT_EQ(describe(listing(u"/")), describe(all.children(u""))) << "/";
  for (auto const& [path, content] : expected) {
    if (content) {
      EXPECT_EQ(read(path), *content) << u8(path);
    } else {
      EXPECT_EQ(describe(listing(path)), describe(all.children(path))) << u8(path);
    }
  }
}

void OverlayModelTest::run(long latchMillis, bool flushMidRound, std::size_t lanes) {
  makeOverlay(lanes);
  flushMidRound_ = flushMidRound;
  SCOPED_TRACE(context());
  RecordProperty("seed", std::to_string(seed_));
  std::cout << "[ model    ] " << context() << ", " << steps_ << " steps per thread and round" << std::endl;
  Problems problems;
  std::vector<Model> models(kThreads);
  std::vector<std::mt19937_64> randoms;
  for (int t = 0; t < kThreads; ++t) randoms.emplace_back(seed_ + 1000003ULL * static_cast<std::uint64_t>(t + 1));
  // Before the provider's first operation, which makes the latch.
  storage::overlayprovider::OverlayOptions latch;
  latch.eventRobustnessTimeout = std::chrono::milliseconds(latchMillis);
  provider_->setEnvironmentOptions(latch);
  for (int t = 0; t < kThreads; ++t) {
    auto const root = u"/t" + u16(std::to_string(t));
    provider_->doCreateFolder(at(root));
    models[t].folders.insert(root);
  }

  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        work(t, u"/t" + u16(std::to_string(t)), randoms[t], models[t], problems);
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(problems.count(), 0u) << context() << ", round " << round << ":" << problems.describe();
    provider_->doFlushFilesystem();
    compareWithModels(models, round);
    if (HasFailure()) return;
  }

  // The fault plan did inject failures, and each was absorbed by a retry (the store
  // equals the models above); every one left its line in the log.
  std::size_t logged = 0;
  for (auto const& record : sink_->records()) {
    // "injected fault in CreateFile" from the store, "Write on ... failed: injected fault"
    // from a stream.
    if (record.message.find("injected fault") != std::string::npos) ++logged;
  }
  EXPECT_GT(executor_->injected(), 0) << context();
  EXPECT_EQ(logged, static_cast<std::size_t>(executor_->injected())) << context();
}

// Event handling stays paused for the whole run: the store's echoes of the overlay's own
// changes are collected, never acted on. (Acting on them between operations is the
// disabled variant below.)
TEST_F(OverlayModelTest, ThreadsInTheirOwnFoldersLeaveStoreAndOverlayAsTheirModelsSay) { run(600000, false, 1); }

// The same with eight transfers at once: unrelated changes overtake one another in the
// store, related ones keep their order.
TEST_F(OverlayModelTest, ThreadsInTheirOwnFoldersWithEightTransfers) { run(600000, false, 8); }

// The same with a flush by one thread now and then while the others work: a flush must
// not make the overlay forget changes made while it drained the queue (it keeps the
// caches then), nor a stream's writes. Before that it lost removals, creations and
// written bytes of the other threads.
TEST_F(OverlayModelTest, ThreadsInTheirOwnFoldersWithFlushesInBetween) { run(600000, true, 1); }
TEST_F(OverlayModelTest, ThreadsInTheirOwnFoldersWithFlushesInBetweenAndEightTransfers) { run(600000, true, 8); }

// The same with a latch that reopens a millisecond after the overlay's last change and
// once its own changes have reached the store, so that the echoes of those changes are
// acted on between the threads' operations. In release builds 30+ seeds passed after
// the listener was held paused while changes are on their way and a written file's
// record was thawed only after a listing under way had taken it back; under
// ThreadSanitizer, where the queue runs dry between every two operations, most seeds
// still fail: an echo replayed then acts on a state the caller has changed again (only
// the first event per IRI is kept while paused, so a file removed and created again is
// removed once more; a stream's buffered bytes are not yet queued). Event handling
// assumes its time-out outlasts the caller's bursts; kept disabled.
TEST_F(OverlayModelTest, DISABLED_ThreadsInTheirOwnFoldersWithEventsActedOnAtOnce) { run(1, false, 1); }

}  // namespace
