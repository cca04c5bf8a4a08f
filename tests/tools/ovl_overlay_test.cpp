// ovl with the overlay: the file commands through --overlay over a local folder, the
// configuration flags, ovl demo (end to end, a lost file, an interruption) and the figures
// of ovl bench --json. Each run gets a registry of its own, as the program does, so that
// the overlay bundle is loaded and unloaded once per command.
#include <ovl/CacheRoot.hpp>
#include <ovl/Demo.hpp>
#include <ovl/Ovl.hpp>
#include <support/FileSizeCap.hpp>
#include <support/ScopedEnv.hpp>

#include "ovl_test_support.hpp"

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
#include <map>
#include <optional>
#include <sstream>

namespace {

namespace fs = std::filesystem;
namespace fsp = foundation::storage::provider;
using ovl_test::OvlFixture;
using ovl_test::Result;
using testing::HasSubstr;
using testing::StartsWith;

class OvlOverlay : public OvlFixture {
 protected:
  static void SetUpTestSuite() {
    // The overlay lets the store's events through this long after its own last change;
    // the demo waits for one such event.
    ::setenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT", "100", 1);
  }

  OvlOverlay() : OvlFixture("ovl_overlay_test") { fs::create_directories(dir_ / "store"); }

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
  Result command(std::vector<std::string> args) override { return overlay(std::move(args)); }

  std::string store() const { return (dir_ / "store").string(); }
  std::string inStore(std::string const& name) const { return (dir_ / "store" / name).string(); }
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

