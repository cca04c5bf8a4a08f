// The conformance suite's tests and helpers. See ConformanceSuite.hpp for how a provider
// is put under test.
#include <support/ConformanceSuite.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/IFolderEntryIterator.hpp>
#include <foundation/storage/provider/ProviderStorageInfo.hpp>
#include <foundation/storage/provider/Types.hpp>
#include <foundation/storage/provider/extensions/IClosesWithTime.hpp>

#include <fl/i18n.hpp>

#include <boost/any.hpp>
#include <boost/core/demangle.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <typeinfo>

namespace ovltest {

namespace sp = foundation::storage::provider;
namespace pt = boost::posix_time;
using sp::ByteStreamOpenOptions;
using sp::ErrorCode;
using sp::ExtendedFeature;
using sp::ReplacementPolicy;
using sp::StorageIRI;

// ---------------------------------------------------------------------------------------
// Plumbing

void SimpleHarness::tearDown() {
  if (cleanUp_) cleanUp_();
}

void PrintTo(StoreUnderTest const& store, std::ostream* out) { *out << "store \"" << store.name << '"'; }

std::string storeName(::testing::TestParamInfo<StoreUnderTest> const& info) { return info.param.name; }

bool linkConformanceSuite() { return true; }

void PrintTo(ListedEntry const& entry, std::ostream* out) {
  *out << (entry.isFile ? "file " : "folder ") << '"' << fl::i18n::to_string(entry.name) << '"';
}

namespace {

std::string text(std::u16string const& s) { return fl::i18n::to_string(s); }

std::string describe(ErrorCode code) {
  return sp::toString(code) + " (" + std::to_string(static_cast<int>(code)) + ")";
}

ByteStreamOpenOptions options(int openMode, bool truncate = false, bool append = false) {
  ByteStreamOpenOptions o;
  o.openMode = openMode;
  o.truncate = truncate;
  o.append = append;
  return o;
}

// Writes all of `data` to `stream`, looping over short writes.
void writeAll(sp::ByteStream& stream, std::string const& data) {
  std::size_t done = 0;
  while (done < data.size()) {
    long const chunk = static_cast<long>(std::min<std::size_t>(data.size() - done, 65537));
    long const n = stream.write(data.data() + done, chunk);
    ASSERT_GT(n, 0) << "write of " << chunk << " bytes returned " << n;
    done += static_cast<std::size_t>(n);
  }
}

// Opens a stream on `file` with `openOptions`, writes all of `data` and closes it.
void writeWith(sp::StorageItem const& file, ByteStreamOpenOptions const& openOptions, std::string const& data) {
  auto stream = file.openStream(openOptions);
  writeAll(*stream, data);
  stream->close();
}

// Reads from the position to the end of `stream` in chunks of `chunk` bytes.
std::string readAll(sp::ByteStream& stream, long chunk = 4096) {
  std::string out;
  std::vector<char> buffer(static_cast<std::size_t>(chunk));
  for (;;) {
    long const n = stream.read(buffer.data(), chunk);
    if (n <= 0) break;  // -1 is the end; 0 would loop forever
    out.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return out;
}

pt::ptime wholeSeconds(pt::ptime t) {
  if (t.is_special()) return t;
  return t - pt::microseconds(t.time_of_day().fractional_seconds() * 1000000 / pt::time_duration::ticks_per_second());
}

// Deterministic bytes for large-content checks.
std::string patterned(std::size_t size) {
  std::string out(size, '\0');
  std::uint32_t x = 0x12345678u;
  for (auto& c : out) {
    x = x * 1664525u + 1013904223u;
    c = static_cast<char>(x >> 24);
  }
  return out;
}

void note(std::string const& key, std::string const& value) {
  ::testing::Test::RecordProperty(key, value);
  std::cout << "[   NOTE   ] " << key << ": " << value << "\n";
}

}  // namespace

::testing::AssertionResult throwsStorageError(ErrorCode code, std::vector<StorageIRI> const& iris,
                                              std::function<void()> const& action) {
  std::string expected = "Exception " + describe(code) + " naming ";
  for (std::size_t i = 0; i < iris.size(); ++i) expected += (i ? " or " : "") + iris[i].toUtf8();
  try {
    action();
  } catch (sp::Exception const& e) {
    bool const named = std::any_of(iris.begin(), iris.end(), [&](StorageIRI const& iri) {
      return iri.getResolvedIRI() == e.getIRI().getResolvedIRI();
    });
    if (e.getErrorCode() == code && named) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << expected << "; got Exception " << e.what();
  } catch (std::exception const& e) {
    return ::testing::AssertionFailure() << "expected " << expected << "; got "
                                         << boost::core::demangle(typeid(e).name()) << ": " << e.what();
  } catch (...) {
    return ::testing::AssertionFailure() << "expected " << expected << "; got an exception of unknown type";
  }
  return ::testing::AssertionFailure() << "expected " << expected << "; nothing was thrown";
}

::testing::AssertionResult throwsStorageError(ErrorCode code, StorageIRI const& iri,
                                              std::function<void()> const& action) {
  return throwsStorageError(code, std::vector<StorageIRI>{iri}, action);
}

// ---------------------------------------------------------------------------------------
// Fixture

void ConformanceSuite::SetUp() {
  harness_ = GetParam().make();
  ASSERT_TRUE(harness_) << "the store's factory made no harness";
  caps_ = harness_->capabilities();
  root_ = harness_->root();
  ASSERT_TRUE(root_.hasProvider());
  ASSERT_TRUE(root_.folderExists()) << "the harness root " << root_.getLocation() << " is not a folder";
  ASSERT_TRUE(root_.listAllNamesOnly().empty()) << "the harness root " << root_.getLocation() << " is not empty";
}

void ConformanceSuite::TearDown() {
  if (!harness_) return;
  flushAll();
  root_ = StorageItem();
  harness_->tearDown();
  harness_.reset();
}

ConformanceSuite::StorageItem ConformanceSuite::item(std::u16string const& path) const {
  if (path.empty()) return root_;
  return StorageItem(root_.getProvider(), StorageIRI(root_.getLocation(), path));
}

void ConformanceSuite::write(std::u16string const& path, std::string const& content) const {
  auto const parent = item(path).getLocation().getParent();
  if (!StorageItem(root_.getProvider(), parent).folderExists())
    StorageItem(root_.getProvider(), parent).createFolderRecursive();
  writeWith(item(path), options(ByteStreamOpenOptions::OpenOrCreate, true), content);
}

std::string ConformanceSuite::read(std::u16string const& path) const {
  auto stream = item(path).openReadOnlyStream();
  auto content = readAll(*stream);
  stream->close();
  return content;
}

void ConformanceSuite::mkdirs(std::u16string const& path) const { item(path).createFolderRecursive(); }

std::optional<unsigned long> ConformanceSuite::sizeOf(std::u16string const& path) const {
  return item(path).getFileAttributes().getSize();
}

std::vector<ListedEntry> ConformanceSuite::listed(sp::FolderEntryIteratorPtr listing) const {
  std::vector<ListedEntry> out;
  for (auto const& entry : sp::collect(*listing)) out.push_back({entry.getName(), entry.isFile()});
  std::sort(out.begin(), out.end());
  return out;
}

std::vector<std::u16string> ConformanceSuite::sorted(std::vector<std::u16string> names) const {
  std::sort(names.begin(), names.end());
  return names;
}

WriteRefusal ConformanceSuite::tryToWrite(std::u16string const& path) const {
  WriteRefusal refusal;
  sp::ByteStreamPtr stream;
  auto step = [&](WriteRefusal::Where where, auto&& action) {
    try {
      action();
      return true;
    } catch (sp::Exception const& e) {
      refusal = {where, e.getErrorCode(), e.getIRI(), e.what()};
    } catch (sp::ByteStreamFailure const& e) {
      refusal = {where, e.getErrorCode(), std::nullopt, e.what()};
    } catch (std::exception const& e) {
      refusal = {where, std::nullopt, std::nullopt, e.what()};
    }
    return false;
  };
  if (!step(WriteRefusal::Where::Open,
            [&] { stream = item(path).openStream(options(ByteStreamOpenOptions::OpenExisting)); }))
    return refusal;
  if (!step(WriteRefusal::Where::Write, [&] { stream->write("X", 1); })) {
    try {
      stream->close();
    } catch (...) {
      // The write already failed; the close may fail for the same reason.
    }
    return refusal;
  }
  step(WriteRefusal::Where::Close, [&] { stream->close(); });
  return refusal;
}

namespace {

// What a folder holds, by path relative to it: file content, or "<folder>".
std::map<std::u16string, std::string> snapshotOf(sp::StorageItem const& folder,
                                                 std::function<std::string(sp::StorageItem const&)> const& readFile) {
  std::map<std::u16string, std::string> out;
  std::function<void(sp::StorageItem const&, std::u16string const&)> walk = [&](sp::StorageItem const& at,
                                                                                std::u16string const& prefix) {
    for (auto const& entry : sp::collect(*at.listAll())) {
      auto const relative = prefix.empty() ? entry.getName() : prefix + u"/" + entry.getName();
      sp::StorageItem child(at.getProvider(), StorageIRI(at.getLocation(), entry.getName()));
      if (entry.isFile()) {
        out[relative] = readFile(child);
      } else {
        out[relative] = "<folder>";
        walk(child, relative);
      }
    }
  };
  walk(folder, {});
  return out;
}

std::string readItem(sp::StorageItem const& file) {
  auto stream = file.openReadOnlyStream();
  auto content = readAll(*stream);
  stream->close();
  return content;
}

}  // namespace

ConformanceSuite::Tree ConformanceSuite::snapshot(std::u16string const& path) const {
  return snapshotOf(item(path), readItem);
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(ConformanceSuite);

// ---------------------------------------------------------------------------------------
// Existence and creation

TEST_P(ConformanceSuite, ExistenceTellsFilesFoldersAndNothingApart) {
  write(u"a.txt", "a");
  mkdirs(u"docs");
  settle();

  EXPECT_TRUE(item(u"a.txt").fileExists());
  EXPECT_FALSE(item(u"a.txt").folderExists());
  EXPECT_TRUE(item(u"docs").folderExists());
  EXPECT_FALSE(item(u"docs").fileExists());
  EXPECT_TRUE(item(u"").folderExists());
  for (auto const* missing : {u"missing", u"missing/below.txt", u"a.txt/below.txt", u"docs/missing.txt"}) {
    SCOPED_TRACE(text(missing));
    EXPECT_FALSE(item(missing).fileExists());
    EXPECT_FALSE(item(missing).folderExists());
    EXPECT_FALSE(item(missing).exists());
    EXPECT_EQ(item(missing).existsExtended(), sp::ExistenceKind::None);
  }
  EXPECT_TRUE(item(u"a.txt").exists());
  EXPECT_EQ(item(u"a.txt").existsExtended(), sp::ExistenceKind::File);
  EXPECT_EQ(item(u"docs").existsExtended(), sp::ExistenceKind::Folder);
}

TEST_P(ConformanceSuite, CreateFileMakesAnEmptyFileAndRefusesOccupiedOrOrphanedTargets) {
  item(u"a.txt").createFile();
  settle();
  EXPECT_TRUE(item(u"a.txt").fileExists());
  EXPECT_EQ(sizeOf(u"a.txt"), 0u);
  EXPECT_EQ(read(u"a.txt"), "");

  write(u"a.txt", "keep");
  mkdirs(u"docs");
  settle();
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"a.txt"), item(u"a.txt").createFile());
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"docs"), item(u"docs").createFile());
  // A missing parent is named, not the file that could not be made.
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing"), item(u"missing/b.txt").createFile());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"docs/missing/deeper"),
                       item(u"docs/missing/deeper/b.txt").createFile());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"a.txt"), item(u"a.txt/b.txt").createFile());
  settle();

  // Refused creations change nothing.
  EXPECT_EQ(read(u"a.txt"), "keep");
  EXPECT_TRUE(item(u"docs").folderExists());
  EXPECT_EQ(snapshot(u""), (Tree{{u"a.txt", "keep"}, {u"docs", "<folder>"}}));
}

