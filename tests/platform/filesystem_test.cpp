#include "fl/filesystem.hpp"

#include "fl/i18n.hpp"

#include <support/ScopedEnv.hpp>
#include <support/TempFolder.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>

namespace {

namespace fs = fl::filesystem;
using fs::path;

class FilesystemTest : public ::testing::Test {
 protected:
  path write(std::string const& name, std::string const& content) {
    scratch_.write(name, content);
    return dir_ / name;
  }
  static std::string read(path const& p) { return support::readFile(p); }

  support::TempFolder const scratch_{"fl_filesystem_test"};
  path const dir_ = scratch_.path();
};

TEST_F(FilesystemTest, StatusReportsTypeSizeAndUtcWriteTime) {
  path const file = write("a.bin", "hello");
  // 2021-03-04 05:06:07.123456 UTC
  struct timespec const times[2] = {{1614834367, 123456000}, {1614834367, 123456000}};
  ASSERT_EQ(0, ::utimensat(AT_FDCWD, file.c_str(), times, 0));

  fs::file_status const st = fs::status(file);
  EXPECT_EQ(fs::file_type::file, st.type);
  EXPECT_EQ(5u, st.size);
  EXPECT_EQ(boost::posix_time::time_from_string("2021-03-04 05:06:07.123456"),
            st.last_write_time);

  fs::file_status const dirStatus = fs::status(dir_);
  EXPECT_EQ(fs::file_type::directory, dirStatus.type);
  EXPECT_EQ(0u, dirStatus.size);
  EXPECT_FALSE(dirStatus.last_write_time.is_not_a_date_time());

  // Missing paths are an answer, not a failure.
  fs::file_status const missing = fs::status(dir_ / "missing");
  EXPECT_EQ(fs::file_type::none, missing.type);
  EXPECT_TRUE(missing.last_write_time.is_not_a_date_time());
  EXPECT_EQ(fs::file_type::none, fs::status(file / "below-a-file").type);
  EXPECT_EQ(fs::file_type::other, fs::status("/dev/null").type);

  EXPECT_TRUE(fs::exists(file));
  EXPECT_TRUE(fs::exists(dir_));
  EXPECT_FALSE(fs::exists(dir_ / "missing"));
  EXPECT_FALSE(fs::exists(dir_ / "missing" / "deeper"));
}

TEST_F(FilesystemTest, RenameMovesAndReplaces) {
  path const from = write("from", "new");
  path const to = write("to", "old content");
  fs::rename(from, to);
  EXPECT_FALSE(fs::exists(from));
  EXPECT_EQ("new", read(to));

  try {
    fs::rename(from, dir_ / "elsewhere");
    FAIL() << "renaming a missing file succeeded";
  } catch (std::filesystem::filesystem_error const& e) {
    EXPECT_EQ(from, e.path1());
    EXPECT_EQ(std::errc::no_such_file_or_directory, e.code());
  }
}

TEST_F(FilesystemTest, CopyFileHonoursOverwrite) {
  path const source = write("source", "payload");
  path const target = dir_ / "target";
  fs::copy_file(source, target, false);
  EXPECT_EQ("payload", read(target));
  EXPECT_EQ("payload", read(source));

  write("source", "changed");
  try {
    fs::copy_file(source, target, false);
    FAIL() << "copy over an existing file without overwrite succeeded";
  } catch (std::filesystem::filesystem_error const& e) {
    EXPECT_EQ(std::errc::file_exists, e.code());
  }
  EXPECT_EQ("payload", read(target));

  fs::copy_file(source, target, true);
  EXPECT_EQ("changed", read(target));
  EXPECT_THROW(fs::copy_file(dir_ / "missing", target, true), std::filesystem::filesystem_error);
}

TEST_F(FilesystemTest, RemoveAndCreateDirectories) {
  path const nested = dir_ / "a" / "b" / "c";
  EXPECT_TRUE(fs::create_directories(nested));
  EXPECT_FALSE(fs::create_directories(nested));
  EXPECT_EQ(fs::file_type::directory, fs::status(nested).type);

  path const file = write("a/b/c/f", "x");
  EXPECT_THROW(fs::create_directories(file / "sub"), std::filesystem::filesystem_error);
  EXPECT_THROW(fs::remove(dir_ / "a"), std::filesystem::filesystem_error);  // not empty

  EXPECT_TRUE(fs::remove(file));
  EXPECT_FALSE(fs::remove(file));
  EXPECT_TRUE(fs::remove(nested));
  EXPECT_FALSE(fs::exists(nested));
}

TEST_F(FilesystemTest, TempDirectoryHonoursTmpdir) {
  path temp;
  {
    support::ScopedEnv const env("TMPDIR", dir_.c_str());
    temp = fs::temp_directory_name();
  }
  EXPECT_EQ(dir_, temp);
}

TEST(FilesystemPathTest, ConvertsBetweenPathsAndUtf16) {
  std::u16string const name = u"caf\u00E9/\U0001F600.cache";
  path const p = fs::to_path(name);
  EXPECT_EQ("caf\xC3\xA9/\xF0\x9F\x98\x80.cache", p.string());
  EXPECT_EQ(u"\U0001F600.cache", fs::to_ustring(p.filename()));
  EXPECT_EQ(name, fs::to_ustring(p));

  EXPECT_THROW(fs::to_path(std::u16string{u'a', 0xD800}), fl::i18n::internal_runtime_error);
  EXPECT_THROW(fs::to_ustring(path("bad\xFF")), fl::i18n::conversion_error);
}

}  // namespace