  // Every configuration error is bad usage (status 2), refused before the command runs
  // (nothing is copied), and names the file or the flag and the value.
  writeLocal(dir_ / "bad.json", "{\"overlay\": {\"cacheRoot\": ");
  writeLocal(dir_ / "list.json", R"({"overlay": {"maxQueueWeight": [1, 2]}})");
  writeLocal(dir_ / "zero.json", R"({"overlay": {"maxReadPayloadSize": "0"}})");
  fs::create_directories(dir_ / "folder.json");
  struct Case {
    std::vector<std::string> flags;
    std::string says;
  };
  std::vector<Case> const cases = {
      {{"--config", (dir_ / "bad.json").string()}, (dir_ / "bad.json").string() + ": not a JSON configuration: line 1"},
      {{"--config", (dir_ / "none.json").string()}, (dir_ / "none.json").string() + ": cannot read the configuration file"},
      {{"--config", (dir_ / "folder.json").string()}, (dir_ / "folder.json").string() + ": is a folder"},
      {{"--config", (dir_ / "list.json").string()}, "\"overlay.maxQueueWeight\" is a list"},
      {{"--config", (dir_ / "zero.json").string()}, "overlay.maxReadPayloadSize: '0' is not a whole number of bytes above 0"},
      {{"--set", "overlay.maxQueueWeight=abc"}, "overlay.maxQueueWeight: 'abc' is not a number >= 0"},
      {{"--set", "overlay.maxQueueWeight=nan"}, "'nan' is not a number >= 0"},
      {{"--set", "overlay.minQueueItemWeight=inf"}, "'inf' is not a number >= 0"},
      {{"--set", "overlay.maxWritePayloadSize=-1"}, "overlay.maxWritePayloadSize: '-1' is not a whole number"},
      {{"--set", "overlay.echoWindow=-1"}, "overlay.echoWindow: '-1' is not a whole number of milliseconds >= 0"},
      {{"--set", "overlay.persistContentCache=true"}, "overlay.persistContentCache needs overlay.cacheRoot"},
  };
  for (auto const& c : cases) {
    auto args = c.flags;
    for (auto const& arg : {"cp", "f.txt", "copied.txt"}) args.emplace_back(arg);
    args[args.size() - 2] = inStore("f.txt");
    args.back() = inStore("copied.txt");
    auto const refused = overlay(args);
    EXPECT_EQ(refused.status, 2) << refused;
    EXPECT_THAT(refused.err, HasSubstr(c.says)) << refused;
    EXPECT_FALSE(fs::exists(dir_ / "store/copied.txt")) << refused;
  }

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
TEST_F(OvlOverlay, AFullStoreLeavesTheDestinationAsItWasAndIsReportedInOneLine) {
  std::string content(3 << 20, 'x');
  writeLocal(dir_ / "store/big.bin", content);
  writeLocal(dir_ / "store/copy.bin", "the original");
  Result full;
  {
    support::FileSizeCap const cap(1 << 20);
    ASSERT_TRUE(cap.applied());
    full = overlay({"cp", inStore("big.bin"), inStore("copy.bin")});
  }
  EXPECT_EQ(full.status, 1) << full;
  EXPECT_THAT(full.err, StartsWith("ovl cp: " + inStore("copy.bin") + ": the store did not take the new content (")) << full;
  EXPECT_THAT(full.err, HasSubstr("File too large")) << full;
  EXPECT_THAT(full.err, HasSubstr("the destination was left as it was")) << full;
  EXPECT_EQ(std::count(full.err.begin(), full.err.end(), '\n'), 1) << full;
  EXPECT_EQ(readLocal(dir_ / "store/big.bin"), content) << "the source is untouched";
  EXPECT_EQ(readLocal(dir_ / "store/copy.bin"), "the original") << "the destination is untouched";
  for (auto const& entry : fs::directory_iterator(dir_ / "store")) {
    EXPECT_EQ(entry.path().extension(), ".bin") << "left behind: " << entry.path();
  }

  // With room again, the same command succeeds.
  ok({"cp", inStore("big.bin"), inStore("copy.bin")});
  EXPECT_EQ(readLocal(dir_ / "store/copy.bin"), content);
}

// A read-only store (a read-only bind mount of the store folder): every change the
// overlay acknowledged and the store then refused makes the command fail in one line that
// names the store's IRI and its reason; nothing in the store changes. Needs the right to
// mount (root on this machine kind); skipped elsewhere.
TEST_F(OvlOverlay, AReadOnlyStoreRefusesAndEveryCommandSaysSo) {
  writeLocal(dir_ / "store/a.txt", "kept");
  auto const mounted = dir_ / "ro";
  fs::create_directories(mounted);
  std::string const mount = "mount --bind " + store() + " " + mounted.string() + " 2>/dev/null && mount -o remount,bind,ro " +
                            mounted.string() + " 2>/dev/null";
  if (std::system(mount.c_str()) != 0) {
    std::system(("umount " + mounted.string() + " 2>/dev/null").c_str());
    GTEST_SKIP() << "cannot make a read-only bind mount here";
  }
  struct Unmount {
    fs::path path;
    ~Unmount() { std::system(("umount " + path.string()).c_str()); }
  } const unmount{mounted};
  auto const ro = mounted.string();
  auto const inRo = [&](std::string const& name) { return ro + "/" + name; };
  struct Case {
    std::vector<std::string> args;
    std::string line;
  };
  std::vector<Case> const cases = {
      {{"mkdir", inRo("new")}, "ovl mkdir: file://" + inRo("new") + ": not writable (cannot create folder in this folder: Read-only file system) (createFolder)"},
      {{"rm", inRo("a.txt")}, "ovl rm: file://" + inRo("a.txt") + ": not writable (cannot remove file: Read-only file system) (removeFile)"},
      {{"mv", inRo("a.txt"), inRo("b.txt")}, "ovl mv: file://" + inRo("a.txt") + ": not writable"},
      {{"cp", inRo("a.txt"), inRo("c.txt")}, "ovl cp: " + inRo("c.txt") + ": the store did not take the new content (not writable"},
  };
  for (auto const& c : cases) {
    auto args = c.args;
    args.insert(args.begin(), {"--overlay-root", ro});
    auto const result = run(args);
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_THAT(result.err, StartsWith(c.line)) << result;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result;
  }
  std::vector<std::string> names;
  for (auto const& entry : fs::directory_iterator(dir_ / "store")) names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"a.txt"});
  EXPECT_EQ(readLocal(dir_ / "store/a.txt"), "kept");
}

