// ovl with the overlay: the file commands through --overlay over a local folder, the
// configuration flags, ovl demo (end to end, a lost file, an interruption) and the figures
// of ovl bench --json. Each run gets a registry of its own, as the program does, so that
// the overlay bundle is loaded and unloaded once per command.
#include <ovl/Demo.hpp>
#include <ovl/Ovl.hpp>
#include <support/FileSizeCap.hpp>

#include <providers/file/FileProviderFactory.hpp>
#include <providers/mem/MemoryProviderFactory.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <boost/property_tree/json_parser.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

namespace {

namespace fs = std::filesystem;
namespace fsp = foundation::storage::provider;
using testing::HasSubstr;
using testing::StartsWith;

struct Result {
  int status;
  std::string out;
  std::string err;
};

std::ostream& operator<<(std::ostream& os, Result const& r) {
  return os << "status " << r.status << "\n--- out:\n" << r.out << "--- err:\n" << r.err;
}

class OvlOverlay : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The overlay lets the store's events through this long after its own last change;
    // the demo waits for one such event.
    ::setenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT", "100", 1);
  }

  OvlOverlay() {
    std::random_device random;
    dir_ = fs::temp_directory_path() / ("ovl_overlay_test_" + std::to_string(random()));
    fs::create_directories(dir_ / "store");
  }
  ~OvlOverlay() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  // One run of the program, with its own registry.
  static Result run(std::vector<std::string> args) {
    std::ostringstream out, err;
    int const status = ovl::runOvl(std::move(args), out, err);
    return {status, out.str(), err.str()};
  }
  // A run through the overlay laid over the test's store folder.
  Result overlay(std::vector<std::string> args) const {
    args.insert(args.begin(), {"--overlay-root", store()});
    return run(std::move(args));
  }
  Result ok(std::vector<std::string> args) const {
    auto result = overlay(std::move(args));
    EXPECT_EQ(result.status, 0) << result;
    EXPECT_EQ(result.err, "") << result;
    return result;
  }
  void failsNaming(std::vector<std::string> args, std::string const& subject, std::string const& cause) const {
    auto const command = args[0];
    auto const result = overlay(std::move(args));
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_THAT(result.err, StartsWith("ovl " + command + ": " + subject + ": " + cause)) << result;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result;
  }

  std::string store() const { return (dir_ / "store").string(); }
  std::string inStore(std::string const& name) const { return (dir_ / "store" / name).string(); }
  static std::string readLocal(fs::path const& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  static void writeLocal(fs::path const& path, std::string const& content) {
    std::ofstream(path, std::ios::binary) << content;
  }

  fs::path dir_;
};

// Each command reaches the store through the overlay, which is flushed before the
// program ends: after every command the local folder shows the change.
TEST_F(OvlOverlay, FileCommandsChangeTheStoreThroughTheOverlay) {
  std::string const content = "through the overlay\n" + std::string(5000, 'z');
  writeLocal(dir_ / "store/source.txt", content);

  ok({"mkdir", "-p", inStore("docs/deep")});
  EXPECT_TRUE(fs::is_directory(dir_ / "store/docs/deep"));

  ok({"cp", inStore("source.txt"), inStore("docs/deep/a.txt")});
  EXPECT_TRUE(readLocal(dir_ / "store/docs/deep/a.txt") == content);

  auto const listing = ok({"ls", "-R", inStore("docs")}).out;
  EXPECT_THAT(listing, HasSubstr("deep/a.txt"));
  auto const attributes = ok({"stat", inStore("docs/deep/a.txt")}).out;
  EXPECT_THAT(attributes, HasSubstr("size:     " + std::to_string(content.size()) + " bytes"));
  // Messages and listings name the store's own IRI, not the overlay's.
  EXPECT_THAT(attributes, HasSubstr("iri:      file://" + inStore("docs/deep/a.txt")));
  EXPECT_TRUE(ok({"cat", inStore("docs/deep/a.txt")}).out == content);

  ok({"mv", inStore("docs"), inStore("moved")});
  EXPECT_FALSE(fs::exists(dir_ / "store/docs"));
  EXPECT_TRUE(readLocal(dir_ / "store/moved/deep/a.txt") == content);

  // Both ends of a command go through the overlay: a file outside its root is refused.
  auto const outside = overlay({"cp", inStore("moved/deep/a.txt"), (dir_ / "copy.txt").string()});
  EXPECT_EQ(outside.status, 1) << outside;
  EXPECT_THAT(outside.err, HasSubstr((dir_ / "copy.txt").string() + ": lies outside the overlay's root " + store()));
  EXPECT_FALSE(fs::exists(dir_ / "copy.txt"));

  ok({"rm", inStore("moved/deep/a.txt")});
  EXPECT_FALSE(fs::exists(dir_ / "store/moved/deep/a.txt"));
  ok({"rm", "-r", inStore("moved")});
  EXPECT_FALSE(fs::exists(dir_ / "store/moved"));

  // The same through a throttle, which then lies between overlay and store.
  auto const throttled = run({"--throttle-ms", "1", "--overlay-root", store(), "cp", inStore("source.txt"),
                              inStore("slow.txt")});
  EXPECT_EQ(throttled.status, 0) << throttled;
  EXPECT_TRUE(readLocal(dir_ / "store/slow.txt") == content);
}

