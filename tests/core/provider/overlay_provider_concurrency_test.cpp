// The whole overlay under concurrent callers: threads working side by side in their own
// folders, writers and readers sharing one file, changes made elsewhere while the
// overlay reads, and a shutdown in the middle of running operations. Every test ends by
// comparing what the inner store (or the overlay) holds with a model of what the
// callers did.
#include <support/Counter.hpp>
#include <support/Problems.hpp>
#include <support/StreamContent.hpp>
#include <core/exec/BackendExecutor.hpp>
#include <core/content/ContentCache.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/provider/OverlayProvider.hpp>

#include "provider/overlay_test_support.hpp"

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/Operation.hpp>
#include <providers/mem/SideDoor.hpp>

#include <gtest/gtest.h>

#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using storage::overlayprovider::BackendExecutor;
using storage::overlayprovider::ContentCache;

namespace {

using Files = std::map<std::u16string, std::string>;  // path -> content

std::u16string u16(std::string const& text) { return std::u16string(text.begin(), text.end()); }

std::string describe(std::set<std::u16string> const& names) {
  std::string text = "{";
  for (auto const& name : names) {
    text += ' ';
    text.append(name.begin(), name.end());
  }
  return text + " }";
}

using support::Problems;
using support::readAll;

class OverlayConcurrencyTest : public overlay_test::OverlayFixture {
 protected:
  void SetUp() override {
    // The listener resumes only when the test ends: nothing asserted here may depend on
    // the latch's timer.
    holdEvents(*provider);
  }

  static void holdEvents(OverlayProvider& overlay) {
    storage::overlayprovider::OverlayOptions latch;
    latch.eventRobustnessTimeout = std::chrono::milliseconds(600000);
    overlay.setEnvironmentOptions(latch);
  }

  void write(std::u16string const& path, std::string const& content) const {
    fsp::ByteStreamOpenOptions options;
    options.truncate = true;
    auto stream = provider->doOpenStream(at(path), options);
    // In two pieces, so that a write lands while the stream already holds content.
    auto const half = static_cast<long>(content.size() / 2);
    stream->write(content.data(), half);
    stream->write(content.data() + half, static_cast<long>(content.size()) - half);
    stream->close();
  }

  std::set<std::u16string> names(std::u16string const& folder) const {
    std::set<std::u16string> result;
    for (auto const& entry : fsp::collect(*provider->doListAll(at(folder)))) result.insert(entry.getName());
    return result;
  }

  // The store's files below `prefix` (a folder path ending in "/").
  Files storedFiles(std::u16string const& prefix) const {
    Files files;
    for (auto const& [path, content] : store->elsewhere().snapshot()) {
      if (content && path.rfind(prefix, 0) == 0) files[path] = *content;
    }
    return files;
  }