// Two programs copying different content onto one file at the same time: each writes a
// scratch file of its own, so the file ends as one of the two sources, byte for byte.
TEST_F(OvlOverlay, TwoCopiesOntoOneFileLeaveOneWholeSource) {
  std::string a(1 << 20, 'a'), b(1 << 20, 'b');
  for (std::size_t i = 0; i < a.size(); i += 4096) a[i] = b[i] = static_cast<char>('0' + i / 4096 % 10);
  writeLocal(dir_ / "store/a.bin", a);
  writeLocal(dir_ / "store/b.bin", b);
  for (int round = 0; round < 8; ++round) {
    writeLocal(dir_ / "store/dst.bin", "old");
    auto command = [&](std::string const& source) {
      return std::string(OVL_PROGRAM) + " --overlay-root " + store() + " cp " + inStore(source) + " " + inStore("dst.bin");
    };
    // Both programs start together and the shell waits for both; each one's status is kept.
    std::string const script = "(" + command("a.bin") + "; echo $? > " + (dir_ / "a.status").string() + ") & (" +
                               command("b.bin") + "; echo $? > " + (dir_ / "b.status").string() + ") & wait";
    ASSERT_EQ(std::system(script.c_str()), 0);
    EXPECT_EQ(readLocal(dir_ / "a.status"), "0\n") << "round " << round;
    EXPECT_EQ(readLocal(dir_ / "b.status"), "0\n") << "round " << round;
    auto const result = readLocal(dir_ / "store/dst.bin");
    EXPECT_TRUE(result == a || result == b) << "round " << round << ": a mixture of " << result.size() << " bytes";
    std::size_t entries = 0;
    for (auto const& entry : fs::directory_iterator(dir_ / "store")) entries += entry.path().extension() == ".bin";
    EXPECT_EQ(entries, 3u) << "round " << round << ": a scratch file was left";
  }
}

// Operands written in the overlay's own scheme work with and without --overlay: the
// bundle is loaded for them and they are not wrapped again.
TEST_F(OvlOverlay, OverlayIRIsWorkWithAndWithoutTheFlag) {
  writeLocal(dir_ / "store/a.txt", "through the overlay");
  auto const iri = "overlay:<file://" + store() + "/>/a.txt";
  auto const plain = run({"cat", iri});
  EXPECT_EQ(plain.status, 0) << plain;
  EXPECT_EQ(plain.out, "through the overlay");
  auto const flagged = overlay({"cat", iri});
  EXPECT_EQ(flagged.status, 0) << flagged;
  EXPECT_EQ(flagged.out, "through the overlay");
  auto const copied = run({"cp", iri, "overlay:<file://" + store() + "/>/b.txt"});
  EXPECT_EQ(copied.status, 0) << copied;
  EXPECT_EQ(readLocal(dir_ / "store/b.txt"), "through the overlay");
}

// A reader that goes away early (ovl cat big | head) ends the program through its normal
// path: the overlay is flushed and its cache folder removed.
TEST_F(OvlOverlay, AClosedPipeLeavesNoCacheFolderBehind) {
  writeLocal(dir_ / "store/big.bin", std::string(8 << 20, 'b'));
  fs::create_directories(dir_ / "tmp");
  std::string const script = "TMPDIR=" + (dir_ / "tmp").string() + " " + OVL_PROGRAM + " --overlay-root " + store() +
                             " cat " + inStore("big.bin") + " | head -c 10 > /dev/null";
  ASSERT_EQ(std::system(script.c_str()), 0);
  EXPECT_TRUE(fs::is_empty(dir_ / "tmp")) << fs::directory_iterator(dir_ / "tmp")->path();
}

