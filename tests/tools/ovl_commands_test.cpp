// The ovl commands, run in-process through runOvl on a temporary folder of the local
// file system and on mem stores: what they print, what they change, and how they fail.
#include <ovl/Ovl.hpp>

#include "ovl_test_support.hpp"

#include <providers/file/FileProviderFactory.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/MemoryProviderFactory.hpp>
#include <providers/mem/SideDoor.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <foundation/log/Configuration.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using namespace foundation::storage::provider;
using ovl_test::OvlFixture;
using ovl_test::Result;
using testing::HasSubstr;
using testing::StartsWith;

class OvlTest : public OvlFixture {
 protected:
  OvlTest() : OvlFixture("ovl_commands_test") {
    providers::file::registerWith(registry_);
    providers::mem::registerWith(registry_);
    providers::throttle::registerWith(registry_);
  }
  ~OvlTest() override { registry_.shutdownAll(); }

  Result run(std::vector<std::string> args) {
    std::ostringstream out, err;
    ovl::RunOptions options;
    options.registry = &registry_;
    int const status = ovl::runOvl(std::move(args), out, err, options);
    return {status, out.str(), err.str()};
  }
  Result command(std::vector<std::string> args) override { return run(std::move(args)); }

  void badUsage(std::vector<std::string> args, std::string const& problem) {
    auto const result = run(std::move(args));
    EXPECT_EQ(result.status, 2) << result;
    EXPECT_THAT(result.err, HasSubstr(problem)) << result;
    EXPECT_THAT(result.err, HasSubstr("usage: ovl")) << result;
    EXPECT_EQ(result.out, "") << result;
  }

  std::string local(std::string const& name) const { return (dir_ / name).string(); }
  std::string fileIri(std::string const& name) const { return "file://" + (dir_ / name).string(); }

  ProviderRegistry registry_;
};

std::string allBytes() {
  std::string content;
  for (int round = 0; round < 3; ++round) {
    for (int c = 0; c < 256; ++c) content += static_cast<char>(c);
  }
  return content + "\r\n\0tail" + std::string(1, '\0');
}

TEST_F(OvlTest, HelpAndBadUsage) {
  auto help = ok({"--help"});
  for (auto const* command : {"ls", "stat", "cat", "cp", "mkdir", "rm", "mv", "help"}) {
    EXPECT_THAT(help.out, HasSubstr("\n  " + std::string(command) + " ")) << command;
    auto const own = ok({command, "--help"});
    EXPECT_THAT(own.out, StartsWith("usage: ovl " + std::string(command))) << command;
    EXPECT_EQ(ok({"help", command}).out, own.out) << command;
  }
  for (auto const* flag : {"--log FILE", "--log-level N", "--throttle-ms N", "--throttle-mbps N"}) {
    EXPECT_THAT(help.out, HasSubstr(flag));
  }
  EXPECT_EQ(ok({"-h"}).out, help.out);
  EXPECT_EQ(ok({"help"}).out, help.out);
  EXPECT_THAT(ok({"rm", "-h"}).out, HasSubstr("-r, --recursive"));
  EXPECT_THAT(ok({"mv", "--help"}).out, HasSubstr("--replace"));

  badUsage({}, "ovl: missing command");
  badUsage({"frobnicate"}, "ovl: unknown command 'frobnicate'");
  badUsage({"--bogus", "ls"}, "ovl: unknown flag '--bogus'");
  badUsage({"help", "frobnicate"}, "ovl help: unknown command 'frobnicate'");
  badUsage({"ls"}, "ovl ls: missing IRI\nusage: ovl ls [-l] [-R] IRI");
  badUsage({"cp", "mem://t/a"}, "ovl cp: missing DST");
  badUsage({"mv"}, "ovl mv: missing SRC");
  badUsage({"cat", "mem://t/a", "mem://t/b"}, "ovl cat: unexpected argument 'mem://t/b'");
  badUsage({"rm", "-x", "mem://t/a"}, "ovl rm: unknown flag '-x'");
  badUsage({"ls", "-lx", "mem://t/a"}, "ovl ls: unknown flag '-lx'");
  badUsage({"mkdir", "--parents=yes", "mem://t/a"}, "unknown flag '--parents=yes'");
  badUsage({"ls", "mem://t/", "--throttle-ms"}, "--throttle-ms needs a value");
  badUsage({"--throttle-ms", "fast", "ls", "mem://t/"}, "--throttle-ms: 'fast' is not a number");
  badUsage({"--throttle-mbps=-3", "ls", "mem://t/"}, "--throttle-mbps: '-3' is not a number");
  badUsage({"--throttle-ms", "99999999999999999999", "ls", "mem://t/"}, "--throttle-ms: '99999999999999999999' is not a number from 0 to");
  EXPECT_THAT(ok({"--version"}).out, StartsWith("ovl 1."));
  badUsage({"--log-level", "loud", "ls", "mem://t/"}, "--log-level: 'loud' is not a severity number");
  // Usage problems are found before anything is touched.
  EXPECT_EQ(run({"mkdir", "mem://t/new", "extra"}).status, 2);
  EXPECT_EQ(run({"ls", "mem://t/new"}).status, 1);
  // After "--" a leading dash is an operand.
  failsNaming({"cat", "--", "-odd"}, "-odd", "does not exist");
}

