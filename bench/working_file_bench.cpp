// The working file entry's read and write paths.
//
// - CachedReread: re-reading a 256 MiB file whose content is cached, through a
//   WorkingFileByteStream in 1 MiB reads; beside it, CacheFileDirect reads the same cache
//   file with pread in 1 MiB reads (what the local disk gives without the entry).
// - WriteBehindOverThrottle: 256 MiB of 1 MiB writes through a stream over a throttle
//   store limited to 50 MB/s; counters caller_MBps (write + close on the caller's
//   thread) and drain_s (waitForPendingToFinish afterwards).
// - FirstReadUncached: the first read of a 64 MiB file (fresh cache directory each
//   iteration), read through from the mem store and stored in the cache.
// Payload sizes are the configuration defaults (4 MiB).
#include <core/exec/BackendExecutor.hpp>
#include <core/metadata/FileMetadata.hpp>
#include <core/content/WorkingFileByteStream.hpp>
#include <core/content/WorkingFileEntry.hpp>

#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace ovl = storage::overlayprovider;
namespace fsp = foundation::storage::provider;
using Clock = std::chrono::steady_clock;

constexpr long kMiB = 1l << 20;
constexpr unsigned long long kPayload = 4ull << 20;

class ScratchDir {
 public:
  explicit ScratchDir(std::string const& name)
      : path_(std::filesystem::temp_directory_path() / ("overlay-bench-" + name + "-" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::filesystem::path const& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

std::shared_ptr<providers::mem::MemoryProvider> storeWith(std::u16string const& path, long size) {
  auto store = std::make_shared<providers::mem::MemoryProvider>();
  store->elsewhere().writeFile(path, std::string(static_cast<std::size_t>(size), 'x'));
  return store;
}

struct Setup {
  std::atomic<bool> shutdown{false};
  std::shared_ptr<ovl::BackendExecutor> executor = std::make_shared<ovl::BackendExecutor>([] {}, 0.0);
  ~Setup() {
    executor->shutdown(false);
    executor->join();
  }
  std::shared_ptr<ovl::WorkingFileEntry> entry(std::filesystem::path const& cache, std::shared_ptr<fsp::IProvider> provider,
                                               fsp::StorageIRI const& iri, unsigned long size) {
    auto metadata = std::make_shared<ovl::FileMetadata>(iri, false);
    metadata->withSize(size).withWritable(true);
    return std::make_shared<ovl::WorkingFileEntry>(cache, metadata, std::make_shared<fsp::StorageItem>(provider, iri),
                                                   executor, nullptr, nullptr,
                                                   ovl::WorkingFileEntryParams(kPayload, kPayload), shutdown);
  }
};

long readAll(fsp::ByteStream& stream, std::vector<char>& buffer) {
  long total = 0;
  for (;;) {
    long const n = stream.read(buffer.data(), static_cast<long>(buffer.size()));
    if (n <= 0) break;
    total += n;
  }
  return total;
}

void BM_CachedReread(benchmark::State& state) {
  constexpr long kSize = 256 * kMiB;
  ScratchDir cache("reread");
  auto store = storeWith(u"/big", kSize);
  Setup setup;
  auto entry = setup.entry(cache.path(), store, fsp::StorageIRI(store->root(), u"big"), kSize);
  auto stream = ovl::WorkingFileByteStream::openReadOnly(entry);
  std::vector<char> buffer(kMiB);
  if (readAll(*stream, buffer) != kSize) state.SkipWithError("first read came short");
  auto const innerReads = store->calls(providers::mem::Operation::Read);
  for (auto _ : state) {
    stream->seek(0, std::ios_base::beg);
    benchmark::DoNotOptimize(readAll(*stream, buffer));
  }
  if (store->calls(providers::mem::Operation::Read) != innerReads) state.SkipWithError("re-read reached the store");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kSize);
  stream->close();
}
BENCHMARK(BM_CachedReread)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CacheFileDirect(benchmark::State& state) {
  constexpr long kSize = 256 * kMiB;
  ScratchDir cache("direct");
  auto store = storeWith(u"/big", kSize);
  Setup setup;
  auto entry = setup.entry(cache.path(), store, fsp::StorageIRI(store->root(), u"big"), kSize);
  auto stream = ovl::WorkingFileByteStream::openReadOnly(entry);
  std::vector<char> buffer(kMiB);
  readAll(*stream, buffer);
  int const fd = ::open(entry->getCheckoutPath().c_str(), O_RDONLY);
  if (fd < 0) state.SkipWithError("cannot open the cache file");
  for (auto _ : state) {
    long total = 0;
    for (long offset = 0; offset < kSize; offset += kMiB) total += ::pread(fd, buffer.data(), kMiB, offset);
    benchmark::DoNotOptimize(total);
  }
  if (fd >= 0) ::close(fd);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kSize);
  stream->close();
}
BENCHMARK(BM_CacheFileDirect)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WriteBehindOverThrottle(benchmark::State& state) {
  constexpr long kSize = 256 * kMiB;
  ScratchDir cache("write");
  auto store = std::make_shared<providers::mem::MemoryProvider>();
  providers::throttle::Options options;
  options.latency = std::chrono::microseconds(0);
  options.bytesPerSecond = 50e6;
  auto throttle = std::make_shared<providers::throttle::ThrottleProvider>(fsp::StorageItem(store, store->root()), options);
  fsp::StorageIRI const iri(u"throttle", store->root(), u"/out");
  std::vector<char> chunk(kMiB, 'y');
  double callerSeconds = 0;
  double drainSeconds = 0;
  for (auto _ : state) {
    Setup setup;
    auto entry = setup.entry(cache.path(), throttle, iri, 0);
    auto const start = Clock::now();
    {
      ovl::WorkingFileByteStream stream(entry, fsp::ByteStreamOpenOptions{});
      for (long done = 0; done < kSize; done += kMiB) stream.write(chunk.data(), kMiB);
      stream.close();
    }
    auto const written = Clock::now();
    setup.executor->waitForPendingToFinish();
    auto const drained = Clock::now();
    callerSeconds += std::chrono::duration<double>(written - start).count();
    drainSeconds += std::chrono::duration<double>(drained - written).count();
    if (store->contentOf(u"/out").value_or("").size() != static_cast<std::size_t>(kSize))
      state.SkipWithError("the store did not receive every byte");
    entry->removeCachedEntry();
  }
  auto const n = static_cast<double>(state.iterations());
  state.counters["caller_MBps"] = kSize / 1e6 / (callerSeconds / n);
  state.counters["drain_s"] = drainSeconds / n;
  state.counters["end_to_end_MBps"] = kSize / 1e6 / ((callerSeconds + drainSeconds) / n);
}
BENCHMARK(BM_WriteBehindOverThrottle)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

void BM_FirstReadUncached(benchmark::State& state) {
  constexpr long kSize = 64 * kMiB;
  auto store = storeWith(u"/mid", kSize);
  std::vector<char> buffer(kMiB);
  for (auto _ : state) {
    state.PauseTiming();
    auto cache = std::make_unique<ScratchDir>("first");
    auto setup = std::make_unique<Setup>();
    auto entry = setup->entry(cache->path(), store, fsp::StorageIRI(store->root(), u"mid"), kSize);
    state.ResumeTiming();
    auto stream = ovl::WorkingFileByteStream::openReadOnly(entry);
    if (readAll(*stream, buffer) != kSize) state.SkipWithError("read came short");
    stream->close();
    state.PauseTiming();
    stream.reset();
    entry.reset();
    setup.reset();
    cache.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * kSize);
}
BENCHMARK(BM_FirstReadUncached)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