// SIGTERM in the middle of a copy through the overlay: the copy stops at its next chunk,
// the overlay writes what it acknowledged, the destination stays as it was, and the cache
// folder goes; the status is 128 + 15. A run killed outright leaves its folder, which the
// next run removes, while a folder of a live run stays.
TEST_F(OvlOverlay, ASignalEndsTheRunCleanlyAndTheNextRunSweepsWhatAKilledOneLeft) {
  writeLocal(dir_ / "store/big.bin", std::string(4 << 20, 'b'));
  auto const tmp = dir_ / "tmp";
  fs::create_directories(tmp);
  // The copy reads 1 MiB chunks over a link of 1 MB/s; the signal goes as soon as the
  // run's cache folder exists, long before the last chunk. In the AddressSanitizer build
  // the signalled run goes without the leak check at exit: that check stops every thread
  // and has crashed in its own tracer while the run's threads were ending (status 134
  // instead of 143); the runs of the other tests keep it.
  std::string const script = "TMPDIR=" + tmp.string() + " ASAN_OPTIONS=\"$ASAN_OPTIONS:detect_leaks=0\" " +
                             OVL_PROGRAM + " --overlay-root " + store() +
                             " --throttle-mbps 1 cp " + inStore("big.bin") + " " + inStore("copy.bin") +
                             " 2> " + (dir_ / "err").string() + " & pid=$!; while [ -z \"$(ls " + tmp.string() +
                             ")\" ]; do sleep 0.01; done; kill -TERM $pid; wait $pid; echo $? > " +
                             (dir_ / "status").string();
  ASSERT_EQ(std::system(script.c_str()), 0);
  EXPECT_EQ(readLocal(dir_ / "status"), "143\n") << readLocal(dir_ / "err");
  EXPECT_THAT(readLocal(dir_ / "err"), StartsWith("ovl cp: interrupted"));
  EXPECT_TRUE(fs::is_empty(tmp));
  EXPECT_FALSE(fs::exists(dir_ / "store/copy.bin"));
  for (auto const& entry : fs::directory_iterator(dir_ / "store")) {
    EXPECT_EQ(entry.path().filename(), "big.bin") << "left behind: " << entry.path();
  }

  // A folder whose owner is gone (no such process), and one of this live process.
  fs::create_directories(tmp / "ovl-cache-1-dead");
  writeLocal(tmp / "ovl-cache-1-dead/owner", "999999999 12345\n");
  std::optional<ovl::CacheRoot> live;
  {
    support::ScopedEnv const env("TMPDIR", tmp.c_str());
    live.emplace();
  }
  auto const ls = "TMPDIR=" + tmp.string() + " " + OVL_PROGRAM + " --overlay-root " + store() + " ls " + store() +
                  " > /dev/null";
  ASSERT_EQ(std::system(ls.c_str()), 0);
  EXPECT_FALSE(fs::exists(tmp / "ovl-cache-1-dead"));
  EXPECT_TRUE(fs::exists(live->path() / "owner"));
  live.reset();
  EXPECT_TRUE(fs::is_empty(tmp));
}

// cp -r copies a whole tree in one run through one overlay, from a source outside the
// overlay's root (read directly); every file arrives whole; a file the store cannot take
// is reported and left out while the rest arrives.
TEST_F(OvlOverlay, CopyingATreeInOneRun) {
  auto const outside = dir_ / "outside/tree";
  fs::create_directories(outside / "a/b");
  fs::create_directories(outside / "empty");
  std::map<std::string, std::string> files{{"top.txt", "top"}, {"a/one.txt", "one"}, {"a/b/two.bin", std::string(70000, 'z')}};
  for (auto const& [name, content] : files) writeLocal(outside / name, content);
  ok({"cp", "-r", outside.string(), inStore("copy")});
  for (auto const& [name, content] : files) EXPECT_EQ(readLocal(dir_ / "store/copy" / name), content) << name;
  EXPECT_TRUE(fs::is_directory(dir_ / "store/copy/empty"));
  // Into an existing folder: the tree goes inside it under its own name.
  fs::create_directories(dir_ / "store/into");
  ok({"cp", "-r", outside.string(), inStore("into")});
  EXPECT_EQ(readLocal(dir_ / "store/into/tree/a/one.txt"), "one");

  auto const noFlag = overlay({"cp", outside.string(), inStore("again")});
  EXPECT_EQ(noFlag.status, 1) << noFlag;
  EXPECT_THAT(noFlag.err, HasSubstr("is a folder (use -r")) << noFlag;
  auto const intoItself = overlay({"cp", "-r", inStore("copy"), inStore("copy/a")});
  EXPECT_EQ(intoItself.status, 1) << intoItself;
  EXPECT_THAT(intoItself.err, HasSubstr("copy into itself")) << intoItself;

  // A file the store cannot take (a disk that is full beyond 1 MiB): named, the rest copied.
  writeLocal(outside / "big.bin", std::string(3 << 20, 'x'));
  Result full;
  {
    support::FileSizeCap const cap(1 << 20);
    ASSERT_TRUE(cap.applied());
    full = overlay({"cp", "-r", outside.string(), inStore("partly")});
  }
  EXPECT_EQ(full.status, 1) << full;
  EXPECT_THAT(full.err, StartsWith("ovl cp: " + inStore("partly") + "/big.bin: the store did not take the new content"))
      << full;
  EXPECT_FALSE(fs::exists(dir_ / "store/partly/big.bin"));
  for (auto const& [name, content] : files) EXPECT_EQ(readLocal(dir_ / "store/partly" / name), content) << name;
  for (auto const& entry : fs::recursive_directory_iterator(dir_ / "store")) {
    EXPECT_EQ(entry.path().extension() == ".partial", false) << "left behind: " << entry.path();
  }
}