TEST_F(OvlOverlay, FileCommandFailuresThroughTheOverlayAreOneLineNamingTheIRI) {
  fs::create_directories(dir_ / "store/there");
  writeLocal(dir_ / "store/there/f.txt", "x");
  failsNaming({"cat", inStore("nope.txt")}, inStore("nope.txt"), "does not exist");
  failsNaming({"stat", inStore("nope.txt")}, inStore("nope.txt"), "does not exist");
  failsNaming({"ls", inStore("nope")}, inStore("nope"), "does not exist");
  failsNaming({"mkdir", inStore("there")}, inStore("there"), "already exists");
  // The overlay names the missing parent.
  failsNaming({"mkdir", inStore("missing/child")}, "file://" + inStore("missing"), "does not exist");
  failsNaming({"rm", inStore("nope.txt")}, inStore("nope.txt"), "does not exist");
  failsNaming({"rm", inStore("there")}, inStore("there"), "is a folder");
  failsNaming({"mv", inStore("nope.txt"), inStore("b.txt")}, inStore("nope.txt"), "does not exist");
  // Nothing of a failed command reached the store.
  EXPECT_EQ(readLocal(dir_ / "store/there/f.txt"), "x");
  EXPECT_FALSE(fs::exists(dir_ / "store/missing"));
}

TEST_F(OvlOverlay, ConfigurationReachesTheOverlayAndBadConfigurationIsNamed) {
  writeLocal(dir_ / "store/f.txt", "cached content");
  auto const cacheRoot = dir_ / "cache";
  // Nested keys in the file, whole dotted keys from --set: both reach the overlay, which
  // keeps the content it read under the cache root given (and keeps it: persist).
  writeLocal(dir_ / "config.json", R"({"overlay": {"cacheRoot": ")" + cacheRoot.string() + R"("}})");
  auto const result = overlay({"--config", (dir_ / "config.json").string(), "--set", "overlay.persistContentCache=true",
                               "cat", inStore("f.txt")});
  ASSERT_EQ(result.status, 0) << result;
  EXPECT_EQ(result.out, "cached content");
  std::size_t cacheFiles = 0;
  for (auto const& entry : fs::recursive_directory_iterator(cacheRoot)) {
    if (entry.path().extension() == ".cache") {
      ++cacheFiles;
      EXPECT_EQ(readLocal(entry.path()), "cached content");
    }
  }
  EXPECT_EQ(cacheFiles, 1u);

  auto const unknown = overlay({"--set", "overlay.cacheRot=/tmp", "cat", inStore("f.txt")});
  EXPECT_EQ(unknown.status, 2) << unknown;
  EXPECT_THAT(unknown.err, HasSubstr("unknown configuration key \"overlay.cacheRot\""));

  writeLocal(dir_ / "bad.json", "{\"overlay\": {\"cacheRoot\": ");
  auto const bad = overlay({"--config", (dir_ / "bad.json").string(), "cat", inStore("f.txt")});
  EXPECT_EQ(bad.status, 1) << bad;
  EXPECT_THAT(bad.err, StartsWith("ovl cat: " + (dir_ / "bad.json").string() + ": not a JSON configuration: line 1"));

  auto const missing = overlay({"--config", (dir_ / "none.json").string(), "cat", inStore("f.txt")});
  EXPECT_EQ(missing.status, 1) << missing;
  EXPECT_THAT(missing.err, HasSubstr((dir_ / "none.json").string() + ": cannot read the configuration file"));

  // A cache root that cannot be a folder (its parent is a file): named before any store
  // is touched, whoever runs the test (permission bits would not stop root).
  auto const unusable = (dir_ / "store/f.txt/cache").string();
  auto const full = overlay({"--set", "overlay.cacheRoot=" + unusable, "cat", inStore("f.txt")});
  EXPECT_EQ(full.status, 1) << full;
  EXPECT_THAT(full.err, StartsWith("ovl cat: " + unusable + ": cannot be used as the overlay's cache root"));

  auto const noBundle = overlay({"--bundle", (dir_ / "none.so").string(), "cat", inStore("f.txt")});
  EXPECT_EQ(noBundle.status, 1) << noBundle;
  EXPECT_THAT(noBundle.err, HasSubstr((dir_ / "none.so").string() + ": cannot load the overlay bundle"));
  EXPECT_EQ(readLocal(dir_ / "store/f.txt"), "cached content");
}