  // One worker's random run in its own folder: writes, creations, removals, renames,
  // read-backs and listings, each checked against `model` (path -> content).
  void workInFolder(std::u16string const& folder, unsigned seed, int steps, Files& model, Problems& problems) const {
    std::mt19937 random(seed);
    auto name = [&](unsigned i) { return folder + u"/f" + u16(std::to_string(i)); };
    for (int step = 0; step < steps; ++step) {
      auto const i = random() % 6;
      auto const j = random() % 6;
      auto const path = name(i);
      auto const text = std::string(path.begin(), path.end());
      try {
        switch (random() % 6) {
          case 0: {
            std::string content(1 + random() % 3000, static_cast<char>('a' + (seed + step) % 26));
            content += std::to_string(step);
            write(path, content);
            model[path] = content;
            if (read(path) != content) problems.add("read-back after write differs: " + text);
            break;
          }
          case 1:
            if (!model.count(path)) {
              provider->doCreateFile(at(path));
              model[path] = "";
            }
            break;
          case 2:
            if (model.count(path)) {
              provider->doRemoveFile(at(path));
              model.erase(path);
            }
            break;
          case 3:
            if (model.count(path) && i != j) {
              provider->doMoveFile(at(path), at(name(j)), fsp::ReplacementPolicy::Always);
              model[name(j)] = model[path];
              model.erase(path);
            }
            break;
          case 4:
            if (model.count(path) && read(path) != model[path]) problems.add("read differs: " + text);
            break;
          case 5: {
            std::set<std::u16string> expected;
            for (auto const& entry : model) expected.insert(entry.first.substr(folder.size() + 1));
            if (names(folder) != expected) problems.add("listing differs in " + std::string(folder.begin(), folder.end()));
            break;
          }
        }
      } catch (std::exception const& e) {
        problems.add("step " + std::to_string(step) + " on " + text + ": " + e.what());
      }
    }
  }
};

TEST_F(OverlayConcurrencyTest, WorkersInTheirOwnFoldersLeaveTheStoreAsTheirModelsSay) {
  constexpr int kWorkers = 4;
  constexpr int kSteps = 60;
  store->elsewhere().createFolder(u"/base");
  store->elsewhere().writeFile(u"/base/seed.txt", "present before the overlay");
  Problems problems;
  std::vector<Files> models(kWorkers);
  std::atomic<int> running{kWorkers};
  std::atomic<int> looks{0};

  // Looks at the root and at files of every worker while they work.
  std::thread observer([&] {
    std::mt19937 random(99);
    while (running.load() > 0 || looks.load() < 10) {
      try {
        for (auto const& entry : fsp::collect(*provider->doListAll(at(u"/")))) {
          if (entry.getName() != u"base" && entry.getName().rfind(u"w", 0) != 0) {
            problems.add("unexpected root entry");
          }
        }
        auto const path = u"/w" + u16(std::to_string(random() % kWorkers)) + u"/f" + u16(std::to_string(random() % 6));
        try {
          (void)provider->doGetFileAttributes(at(path));
        } catch (fsp::Exception const& e) {
          if (e.getErrorCode() != ErrorCode::DoesNotExist) problems.add(std::string("stat failed: ") + e.what());
        }
        (void)provider->doFolderExists(at(u"/base"));
        if (!provider->doFileExists(at(u"/base/seed.txt"))) problems.add("an untouched file disappeared");
      } catch (std::exception const& e) {
        problems.add(std::string("observer: ") + e.what());
      }
      looks.fetch_add(1);
    }
  });

  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      auto const folder = u"/w" + u16(std::to_string(w));
      try {
        provider->doCreateFolder(at(folder));
        workInFolder(folder, static_cast<unsigned>(w + 1), kSteps, models[w], problems);
      } catch (std::exception const& e) {
        problems.add(std::string("worker: ") + e.what());
      }
      running.fetch_sub(1);
    });
  }
  for (auto& worker : workers) worker.join();
  observer.join();
  EXPECT_EQ(problems.texts(), std::vector<std::string>());

  provider->doFlushFilesystem();
  Files expected{{u"/base/seed.txt", "present before the overlay"}};
  for (auto const& model : models) expected.insert(model.begin(), model.end());
  EXPECT_EQ(storedFiles(u"/"), expected);
  // After the flush the overlay reloads everything from the store: the same view.
  for (auto const& [path, content] : expected) EXPECT_EQ(read(path), content) << std::string(path.begin(), path.end());
  for (int w = 0; w < kWorkers; ++w) EXPECT_TRUE(store->elsewhere().hasFolderAt(u"/w" + u16(std::to_string(w))));
}

