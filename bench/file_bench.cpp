// The file store's costs on the local disk: listing a folder of 10,000 files, and the
// attributes of one file.
#include <providers/file/FileProvider.hpp>

#include <fl/i18n.hpp>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

using foundation::storage::provider::collect;
using foundation::storage::provider::StorageIRI;

// A folder of `count` small files under the temporary directory, removed at exit.
class Fixture {
 public:
  explicit Fixture(int count) {
    std::string pattern = (std::filesystem::temp_directory_path() / "filebench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    for (int i = 0; i < count; ++i) {
      auto name = path_ + "/file-" + std::to_string(i) + ".txt";
      int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      if (fd < 0) throw std::runtime_error("cannot create " + name);
      (void)!::write(fd, "content", 7);
      ::close(fd);
    }
  }
  ~Fixture() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  StorageIRI iri(std::string const& relative = {}) const {
    return StorageIRI(u"file://" + fl::i18n::to_ustring(relative.empty() ? path_ : path_ + "/" + relative));
  }

 private:
  std::string path_;
};

Fixture& tenThousand() {
  static Fixture fixture(10000);
  return fixture;
}

void BM_ListAll10000Files(benchmark::State& state) {
  providers::file::FileProvider provider;
  auto const folder = tenThousand().iri();
  for (auto _ : state) {
    auto entries = collect(*provider.doListAll(folder));
    benchmark::DoNotOptimize(entries.data());
    if (entries.size() != 10000) state.SkipWithError("wrong entry count");
  }
  state.SetItemsProcessed(state.iterations() * 10000);
}
BENCHMARK(BM_ListAll10000Files)->Unit(benchmark::kMillisecond);

void BM_FileAttributesOfOneFile(benchmark::State& state) {
  providers::file::FileProvider provider;
  auto const file = tenThousand().iri("file-42.txt");
  for (auto _ : state) {
    auto attributes = provider.doGetFileAttributes(file);
    benchmark::DoNotOptimize(attributes);
  }
}
BENCHMARK(BM_FileAttributesOfOneFile);

void BM_ExtendedAttributesOfOneFile(benchmark::State& state) {
  providers::file::FileProvider provider;
  auto const file = tenThousand().iri("file-42.txt");
  for (auto _ : state) {
    auto attributes = provider.doGetExtendedAttributes(file);
    benchmark::DoNotOptimize(attributes);
  }
}
BENCHMARK(BM_ExtendedAttributesOfOneFile);

}  // namespace

BENCHMARK_MAIN();