TEST_P(ConformanceSuite, CreateFolderMakesAnEmptyFolderAndRefusesOccupiedOrOrphanedTargets) {
  item(u"docs").createFolder();
  item(u"docs/sub").createFolder();
  settle();
  EXPECT_TRUE(item(u"docs").folderExists());
  EXPECT_TRUE(item(u"docs/sub").folderExists());
  EXPECT_TRUE(item(u"docs/sub").listAllNamesOnly().empty());

  write(u"docs/sub/keep.txt", "keep");
  write(u"a.txt", "file");
  settle();
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"docs/sub"), item(u"docs/sub").createFolder());
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"a.txt"), item(u"a.txt").createFolder());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing"), item(u"missing/new").createFolder());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"docs/missing/deeper"),
                       item(u"docs/missing/deeper/new").createFolder());
  settle();

  EXPECT_EQ(
      snapshot(u""),
      (Tree{{u"a.txt", "file"}, {u"docs", "<folder>"}, {u"docs/sub", "<folder>"}, {u"docs/sub/keep.txt", "keep"}}));
}

TEST_P(ConformanceSuite, CreateFolderRecursiveMakesAncestorsAndAcceptsExistingFolders) {
  item(u"a/b/c").createFolderRecursive();
  settle();
  for (auto const* path : {u"a", u"a/b", u"a/b/c"}) EXPECT_TRUE(item(path).folderExists()) << text(path);

  write(u"a/b/keep.txt", "keep");
  settle();
  if (caps().createFolderRecursiveAcceptsExisting) {
    EXPECT_NO_THROW(item(u"a/b").createFolderRecursive());  // already there: fine
  } else {
    EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"a/b"), item(u"a/b").createFolderRecursive());
  }
  EXPECT_NO_THROW(item(u"a/b/c/d").createFolderRecursive());  // partly there
  settle();
  EXPECT_TRUE(item(u"a/b/c/d").folderExists());
  EXPECT_EQ(read(u"a/b/keep.txt"), "keep");

  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"a/b/keep.txt"), item(u"a/b/keep.txt").createFolderRecursive());
  // A file where an ancestor should be: refused; which code is left open.
  EXPECT_THROW(item(u"a/b/keep.txt/sub").createFolderRecursive(), sp::Exception);
  settle();
  EXPECT_TRUE(item(u"a/b/keep.txt").fileExists());
  EXPECT_EQ(read(u"a/b/keep.txt"), "keep");
  EXPECT_EQ(snapshot(u"a"),
            (Tree{{u"b", "<folder>"}, {u"b/c", "<folder>"}, {u"b/c/d", "<folder>"}, {u"b/keep.txt", "keep"}}));
}