// A disk that fills up while the overlay writes: the store (a local folder here) cannot
// take the file, and the command says so in one line naming the file and the cause.
TEST_F(OvlOverlay, AFullDiskIsReportedInOneLineNamingTheFile) {
  std::string content(3 << 20, 'x');
  writeLocal(dir_ / "store/big.bin", content);
  Result full;
  {
    support::FileSizeCap const cap(1 << 20);
    ASSERT_TRUE(cap.applied());
    full = overlay({"cp", inStore("big.bin"), inStore("copy.bin")});
  }
  EXPECT_EQ(full.status, 1) << full;
  EXPECT_THAT(full.err, StartsWith("ovl cp: Unexpected exception during write operation (")) << full;
  EXPECT_THAT(full.err, HasSubstr("copy.bin")) << full;
  EXPECT_THAT(full.err, HasSubstr("File too large")) << full;
  EXPECT_EQ(std::count(full.err.begin(), full.err.end(), '\n'), 1) << full;
  EXPECT_EQ(readLocal(dir_ / "store/big.bin"), content) << "the source is untouched";

  // With room again, the same command succeeds.
  ok({"cp", inStore("big.bin"), inStore("copy.bin")});
  EXPECT_EQ(readLocal(dir_ / "store/copy.bin"), content);
}