TEST_F(OvlTest, MkdirLsAndStatOnAMemStore) {
  ok({"mkdir", "mem://t/docs"});
  failsNaming({"mkdir", "mem://t/docs"}, "mem://t/docs", "already exists");
  failsNaming({"mkdir", "mem://t/a/b"}, "mem://t/a", "does not exist");
  ok({"mkdir", "-p", "mem://t/a/b"});
  ok({"mkdir", "--parents", "mem://t/a/b"});  // an existing folder is fine with -p
  writeLocal(local("hello.txt"), "hello");
  ok({"cp", local("hello.txt"), "mem://t/docs/hello.txt"});
  ok({"cp", local("hello.txt"), "mem://t/z.txt"});

  std::regex const fileLine(R"(- +5  \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ  z\.txt)");
  std::regex const folderLine(R"(d +-  \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ  docs)");
  auto const listing = ok({"ls", "mem://t/"}).out;
  std::vector<std::string> lines;
  for (std::istringstream in(listing); std::getline(in, lines.emplace_back());) {}
  lines.pop_back();
  ASSERT_EQ(lines.size(), 3u) << listing;
  EXPECT_THAT(lines[0], HasSubstr("  a")) << "sorted by name";
  EXPECT_TRUE(std::regex_match(lines[1], folderLine)) << lines[1];
  EXPECT_TRUE(std::regex_match(lines[2], fileLine)) << lines[2];

  auto const recursive = ok({"ls", "-R", "mem://t/"}).out;
  EXPECT_THAT(recursive, HasSubstr("  a/b\n"));
  EXPECT_THAT(recursive, HasSubstr("  docs/hello.txt\n"));
  EXPECT_TRUE(std::regex_match(ok({"ls", "-lR", "mem://t/docs"}).out, std::regex(R"(- rw +5  .*Z  hello\.txt\n)")));
  EXPECT_TRUE(std::regex_match(ok({"ls", "mem://t/z.txt"}).out, std::regex(R"(- +5  .*Z  z\.txt\n)")));
  EXPECT_EQ(ok({"ls", "mem://t/a/b"}).out, "");
  failsNaming({"ls", "mem://t/nothing"}, "mem://t/nothing", "does not exist");

  // A store that does not list recursively itself is walked.
  auto plain = std::make_shared<providers::mem::MemoryProvider>();
  plain->setFeatures({});
  registry_.addProvider(StorageIRI(u"mem://plain/"), plain);
  ok({"mkdir", "-p", "mem://plain/x/y"});
  ok({"cp", local("hello.txt"), "mem://plain/x/y/h.txt"});
  auto const walked = ok({"ls", "-R", "mem://plain/"}).out;
  EXPECT_TRUE(std::regex_match(walked, std::regex(R"(d .*  x\nd .*  x/y\n- .*  x/y/h\.txt\n)"))) << walked;

  auto const stat = ok({"stat", "mem://t/docs/hello.txt"}).out;
  EXPECT_THAT(stat, HasSubstr("name:     mem://t/docs/hello.txt\n"));
  EXPECT_THAT(stat, HasSubstr("kind:     file\n"));
  EXPECT_THAT(stat, HasSubstr("size:     5 bytes"));
  EXPECT_TRUE(std::regex_search(stat, std::regex(R"(modified: \d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\n)"))) << stat;
  EXPECT_THAT(stat, HasSubstr("writable: yes\n"));
  EXPECT_TRUE(std::regex_search(stat, std::regex("  WATERMARK = [0-9]+\n"))) << stat;
  auto const folderStat = ok({"stat", "mem://t/docs"}).out;
  EXPECT_THAT(folderStat, HasSubstr("kind:     folder\n"));
  EXPECT_THAT(folderStat, HasSubstr("size:     -\n"));
  failsNaming({"stat", "mem://t/docs/nope"}, "mem://t/docs/nope", "does not exist");
  failsNaming({"stat", "nosuchscheme://x/y"}, "nosuchscheme://x/y", "No storage provider");
}