// ---------------------------------------------------------------------------------------
// Removal

TEST_P(ConformanceSuite, RemoveFileRemovesFilesOnly) {
  write(u"a.txt", "a");
  mkdirs(u"docs");
  write(u"docs/b.txt", "b");
  settle();

  item(u"a.txt").removeFile();
  settle();
  EXPECT_FALSE(item(u"a.txt").exists());

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"a.txt"), item(u"a.txt").removeFile());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"docs"), item(u"docs").removeFile());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing/b.txt"), item(u"missing/b.txt").removeFile());
  settle();
  EXPECT_EQ(snapshot(u""), (Tree{{u"docs", "<folder>"}, {u"docs/b.txt", "b"}}));
}

TEST_P(ConformanceSuite, RemoveFolderRemovesEmptyFoldersOnly) {
  mkdirs(u"empty");
  mkdirs(u"withFile");
  write(u"withFile/f.txt", "f");
  mkdirs(u"withFolder/sub");
  settle();

  item(u"empty").removeFolder();
  settle();
  EXPECT_FALSE(item(u"empty").exists());

  EXPECT_STORAGE_ERROR(ErrorCode::FolderNotEmpty, iri(u"withFile"), item(u"withFile").removeFolder());
  EXPECT_STORAGE_ERROR(ErrorCode::FolderNotEmpty, iri(u"withFolder"), item(u"withFolder").removeFolder());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"empty"), item(u"empty").removeFolder());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"withFile/f.txt"), item(u"withFile/f.txt").removeFolder());
  settle();
  EXPECT_EQ(snapshot(u""), (Tree{{u"withFile", "<folder>"},
                                 {u"withFile/f.txt", "f"},
                                 {u"withFolder", "<folder>"},
                                 {u"withFolder/sub", "<folder>"}}));
}

TEST_P(ConformanceSuite, RemoveFolderRecursivelyRemovesADeepTreeAndNothingBeside) {
  write(u"t/f0.txt", "0");
  write(u"t/a/f1.txt", "1");
  write(u"t/a/b/f2.txt", "2");
  write(u"t/a/b/c/d/f4.txt", "4");
  mkdirs(u"t/a/empty");
  write(u"tt/keep.txt", "keep");  // a sibling whose name starts like the removed folder
  write(u"t.txt", "keep too");
  mkdirs(u"lonely");
  settle();

  item(u"t").removeFolderRecursively();
  item(u"lonely").removeFolderRecursively();
  settle();
  EXPECT_FALSE(item(u"t").exists());
  EXPECT_FALSE(item(u"t/a/b/f2.txt").exists());
  EXPECT_FALSE(item(u"lonely").exists());

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"t"), item(u"t").removeFolderRecursively());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"t.txt"), item(u"t.txt").removeFolderRecursively());
  settle();
  EXPECT_EQ(snapshot(u""), (Tree{{u"t.txt", "keep too"}, {u"tt", "<folder>"}, {u"tt/keep.txt", "keep"}}));
}

// ---------------------------------------------------------------------------------------
// Moves and copies

TEST_P(ConformanceSuite, MoveFileMovesContentAndReplacesOnlyWhenAllowed) {
  write(u"a.txt", "alpha");
  mkdirs(u"docs");
  settle();

  item(u"a.txt").moveFile(iri(u"docs/b.txt"), ReplacementPolicy::Never);
  settle();
  EXPECT_FALSE(item(u"a.txt").exists());
  EXPECT_EQ(read(u"docs/b.txt"), "alpha");
  EXPECT_EQ(sizeOf(u"docs/b.txt"), 5u);

  item(u"docs/b.txt").moveFile(iri(u"docs/c.txt"), ReplacementPolicy::Never);  // rename in place
  write(u"other.txt", "a much longer old content");
  settle();
  item(u"docs/c.txt").moveFile(iri(u"other.txt"), ReplacementPolicy::Always);
  settle();
  EXPECT_EQ(read(u"other.txt"), "alpha");
  EXPECT_EQ(sizeOf(u"other.txt"), 5u);
  EXPECT_EQ(snapshot(u""), (Tree{{u"docs", "<folder>"}, {u"other.txt", "alpha"}}));
}

void ConformanceSuite::expectFileTransferRefusals(FileTransfer const& transfer, std::u16string const& folderTarget) {
  write(u"src.txt", "source");
  write(u"dst.txt", "destination");
  write(u"folder/inside.txt", "inside");
  settle();
  Tree const before = snapshot(u"");

  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"dst.txt"),
                       transfer(item(u"src.txt"), iri(u"dst.txt"), ReplacementPolicy::Never));
  // KeepExisting means nothing more for a single file: it refuses like Never.
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"dst.txt"),
                       transfer(item(u"src.txt"), iri(u"dst.txt"), ReplacementPolicy::KeepExisting));
  // A file never replaces a folder, whatever the policy.
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"folder"),
                       transfer(item(u"src.txt"), iri(u"folder"), ReplacementPolicy::Never));
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"folder"),
                       transfer(item(u"src.txt"), iri(u"folder"), ReplacementPolicy::Always));
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing.txt"),
                       transfer(item(u"missing.txt"), iri(u"new.txt"), ReplacementPolicy::Never));
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"folder"),
                       transfer(item(u"folder"), iri(folderTarget), ReplacementPolicy::Never));
  // Which of the two a missing destination parent names is left open.
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, (std::vector<StorageIRI>{iri(u"nowhere"), iri(u"nowhere/new.txt")}),
                       transfer(item(u"src.txt"), iri(u"nowhere/new.txt"), ReplacementPolicy::Never));
  settle();
  EXPECT_EQ(snapshot(u""), before);
}

TEST_P(ConformanceSuite, MoveFileRefusalsLeaveBothSidesUntouched) {
  expectFileTransferRefusals(
      [](StorageItem from, StorageIRI const& to, ReplacementPolicy policy) { from.moveFile(to, policy); }, u"moved");
}