TEST_F(OverlayConcurrencyTest, WritersOfDistinctBlocksOfOneFileAllReachTheStore) {
  constexpr int kWriters = 3;
  constexpr int kBlocksPerWriter = 6;
  constexpr int kReaders = 2;
  constexpr long kBlock = 16384;
  constexpr long kSize = kBlock * kWriters * kBlocksPerWriter;
  // Block b (of writer b % kWriters) is filled with the letter 'A' + b.
  auto letter = [](long block) { return static_cast<char>('A' + block); };
  store->elsewhere().writeFile(u"/shared.bin", std::string(static_cast<std::size_t>(kSize), '.'));
  Problems problems;
  std::atomic<int> writing{kWriters};

  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      try {
        fsp::ByteStreamOpenOptions options;
        options.openMode = fsp::ByteStreamOpenOptions::OpenExisting;
        // Half of the blocks through one stream, the other half through a stream each.
        auto stream = provider->doOpenStream(at(u"/shared.bin"), options);
        for (int k = 0; k < kBlocksPerWriter; ++k) {
          long const block = static_cast<long>(k) * kWriters + w;
          std::string const content(static_cast<std::size_t>(kBlock), letter(block));
          if (k % 2 == 0) {
            stream->seek(block * kBlock, std::ios_base::beg);
            stream->write(content.data(), kBlock);
          } else {
            auto own = provider->doOpenStream(at(u"/shared.bin"), options);
            own->seek(block * kBlock, std::ios_base::beg);
            own->write(content.data(), kBlock);
            own->close();
          }
        }
        stream->close();
      } catch (std::exception const& e) {
        problems.add(std::string("writer: ") + e.what());
      }
      writing.fetch_sub(1);
    });
  }
  for (int r = 0; r < kReaders; ++r) {
    threads.emplace_back([&] {
      int rounds = 0;
      while (writing.load() > 0 || rounds < 2) {
        ++rounds;
        try {
          auto const content = read(u"/shared.bin");
          if (static_cast<long>(content.size()) != kSize) {
            problems.add("read " + std::to_string(content.size()) + " bytes");
            continue;
          }
          // Every byte is the old content or its block's new letter.
          for (long at = 0; at < kSize; ++at) {
            char const c = content[static_cast<std::size_t>(at)];
            if (c != '.' && c != letter(at / kBlock)) {
              problems.add("byte " + std::to_string(at) + " is '" + std::string(1, c) + "'");
              break;
            }
          }
        } catch (std::exception const& e) {
          problems.add(std::string("reader: ") + e.what());
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(problems.texts(), std::vector<std::string>());

  std::string expected;
  for (long block = 0; block < kWriters * kBlocksPerWriter; ++block) expected.append(static_cast<std::size_t>(kBlock), letter(block));
  EXPECT_EQ(read(u"/shared.bin"), expected) << "the overlay's own view before the flush";
  provider->doFlushFilesystem();
  auto const stored = store->elsewhere().contentOf(u"/shared.bin");
  ASSERT_TRUE(stored.has_value());
  ASSERT_EQ(stored->size(), expected.size());
  for (long block = 0; block < kWriters * kBlocksPerWriter; ++block) {
    EXPECT_EQ(stored->substr(static_cast<std::size_t>(block * kBlock), static_cast<std::size_t>(kBlock)),
              std::string(static_cast<std::size_t>(kBlock), letter(block)))
        << "block " << block;
  }
}

// The close transaction of a file's last stream refreshes the file's record (the one the
// content entry shares) with the store's new watermark. An open that read the record's
// watermark just before that refresh and checks the entry just after it must not take the
// entry for stale: a stream opened meanwhile has written to it, and a reader must see
// that write. The cache's seam runs the refresh inside that window.
TEST_F(OverlayConcurrencyTest, AnOpenMeetingTheRefreshOfTheRecordKeepsTheEntryThatAnOpenStreamWrites) {
  constexpr long kBlock = 4096;
  store->elsewhere().writeFile(u"/shared.bin", std::string(3 * kBlock, '.'));
  auto cache = std::make_unique<ContentCache>();
  ContentCache* const cacheView = cache.get();
  auto queue = std::make_shared<BackendExecutor>([cacheView] { cacheView->emptyRecycleBin(); }, 0.0);
  std::atomic<bool> armed{false};
  auto& attributesGate = store->gate(Operation::GetExtendedAttributes);
  cache->setBeforeStalenessCheck([&](StorageIRI const&) {
    if (!armed.exchange(false)) return;
    attributesGate.open();
    queue->waitForPendingToFinish();  // the close transaction has refreshed the record
  });
  provider = std::make_unique<OverlayProvider>(StorageItem(store, store->root()), std::move(cache), nullptr, queue);
  holdEvents(*provider);

  fsp::ByteStreamOpenOptions options;
  options.openMode = fsp::ByteStreamOpenOptions::OpenExisting;
  auto first = provider->doOpenStream(at(u"/shared.bin"), options);
  first->write(std::string(kBlock, 'A').data(), kBlock);
  // The last stream's close queues the transaction that refreshes the record; it is held
  // before it reads the store's attributes.
  attributesGate.close();
  first->close();
  attributesGate.waitForWaiters(1);
  auto open = provider->doOpenStream(at(u"/shared.bin"), options);
  open->seek(kBlock, std::ios_base::beg);
  open->write(std::string(kBlock, 'B').data(), kBlock);

  // One letter per block: the block's byte, or '?' for a block of mixed bytes.
  auto blocks = [&](std::string const& content) {
    std::string letters;
    for (std::size_t at = 0; at < content.size(); at += kBlock) {
      auto const block = content.substr(at, kBlock);
      letters += block.find_first_not_of(block[0]) == std::string::npos ? block[0] : '?';
    }
    return letters;
  };
  armed = true;
  EXPECT_EQ(blocks(read(u"/shared.bin")), "AB.") << "a reader after the refresh";
  open->close();
  EXPECT_EQ(blocks(read(u"/shared.bin")), "AB.") << "a reader after the close";
  provider->doFlushFilesystem();
  EXPECT_EQ(blocks(store->elsewhere().contentOf(u"/shared.bin").value_or("")), "AB.") << "the store after the flush";
}

// A deterministic run of changes made elsewhere in /ext, applied to `model` as well.
void changeElsewhere(MemoryProvider& store, Files& model, unsigned seed, int steps) {
  std::mt19937 random(seed);
  for (int step = 0; step < steps; ++step) {
    auto const path = u"/ext/e" + u16(std::to_string(random() % 8));
    auto const other = u"/ext/e" + u16(std::to_string(random() % 8));
    switch (random() % 3) {
      case 0: {
        std::string const content(random() % 200, static_cast<char>('a' + step % 26));
        store.elsewhere().writeFile(path, content);
        model[path] = content;
        break;
      }
      case 1:
        if (model.count(path)) {
          store.elsewhere().remove(path);
          model.erase(path);
        }
        break;
      case 2:
        if (model.count(path) && path != other) {
          store.elsewhere().rename(path, other);
          model[other] = model[path];
          model.erase(path);
        }
        break;
    }
  }
}

TEST_F(OverlayConcurrencyTest, ReadersAndListersSurviveChangesMadeElsewhereAndEndWithTheStoresView) {
  store->elsewhere().createFolder(u"/ext");
  Files model;
  for (int i = 0; i < 4; ++i) {
    auto const path = u"/ext/e" + u16(std::to_string(i));
    store->elsewhere().writeFile(path, "initial " + std::to_string(i));
    model[path] = "initial " + std::to_string(i);
  }
  Problems problems;
  std::atomic<bool> changing{true};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&, r] {
      std::mt19937 random(static_cast<unsigned>(r));
      int rounds = 0;
      while (changing.load() || rounds < 5) {
        ++rounds;
        auto const path = u"/ext/e" + u16(std::to_string(random() % 8));
        try {
          switch (random() % 4) {
            case 0:
              (void)names(u"/ext");
              break;
            case 1:
              (void)read(path);
              break;
            case 2:
              (void)provider->doGetFileAttributes(at(path));
              break;
            case 3:
              (void)provider->doFileExists(at(path));
              break;
          }
        } catch (fsp::Exception const& e) {
          // A file that went away elsewhere is a fair answer; nothing else is.
          if (e.getErrorCode() != ErrorCode::DoesNotExist) problems.add(std::string("reader: ") + e.what());
        } catch (fsp::ByteStreamFailure const&) {
          // A read that met the file's removal elsewhere.
        } catch (std::exception const& e) {
          problems.add(std::string("reader: ") + e.what());
        }
      }
    });
  }
  changeElsewhere(*store, model, 5, 150);
  changing.store(false);
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(problems.texts(), std::vector<std::string>());

  store->waitForEventsDelivered();
  provider->executor()->waitForPendingToFinish();
  provider->doFlushFilesystem();
  EXPECT_EQ(storedFiles(u"/ext/"), model);
  std::set<std::u16string> expectedNames;
  for (auto const& [path, content] : model) expectedNames.insert(path.substr(5));
  EXPECT_EQ(names(u"/ext"), expectedNames);
  for (auto const& [path, content] : model) EXPECT_EQ(read(path), content) << std::string(path.begin(), path.end());
}

TEST_F(OverlayConcurrencyTest, QueriesFollowChangesMadeElsewhereWithoutAFlush) {
  // Only queries here: they do not pause event handling, so every change made elsewhere
  // reaches the caches once its event is delivered and the queue has run.
  store->elsewhere().createFolder(u"/ext");
  Files model;
  for (int i = 0; i < 4; ++i) {
    auto const path = u"/ext/e" + u16(std::to_string(i));
    store->elsewhere().writeFile(path, std::string(static_cast<std::size_t>(i + 1), 'i'));
    model[path] = std::string(static_cast<std::size_t>(i + 1), 'i');
  }
  Problems problems;
  std::atomic<bool> changing{true};
  std::vector<std::thread> askers;
  for (int r = 0; r < 3; ++r) {
    askers.emplace_back([&, r] {
      std::mt19937 random(static_cast<unsigned>(r + 10));
      int rounds = 0;
      while (changing.load() || rounds < 5) {
        ++rounds;
        auto const path = u"/ext/e" + u16(std::to_string(random() % 8));
        try {
          if (random() % 2) {
            (void)provider->doGetFileAttributes(at(path));
          } else {
            (void)provider->doFileExists(at(path));
            (void)provider->doFolderExists(at(u"/ext"));
          }
        } catch (fsp::Exception const& e) {
          if (e.getErrorCode() != ErrorCode::DoesNotExist) problems.add(std::string("query: ") + e.what());
        } catch (std::exception const& e) {
          problems.add(std::string("query: ") + e.what());
        }
      }
    });
  }
  changeElsewhere(*store, model, 8, 150);
  changing.store(false);
  for (auto& asker : askers) asker.join();
  EXPECT_EQ(problems.texts(), std::vector<std::string>());

  store->waitForEventsDelivered();
  provider->executor()->waitForPendingToFinish();
  ASSERT_EQ(storedFiles(u"/ext/"), model);
  for (int i = 0; i < 8; ++i) {
    auto const path = u"/ext/e" + u16(std::to_string(i));
    auto const stored = model.find(path);
    EXPECT_EQ(provider->doFileExists(at(path)), stored != model.end()) << std::string(path.begin(), path.end());
    if (stored != model.end()) {
      EXPECT_EQ(provider->doGetFileAttributes(at(path)).getSize(), stored->second.size())
          << std::string(path.begin(), path.end());
    }
  }
}

// With several transfers, reads do not wait behind unrelated writes: the first read of a
// file the overlay has not fetched yet returns while the store holds another file's
// payload, and the written file reads back from the cache.
TEST_F(OverlayConcurrencyTest, AFirstReadReturnsWhileTheStoreHoldsAnUnrelatedPayload) {
  boost::property_tree::ptree config;
  config.put("overlay.transfers", 8);
  provider->doConfigure(config);
  std::string const stored(100000, 's');
  store->elsewhere().createFolder(u"/in");
  store->elsewhere().writeFile(u"/in/stored", stored);
  auto& gate = store->gate(Operation::Write);
  gate.close();
  write(u"/written", "new bytes");
  gate.waitForWaiters(1);  // its payload is held in the store

  EXPECT_EQ(read(u"/in/stored"), stored);
  EXPECT_EQ(read(u"/written"), "new bytes");
  EXPECT_EQ(gate.waiting(), 1u);

  gate.open();
  provider->doFlushFilesystem();
  EXPECT_EQ(store->contentOf(u"/written"), "new bytes");
}

TEST_F(OverlayConcurrencyTest, ShutdownAmidRunningOperationsNeitherCrashesNorHangs) {
  constexpr int kWorkers = 3;
  constexpr int kStepsBefore = 15;
  constexpr int kStepsAfter = 15;
  for (int w = 0; w < kWorkers; ++w) provider->doCreateFolder(at(u"/s" + u16(std::to_string(w))));
  provider->doFlushFilesystem();
  Problems problems;
  support::Counter started;
  std::atomic<bool> shutDown{false};
  // Per worker: the file names of its folder after each of its steps.
  std::vector<std::vector<std::set<std::u16string>>> history(kWorkers);
  std::vector<std::vector<std::string>> steps(kWorkers);  // what each step did

  std::vector<std::thread> workers;
  for (int w = 0; w < kWorkers; ++w) {
    workers.emplace_back([&, w] {
      auto const folder = u"/s" + u16(std::to_string(w));
      std::mt19937 random(static_cast<unsigned>(w + 20));
      std::set<std::u16string> files;
      history[w].push_back(files);
      int after = 0;
      for (int step = 0; after < kStepsAfter; ++step) {
        if (step == kStepsBefore) started.add();
        if (shutDown.load()) ++after;
        auto const name = u"f" + u16(std::to_string(random() % 5));
        auto const other = u"f" + u16(std::to_string(random() % 5));
        try {
          switch (random() % 5) {
            case 0:
              write(folder + u"/" + name, std::string(1 + random() % 2000, 'x'));
              files.insert(name);
              steps[w].push_back("write " + describe({name}));
              break;
            case 1:
              if (!files.count(name)) {
                provider->doCreateFile(at(folder + u"/" + name));
                files.insert(name);
                steps[w].push_back("create " + describe({name}));
              }
              break;
            case 2:
              if (files.count(name)) {
                provider->doRemoveFile(at(folder + u"/" + name));
                files.erase(name);
                steps[w].push_back("remove " + describe({name}));
              }
              break;
            case 3:
              if (files.count(name) && name != other) {
                provider->doMoveFile(at(folder + u"/" + name), at(folder + u"/" + other), fsp::ReplacementPolicy::Always);
                files.erase(name);
                files.insert(other);
                steps[w].push_back("move " + describe({name}) + " to " + describe({other}));
              }
              break;
            case 4:
              (void)names(folder);
              if (files.count(name)) (void)read(folder + u"/" + name);
              break;
          }
        } catch (fsp::Exception const& e) {
          // The host's Exception is a fair answer once the overlay is shut down.
          if (!shutDown.load()) problems.add(std::string("before shutdown: ") + e.what());
        } catch (fsp::ByteStreamFailure const& e) {
          if (!shutDown.load()) problems.add(std::string("stream before shutdown: ") + e.what());
        } catch (std::exception const& e) {
          problems.add(std::string("not the host's Exception: ") + e.what());
        }
        if (shutDown.load()) steps[w].push_back("(shut down)");
        history[w].push_back(files);
      }
    });
  }
  started.waitFor(kWorkers);
  provider->doShutdown();
  shutDown.store(true);
  for (auto& worker : workers) worker.join();
  EXPECT_TRUE(provider->isShutDown());
  provider->doShutdown();  // harmless to repeat
  EXPECT_EQ(problems.texts(), std::vector<std::string>());

  // Changes reach the store in each worker's order, and the queue's tail may be dropped:
  // every folder in the store shows one of its worker's states.
  for (int w = 0; w < kWorkers; ++w) {
    auto const folder = u"/s" + u16(std::to_string(w)) + u"/";
    std::set<std::u16string> stored;
    for (auto const& [path, content] : storedFiles(folder)) stored.insert(path.substr(folder.size()));
    if (std::find(history[w].begin(), history[w].end(), stored) == history[w].end()) {
      std::string states;
      for (auto const& state : history[w]) states += "\n  " + describe(state);
      for (auto const& step : steps[w]) states += "\n  " + step;
      ADD_FAILURE() << "folder " << w << " holds " << describe(stored) << ", a state its worker never had:" << states;
    }
  }
  // The caches keep answering after the shutdown.
  provider->doCreateFile(at(u"/s0/after.txt"));
  EXPECT_TRUE(provider->doFileExists(at(u"/s0/after.txt")));
  EXPECT_FALSE(store->elsewhere().hasFileAt(u"/s0/after.txt"));
}

}  // namespace
