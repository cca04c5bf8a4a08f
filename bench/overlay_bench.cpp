// The overlay against the same slow store used directly, in one run. The store is `mem`
// behind a `throttle` of 20 ms per call and 50 MB/s, as a remote store would be.
//
//   BM_CreateSmallFiles/direct|overlay   create and write N files of 4 KiB, closing each
//                                        (N = 1000, or OVL_BENCH_FILES); for the overlay
//                                        the caller's time and, separately, the time of
//                                        doFlushFilesystem afterwards (counter flush_s)
//   BM_CachedQueries                     doFileExists and doGetFileAttributes on 10,000
//                                        cached files (per call)
//   BM_CachedListing                     listing a cached folder of 10,000 entries
//   BM_FirstReadLargeFile/direct|overlay the first read of an uncached 64 MiB file, in
//                                        reads of 1 MiB, open to close
#include <core/provider/OverlayProvider.hpp>

#include <foundation/storage/provider/StorageItem.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/Operation.hpp>
#include <providers/mem/SideDoor.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using providers::mem::MemoryProvider;
using providers::throttle::ThrottleProvider;
using storage::overlayprovider::OverlayProvider;
using Clock = std::chrono::steady_clock;

long fileCount() {
  char const* text = std::getenv("OVL_BENCH_FILES");
  long const count = text ? std::atol(text) : 0;
  return count > 0 ? count : 1000;
}

// A `mem` store behind a throttle; `root` is the throttle's root item.
struct SlowStore {
  SlowStore() {
    providers::throttle::Options options;
    options.latency = std::chrono::milliseconds(20);
    options.bytesPerSecond = 50e6;
    throttle = std::make_shared<ThrottleProvider>(StorageItem(mem, mem->root()), options);
    root = StorageItem(throttle, StorageIRI(u"throttle", mem->root(), u"/"));
  }
  StorageIRI at(std::u16string const& path) const { return root.getLocation().withPath(path); }
  StorageIRI overlayAt(std::u16string const& path) const { return StorageIRI(u"overlay", root.getLocation(), path); }

  std::shared_ptr<MemoryProvider> mem = std::make_shared<MemoryProvider>();
  std::shared_ptr<ThrottleProvider> throttle;
  StorageItem root;
};

std::u16string fileName(long i) {
  std::string const name = "/f" + std::to_string(i);
  return std::u16string(name.begin(), name.end());
}

void writeFile(fsp::ByteStream& stream, std::string const& content) {
  stream.write(content.data(), static_cast<long>(content.size()));
  stream.close();
}

void BM_CreateSmallFilesDirect(benchmark::State& state) {
  std::string const content(4096, 'x');
  long const files = fileCount();
  for (auto _ : state) {
    state.PauseTiming();
    auto store = std::make_unique<SlowStore>();
    state.ResumeTiming();
    for (long i = 0; i < files; ++i) {
      auto stream = StorageItem(store->throttle, store->at(fileName(i))).openStream(fsp::ByteStreamOpenOptions{});
      writeFile(*stream, content);
    }
    state.PauseTiming();
    store.reset();
    state.ResumeTiming();
  }
  state.counters["files"] = static_cast<double>(files);
}
BENCHMARK(BM_CreateSmallFilesDirect)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