TEST_P(ConformanceSuite, MoveFolderMovesTheWholeTree) {
  write(u"src/a.txt", "A");
  write(u"src/sub/b.txt", "B");
  mkdirs(u"src/empty");
  mkdirs(u"parent");
  settle();
  Tree const tree = snapshot(u"src");

  item(u"src").moveFolder(iri(u"parent/moved"), ReplacementPolicy::Never);
  settle();
  EXPECT_FALSE(item(u"src").exists());
  EXPECT_FALSE(item(u"src/a.txt").exists());
  EXPECT_EQ(snapshot(u"parent/moved"), tree);

  item(u"parent/moved").moveFolder(iri(u"renamed"), ReplacementPolicy::Never);
  settle();
  EXPECT_EQ(snapshot(u"renamed"), tree);
  EXPECT_TRUE(item(u"parent").listAllNamesOnly().empty());
}

TEST_P(ConformanceSuite, MoveFolderOntoAFolderMergesAsThePolicySays) {
  auto prepare = [&](std::u16string const& src, std::u16string const& dst) {
    write(src + u"/a.txt", "src-a");
    write(src + u"/b.txt", "src-b");
    write(src + u"/sub/c.txt", "src-c");
    write(src + u"/sub/d.txt", "src-d");
    write(dst + u"/a.txt", "dst-a");
    write(dst + u"/e.txt", "dst-e");
    write(dst + u"/sub/c.txt", "dst-c");
  };
  prepare(u"src1", u"dst1");
  prepare(u"src2", u"dst2");
  settle();

  // KeepExisting: what the destination holds wins; the source's colliding files go.
  item(u"src1").moveFolder(iri(u"dst1"), ReplacementPolicy::KeepExisting);
  // Always: the source's files win.
  item(u"src2").moveFolder(iri(u"dst2"), ReplacementPolicy::Always);
  settle();
  EXPECT_FALSE(item(u"src1").exists());
  EXPECT_FALSE(item(u"src2").exists());
  EXPECT_EQ(snapshot(u"dst1"), (Tree{{u"a.txt", "dst-a"},
                                     {u"b.txt", "src-b"},
                                     {u"e.txt", "dst-e"},
                                     {u"sub", "<folder>"},
                                     {u"sub/c.txt", "dst-c"},
                                     {u"sub/d.txt", "src-d"}}));
  EXPECT_EQ(snapshot(u"dst2"), (Tree{{u"a.txt", "src-a"},
                                     {u"b.txt", "src-b"},
                                     {u"e.txt", "dst-e"},
                                     {u"sub", "<folder>"},
                                     {u"sub/c.txt", "src-c"},
                                     {u"sub/d.txt", "src-d"}}));
}

TEST_P(ConformanceSuite, MoveFolderRefusalsLeaveBothSidesUntouched) {
  write(u"src/f.txt", "f");
  mkdirs(u"src/sub");
  write(u"full/g.txt", "g");
  write(u"file.txt", "file");
  mkdirs(u"empty");
  settle();
  Tree const before = snapshot(u"");

  // Never refuses any existing destination, an empty folder included.
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"full"),
                       item(u"src").moveFolder(iri(u"full"), ReplacementPolicy::Never));
  if (caps().moveFolderNeverRefusesEmptyFolder) {
    EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"empty"),
                         item(u"src").moveFolder(iri(u"empty"), ReplacementPolicy::Never));
  }
  // A folder never replaces a file, whatever the policy.
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"file.txt"),
                       item(u"src").moveFolder(iri(u"file.txt"), ReplacementPolicy::Never));
  EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"file.txt"),
                       item(u"src").moveFolder(iri(u"file.txt"), ReplacementPolicy::Always));
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing"),
                       item(u"missing").moveFolder(iri(u"moved"), ReplacementPolicy::Never));
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"file.txt"),
                       item(u"file.txt").moveFolder(iri(u"moved"), ReplacementPolicy::Never));
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, (std::vector<StorageIRI>{iri(u"nowhere"), iri(u"nowhere/moved")}),
                       item(u"src").moveFolder(iri(u"nowhere/moved"), ReplacementPolicy::Never));
  // Into its own subtree: an invalid destination, whichever of the two is named.
  EXPECT_STORAGE_ERROR(ErrorCode::InvalidName, (std::vector<StorageIRI>{iri(u"src"), iri(u"src/sub/moved")}),
                       item(u"src").moveFolder(iri(u"src/sub/moved"), ReplacementPolicy::Never));
  EXPECT_STORAGE_ERROR(ErrorCode::InvalidName, (std::vector<StorageIRI>{iri(u"src"), iri(u"src/moved")}),
                       item(u"src").moveFolder(iri(u"src/moved"), ReplacementPolicy::Always));
  settle();
  EXPECT_EQ(snapshot(u""), before);
}

TEST_P(ConformanceSuite, CopyFileMakesAnIndependentCopyAndReplacesOnlyWhenAllowed) {
  write(u"a.txt", "alpha");
  mkdirs(u"docs");
  settle();

  item(u"a.txt").copyFile(iri(u"docs/b.txt"), ReplacementPolicy::Never);
  settle();
  EXPECT_EQ(read(u"a.txt"), "alpha");
  EXPECT_EQ(read(u"docs/b.txt"), "alpha");
  EXPECT_EQ(sizeOf(u"docs/b.txt"), 5u);

  write(u"docs/b.txt", "changed copy");
  settle();
  EXPECT_EQ(read(u"a.txt"), "alpha");

  write(u"c.txt", "a much longer old content");
  settle();
  item(u"a.txt").copyFile(iri(u"c.txt"), ReplacementPolicy::Always);
  settle();
  EXPECT_EQ(read(u"c.txt"), "alpha");
  EXPECT_EQ(sizeOf(u"c.txt"), 5u);

  // The framework's interruptible copy, built on the store's streams and moves.
  EXPECT_TRUE(item(u"a.txt").copyFileAtomic(iri(u"d.txt"), ReplacementPolicy::Never,
                                            [] { return sp::InterruptSignal::Continue; }));
  EXPECT_FALSE(item(u"a.txt").copyFileAtomic(iri(u"e.txt"), ReplacementPolicy::Never,
                                             [] { return sp::InterruptSignal::Interrupt; }));
  settle();
  EXPECT_EQ(snapshot(u""), (Tree{{u"a.txt", "alpha"},
                                 {u"c.txt", "alpha"},
                                 {u"d.txt", "alpha"},
                                 {u"docs", "<folder>"},
                                 {u"docs/b.txt", "changed copy"}}));
}

TEST_P(ConformanceSuite, CopyFileRefusalsLeaveTheDestinationUntouched) {
  expectFileTransferRefusals(
      [](StorageItem from, StorageIRI const& to, ReplacementPolicy policy) { from.copyFile(to, policy); }, u"copied");
}

// ---------------------------------------------------------------------------------------
// Attributes

