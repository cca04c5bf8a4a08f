// What the file store answers beyond what every store shares: extended attributes and the
// watermark, permission bits and their failures, names that are not UTF-8, sparse
// streams, links, moves across file systems, and the factory.
#include "file_test_support.hpp"

#include <providers/file/FileProvider.hpp>
#include <providers/file/FileProviderFactory.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <boost/any.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/statvfs.h>
#include <sys/xattr.h>

#include <functional>

namespace {

using namespace foundation::storage::provider;
using filetest::ScratchFolder;
using providers::file::FileProvider;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Runs `call` and returns the Exception it throws; fails the test when it throws nothing.
template <class F>
Exception failureOf(F&& call) {
  try {
    call();
  } catch (Exception const& e) {
    return e;
  }
  ADD_FAILURE() << "no Exception was thrown";
  return Exception(ErrorCode::TransientFailure, StorageIRI(u"file:///nothing-thrown"));
}

std::vector<std::u16string> namesOf(FolderEntryIteratorPtr listing) {
  std::vector<std::u16string> names;
  for (auto const& entry : collect(*listing)) names.push_back(entry.getName());
  return names;
}

struct stat statOf(std::string const& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st;
}

std::string watermark(FileProvider const& provider, StorageIRI const& iri) {
  return provider.doGetExtendedAttributes(iri).getString("WATERMARK");
}

// Runs `checks` as an unprivileged user: in a child process that becomes "nobody" when the
// test runs as root (root passes every permission bit), in this process otherwise.
// `checks` returns 0 when all hold, or the number of the first that failed.
int runUnprivileged(std::function<int()> const& checks) {
  if (::geteuid() != 0) return checks();
  pid_t pid = ::fork();
  if (pid < 0) return 200;
  if (pid == 0) {
    int code = 201;
    if (::setgid(65534) == 0 && ::setuid(65534) == 0) {
      try {
        code = checks();
      } catch (...) {
        code = 202;
      }
    }
    ::_exit(code);
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return 203;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 204;
}

class FileStoreTest : public ::testing::Test {
 protected:
  ScratchFolder scratch;
  FileProvider provider;
};

TEST_F(FileStoreTest, ExtendedAttributesAreUserXattrsPlusAWatermarkThatFollowsContent) {
  scratch.write("a.txt", "hello");
  scratch.mkdir("docs");
  auto const file = scratch.iri("a.txt");

  auto const first = watermark(provider, file);
  ASSERT_FALSE(first.empty());
  EXPECT_TRUE(provider.doHasFeature(ExtendedFeature::ExtendedAttributes));

  // user. xattrs show up without their prefix, as text; other namespaces do not.
  bool const xattrs = ::setxattr(scratch.path("a.txt").c_str(), "user.color", "blue", 4, 0) == 0;
  if (xattrs) {
    ::setxattr(scratch.path("a.txt").c_str(), "trusted.hidden", "x", 1, 0);  // root only; fine if refused
    ASSERT_EQ(::setxattr(scratch.path("docs").c_str(), "user.kind", "manuals", 7, 0), 0);
    auto attributes = provider.doGetExtendedAttributes(file);
    EXPECT_EQ(attributes.getString("color"), "blue");
    EXPECT_EQ(boost::any_cast<std::string>(attributes.getAttribute("color")), "blue");
    EXPECT_THAT(attributes.getNames(), ElementsAre("WATERMARK", "color"));
    // Folders carry their xattrs but no watermark.
    auto folder = provider.doGetExtendedAttributes(scratch.iri("docs"));
    EXPECT_EQ(folder.getString("kind"), "manuals");
    EXPECT_FALSE(folder.hasAttribute("WATERMARK"));
    // Changing an xattr is not a change of content.
    ASSERT_EQ(::setxattr(scratch.path("a.txt").c_str(), "user.color", "red", 3, 0), 0);
    EXPECT_EQ(watermark(provider, file), first);
  } else {
    EXPECT_FALSE(provider.doGetExtendedAttributes(scratch.iri("docs")).hasAttribute("WATERMARK"));
  }

  // Reading and content changes that change the size are checked by the conformance
  // suite; here: a same-size rewrite (the modification time moves), and a replacement by
  // rename with the same size and time (another inode).
  auto const before = statOf(scratch.path("a.txt"));
  scratch.write("a.txt", "HELLO");
  struct timespec later[2] = {before.st_atim, before.st_mtim};
  later[1].tv_sec += 10;
  ASSERT_EQ(::utimensat(AT_FDCWD, scratch.path("a.txt").c_str(), later, 0), 0);
  auto const second = watermark(provider, file);
  EXPECT_NE(second, first);

  scratch.write("b.txt", "hello");
  ASSERT_EQ(::utimensat(AT_FDCWD, scratch.path("b.txt").c_str(), later, 0), 0);
  ASSERT_EQ(::rename(scratch.path("b.txt").c_str(), scratch.path("a.txt").c_str()), 0);
  EXPECT_NE(watermark(provider, file), second);
}

TEST_F(FileStoreTest, AttributesComeFromModeAndTimeToTheMicrosecond) {
  using boost::posix_time::ptime;
  using boost::posix_time::time_from_string;
  scratch.write("f", "12345");
  scratch.mkdir("d");

  struct timespec times[2] = {{0, UTIME_OMIT}, {1614834367, 123456789}};  // 2021-03-04 05:06:07.123456789 UTC
  ASSERT_EQ(::utimensat(AT_FDCWD, scratch.path("f").c_str(), times, 0), 0);
  EXPECT_EQ(provider.doGetFileAttributes(scratch.iri("f")).getLastModified(),
            time_from_string("2021-03-04 05:06:07.123456"));

  // Setting a time before 1970 keeps the sub-second part right.
  provider.doSetLastModified(scratch.iri("d"), time_from_string("1969-12-31 23:59:59.250000"));
  auto const st = statOf(scratch.path("d"));
  EXPECT_EQ(st.st_mtim.tv_sec, -1);
  EXPECT_EQ(st.st_mtim.tv_nsec, 250000000);
  EXPECT_EQ(provider.doGetFolderAttributes(scratch.iri("d")).getLastModified(),
            time_from_string("1969-12-31 23:59:59.250000"));
  EXPECT_THROW(provider.doSetLastModified(scratch.iri("f"), ptime()), std::invalid_argument);

  // writable is the owner-write bit, even for root; setWritable touches only write bits.
  ASSERT_EQ(::chmod(scratch.path("f").c_str(), 0444), 0);
  EXPECT_FALSE(provider.doGetFileAttributes(scratch.iri("f")).isWritable());
  provider.doSetWritable(scratch.iri("f"), true);
  EXPECT_EQ(statOf(scratch.path("f")).st_mode & 07777, 0644u);
  EXPECT_TRUE(provider.doGetFileAttributes(scratch.iri("f")).isWritable());
  ASSERT_EQ(::chmod(scratch.path("d").c_str(), 0777), 0);
  provider.doSetWritable(scratch.iri("d"), false);
  EXPECT_EQ(statOf(scratch.path("d")).st_mode & 07777, 0555u);
  EXPECT_FALSE(provider.doGetFolderAttributes(scratch.iri("d")).isWritable());
}

TEST_F(FileStoreTest, AnImmutableFolderIsNotWritable) {
  scratch.mkdir("frozen");
  scratch.write("frozen/kept.txt", "data");
  if (!filetest::setImmutable(scratch.path("frozen"), true)) {
    GTEST_SKIP() << "the immutable flag needs CAP_LINUX_IMMUTABLE and a file system that keeps it";
  }
  struct Thaw {
    std::string path;
    ~Thaw() { filetest::setImmutable(path, false); }
  } thaw{scratch.path("frozen")};

  // EPERM: the parent is named for creation, the item for removal.
  auto created = failureOf([&] { provider.doCreateFile(scratch.iri("frozen/new.txt")); });
  EXPECT_EQ(created.getErrorCode(), ErrorCode::NotWritable);
  EXPECT_EQ(created.getIRI(), scratch.iri("frozen"));
  EXPECT_THAT(created.what(), HasSubstr("Operation not permitted"));
  EXPECT_EQ(failureOf([&] { provider.doCreateFolder(scratch.iri("frozen/sub")); }).getIRI(), scratch.iri("frozen"));
  auto removed = failureOf([&] { provider.doRemoveFile(scratch.iri("frozen/kept.txt")); });
  EXPECT_EQ(removed.getErrorCode(), ErrorCode::NotWritable);
  EXPECT_EQ(removed.getIRI(), scratch.iri("frozen/kept.txt"));
  EXPECT_EQ(failureOf([&] {
              provider.doMoveFile(scratch.iri("frozen/kept.txt"), scratch.iri("out.txt"), ReplacementPolicy::Never);
            }).getErrorCode(),
            ErrorCode::NotWritable);
  EXPECT_EQ(failureOf([&] { provider.doRemoveFolderRecursively(scratch.iri("frozen")); }).getErrorCode(),
            ErrorCode::NotWritable);

  // Nothing was lost on the way.
  EXPECT_EQ(scratch.read("frozen/kept.txt"), "data");
  EXPECT_FALSE(scratch.exists("out.txt"));
}

TEST_F(FileStoreTest, PermissionBitsGiveNotWritableAndUnreadableFoldersAClearError) {
  scratch.mkdir("ro");
  scratch.write("ro/file", "x");
  scratch.mkdir("locked");
  scratch.write("locked/secret", "s");
  scratch.mkdir("tree/inner");
  scratch.write("tree/a", "a");
  ASSERT_EQ(::chmod(scratch.path("ro/file").c_str(), 0444), 0);
  ASSERT_EQ(::chmod(scratch.path("ro").c_str(), 0555), 0);
  ASSERT_EQ(::chmod(scratch.path("locked").c_str(), 0333), 0);  // anyone may enter and write, not read
  ASSERT_EQ(::chmod(scratch.path("tree/inner").c_str(), 0000), 0);

  auto const ro = scratch.iri("ro");
  auto const locked = scratch.iri("locked");
  auto const inner = scratch.iri("tree/inner");
  auto const tree = scratch.iri("tree");
  auto const newFile = scratch.iri("ro/new");
  auto const roFile = scratch.iri("ro/file");
  auto const lockedSecret = scratch.iri("locked/secret");
  int const failed = runUnprivileged([&]() -> int {
    auto is = [](Exception const& e, ErrorCode code, StorageIRI const& iri) {
      return e.getErrorCode() == code && e.getIRI() == iri && std::string(e.what()).find("Permission denied") != std::string::npos;
    };
    auto caught = [](auto&& call) -> std::optional<Exception> {
      try {
        call();
      } catch (Exception const& e) {
        return e;
      }
      return std::nullopt;
    };
    FileProvider p;
    auto e = caught([&] { p.doCreateFile(newFile); });
    if (!e || !is(*e, ErrorCode::NotWritable, ro)) return 1;
    e = caught([&] { p.doCreateFolder(newFile); });
    if (!e || !is(*e, ErrorCode::NotWritable, ro)) return 2;
    ByteStreamOpenOptions options;
    e = caught([&] { p.doOpenStream(roFile, options); });
    if (!e || !is(*e, ErrorCode::NotWritable, roFile)) return 3;
    e = caught([&] { p.doListAll(locked); });
    if (!e || !is(*e, ErrorCode::NotWritable, locked)) return 4;
    e = caught([&] { collect(*p.doListAllRecursive(tree)); });  // fails where it meets the folder
    if (!e || !is(*e, ErrorCode::NotWritable, inner)) return 5;
    // Reading the folder's attributes and entering it still work.
    if (!p.doFolderExists(locked) || !p.doFileExists(lockedSecret)) return 6;
    if (p.doGetFileAttributes(roFile).isWritable()) return 7;
    return 0;
  });
  EXPECT_EQ(failed, 0) << "check number " << failed << " failed (200+ means the check could not run)";
}

TEST_F(FileStoreTest, NamesThatAreNotUtf8AreLeftOutAndNeverBreakAnything) {
  scratch.mkdir("mixed/sub");
  scratch.write("mixed/ok.txt", "fine");
  scratch.write("mixed/\xff\xfe.bin", "bad name");
  scratch.write("mixed/line\nbreak", "control character");
  scratch.mkdir("mixed/\xc3(");
  scratch.write("mixed/\xc3(/inside", "below a bad name");
  scratch.write("mixed/sub/\xed\xa0\x80", "an encoded surrogate");
  scratch.write("mixed/sub/\xc3\xa9t\xc3\xa9", "valid UTF-8");

  auto const mixed = scratch.iri("mixed");
  EXPECT_THAT(namesOf(provider.doListAll(mixed)), ElementsAre(u"ok.txt", u"sub"));
  EXPECT_THAT(namesOf(provider.doListAllRecursive(mixed)), ElementsAre(u"ok.txt", u"sub", u"sub/\u00e9t\u00e9"));

  // The whole tree goes, including what nobody could address.
  provider.doRemoveFolderRecursively(mixed);
  EXPECT_FALSE(scratch.exists("mixed"));

  // An IRI that cannot become a native path is an invalid name.
  EXPECT_EQ(failureOf([&] { provider.doCreateFile(StorageIRI(scratch.iri(), std::u16string(u"bad\xD800"))); })
                .getErrorCode(),
            ErrorCode::InvalidName);
  EXPECT_EQ(failureOf([&] { provider.doCreateFile(scratch.iri(std::string(300, 'n'))); }).getErrorCode(),
            ErrorCode::InvalidName);
}

TEST_F(FileStoreTest, StreamsWriteFarPastTheEndAsAHoleAndReportOsFailures) {
  auto const iri = scratch.iri("sparse.bin");
  long const offset = 5L << 30;  // beyond what 32 bits can address
  {
    auto out = provider.doOpenStream(iri, ByteStreamOpenOptions{});
    EXPECT_EQ(out->seek(offset, std::ios_base::beg), offset);
    EXPECT_EQ(out->write("x", 1), 1);
    EXPECT_EQ(out->seek(0, std::ios_base::end), offset + 1);
    out->close();
    out->close();  // harmless
  }
  auto const st = statOf(scratch.path("sparse.bin"));
  EXPECT_EQ(st.st_size, offset + 1);
  EXPECT_LT(st.st_blocks * 512, 1 << 20) << "the gap should take no space";
  EXPECT_EQ(provider.doGetFileAttributes(iri).getSize(), std::optional<unsigned long>(offset + 1));

  auto in = provider.doOpenReadOnlyStream(iri);
  in->seek(offset - 4, std::ios_base::beg);
  char buffer[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(in->read(buffer, sizeof buffer), 5);
  EXPECT_EQ(std::string(buffer, 5), std::string("\0\0\0\0x", 5));
  EXPECT_EQ(in->read(buffer, sizeof buffer), -1);
  EXPECT_EQ(in->seek(-1, std::ios_base::cur), offset);
  EXPECT_THROW(in->seek(-1, std::ios_base::beg), ByteStreamSeekFailure);

  // Past the largest size the file system allows: EFBIG, reported with the system's text.
  auto out = provider.doOpenStream(iri, ByteStreamOpenOptions{});
  out->seek(1L << 50, std::ios_base::beg);  // 1 PiB: beyond ext4, xfs and tmpfs limits
  try {
    out->write("abcd", 4);
    ADD_FAILURE() << "writing past the largest file size succeeded";
  } catch (ByteStreamWriteFailure const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::TransientFailure);
    EXPECT_THAT(e.what(), HasSubstr("File too large"));
    EXPECT_THAT(e.what(), HasSubstr("sparse.bin"));
  }
  out->close();
  EXPECT_THROW(out->write("a", 1), ByteStreamWriteFailure);  // closed
  EXPECT_EQ(provider.doGetFileAttributes(iri).getSize(), std::optional<unsigned long>(offset + 1));

  // truncate extends with a hole and shortens in place.
  provider.doTruncateToSize(iri, 3);
  EXPECT_EQ(provider.doGetFileAttributes(iri).getSize(), std::optional<unsigned long>(3));
}

TEST_F(FileStoreTest, LinksAreFollowedForReadingButNeverForRemoval) {
  scratch.mkdir("outside");
  scratch.write("outside/precious", "keep me");
  scratch.mkdir("tree/sub");
  scratch.write("tree/sub/f", "f");
  ASSERT_EQ(::symlink(scratch.path("outside").c_str(), scratch.path("tree/link-out").c_str()), 0);
  ASSERT_EQ(::symlink("..", scratch.path("tree/sub/cycle").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", scratch.path("tree/dangling").c_str()), 0);
  ASSERT_EQ(::mkfifo(scratch.path("tree/fifo").c_str(), 0600), 0);

  // A link to a folder lists as a folder; a cycle is entered once; dangling links and
  // FIFOs are neither files nor folders.
  EXPECT_THAT(namesOf(provider.doListAll(scratch.iri("tree"))), ElementsAre(u"link-out", u"sub"));
  EXPECT_THAT(namesOf(provider.doListAllRecursive(scratch.iri("tree"))),
              ElementsAre(u"link-out", u"link-out/precious", u"sub", u"sub/cycle", u"sub/f"));
  EXPECT_FALSE(provider.doExists(scratch.iri("tree/fifo")));
  EXPECT_EQ(failureOf([&] { provider.doOpenReadOnlyStream(scratch.iri("tree/fifo")); }).getErrorCode(),
            ErrorCode::DoesNotExist);

  provider.doRemoveFolderRecursively(scratch.iri("tree"));
  EXPECT_FALSE(scratch.exists("tree"));
  EXPECT_EQ(scratch.read("outside/precious"), "keep me");

  // A folder that is the same as the destination through a link is not merged into itself.
  ASSERT_EQ(::symlink(scratch.path("outside").c_str(), scratch.path("alias").c_str()), 0);
  provider.doMoveFolder(scratch.iri("outside"), scratch.iri("alias"), ReplacementPolicy::KeepExisting);
  EXPECT_EQ(scratch.read("outside/precious"), "keep me");
  EXPECT_TRUE(scratch.exists("alias"));

  // Removing a link to a folder removes the link only.
  provider.doRemoveFolderRecursively(scratch.iri("alias"));
  EXPECT_FALSE(scratch.exists("alias"));
  EXPECT_EQ(scratch.read("outside/precious"), "keep me");
}

// How a merge keeps or replaces files is checked by the conformance suite; the file store
// also lets a source file replace a folder of the same name when the policy is Always.
TEST_F(FileStoreTest, FolderMergeWithAlwaysLetsASourceFileReplaceAFolder) {
  scratch.mkdir("src");
  scratch.write("src/clash", "source file");
  scratch.mkdir("dst/clash");
  scratch.write("dst/clash/x", "destination folder");

  provider.doMoveFolder(scratch.iri("src"), scratch.iri("dst"), ReplacementPolicy::Always);
  EXPECT_FALSE(scratch.exists("src"));
  EXPECT_EQ(scratch.read("dst/clash"), "source file");
}

TEST_F(FileStoreTest, MovesAcrossFileSystemsCopyAndKeepTimes) {
  struct stat shm {};
  if (::stat("/dev/shm", &shm) != 0 || shm.st_dev == statOf(scratch.path()).st_dev ||
      ::access("/dev/shm", W_OK) != 0) {
    GTEST_SKIP() << "needs a writable /dev/shm on another file system";
  }
  support::TempFolder const away("filestore", "/dev/shm");
  auto const awayIri = StorageIRI(u"file://" + fl::i18n::to_ustring(away.path().string()));

  scratch.write("f.txt", "file content");
  struct timespec times[2] = {{0, UTIME_OMIT}, {1000000000, 5000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, scratch.path("f.txt").c_str(), times, 0), 0);
  provider.doMoveFile(scratch.iri("f.txt"), StorageIRI(awayIri, u"f.txt"), ReplacementPolicy::Never);
  EXPECT_FALSE(scratch.exists("f.txt"));
  auto const moved = statOf(away.path("f.txt"));
  EXPECT_EQ(moved.st_mtim.tv_sec, 1000000000);

  scratch.mkdir("tree/sub");
  scratch.write("tree/sub/a", "A");
  ASSERT_EQ(::symlink("sub/a", scratch.path("tree/link").c_str()), 0);
  provider.doMoveFolder(scratch.iri("tree"), StorageIRI(awayIri, u"tree"), ReplacementPolicy::Never);
  EXPECT_FALSE(scratch.exists("tree"));
  EXPECT_EQ(away.read("tree/link"), "A");

  // Back again onto an existing file, replacing it.
  scratch.write("f.txt", "old");
  provider.doMoveFile(StorageIRI(awayIri, u"f.txt"), scratch.iri("f.txt"), ReplacementPolicy::Always);
  EXPECT_EQ(scratch.read("f.txt"), "file content");
}

TEST_F(FileStoreTest, FactoryFeaturesAndStorageFigures) {
  providers::file::FileProviderFactory factory;
  auto made = factory.createProvider(StorageItem());
  ASSERT_NE(std::dynamic_pointer_cast<FileProvider>(made), nullptr);
  EXPECT_EQ(factory.createContainerIRI(StorageItem()).toString(), u"file:///");
  ProviderRegistry registry;
  providers::file::registerWith(registry);
  EXPECT_TRUE(registry.hasScheme(u"file"));
  auto item = registry.resolve(scratch.iri("a.txt"));
  EXPECT_NE(std::dynamic_pointer_cast<FileProvider>(item.getProvider()), nullptr);
  EXPECT_EQ(item.getLocation(), scratch.iri("a.txt"));
  registry.shutdownAll();

  for (int value = 0; value < 16; ++value) {
    bool const expected = value == 0 || value == 1 || value == 6;
    EXPECT_EQ(provider.doHasFeature(static_cast<ExtendedFeature>(value)), expected) << value;
  }
  provider.doConfigure(boost::property_tree::ptree());

  struct statvfs fs {};
  ASSERT_EQ(::statvfs(scratch.path().c_str(), &fs), 0);
  auto info = provider.doGetProviderStorageInfo(scratch.iri());
  EXPECT_EQ(info.getStorageCapacity(), static_cast<unsigned long>(fs.f_blocks) * fs.f_frsize);
  EXPECT_GT(info.getSpaceOccupied(), 0u);
  EXPECT_EQ(failureOf([&] { provider.doGetProviderStorageInfo(scratch.iri("missing")); }).getErrorCode(),
            ErrorCode::DoesNotExist);
}

}  // namespace