TEST_F(OvlTest, CopiesBetweenLocalPathsFileIrisAndMemBinarySafe) {
  auto const content = allBytes();
  writeLocal(local("bin.dat"), content);

  // local path -> file IRI -> mem -> local path, and cat of each.
  ok({"cp", local("bin.dat"), fileIri("copy.dat")});
  EXPECT_EQ(readLocal(local("copy.dat")), content);
  ok({"cp", fileIri("copy.dat"), "mem://t/bin.dat"});
  EXPECT_EQ(ok({"cat", "mem://t/bin.dat"}).out, content);
  EXPECT_EQ(ok({"cat", fileIri("copy.dat")}).out, content);
  ok({"cp", "mem://t/bin.dat", local("back.dat")});
  EXPECT_EQ(readLocal(local("back.dat")), content);

  // Into an existing folder, under the source's name.
  fs::create_directories(dir_ / "into");
  ok({"cp", "mem://t/bin.dat", local("into")});
  EXPECT_EQ(readLocal(local("into/bin.dat")), content);

  // An existing file is replaced, unless -n.
  writeLocal(local("small.txt"), "new");
  ok({"cp", local("small.txt"), local("back.dat")});
  EXPECT_EQ(readLocal(local("back.dat")), "new");
  failsNaming({"cp", "-n", "mem://t/bin.dat", local("back.dat")}, local("back.dat"), "already exists");
  EXPECT_EQ(readLocal(local("back.dat")), "new");

  // Empty files copy too.
  writeLocal(local("empty"), "");
  ok({"cp", local("empty"), "mem://t/empty"});
  EXPECT_EQ(ok({"cat", "mem://t/empty"}).out, "");

  failsNaming({"cp", local("missing.txt"), "mem://t/x"}, local("missing.txt"), "does not exist");
  failsNaming({"cp", local("into"), "mem://t/x"}, local("into"), "is a folder");
  failsNaming({"cp", local("small.txt"), local("no/such/dir/x")}, "file://" + local("no/such/dir"), "does not exist");
  EXPECT_FALSE(fs::exists(dir_ / "no"));
  ok({"mkdir", "mem://t/dir"});
  failsNaming({"cat", "mem://t/dir"}, "mem://t/dir", "is a folder");
  failsNaming({"cat", "mem://t/none"}, "mem://t/none", "does not exist");
  failsNaming({"cat", local("none")}, local("none"), "does not exist");

  // --progress draws the bar on stderr, whatever the size.
  auto const progress = run({"cp", "--progress", "mem://t/bin.dat", "mem://t/bin2.dat"});
  EXPECT_EQ(progress.status, 0) << progress;
  EXPECT_THAT(progress.err, HasSubstr("100% [")) << progress;
  EXPECT_EQ(ok({"cat", "mem://t/bin2.dat"}).out, content);
}

TEST_F(OvlTest, StreamFailuresNameTheFileAndLeaveTheDestinationAlone) {
  providers::mem::MemoryProvider::Options options;
  options.name = u"faulty";
  auto store = std::make_shared<providers::mem::MemoryProvider>(options);
  registry_.addProvider(StorageIRI(u"mem://faulty/"), store);
  writeLocal(local("src.txt"), "fresh content");
  ok({"cp", local("src.txt"), "mem://faulty/a.txt"});
  ok({"cp", local("src.txt"), "mem://faulty/b.txt"});
  writeLocal(local("src.txt"), "other content");

  store->failNext(providers::mem::Operation::Read, 1, ErrorCode::TransientFailure);
  auto const cat = run({"cat", "mem://faulty/a.txt"});
  EXPECT_EQ(cat.status, 1) << cat;
  EXPECT_THAT(cat.err, StartsWith("ovl cat: mem://faulty/a.txt: ")) << cat;

  // A copy whose writes fail leaves the old content in place.
  store->failNext(providers::mem::Operation::Write, 1, ErrorCode::QuotaExceeded);
  auto const cp = run({"cp", local("src.txt"), "mem://faulty/b.txt"});
  EXPECT_EQ(cp.status, 1) << cp;
  EXPECT_THAT(cp.err, StartsWith("ovl cp: mem://faulty/b.txt: ")) << cp;
  EXPECT_EQ(store->contentOf(u"/b.txt"), "fresh content");

  // An error that is not the store's still makes one line naming the argument.
  store->failNextUnexpected(providers::mem::Operation::GetFileAttributes, 1);
  failsNaming({"stat", "mem://faulty/a.txt"}, "mem://faulty/a.txt", "");
}