TEST_P(ConformanceSuite, FileAttributesFollowTheContent) {
  item(u"f.bin").createFile();
  settle();
  auto const created = item(u"f.bin").getFileAttributes();
  EXPECT_EQ(created.getSize(), 0u);
  EXPECT_FALSE(created.getLastModified().is_special());
  EXPECT_TRUE(created.isWritable());

  // (Sizes after truncating and appending streams: TruncateEmptiesAndAppendWritesAtTheEnd.)
  write(u"f.bin", "12345");
  settle();
  EXPECT_EQ(sizeOf(u"f.bin"), 5u);

  item(u"f.bin").truncateToSize(2);
  settle();
  EXPECT_EQ(sizeOf(u"f.bin"), 2u);
  EXPECT_EQ(read(u"f.bin"), "12");
  item(u"f.bin").truncateToSize(6);
  settle();
  EXPECT_EQ(sizeOf(u"f.bin"), 6u);
  EXPECT_EQ(read(u"f.bin"), std::string("12\0\0\0\0", 6));

  auto const entries = sp::collect(*root().listAll());
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].getFileAttributes().getSize(), 6u);
  EXPECT_TRUE(entries[0].getFileAttributes().isWritable());

  mkdirs(u"docs");
  settle();
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing.bin"), item(u"missing.bin").getFileAttributes());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"docs"), item(u"docs").getFileAttributes());
}

TEST_P(ConformanceSuite, FolderAttributesAreReportedForFoldersOnly) {
  mkdirs(u"docs");
  write(u"a.txt", "a");
  settle();
  auto const attributes = item(u"docs").getFolderAttributes();
  EXPECT_FALSE(attributes.getLastModified().is_special());
  EXPECT_TRUE(attributes.isWritable());
  EXPECT_TRUE(root().getFolderAttributes().isWritable());

  for (auto const& entry : sp::collect(*root().listFolders())) {
    EXPECT_EQ(entry.getName(), u"docs");
    EXPECT_TRUE(entry.getFolderAttributes().isWritable());
  }

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing"), item(u"missing").getFolderAttributes());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"a.txt"), item(u"a.txt").getFolderAttributes());
}

TEST_P(ConformanceSuite, SetLastModifiedRoundTripsToTheSecond) {
  if (!caps().keepsSetAttributes) GTEST_SKIP() << "what was set lives where a listing does not show it";
  write(u"a.txt", "content");
  mkdirs(u"docs");
  settle();
  pt::ptime const when(boost::gregorian::date(2001, 2, 3), pt::hours(4) + pt::minutes(5) + pt::seconds(6));

  item(u"a.txt").setLastModified(when);
  item(u"docs").setLastModified(when);
  settle();
  EXPECT_EQ(wholeSeconds(item(u"a.txt").getFileAttributes().getLastModified()), when);
  EXPECT_EQ(wholeSeconds(item(u"docs").getFolderAttributes().getLastModified()), when);
  if (caps().listingsCarrySetAttributes) {
    for (auto const& entry : sp::collect(*root().listAll())) {
      SCOPED_TRACE(text(entry.getName()));
      EXPECT_EQ(wholeSeconds(entry.isFile() ? entry.getFileAttributes().getLastModified()
                                            : entry.getFolderAttributes().getLastModified()),
                when);
    }
  } else {
    note("listings_carry_set_time", "no (the attributes of each item do)");
  }
  EXPECT_EQ(read(u"a.txt"), "content");

  // A later change of content moves the time on again.
  write(u"a.txt", "new content");
  settle();
  EXPECT_GT(item(u"a.txt").getFileAttributes().getLastModified(), when);

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing"), item(u"missing").setLastModified(when));
}

// A store whose write streams can close with a time (the overlay saves its call to set
// the time after each close that way) leaves the file with that time and its content.
TEST_P(ConformanceSuite, AStreamClosedWithATimeLeavesTheFileWithIt) {
  pt::ptime const when(boost::gregorian::date(2001, 2, 3), pt::hours(4) + pt::minutes(5) + pt::seconds(6));
  auto stream = item(u"timed.txt").openStream(options(ByteStreamOpenOptions::OpenOrCreate, true));
  auto* const timed = dynamic_cast<sp::extensions::IClosesWithTime*>(stream.get());
  if (!timed) {
    stream->close();
    GTEST_SKIP() << "its write streams close without a time";
  }
  writeAll(*stream, "content");
  ASSERT_TRUE(timed->closeWithTime(when));
  settle();
  EXPECT_EQ(wholeSeconds(item(u"timed.txt").getFileAttributes().getLastModified()), when);
  EXPECT_EQ(read(u"timed.txt"), "content");
}

TEST_P(ConformanceSuite, SetWritableOnAFileIsReportedAndRefusesWrites) {
  if (!caps().keepsSetAttributes) GTEST_SKIP() << "what was set lives where a listing does not show it";
  write(u"ro.txt", "original");
  settle();

  item(u"ro.txt").setWritable(false);
  settle();
  EXPECT_FALSE(item(u"ro.txt").getFileAttributes().isWritable());
  auto const entries = sp::collect(*root().listFiles());
  ASSERT_EQ(entries.size(), 1u);
  if (caps().listingsCarrySetAttributes) {
    EXPECT_FALSE(entries[0].getFileAttributes().isWritable());
  }
  EXPECT_EQ(read(u"ro.txt"), "original");

  if (caps().enforcesWritable) {
    // The refusal may come when the stream opens (an Exception naming the file) or on the
    // first write or the close (a stream failure carrying the code).
    auto const refusal = tryToWrite(u"ro.txt");
    static char const* const where[] = {"nowhere", "open", "write", "close"};
    note("not_writable_reported_at", where[static_cast<int>(refusal.where)]);
    EXPECT_NE(refusal.where, WriteRefusal::Where::Nowhere) << "a write to a file that is not writable succeeded";
    EXPECT_EQ(refusal.code, ErrorCode::NotWritable) << refusal.what;
    if (refusal.where == WriteRefusal::Where::Open) {
      ASSERT_TRUE(refusal.iri.has_value()) << refusal.what;
      EXPECT_EQ(refusal.iri->getResolvedIRI(), iri(u"ro.txt").getResolvedIRI());
    }
    // Not even a truncating open empties it.
    try {
      auto stream = item(u"ro.txt").openStream(options(ByteStreamOpenOptions::OpenOrCreate, /*truncate=*/true));
      stream->close();
    } catch (std::exception const&) {
      // Refused, as it should be; the content is checked below.
    }
    settle();
    EXPECT_EQ(read(u"ro.txt"), "original");
    EXPECT_EQ(sizeOf(u"ro.txt"), 8u);
  } else {
    note("not_writable_enforced", "no (the store only records the flag here)");
  }

  item(u"ro.txt").setWritable(true);
  settle();
  EXPECT_TRUE(item(u"ro.txt").getFileAttributes().isWritable());
  write(u"ro.txt", "rewritten");
  settle();
  EXPECT_EQ(read(u"ro.txt"), "rewritten");

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing"), item(u"missing").setWritable(false));
}