// Operands that lead out of the overlay's root, by any spelling, are refused before
// anything is touched.
TEST_F(OvlOverlay, NoOperandLeadsOutOfTheOverlaysRoot) {
  fs::create_directories(dir_ / "store/sub");
  writeLocal(dir_ / "victim.txt", "outside");
  writeLocal(dir_ / "store/inside.txt", "inside");
  auto const outside = dir_.string();
  for (std::string const& operand :
       {"file://" + store() + "/../victim.txt", "file://" + store() + "/sub/../../victim.txt",
        "file://" + store() + "/./../victim.txt", "file://" + store() + "//..//victim.txt", store() + "/../victim.txt",
        store() + "/sub/../../victim.txt"}) {
    auto const rm = overlay({"rm", operand});
    EXPECT_EQ(rm.status, 1) << operand << '\n' << rm;
    EXPECT_THAT(rm.err, HasSubstr("lies outside")) << rm;
    auto const cp = overlay({"cp", inStore("inside.txt"), operand});
    EXPECT_EQ(cp.status, 1) << operand << '\n' << cp;
    EXPECT_EQ(readLocal(dir_ / "victim.txt"), "outside") << operand;
  }
  // Inside the root, "." and ".." still resolve as they should.
  ok({"cp", "file://" + store() + "/sub/../inside.txt", inStore("sub/./copy.txt")});
  EXPECT_EQ(readLocal(dir_ / "store/sub/copy.txt"), "inside");
  for (std::string const& operand : {store() + "/sub/.", store() + "/sub/..", store() + "/sub/../", std::string(".")}) {
    auto const rm = overlay({"rm", "-r", operand});
    EXPECT_EQ(rm.status, 1) << rm;
    EXPECT_THAT(rm.err, HasSubstr("refusing to remove '.' or '..'")) << rm;
  }
  EXPECT_TRUE(fs::exists(dir_ / "store/sub/copy.txt"));
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
  EXPECT_THAT(result.out, HasSubstr("through the overlay (8 transfers at once; events: echoes of its own folder changes "
                                    "ignored for 5 s, narrow invalidation, held back by its own changes only)"));
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
  for (auto const* transfers : {"0", "2.5", "many"}) {
    auto const bad = run({"demo", "--transfers", transfers});
    EXPECT_EQ(bad.status, 2) << bad;
    EXPECT_THAT(bad.err, HasSubstr(std::string("--transfers: '") + transfers + "' is not")) << bad;
  }
  for (auto const* window : {"-1", "0.5"}) {
    auto const bad = run({"demo", "--echo-window-ms", window});
    EXPECT_EQ(bad.status, 2) << bad;
    EXPECT_THAT(bad.err, HasSubstr(std::string("--echo-window-ms: '") + window + "' is not")) << bad;
  }
}

TEST_F(OvlOverlay, BenchJsonHasEveryFigure) {
  auto const result = run({"bench", "--json", "--files", "20", "--large-mib", "1", "--latency-ms", "1", "--mbps", "0",
                           "--tasks", "1000", "--transfers", "3"});
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
  EXPECT_EQ(tree.get<unsigned>("parameters.transfers"), 3u);
  // Each written file costs the store at least its open, its payload and its close.
  ASSERT_TRUE(figures.count("store_calls_per_file"));
  EXPECT_GE(figures["store_calls_per_file"].get<double>("direct"), 3);
  EXPECT_GE(figures["store_calls_per_file"].get<double>("overlay"), 3);
}

}  // namespace