// Through the overlay every change is acknowledged before the store has it; one that the
// store then refuses for good makes the command fail with one line naming the store's IRI
// and its reason, and the exit status 1.
TEST_F(OvlTest, ChangesTheStoreRefusesThroughTheOverlayFailTheCommand) {
  providers::mem::MemoryProvider::Options options;
  options.name = u"refusing";
  auto store = std::make_shared<providers::mem::MemoryProvider>(options);
  registry_.addProvider(StorageIRI(u"mem://refusing/"), store);
  ok({"mkdir", "mem://refusing/d"});
  writeLocal(local("f.txt"), "kept");
  ok({"cp", local("f.txt"), "mem://refusing/f.txt"});
  struct Case {
    std::vector<std::string> args;
    providers::mem::Operation refused;
    std::string line;
  };
  std::vector<Case> const cases = {
      {{"mkdir", "mem://refusing/new"}, providers::mem::Operation::CreateFolder, "ovl mkdir: mem://refusing/new: not writable"},
      {{"rm", "mem://refusing/f.txt"}, providers::mem::Operation::RemoveFile, "ovl rm: mem://refusing/f.txt: not writable"},
      {{"mv", "mem://refusing/f.txt", "mem://refusing/g.txt"}, providers::mem::Operation::MoveFile,
       "ovl mv: mem://refusing/f.txt: not writable"},
      {{"rm", "-r", "mem://refusing/d"}, providers::mem::Operation::RemoveFolderRecursively,
       "ovl rm: mem://refusing/d: not writable"},
  };
  for (auto const& c : cases) {
    store->failNext(c.refused, 1, ErrorCode::NotWritable);
    auto args = c.args;
    args.insert(args.begin(), "--overlay");
    auto const result = run(args);
    store->clearFaults();
    EXPECT_EQ(result.status, 1) << result;
    EXPECT_THAT(result.err, StartsWith(c.line)) << result;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result;
  }
  EXPECT_FALSE(store->elsewhere().hasFolderAt(u"/new"));
  EXPECT_EQ(store->elsewhere().contentOf(u"/f.txt"), "kept");
  EXPECT_TRUE(store->elsewhere().hasFolderAt(u"/d"));

  // A transient failure that the overlay's retries absorb is no failure.
  store->failNext(providers::mem::Operation::CreateFolder, 2, ErrorCode::TransientFailure);
  auto const retried = run({"--overlay", "mkdir", "mem://refusing/new"});
  EXPECT_EQ(retried.status, 0) << retried;
  EXPECT_TRUE(store->elsewhere().hasFolderAt(u"/new"));
}

// Names up to the file system's limit copy like any other (the scratch file's name stays
// within it), and a destination ending in "/" names a folder.
TEST_F(OvlTest, CopiesKeepLongNamesAndATrailingSlashNamesAFolder) {
  writeLocal(local("src.txt"), "content");
  for (std::size_t length : {200u, 247u, 255u}) {
    auto const name = std::string(length - 4, 'n') + ".txt";
    ok({"cp", local("src.txt"), local(name)});
    EXPECT_EQ(readLocal(local(name)), "content") << length;
    ok({"cp", local("src.txt"), local(name)});  // replacing goes through a scratch file too
  }
  auto const noFolder = run({"cp", local("src.txt"), local("newdir") + "/"});
  EXPECT_EQ(noFolder.status, 1) << noFolder;
  EXPECT_THAT(noFolder.err, HasSubstr("no such folder")) << noFolder;
  EXPECT_FALSE(fs::exists(dir_ / "newdir"));
  fs::create_directories(dir_ / "newdir");
  ok({"cp", local("src.txt"), local("newdir") + "/"});
  EXPECT_EQ(readLocal(dir_ / "newdir/src.txt"), "content");
}