// A full disk that stops only the cache: reading a large file fills the cache file,
// which cannot grow beyond the cap, while the store is only read. The bytes all arrive,
// and the command warns and succeeds.
TEST_F(OvlOverlay, AFullCacheDiskIsAWarningAndTheCommandSucceeds) {
  std::string content(3 << 20, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>('a' + i % 23);
  writeLocal(dir_ / "store/big.bin", content);
  Result cat;
  {
    support::FileSizeCap const cap(1 << 20);
    ASSERT_TRUE(cap.applied());
    cat = overlay({"cat", inStore("big.bin")});
  }
  EXPECT_EQ(cat.status, 0) << cat.err;
  EXPECT_TRUE(cat.out == content) << cat.out.size() << " bytes written instead of " << content.size();
  EXPECT_THAT(cat.err, StartsWith("ovl cat: warning: the overlay's local cache failed; the store has every change: ")) << cat.err;
  EXPECT_THAT(cat.err, HasSubstr("Failure in local cache writing")) << cat.err;
  EXPECT_EQ(std::count(cat.err.begin(), cat.err.end(), '\n'), 1) << cat.err;
}

// The demo, small and quick, run in-process with hooks.
class OvlDemo : public OvlOverlay {
 protected:
  ovl::DemoOptions small() const {
    ovl::DemoOptions options;
    options.inner = store();
    options.latencyMs = 1;
    options.megabytesPerSecond = 0;
    options.smallFiles = 24;
    options.largeFiles = 1;
    options.largeFileBytes = 1 << 20;
    options.changeTimeout = std::chrono::seconds(30);
    return options;
  }
  Result demo(ovl::DemoOptions const& options) {
    fsp::ProviderRegistry registry;
    providers::file::registerWith(registry);
    providers::mem::registerWith(registry);
    providers::throttle::registerWith(registry);
    std::ostringstream out, err;
    int status = -1;
    {
      ovl::Session session(registry, out, err, false, std::nullopt);
      session.setOverlaySettings(ovl::OverlayHost::modulePath(std::nullopt), {});
      status = ovl::runDemo(session, options);
    }
    registry.shutdownAll();
    return {status, out.str(), err.str()};
  }
};

TEST_F(OvlDemo, RunsEndToEndAndVerifiesBothRuns) {
  std::vector<std::string> steps;
  auto options = small();
  options.onStep = [&](std::string const& run, std::string const& step) { steps.push_back(run + ": " + step); };
  auto const result = demo(options);
  ASSERT_EQ(result.status, 0) << result;
  EXPECT_THAT(result.out, HasSubstr("verified (direct): the store holds exactly what was written"));
  EXPECT_THAT(result.out, HasSubstr("verified (overlay, after flush): the store holds exactly what was written"));
  for (auto const* row : {"unpack the tree", "read everything (2nd)", "list every folder", "rename a folder",
                          "see a change made elsewhere", "delete a sub-tree", "flush", "total"}) {
    EXPECT_THAT(result.out, HasSubstr("\n" + std::string(row))) << row;
  }
  EXPECT_THAT(result.out, HasSubstr("overlay queue: drained"));
  // Both runs leave the same content in the store: one combined checksum for both.
  auto const combined = [&](std::string const& run) {
    auto const at = result.out.find("verified (" + run);
    auto const sum = result.out.find("checksums ", at);
    return result.out.substr(sum, 30);
  };
  EXPECT_EQ(combined("direct"), combined("overlay"));
  EXPECT_EQ(steps.size(), 16u);
  EXPECT_EQ(steps.front(), "direct: unpack the tree");
  EXPECT_EQ(steps.back(), "overlay: flush");
  // The demo cleans up after itself in the store it was given.
  EXPECT_TRUE(fs::is_empty(dir_ / "store")) << result;
}

TEST_F(OvlDemo, VerificationReportsAFileTheStoreLostBehindTheOverlaysBack) {
  auto options = small();
  options.beforeVerify = [](fsp::StorageItem const& storeFolder) {
    fsp::StorageItem(storeFolder.getProvider(), fsp::StorageIRI(storeFolder.getLocation(), u"/project/mod3/src/file3.txt"))
        .removeFile();
  };
  auto const result = demo(options);
  EXPECT_EQ(result.status, 1) << result;
  EXPECT_THAT(result.out, HasSubstr("VERIFICATION FAILED (overlay, after flush): 1 difference"));
  EXPECT_THAT(result.out, HasSubstr("missing in the store: /project/mod3/src/file3.txt"));
}

TEST_F(OvlDemo, InterruptedOverlayRunFlushesAndVerifiesWhatWasAcknowledged) {
  std::atomic<bool> interrupt{false};
  auto options = small();
  options.interrupt = &interrupt;
  options.onStep = [&](std::string const& run, std::string const& step) {
    if (run == "overlay" && step == "read everything (1st)") interrupt = true;
  };
  auto const result = demo(options);
  EXPECT_EQ(result.status, 130) << result;
  EXPECT_THAT(result.out, HasSubstr("interrupted: flushing what the overlay acknowledged"));
  EXPECT_THAT(result.out, HasSubstr("verified (overlay, up to the interruption): the store holds exactly what was "
                                    "written"));
}

TEST_F(OvlOverlay, DemoNamesAStoreThatDoesNotExist) {
  auto const result = run({"demo", "--inner", (dir_ / "nope").string()});
  EXPECT_EQ(result.status, 1) << result;
  EXPECT_THAT(result.err, StartsWith("ovl demo: " + (dir_ / "nope").string() + ": the store for --inner must be"));
  auto const flag = run({"demo", "--latency-ms", "fast"});
  EXPECT_EQ(flag.status, 2) << flag;
  EXPECT_THAT(flag.err, HasSubstr("--latency-ms: 'fast' is not a number"));
}

TEST_F(OvlOverlay, BenchJsonHasEveryFigure) {
  auto const result = run({"bench", "--json", "--files", "20", "--large-mib", "1", "--latency-ms", "1", "--mbps", "0",
                           "--tasks", "1000"});
  ASSERT_EQ(result.status, 0) << result;
  boost::property_tree::ptree tree;
  std::istringstream in(result.out);
  ASSERT_NO_THROW(boost::property_tree::read_json(in, tree)) << result;
  std::map<std::string, boost::property_tree::ptree> figures;
  for (auto const& [unused, figure] : tree.get_child("figures")) figures[figure.get<std::string>("key")] = figure;
  for (auto const* key : {"write_behind_burst", "flush_after_burst", "stat_after_flush", "cached_stat",
                          "cached_listing", "first_read", "cached_reread"}) {
    ASSERT_TRUE(figures.count(key)) << key << "\n" << result;
    EXPECT_GT(figures[key].get<double>("overlay"), 0) << key;
    EXPECT_GT(figures[key].get<double>("direct"), 0) << key;
    EXPECT_TRUE(figures[key].get_optional<double>("ratio")) << key;
  }
  EXPECT_GT(figures["cached_reread"].get<double>("localDisk"), 0);
  ASSERT_TRUE(figures.count("executor_throughput"));
  EXPECT_GT(figures["executor_throughput"].get<double>("overlay"), 0);
  EXPECT_EQ(tree.get<unsigned>("parameters.files"), 20u);
}

}  // namespace