void BM_CreateSmallFilesOverlay(benchmark::State& state) {
  std::string const content(4096, 'x');
  long const files = fileCount();
  double flushSeconds = 0;
  for (auto _ : state) {
    // Only the caller's loop is timed (its first open pays the overlay's start-up), not
    // the making and removing of the store, the provider and the cache files.
    state.PauseTiming();
    auto store = std::make_unique<SlowStore>();
    auto overlay = std::make_unique<OverlayProvider>(store->root);
    state.ResumeTiming();
    for (long i = 0; i < files; ++i) {
      auto stream = overlay->doOpenStream(store->overlayAt(fileName(i)), fsp::ByteStreamOpenOptions{});
      writeFile(*stream, content);
    }
    state.PauseTiming();
    auto const start = Clock::now();
    overlay->doFlushFilesystem();
    flushSeconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (store->mem->elsewhere().contentOf(fileName(files - 1)) != content) state.SkipWithError("content lost");
    // What the store was asked, per file created (stream reads, writes, seeks and closes
    // cost no latency; every other call costs the throttle's 20 ms).
    for (std::size_t op = 0; op < providers::mem::kOperationCount; ++op) {
      auto const operation = static_cast<providers::mem::Operation>(op);
      if (auto const calls = store->mem->calls(operation); calls > 0) {
        state.counters[std::string("calls_") + providers::mem::toString(operation)] =
            static_cast<double>(calls) / static_cast<double>(files);
      }
    }
    overlay.reset();
    store.reset();
    state.ResumeTiming();
  }
  state.counters["files"] = static_cast<double>(files);
  state.counters["flush_s"] = flushSeconds;
}
BENCHMARK(BM_CreateSmallFilesOverlay)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// An overlay over a slow store holding 10,000 files in one folder, all of them cached.
struct CachedTree {
  CachedTree() {
    store.mem->elsewhere().createFolder(u"/big");
    for (long i = 0; i < kFiles; ++i) store.mem->elsewhere().writeFile(u"/big" + fileName(i), "c");
    fsp::collect(*overlay.doListAll(store.overlayAt(u"/big")));
  }
  static constexpr long kFiles = 10000;
  SlowStore store;
  OverlayProvider overlay{store.root};
};

void BM_CachedQueries(benchmark::State& state) {
  CachedTree tree;
  long i = 0;
  for (auto _ : state) {
    auto const iri = tree.store.overlayAt(u"/big" + fileName(i++ % CachedTree::kFiles));
    benchmark::DoNotOptimize(tree.overlay.doFileExists(iri));
    benchmark::DoNotOptimize(tree.overlay.doGetFileAttributes(iri));
  }
  state.counters["calls_per_iteration"] = 2;
}
BENCHMARK(BM_CachedQueries)->Unit(benchmark::kMicrosecond);

void BM_CachedListing(benchmark::State& state) {
  CachedTree tree;
  for (auto _ : state) {
    auto entries = fsp::collect(*tree.overlay.doListAll(tree.store.overlayAt(u"/big")));
    if (entries.size() != CachedTree::kFiles) {
      state.SkipWithError(("listing incomplete: " + std::to_string(entries.size())).c_str());
      break;
    }
  }
}
BENCHMARK(BM_CachedListing)->Unit(benchmark::kMillisecond);

// The first read of a 64 MiB file that nothing has cached yet, in reads of 1 MiB from
// open to close: the slow store's own stream, and the overlay's (whose metadata knows the
// file already; its content cache is empty). The same store content every iteration;
// the overlay is made afresh, untimed.
constexpr long kLargeFile = 64l << 20;

long readToEnd(fsp::ByteStream& stream) {
  std::vector<char> buffer(1 << 20);
  long total = 0;
  for (;;) {
    long const n = stream.read(buffer.data(), static_cast<long>(buffer.size()));
    if (n <= 0) break;
    total += n;
  }
  stream.close();
  return total;
}

void BM_FirstReadLargeFileDirect(benchmark::State& state) {
  SlowStore store;
  store.mem->elsewhere().writeFile(u"/large.bin", std::string(static_cast<std::size_t>(kLargeFile), 'L'));
  for (auto _ : state) {
    auto stream = StorageItem(store.throttle, store.at(u"/large.bin")).openReadOnlyStream();
    if (readToEnd(*stream) != kLargeFile) state.SkipWithError("read came short");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kLargeFile);
}
BENCHMARK(BM_FirstReadLargeFileDirect)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_FirstReadLargeFileOverlay(benchmark::State& state) {
  SlowStore store;
  store.mem->elsewhere().writeFile(u"/large.bin", std::string(static_cast<std::size_t>(kLargeFile), 'L'));
  for (auto _ : state) {
    state.PauseTiming();
    auto overlay = std::make_unique<OverlayProvider>(store.root);
    if (!overlay->doFileExists(store.overlayAt(u"/large.bin"))) state.SkipWithError("file not known");
    state.ResumeTiming();
    auto stream = overlay->doOpenReadOnlyStream(store.overlayAt(u"/large.bin"));
    if (readToEnd(*stream) != kLargeFile) state.SkipWithError("read came short");
    state.PauseTiming();
    stream.reset();
    overlay.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kLargeFile);
}
BENCHMARK(BM_FirstReadLargeFileOverlay)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