// A store whose folder "/d/locked" cannot be listed (as a folder of another user would).
class LockedFolderStore : public providers::mem::MemoryProvider {
 public:
  using MemoryProvider::MemoryProvider;
  FolderEntryIteratorPtr doListAll(StorageIRI const& iri) const override {
    if (iri.getPath() == u"/d/locked") throw Exception(ErrorCode::NotWritable, iri, "cannot read folder entries");
    return MemoryProvider::doListAll(iri);
  }
  FolderEntryIteratorPtr doListAllRecursive(StorageIRI const& iri) const override {
    if (iri.getPath() == u"/" || iri.getPath() == u"/d") {
      throw Exception(ErrorCode::NotWritable, iri.withPath(u"/d/locked"), "cannot read folder entries");
    }
    return MemoryProvider::doListAllRecursive(iri);
  }
};

// ls lists what it can and says, in one warning line each, which folders it could not
// list and how many names no store can show; the status stays 0.
TEST_F(OvlTest, ListingsNameWhatTheyCouldNotShow) {
  providers::mem::MemoryProvider::Options options;
  options.name = u"locked";
  auto store = std::make_shared<LockedFolderStore>(options);
  registry_.addProvider(StorageIRI(u"mem://locked/"), store);
  store->elsewhere().createFolder(u"/d/locked");
  store->elsewhere().createFolder(u"/d/open");
  store->elsewhere().writeFile(u"/d/open/a.txt", "a");
  auto const listed = run({"ls", "-R", "mem://locked/d"});
  EXPECT_EQ(listed.status, 0) << listed;
  EXPECT_THAT(listed.out, HasSubstr("open/a.txt")) << listed;
  EXPECT_EQ(listed.err, "ovl ls: warning: could not list mem://locked/d/locked: cannot be read (cannot read folder entries)\n")
      << listed;
  auto const denied = run({"cat", "mem://locked/d/locked"});
  EXPECT_EQ(denied.status, 1) << denied;
  // Through the overlay, whose listing of the whole tree fails on that folder: the
  // listing is still right (folders are then listed as asked for), with a warning.
  auto const overlaid = run({"--overlay", "ls", "mem://locked/d"});
  EXPECT_EQ(overlaid.status, 0) << overlaid;
  EXPECT_THAT(overlaid.out, HasSubstr(" locked\n")) << overlaid;
  EXPECT_THAT(overlaid.out, HasSubstr(" open\n")) << overlaid;
  EXPECT_EQ(overlaid.err, "ovl ls: warning: the overlay could not list mem://locked/d/locked: cannot be read (cannot "
                          "read folder entries) (it lists folders as they are asked for instead; --log FILE shows more)\n")
      << overlaid;

  fs::create_directories(dir_ / "names");
  for (auto const* name : {"fine.txt", "tab\there.txt", "bad\xff\xfe.bin", "also fine"}) writeLocal(local("names/") + name, "x");
  for (bool overlay : {false, true}) {
    std::vector<std::string> args{"ls", local("names")};
    if (overlay) args.insert(args.begin(), {"--overlay-root", local("names")});
    auto const names = run(args);
    EXPECT_EQ(names.status, 0) << names;
    EXPECT_THAT(names.out, HasSubstr("fine.txt")) << names;
    EXPECT_THAT(names.out, HasSubstr("also fine")) << names;
    EXPECT_EQ(names.err, "ovl ls: warning: " + local("names") + ": 2 names not shown (not valid UTF-8, or holding control characters)\n")
        << names;
  }
}