TEST_P(ConformanceSuite, SetWritableOnAFolderIsReportedAndRefusesNewChildren) {
  if (!caps().keepsSetAttributes) GTEST_SKIP() << "what was set lives where a listing does not show it";
  write(u"ro/inside.txt", "inside");
  settle();

  item(u"ro").setWritable(false);
  settle();
  EXPECT_FALSE(item(u"ro").getFolderAttributes().isWritable());
  EXPECT_EQ(read(u"ro/inside.txt"), "inside");

  if (caps().enforcesWritable) {
    EXPECT_STORAGE_ERROR(ErrorCode::NotWritable, iri(u"ro"), item(u"ro/new.txt").createFile());
    EXPECT_STORAGE_ERROR(ErrorCode::NotWritable, iri(u"ro"), item(u"ro/new").createFolder());
    settle();
    EXPECT_EQ(item(u"ro").listAllNamesOnly(), std::vector<std::u16string>{u"inside.txt"});
  } else {
    note("not_writable_enforced", "no (the store only records the flag here)");
  }

  item(u"ro").setWritable(true);
  settle();
  EXPECT_TRUE(item(u"ro").getFolderAttributes().isWritable());
  item(u"ro/new.txt").createFile();
  settle();
  EXPECT_TRUE(item(u"ro/new.txt").fileExists());
}

TEST_P(ConformanceSuite, WatermarkChangesWithContentOnly) {
  // Where the watermark comes from the store beneath, every change reaches it first.
  auto const settle = [this] {
    if (caps().watermarkBeforeFlush) {
      this->settle();
    } else {
      flushAll();
    }
  };
  write(u"w.txt", "one");
  settle();
  auto watermark = [&] {
    auto const attributes = item(u"w.txt").getExtendedAttributes();
    EXPECT_TRUE(attributes.hasAttribute("WATERMARK"));
    if (!attributes.hasAttribute("WATERMARK")) return std::string();
    auto const& value = attributes.getAttribute("WATERMARK");
    EXPECT_EQ(value.type(), typeid(std::string)) << "WATERMARK holds " << boost::core::demangle(value.type().name());
    return attributes.getString("WATERMARK");
  };
  auto const first = watermark();
  EXPECT_FALSE(first.empty());

  // Reading, asking for attributes and listing leave it as it is.
  EXPECT_EQ(read(u"w.txt"), "one");
  item(u"w.txt").getFileAttributes();
  root().listAll();
  settle();
  EXPECT_EQ(watermark(), first);

  // Each change below also changes the size: a store that derives the watermark from
  // time, size and file identity cannot tell two same-size writes within one clock tick
  // apart, and the suite does not depend on the clock.
  write(u"w.txt", "three");
  settle();
  auto const second = watermark();
  EXPECT_NE(second, first);

  writeWith(item(u"w.txt"), options(ByteStreamOpenOptions::OpenExisting, false, /*append=*/true), "+more");
  settle();
  auto const third = watermark();
  EXPECT_NE(third, second);
  EXPECT_NE(third, first);

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing.txt"), item(u"missing.txt").getExtendedAttributes());
}

// ---------------------------------------------------------------------------------------
// Listings

TEST_P(ConformanceSuite, ListingsNameEveryChildOnceWithItsKind) {
  write(u"a.txt", "a");
  write(u"b.txt", "bb");
  write(u"docs/c.txt", "ccc");
  mkdirs(u"empty");
  settle();

  using E = ListedEntry;
  EXPECT_EQ(listed(root().listAll()),
            (std::vector<E>{{u"a.txt", true}, {u"b.txt", true}, {u"docs", false}, {u"empty", false}}));
  EXPECT_EQ(listed(root().listFiles()), (std::vector<E>{{u"a.txt", true}, {u"b.txt", true}}));
  EXPECT_EQ(listed(root().listFolders()), (std::vector<E>{{u"docs", false}, {u"empty", false}}));
  EXPECT_EQ(listed(item(u"docs").listAll()), (std::vector<E>{{u"c.txt", true}}));
  EXPECT_TRUE(listed(item(u"docs").listFolders()).empty());
  EXPECT_TRUE(listed(item(u"empty").listAll()).empty());

  std::map<std::u16string, unsigned long> sizes;
  for (auto const& entry : sp::collect(*root().listFiles())) {
    ASSERT_TRUE(entry.getFileAttributes().getSize().has_value()) << text(entry.getName());
    sizes[entry.getName()] = *entry.getFileAttributes().getSize();
  }
  EXPECT_EQ(sizes, (std::map<std::u16string, unsigned long>{{u"a.txt", 1}, {u"b.txt", 2}}));

  // Listings follow later changes.
  item(u"b.txt").removeFile();
  item(u"docs").moveFolder(iri(u"docs2"), ReplacementPolicy::Never);
  write(u"empty/new.txt", "");
  settle();
  EXPECT_EQ(listed(root().listAll()), (std::vector<E>{{u"a.txt", true}, {u"docs2", false}, {u"empty", false}}));
  EXPECT_EQ(listed(item(u"empty").listAll()), (std::vector<E>{{u"new.txt", true}}));

  for (auto const* path : {u"missing", u"a.txt"}) {
    SCOPED_TRACE(text(path));
    EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(path), item(path).listAll());
    EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(path), item(path).listFiles());
    EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(path), item(path).listFolders());
    EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(path), item(path).listAllNamesOnly());
  }
}

TEST_P(ConformanceSuite, RecursiveListingNamesEveryEntryOnceByRelativePath) {
  if (!root().hasFeature(ExtendedFeature::RecursiveListing))
    GTEST_SKIP() << "the store does not offer RecursiveListing";
  write(u"a.txt", "a");
  write(u"docs/b.txt", "b");
  write(u"docs/sub/c.txt", "c");
  mkdirs(u"docs/sub/deeper");
  mkdirs(u"empty");
  settle();

  auto const entries = sp::collect(*root().listAllRecursive());
  std::vector<ListedEntry> all;
  for (auto const& entry : entries) all.push_back({entry.getName(), entry.isFile()});
  // A folder comes before what it holds.
  for (std::size_t i = 0; i < all.size(); ++i) {
    auto const slash = all[i].name.rfind(u'/');
    if (slash == std::u16string::npos) continue;
    auto const parent = all[i].name.substr(0, slash);
    auto const at = std::find_if(all.begin(), all.end(), [&](ListedEntry const& e) { return e.name == parent; });
    EXPECT_LT(at - all.begin(), static_cast<std::ptrdiff_t>(i)) << text(all[i].name) << " before its folder";
  }
  std::sort(all.begin(), all.end());
  using E = ListedEntry;
  EXPECT_EQ(all, (std::vector<E>{{u"a.txt", true},
                                 {u"docs", false},
                                 {u"docs/b.txt", true},
                                 {u"docs/sub", false},
                                 {u"docs/sub/c.txt", true},
                                 {u"docs/sub/deeper", false},
                                 {u"empty", false}}));
  EXPECT_EQ(sorted(root().listAllRecursiveNamesOnly()),
            (std::vector<std::u16string>{u"a.txt", u"docs", u"docs/b.txt", u"docs/sub", u"docs/sub/c.txt",
                                         u"docs/sub/deeper", u"empty"}));
  EXPECT_EQ(sorted(item(u"docs").listAllRecursiveNamesOnly()),
            (std::vector<std::u16string>{u"b.txt", u"sub", u"sub/c.txt", u"sub/deeper"}));
  EXPECT_EQ(sorted(root().listAllRecursiveNamesOnly(u"*.txt")),
            (std::vector<std::u16string>{u"a.txt", u"docs/b.txt", u"docs/sub/c.txt"}));
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing"), item(u"missing").listAllRecursive());
}

