// Speed of the metadata cache on a large tree.
//
// The tree: 100,000 files in 1,000 folders (/folder0000/file000.txt ...) in a `mem`
// store, filled into a MetadataCache once by whole-tree population and then shared by
// the lookup benchmarks. Each lookup iteration asks for one item, cycling through the
// tree with a stride so that consecutive lookups hit different folders.
//
// - Lookups on cached items (hasFile, getFileMetadata, getFolderContainer), with
//   case-sensitive matching (the IRI as stored) and case-insensitive matching (the path
//   written in upper case, so that every lookup goes through the lower-case rule). The
//   IRIs are in the inner-most form ("mem:///folder0000/file000.txt"), as the provider
//   hands them to the cache.
// - Whole-tree population of the same tree from `mem` (wall time; it runs on a thread
//   of the cache).
// - Loading a folder of 10,000 files through loadAndGetFolderContainer from a throttled
//   store (20 ms per call). Counters: the inner calls one load makes; a load that asks
//   the store once per entry instead of listing the folder once is reported as an error.
#include <core/metadata/MetadataCache.hpp>

#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <foundation/storage/provider/StorageItem.hpp>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using providers::mem::MemoryProvider;
using providers::mem::Operation;
using storage::overlayprovider::MetadataCache;

constexpr int kFolders = 1000;
constexpr int kFilesPerFolder = 100;
constexpr int kListedFiles = 10000;
// Consecutive lookups step this far through the tree's files (prime to its size).
constexpr std::size_t kStride = 7919;

std::u16string folderName(int folder) {
  char text[16];
  std::snprintf(text, sizeof text, "folder%04d", folder);
  return std::u16string(text, text + std::char_traits<char>::length(text));
}

std::u16string fileName(int file) {
  char text[16];
  std::snprintf(text, sizeof text, "file%03d.txt", file);
  return std::u16string(text, text + std::char_traits<char>::length(text));
}

std::u16string upper(std::u16string text) {
  for (auto& c : text) {
    if (c >= u'a' && c <= u'z') c = static_cast<char16_t>(c - u'a' + u'A');
  }
  return text;
}

std::shared_ptr<MemoryProvider> makeTreeStore(bool caseSensitive) {
  MemoryProvider::Options options;
  options.sensitivity =
      caseSensitive ? fsp::FilenameSensitivity::CaseSensitive : fsp::FilenameSensitivity::CaseInsensitive;
  auto store = std::make_shared<MemoryProvider>(options);
  for (int folder = 0; folder < kFolders; ++folder) {
    std::u16string const path = u"/" + folderName(folder);
    store->elsewhere().createFolder(path);
    for (int file = 0; file < kFilesPerFolder; ++file) store->elsewhere().writeFile(path + u"/" + fileName(file), "x");
  }
  return store;
}

// One populated cache per matching mode, built at first use and kept for the run.
struct Tree {
  std::shared_ptr<MemoryProvider> store;
  std::shared_ptr<StorageItem> inner;
  std::unique_ptr<MetadataCache> cache;
  std::vector<StorageIRI> files;    // spelled for the mode: as stored, or upper case
  std::vector<StorageIRI> folders;  // likewise
};

Tree& tree(bool caseSensitive) {
  static std::map<bool, Tree> trees;
  auto& t = trees[caseSensitive];
  if (t.cache) return t;
  t.store = makeTreeStore(caseSensitive);
  t.inner = std::make_shared<StorageItem>(t.store, t.store->root());
  t.cache = std::make_unique<MetadataCache>(t.inner, caseSensitive);
  t.cache->populateWholeFolderTreeWhenPossible(true);
  // The path is written in upper case; the scheme and store name as usual.
  auto spell = [caseSensitive](std::u16string path) {
    return StorageIRI(u"mem:///" + (caseSensitive ? path : upper(std::move(path))));
  };
  for (int folder = 0; folder < kFolders; ++folder) {
    t.folders.push_back(spell(folderName(folder)));
    for (int file = 0; file < kFilesPerFolder; ++file) t.files.push_back(spell(folderName(folder) + u"/" + fileName(file)));
  }
  return t;
}