TEST_F(OvlTest, RemoveAndMove) {
  ok({"mkdir", "-p", "mem://t/d/sub"});
  writeLocal(local("f.txt"), "one");
  ok({"cp", local("f.txt"), "mem://t/d/sub/f.txt"});
  ok({"cp", local("f.txt"), "mem://t/f.txt"});

  failsNaming({"rm", "mem://t/d"}, "mem://t/d", "is a folder");
  failsNaming({"rm", "mem://t/none"}, "mem://t/none", "does not exist");
  ok({"rm", "mem://t/f.txt"});
  failsNaming({"cat", "mem://t/f.txt"}, "mem://t/f.txt", "does not exist");

  // Rename a file; a taken destination needs --replace.
  ok({"cp", local("f.txt"), "mem://t/a.txt"});
  writeLocal(local("g.txt"), "two");
  ok({"cp", local("g.txt"), "mem://t/b.txt"});
  failsNaming({"mv", "mem://t/a.txt", "mem://t/b.txt"}, "mem://t/b.txt", "already exists");
  EXPECT_EQ(ok({"cat", "mem://t/b.txt"}).out, "two");
  ok({"mv", "--replace", "mem://t/a.txt", "mem://t/b.txt"});
  EXPECT_EQ(ok({"cat", "mem://t/b.txt"}).out, "one");
  failsNaming({"cat", "mem://t/a.txt"}, "mem://t/a.txt", "does not exist");

  // Move a folder (renamed, then into an existing folder).
  ok({"mv", "mem://t/d", "mem://t/e"});
  EXPECT_EQ(ok({"cat", "mem://t/e/sub/f.txt"}).out, "one");
  ok({"mkdir", "mem://t/box"});
  ok({"mv", "mem://t/e", "mem://t/box"});
  EXPECT_EQ(ok({"cat", "mem://t/box/e/sub/f.txt"}).out, "one");
  failsNaming({"mv", "mem://t/none", "mem://t/x"}, "mem://t/none", "does not exist");

  // Between stores: a file is copied and removed; a folder is refused.
  ok({"mv", "mem://t/b.txt", local("moved.txt")});
  EXPECT_EQ(readLocal(local("moved.txt")), "one");
  failsNaming({"cat", "mem://t/b.txt"}, "mem://t/b.txt", "does not exist");
  failsNaming({"mv", "mem://t/box", local("box")}, "mem://t/box", "moving a folder to another store");

  // Local folders, by path.
  ok({"mkdir", local("tree")});
  ok({"cp", local("f.txt"), local("tree")});
  ok({"mv", local("tree"), local("tree2")});
  EXPECT_EQ(readLocal(local("tree2/f.txt")), "one");
  ok({"rm", "-r", local("tree2")});
  EXPECT_FALSE(fs::exists(dir_ / "tree2"));
  ok({"rm", "--recursive", "mem://t/box"});
  failsNaming({"ls", "mem://t/box"}, "mem://t/box", "does not exist");
}

TEST_F(OvlTest, ThrottleFlagsKeepResultsAndMessagesInTheUsersTerms) {
  auto const content = allBytes();
  writeLocal(local("bin.dat"), content);
  ok({"--throttle-ms", "1", "--throttle-mbps", "100", "cp", local("bin.dat"), "mem://t/bin.dat"});
  EXPECT_EQ(ok({"cat", "mem://t/bin.dat", "--throttle-ms=0.5"}).out, content);
  EXPECT_THAT(ok({"--throttle-mbps", "1000", "ls", "mem://t/"}).out, HasSubstr("bin.dat"));
  failsNaming({"cat", "--throttle-ms", "1", "mem://t/none"}, "mem://t/none", "does not exist");
  failsNaming({"mkdir", "mem://t/x/y", "--throttle-ms", "1"}, "mem://t/x", "does not exist");
  auto const stat = ok({"--throttle-ms", "1", "stat", local("bin.dat")}).out;
  EXPECT_THAT(stat, HasSubstr("iri:      file://" + local("bin.dat") + "\n"));
  // IRIs of the throttle scheme itself resolve too.
  EXPECT_EQ(ok({"cat", "throttle:<mem://t/>/bin.dat"}).out, content);
}

TEST_F(OvlTest, LogFlagsWriteToTheLogFile) {
  auto const logFile = local("ovl.log");
  ok({"--log", logFile, "--log-level", "2", "ls", "mem://t/"});
  EXPECT_THAT(readLocal(logFile), HasSubstr("ovl --log " + logFile + " --log-level 2 ls mem://t/"));
  auto const failed = run({"--log", local("no/such/dir/ovl.log"), "ls", "mem://t/"});
  EXPECT_EQ(failed.status, 1) << failed;
  EXPECT_THAT(failed.err, StartsWith("ovl ls: " + local("no/such/dir/ovl.log") + ": cannot write the log"));
  foundation::log::configure("stderr", foundation::log::kDefaultThreshold);
}

}  // namespace