TEST_P(ConformanceSuite, WildcardAndNamesOnlyListingsFilterThePlainListing) {
  write(u"a.txt", "a");
  write(u"b.txt", "b");
  write(u"c.log", "c");
  mkdirs(u"notes.txt");  // a folder whose name looks like a file's
  mkdirs(u"docs");
  settle();

  using Names = std::vector<std::u16string>;
  EXPECT_EQ(sorted(root().listAllNamesOnly(u"*.txt")), (Names{u"a.txt", u"b.txt", u"notes.txt"}));
  EXPECT_EQ(sorted(root().listFilesNamesOnly(u"*.txt")), (Names{u"a.txt", u"b.txt"}));
  EXPECT_EQ(sorted(root().listFoldersNamesOnly(u"*.txt")), (Names{u"notes.txt"}));
  EXPECT_EQ(sorted(root().listFilesNamesOnly(u"?.log")), (Names{u"c.log"}));
  EXPECT_TRUE(root().listAllNamesOnly(u"nothing*").empty());
  EXPECT_EQ(listed(root().listAll(u"*.txt")),
            (std::vector<ListedEntry>{{u"a.txt", true}, {u"b.txt", true}, {u"notes.txt", false}}));
  EXPECT_EQ(listed(root().listFiles(u"*")),
            (std::vector<ListedEntry>{{u"a.txt", true}, {u"b.txt", true}, {u"c.log", true}}));
  EXPECT_EQ(listed(root().listFolders(u"d*")), (std::vector<ListedEntry>{{u"docs", false}}));

  EXPECT_EQ(sorted(root().listAllNamesOnly()), (Names{u"a.txt", u"b.txt", u"c.log", u"docs", u"notes.txt"}));
  EXPECT_EQ(sorted(root().listFilesNamesOnly()), (Names{u"a.txt", u"b.txt", u"c.log"}));
  EXPECT_EQ(sorted(root().listFoldersNamesOnly()), (Names{u"docs", u"notes.txt"}));
}

// ---------------------------------------------------------------------------------------
// Streams

TEST_P(ConformanceSuite, OpenStreamCreatesOnlyWhenAskedTo) {
  auto stream = item(u"new.txt").openStream(options(ByteStreamOpenOptions::OpenOrCreate));
  EXPECT_EQ(stream->write("hello", 5), 5);
  stream->close();
  stream->close();  // closing twice is harmless
  settle();
  EXPECT_TRUE(item(u"new.txt").fileExists());
  EXPECT_EQ(read(u"new.txt"), "hello");

  item(u"empty.txt").openStream(options(ByteStreamOpenOptions::OpenOrCreate))->close();
  settle();
  EXPECT_TRUE(item(u"empty.txt").fileExists());
  EXPECT_EQ(sizeOf(u"empty.txt"), 0u);

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing.txt"),
                       item(u"missing.txt").openStream(options(ByteStreamOpenOptions::OpenExisting)));
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"nowhere"),
                       item(u"nowhere/new.txt").openStream(options(ByteStreamOpenOptions::OpenOrCreate)));
  settle();
  EXPECT_FALSE(item(u"missing.txt").exists());
  EXPECT_FALSE(item(u"nowhere").exists());

  // Opening an existing file neither truncates it nor moves writes to its end.
  write(u"text.txt", "hello world");
  settle();
  writeWith(item(u"text.txt"), options(ByteStreamOpenOptions::OpenExisting), "HE");
  settle();
  EXPECT_EQ(read(u"text.txt"), "HEllo world");
}

TEST_P(ConformanceSuite, TruncateEmptiesAndAppendWritesAtTheEnd) {
  write(u"t.txt", "hello world");
  settle();
  item(u"t.txt").openStream(options(ByteStreamOpenOptions::OpenExisting, /*truncate=*/true))->close();
  settle();
  EXPECT_EQ(sizeOf(u"t.txt"), 0u);
  EXPECT_EQ(read(u"t.txt"), "");

  write(u"t.txt", "abc");
  settle();
  auto stream = item(u"t.txt").openStream(options(ByteStreamOpenOptions::OpenExisting, false, /*append=*/true));
  writeAll(*stream, "def");
  stream->seek(0, std::ios_base::beg);
  writeAll(*stream, "g");  // append mode ignores the position
  stream->close();
  settle();
  EXPECT_EQ(read(u"t.txt"), "abcdefg");
  EXPECT_EQ(sizeOf(u"t.txt"), 7u);
}

TEST_P(ConformanceSuite, StreamsSeekReadToTheEndAndZeroFillGaps) {
  write(u"r.bin", "abc");
  settle();

  auto stream = item(u"r.bin").openStream(options(ByteStreamOpenOptions::OpenExisting));
  EXPECT_EQ(stream->seek(0, std::ios_base::end), 3);
  EXPECT_EQ(stream->seek(10, std::ios_base::beg), 10);
  EXPECT_EQ(stream->write("Z", 1), 1);
  // A read-write stream reads what it wrote.
  EXPECT_EQ(stream->seek(1, std::ios_base::beg), 1);
  char buffer[32];
  EXPECT_EQ(stream->read(buffer, 2), 2);
  EXPECT_EQ(std::string(buffer, 2), "bc");
  stream->close();
  settle();
  std::string const expected = std::string("abc") + std::string(7, '\0') + "Z";
  EXPECT_EQ(sizeOf(u"r.bin"), 11u);
  EXPECT_EQ(read(u"r.bin"), expected);

  auto in = item(u"r.bin").openReadOnlyStream();
  EXPECT_EQ(in->seek(2, std::ios_base::beg), 2);
  EXPECT_EQ(in->read(buffer, 1), 1);
  EXPECT_EQ(buffer[0], 'c');
  EXPECT_EQ(in->seek(2, std::ios_base::cur), 5);
  EXPECT_EQ(in->seek(-1, std::ios_base::end), 10);
  EXPECT_EQ(in->read(buffer, 32), 1);
  EXPECT_EQ(buffer[0], 'Z');
  EXPECT_EQ(in->read(buffer, 32), -1);
  EXPECT_EQ(in->seek(-3, std::ios_base::cur), 8);
  EXPECT_EQ(in->read(buffer, 32), 3);
  EXPECT_EQ(std::string(buffer, 3), std::string("\0\0Z", 3));
  EXPECT_EQ(in->read(buffer, 32), -1);
  in->close();

  item(u"empty.bin").createFile();
  settle();
  in = item(u"empty.bin").openReadOnlyStream();
  EXPECT_EQ(in->read(buffer, 32), -1);
  in->close();
}

