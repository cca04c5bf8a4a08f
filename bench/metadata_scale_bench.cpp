// The metadata cache over a big tree: memory per cached entry, population rate, and how
// long the first answer about one folder waits.
//
// - BM_BytesPerEntry: a `mem` store of 1,000 folders of 1,000 empty files (1,000,000
//   entries) is built first; the figure is the growth of resident memory while a
//   MetadataCache populates the whole tree, divided by the entries cached.
// - BM_PopulateFromFileStore: the same tree as empty files in a temporary folder of the
//   local disk (made before and removed after the timing), populated through the `file`
//   store; entries per second.
// - BM_FirstAnswer: a fresh overlay over that folder asked for one folder's listing: the
//   time until the answer (today it waits for the whole tree's population).
// The tree's size: OVL_SCALE_FOLDERS x OVL_SCALE_FILES (default 1000 x 1000).
#include <core/metadata/MetadataCache.hpp>
#include <core/provider/OverlayProvider.hpp>

#include <providers/file/FileProvider.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <foundation/storage/provider/StorageItem.hpp>

#include <fl/filesystem.hpp>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using storage::overlayprovider::MetadataCache;

int setting(char const* name, int fallback) {
  char const* text = std::getenv(name);
  return text != nullptr && std::atoi(text) > 0 ? std::atoi(text) : fallback;
}
int const kFolders = setting("OVL_SCALE_FOLDERS", 1000);
int const kFiles = setting("OVL_SCALE_FILES", 1000);

std::string name(char const* stem, int number) {
  char text[32];
  std::snprintf(text, sizeof text, "%s%04d", stem, number);
  return text;
}

std::u16string wide(std::string const& text) { return std::u16string(text.begin(), text.end()); }

// Resident memory of this process in bytes.
double residentBytes() {
  std::ifstream statm("/proc/self/statm");
  long pages = 0, resident = 0;
  statm >> pages >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

void BM_BytesPerEntry(benchmark::State& state) {
  auto store = std::make_shared<providers::mem::MemoryProvider>();
  for (int folder = 0; folder < kFolders; ++folder) {
    auto const path = u"/" + wide(name("folder", folder));
    store->elsewhere().createFolder(path);
    for (int file = 0; file < kFiles; ++file) store->elsewhere().writeFile(path + u"/" + wide(name("file", file)), "");
  }
  auto inner = std::make_shared<StorageItem>(store, store->root());
  double perEntry = 0;
  for (auto _ : state) {
    double const before = residentBytes();
    auto cache = std::make_unique<MetadataCache>(inner, true);
    cache->populateWholeFolderTreeWhenPossible(true);
    perEntry = (residentBytes() - before) / (static_cast<double>(kFolders) * (kFiles + 1));
    state.PauseTiming();
    cache.reset();
    state.ResumeTiming();
  }
  state.counters["bytes_per_entry"] = perEntry;
  state.counters["entries"] = static_cast<double>(kFolders) * (kFiles + 1);
}
BENCHMARK(BM_BytesPerEntry)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

// The tree as empty files on the local disk, removed at the end of the run.
struct DiskTree {
  std::filesystem::path root;
  DiskTree() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ovl-scale.XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make " + pattern);
    root = pattern;
    for (int folder = 0; folder < kFolders; ++folder) {
      auto const dir = root / name("folder", folder);
      std::filesystem::create_directory(dir);
      for (int file = 0; file < kFiles; ++file) {
        int const fd = ::open((dir / name("file", file)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        if (fd >= 0) ::close(fd);
      }
    }
  }
  ~DiskTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }
  std::shared_ptr<StorageItem> item() const {
    auto store = std::make_shared<providers::file::FileProvider>();
    return std::make_shared<StorageItem>(store, StorageIRI(u"file://" + fl::filesystem::to_ustring(root)));
  }
};

DiskTree& diskTree() {
  static DiskTree tree;
  return tree;
}

void BM_PopulateFromFileStore(benchmark::State& state) {
  auto inner = diskTree().item();
  for (auto _ : state) {
    auto cache = std::make_unique<MetadataCache>(inner, true);
    cache->populateWholeFolderTreeWhenPossible(true);
    state.PauseTiming();
    cache.reset();
    state.ResumeTiming();
  }
  state.counters["entries_per_second"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * kFolders * (kFiles + 1), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PopulateFromFileStore)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_FirstAnswer(benchmark::State& state) {
  auto inner = diskTree().item();
  std::size_t children = 0;
  for (auto _ : state) {
    auto overlay = std::make_shared<storage::overlayprovider::OverlayProvider>(*inner);
    StorageIRI const folder(u"overlay", inner->getLocation(), u"/" + wide(name("folder", kFolders / 2)));
    children = fsp::collect(*overlay->doListAll(folder)).size();
    state.PauseTiming();
    overlay->doShutdown();
    overlay.reset();
    state.ResumeTiming();
  }
  if (children != static_cast<std::size_t>(kFiles)) state.SkipWithError("the folder's answer is incomplete");
}
BENCHMARK(BM_FirstAnswer)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