// range(1): how many different items the lookups cycle through; 0: the whole tree (the
// memory the lookups touch is mostly not in the processor's caches), 64: a few items
// asked again and again (the cost of the work itself).
template <class Lookup>
void runLookups(benchmark::State& state, std::vector<StorageIRI> const& all, Lookup lookup) {
  std::vector<StorageIRI> few;
  for (std::size_t i = 0; i < static_cast<std::size_t>(state.range(1)); ++i) few.push_back(all[i * kStride % all.size()]);
  auto const& iris = few.empty() ? all : few;
  std::size_t next = 0;
  std::size_t misses = 0;
  for (auto _ : state) {
    if (!lookup(iris[next])) ++misses;
    next = (next + kStride) % iris.size();
  }
  if (misses != 0) state.SkipWithError("a cached item was not found");
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

// range(0): 1 case-sensitive, 0 case-insensitive.
void lookupArgs(benchmark::internal::Benchmark* b) {
  b->ArgNames({"caseSensitive", "distinct"})->Unit(benchmark::kNanosecond);
  for (int distinct : {0, 64}) {
    for (int caseSensitive : {1, 0}) b->Args({caseSensitive, distinct});
  }
}

void BM_HasFile(benchmark::State& state) {
  auto& t = tree(state.range(0) != 0);
  runLookups(state, t.files, [&](StorageIRI const& iri) { return t.cache->hasFile(iri); });
}
BENCHMARK(BM_HasFile)->Apply(lookupArgs);

void BM_GetFileMetadata(benchmark::State& state) {
  auto& t = tree(state.range(0) != 0);
  runLookups(state, t.files, [&](StorageIRI const& iri) { return t.cache->getFileMetadata(iri) != nullptr; });
}
BENCHMARK(BM_GetFileMetadata)->Apply(lookupArgs);

void BM_GetFolderContainer(benchmark::State& state) {
  auto& t = tree(state.range(0) != 0);
  runLookups(state, t.folders, [&](StorageIRI const& iri) { return t.cache->getFolderContainer(iri) != nullptr; });
}
BENCHMARK(BM_GetFolderContainer)->Apply(lookupArgs);

// Whole-tree population of the 100,000-file tree; the cache is destroyed outside the
// timing.
void BM_PopulateWholeTree(benchmark::State& state) {
  bool const caseSensitive = state.range(0) != 0;
  auto store = makeTreeStore(caseSensitive);
  auto inner = std::make_shared<StorageItem>(store, store->root());
  std::size_t folders = 0;
  for (auto _ : state) {
    auto cache = std::make_unique<MetadataCache>(inner, caseSensitive);
    cache->populateWholeFolderTreeWhenPossible(true);
    state.PauseTiming();
    folders = cache->cachedFolders().size();
    if (cache->getFileMetadata(StorageIRI(u"mem://s1/folder0999/file099.txt")) == nullptr) {
      state.SkipWithError("the last file is missing after population");
    }
    cache.reset();
    state.ResumeTiming();
  }
  state.counters["folders"] = static_cast<double>(folders);
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * kFolders * kFilesPerFolder);
}
BENCHMARK(BM_PopulateWholeTree)
    ->Arg(1)
    ->Arg(0)
    ->ArgName("caseSensitive")
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Loads one folder of 10,000 files through a throttle that adds 20 ms to every call,
// into a fresh cache each time, and reads one of its children.
void BM_LoadThrottledFolder(benchmark::State& state) {
  auto store = std::make_shared<MemoryProvider>();
  store->elsewhere().createFolder(u"/big");
  for (int file = 0; file < kListedFiles; ++file) {
    char text[24];
    std::snprintf(text, sizeof text, "/big/file%05d.txt", file);
    store->elsewhere().writeFile(std::u16string(text, text + std::char_traits<char>::length(text)), "x");
  }
  providers::throttle::Options options;
  options.latency = std::chrono::milliseconds(20);
  options.bytesPerSecond = 0;
  auto throttle = std::make_shared<providers::throttle::ThrottleProvider>(StorageItem(store, store->root()), options);
  auto inner = std::make_shared<StorageItem>(throttle, throttle->getRootIRI());
  StorageIRI const folder(u"throttle", store->root(), u"/big");
  StorageIRI const child(u"throttle", store->root(), u"/big/file04242.txt");

  std::size_t calls = 0;
  std::size_t listings = 0;
  std::size_t children = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto cache = std::make_unique<MetadataCache>(inner, true);
    store->resetCounters();
    state.ResumeTiming();
    auto entry = cache->loadAndGetFolderContainer(folder);
    bool const found = cache->getFileMetadata(child) != nullptr;
    state.PauseTiming();
    children = entry->getAllContent().size();
    listings = store->calls(Operation::ListAll);
    calls = 0;
    for (std::size_t op = 0; op < providers::mem::kOperationCount; ++op) {
      calls += store->calls(static_cast<Operation>(op));
    }
    if (!found || children != static_cast<std::size_t>(kListedFiles)) state.SkipWithError("the folder is incomplete");
    if (listings != 1 || calls >= static_cast<std::size_t>(kListedFiles)) {
      state.SkipWithError("the folder was not loaded with one listing");
    }
    entry.reset();
    cache.reset();
    state.ResumeTiming();
  }
  state.counters["inner_calls"] = static_cast<double>(calls);
  state.counters["listings"] = static_cast<double>(listings);
  state.counters["children"] = static_cast<double>(children);
}
BENCHMARK(BM_LoadThrottledFolder)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