TEST_P(ConformanceSuite, ReadOnlyStreamsReadAndNeverWrite) {
  write(u"ro.txt", "content");
  mkdirs(u"docs");
  settle();

  auto in = item(u"ro.txt").openReadOnlyStream();
  EXPECT_EQ(readAll(*in, 3), "content");
  EXPECT_THROW(in->write("X", 1), sp::ByteStreamWriteFailure);
  in->close();
  settle();
  EXPECT_EQ(read(u"ro.txt"), "content");

  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"missing.txt"), item(u"missing.txt").openReadOnlyStream());
  EXPECT_STORAGE_ERROR(ErrorCode::DoesNotExist, iri(u"docs"), item(u"docs").openReadOnlyStream());
  settle();
  EXPECT_FALSE(item(u"missing.txt").exists());
}

TEST_P(ConformanceSuite, TwoStreamsOnOneFileSeeEachOthersClosedWrites) {
  write(u"shared.txt", "0123456789");
  settle();

  auto first = item(u"shared.txt").openStream(options(ByteStreamOpenOptions::OpenExisting));
  auto second = item(u"shared.txt").openStream(options(ByteStreamOpenOptions::OpenExisting));
  writeAll(*first, "AAAA");
  first->close();

  char buffer[16];
  EXPECT_EQ(second->seek(0, std::ios_base::beg), 0);
  EXPECT_EQ(second->read(buffer, 10), 10);
  EXPECT_EQ(std::string(buffer, 10), "AAAA456789");
  EXPECT_EQ(second->seek(6, std::ios_base::beg), 6);
  writeAll(*second, "BB");
  second->close();
  settle();
  EXPECT_EQ(read(u"shared.txt"), "AAAA45BB89");
}

TEST_P(ConformanceSuite, LargeContentRoundTrips) {
  std::string const content = patterned((3u << 20) + 4099u);
  write(u"large.bin", content);
  settle();
  EXPECT_EQ(sizeOf(u"large.bin"), content.size());

  auto in = item(u"large.bin").openReadOnlyStream();
  auto const back = readAll(*in, 100003);
  in->close();
  EXPECT_EQ(back.size(), content.size());
  EXPECT_TRUE(back == content) << "the content read back differs from what was written";

  in = item(u"large.bin").openReadOnlyStream();
  long const at = (2L << 20) + 17;
  EXPECT_EQ(in->seek(at, std::ios_base::beg), at);
  std::string part(1000, '\0');
  EXPECT_EQ(in->read(part.data(), 1000), 1000);
  EXPECT_TRUE(part == content.substr(static_cast<std::size_t>(at), 1000)) << "random-access read differs";
  in->close();

  item(u"large.bin").copyFile(iri(u"copy.bin"), ReplacementPolicy::Never);
  settle();
  EXPECT_EQ(sizeOf(u"copy.bin"), content.size());
  EXPECT_TRUE(read(u"copy.bin") == content) << "the copy differs from the original";
}

TEST_P(ConformanceSuite, TransactionalStreamReplacesTheFileOnClose) {
  write(u"t.txt", "old");
  settle();

  auto stream = item(u"t.txt").openTransactionalStream(options(ByteStreamOpenOptions::OpenOrCreate, /*truncate=*/true));
  writeAll(*stream, "new content");
  EXPECT_EQ(read(u"t.txt"), "old");
  stream->close();
  settle();
  EXPECT_EQ(read(u"t.txt"), "new content");
  EXPECT_EQ(root().listAllNamesOnly(), std::vector<std::u16string>{u"t.txt"});  // no scratch file left
}

// ---------------------------------------------------------------------------------------
// Store-wide answers and names

TEST_P(ConformanceSuite, StorageInfoHasRoomForWhatIsOccupied) {
  write(u"docs/a.txt", "some content");
  settle();
  for (auto const* path : {u"", u"docs"}) {
    SCOPED_TRACE(text(path));
    auto const info = item(path).getProviderStorageInfo();
    EXPECT_GT(info.getStorageCapacity(), 0u);
    EXPECT_GE(info.getStorageCapacity(), info.getSpaceOccupied());
  }
}

TEST_P(ConformanceSuite, UnusualNamesWorkEverywhere) {
  std::u16string const longName = std::u16string(196, u'n') + u".txt";
  ASSERT_EQ(longName.size(), 200u);
  std::u16string const folder = u"Ordner ✓ mit Leerzeichen";
  std::vector<std::u16string> const names{u"with space.txt", u"Grüße ✓.txt", longName};

  mkdirs(folder);
  for (auto const& name : names) write(folder + u"/" + name, "content of " + text(name));
  settle();

  auto expected = names;
  EXPECT_EQ(sorted(item(folder).listAllNamesOnly()), sorted(expected));
  EXPECT_EQ(root().listAllNamesOnly(), std::vector<std::u16string>{folder});
  for (auto const& name : names) {
    SCOPED_TRACE(text(name));
    auto const path = folder + u"/" + name;
    EXPECT_TRUE(item(path).fileExists());
    EXPECT_EQ(read(path), "content of " + text(name));
    EXPECT_EQ(sizeOf(path), ("content of " + text(name)).size());
    item(path).copyFile(iri(name), ReplacementPolicy::Never);
    item(path).moveFile(iri(folder + u"/moved " + name.substr(0, 20)), ReplacementPolicy::Never);
  }
  settle();
  for (auto const& name : names) {
    SCOPED_TRACE(text(name));
    EXPECT_EQ(read(name), "content of " + text(name));
    EXPECT_EQ(read(folder + u"/moved " + name.substr(0, 20)), "content of " + text(name));
    item(name).removeFile();
  }
  item(folder).moveFolder(iri(u"Grüße ✓"), ReplacementPolicy::Never);
  settle();
  EXPECT_EQ(root().listAllNamesOnly(), std::vector<std::u16string>{u"Grüße ✓"});
  item(u"Grüße ✓").removeFolderRecursively();
  settle();
  EXPECT_TRUE(root().listAllNamesOnly().empty());
}

TEST_P(ConformanceSuite, NamesMatchWithTheStoresCaseSensitivity) {
  if (caps().reportsFilenameSensitivity) {
    EXPECT_EQ(root().getFilenameSensitivity(),
              caps().caseSensitive ? sp::FilenameSensitivity::CaseSensitive : sp::FilenameSensitivity::CaseInsensitive);
  }
  write(u"Case.txt", "upper");
  settle();
  if (caps().caseSensitive) {
    EXPECT_FALSE(item(u"case.txt").exists());
    write(u"case.txt", "lower");
    settle();
    EXPECT_EQ(read(u"Case.txt"), "upper");
    EXPECT_EQ(read(u"case.txt"), "lower");
    EXPECT_EQ(sorted(root().listAllNamesOnly()), (std::vector<std::u16string>{u"Case.txt", u"case.txt"}));
  } else {
    EXPECT_TRUE(item(u"CASE.TXT").fileExists());
    EXPECT_EQ(read(u"case.txt"), "upper");
    EXPECT_STORAGE_ERROR(ErrorCode::AlreadyExists, iri(u"case.txt"), item(u"case.txt").createFile());
    EXPECT_EQ(root().listAllNamesOnly(), std::vector<std::u16string>{u"Case.txt"});
  }
}

}  // namespace ovltest
