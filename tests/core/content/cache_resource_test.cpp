// Cache resources: the valid-run bookkeeping and the integrity answers built on it, the
// stale check at whole seconds, adoption of a cache file left by an earlier run, the
// copying constructor, moves, flush, the failure records, the no-op resource, and the
// cache file names.
//
// Failing disks are simulated with paths that fail even for root (the tests run as
// root, which ignores permission bits): a cache directory below a regular file (ENOTDIR:
// nothing can be created there, while existence checks simply answer "absent"), a
// directory component longer than NAME_MAX (ENAMETOOLONG: even existence checks throw),
// and a non-empty directory standing where a cache file is expected (cannot be opened
// as a file nor removed as one).
#include <core/content/CacheFileNaming.hpp>
#include <core/metadata/FileMetadata.hpp>
#include <core/content/FilesystemCacheResource.hpp>
#include <core/content/NOOPCacheResource.hpp>

#include <fl/i18n.hpp>
#include <foundation/crypto/utils/Base64URL.hpp>
#include <foundation/log/MemorySink.hpp>
#include <foundation/log/Severity.hpp>
#include <support/TempFolder.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cryptopp/blake2.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <utime.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace fsp = foundation::storage::provider;
namespace pt = boost::posix_time;
namespace stdfs = std::filesystem;
using fsp::StorageIRI;
using storage::overlayprovider::FileMetadata;
using storage::overlayprovider::FilesystemCacheResource;
using storage::overlayprovider::IntegrityInfo;
using storage::overlayprovider::IntegrityStatus;
using storage::overlayprovider::NOOPCacheResource;
using storage::overlayprovider::generateUUIDString;
using support::readFile;
using support::writeFile;
using storage::overlayprovider::detail::computeHashForIRI;

namespace {

using Runs = std::vector<std::pair<std::streamoff, std::streamoff>>;

pt::ptime const kEpoch(boost::gregorian::date(1970, 1, 1));
pt::ptime atSeconds(long long seconds) { return kEpoch + pt::seconds(static_cast<long>(seconds)); }

void setFileTime(stdfs::path const& p, long long seconds) {
  struct utimbuf times {};
  times.actime = static_cast<time_t>(seconds);
  times.modtime = static_cast<time_t>(seconds);
  ASSERT_EQ(::utime(p.c_str(), &times), 0) << p;
}

// A parsed failure record: the JSON record and the "Exception caught: " record after it.
struct FailureRecord {
  unsigned severity = 0;
  boost::property_tree::ptree json;
  std::string exceptionRecord;
  unsigned exceptionSeverity = 0;
};

std::vector<FailureRecord> failureRecords(foundation::log::MemorySink const& sink) {
  std::vector<foundation::log::MemorySink::Record> records;
  for (auto const& r : sink.records()) {
    if (r.channel == "storage::overlayprovider") records.push_back(r);
  }
  std::vector<FailureRecord> result;
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (records[i].message.empty() || records[i].message.front() != '{') continue;
    FailureRecord record;
    record.severity = records[i].severity;
    std::istringstream in(records[i].message);
    boost::property_tree::read_json(in, record.json);
    EXPECT_EQ(records[i].message.find('\n'), std::string::npos) << "one line: " << records[i].message;
    if (i + 1 < records.size()) {
      record.exceptionRecord = records[i + 1].message;
      record.exceptionSeverity = records[i + 1].severity;
    }
    result.push_back(std::move(record));
  }
  return result;
}

// Checks that `record` is exactly {"overlay":{"<word>":{message, location, checkoutPath}}}
// with the given values, followed by an "Exception caught: " record at Diagnostic.
void expectFailureRecord(FailureRecord const& record, unsigned severity, std::string const& word,
                         std::string const& message, std::string const& location, stdfs::path const& checkoutPath) {
  EXPECT_EQ(record.severity, severity);
  ASSERT_EQ(record.json.size(), 1u);
  auto const& overlay = record.json.get_child("overlay");
  ASSERT_EQ(overlay.size(), 1u);
  auto const& body = overlay.get_child(word);
  EXPECT_EQ(body.size(), 3u);
  EXPECT_EQ(body.get<std::string>("message"), message);
  EXPECT_EQ(body.get<std::string>("location"), location);
  EXPECT_EQ(body.get<std::string>("checkoutPath"), checkoutPath.string());
  EXPECT_EQ(record.exceptionRecord.rfind("Exception caught: ", 0), 0u) << record.exceptionRecord;
  EXPECT_EQ(record.exceptionSeverity, static_cast<unsigned>(foundation::log::Diagnostic));
}

// Checks that `sink` holds exactly one failure record, as expectFailureRecord says.
void expectOneFailureRecord(foundation::log::MemorySink const& sink, unsigned severity, std::string const& word,
                            std::string const& message, std::string const& location, stdfs::path const& checkoutPath) {
  auto const records = failureRecords(sink);
  ASSERT_EQ(records.size(), 1u);
  expectFailureRecord(records[0], severity, word, message, location, checkoutPath);
}

class CacheResourceTest : public ::testing::Test {
 protected:
  void SetUp() override { stdfs::create_directories(dataDir_); }

  static std::shared_ptr<FileMetadata> metadata(StorageIRI const& location, pt::ptime lastModified,
                                                unsigned long size) {
    auto record = std::make_shared<FileMetadata>(location, false);
    record->withLastModified(lastModified).withSize(size);
    return record;
  }

  std::shared_ptr<FileMetadata> metadata(unsigned long size = 0) const {
    return metadata(location_, pt::microsec_clock::universal_time(), size);
  }

  stdfs::path checkoutPathOf(StorageIRI const& location) const {
    return FilesystemCacheResource::checkoutPathFor(dataDir_, location);
  }

  static void write(FilesystemCacheResource& resource, std::streamoff start, std::streamoff end) {
    std::string const bytes(static_cast<std::size_t>(end - start), 'x');
    resource.write(std::streampos(start), bytes.data(), end - start);
  }

  static IntegrityInfo check(FilesystemCacheResource& resource, std::streamoff start, std::streamsize count) {
    return resource.checkAndGetIntegrityInfo(std::streampos(start), count);
  }

  static void expectPartial(IntegrityInfo const& info, std::streamoff first, std::streamoff second) {
    EXPECT_EQ(info.status, IntegrityStatus::Partial);
    ASSERT_TRUE(info.missingRange.has_value());
    EXPECT_EQ(std::streamoff(info.missingRange->first), first);
    EXPECT_EQ(std::streamoff(info.missingRange->second), second);
  }

  support::TempFolder const scratch_{"cache_resource_test"};
  stdfs::path const root_ = scratch_.path();
  stdfs::path const dataDir_ = root_ / "V1.0";
  StorageIRI const location_{u"overlay:<mem://store/>/docs/report.txt"};
};

TEST_F(CacheResourceTest, TouchingRunsMergeIntoOne) {
  FilesystemCacheResource resource(metadata(), dataDir_);
  EXPECT_TRUE(resource.getCachedRuns().empty());
  EXPECT_EQ(check(resource, 0, 1).status, IntegrityStatus::Absent);

  write(resource, 0, 10);
  write(resource, 20, 30);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 10}, {20, 30}}));
  write(resource, 10, 20);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 30}}));
  EXPECT_EQ(check(resource, 0, 30).status, IntegrityStatus::Complete);
  EXPECT_FALSE(check(resource, 0, 30).missingRange.has_value());

  // A write wholly inside a run changes nothing.
  write(resource, 5, 15);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 30}}));

  // A write starting inside [40,45) only extends that run and leaves it overlapping
  // [50,55) and [60,65).
  write(resource, 40, 45);
  write(resource, 50, 55);
  write(resource, 60, 65);
  write(resource, 44, 62);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 30}, {40, 62}, {50, 55}, {60, 65}}));
  // A new run that reaches its successor merges with it, even when its predecessor ends
  // before it: [70,75) [80,90) then [77,82) -> [70,75) [77,90).
  write(resource, 70, 75);
  write(resource, 80, 90);
  write(resource, 77, 82);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 30}, {40, 62}, {50, 55}, {60, 65}, {70, 75}, {77, 90}}));
  // A new run swallows every run it reaches in turn, the overlapping ones included, and
  // stops at the first gap: [31,40) -> [31,65).
  write(resource, 31, 40);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 30}, {31, 65}, {70, 75}, {77, 90}}));

  // The bytes are on disk where they were written.
  std::string const text = "0123456789";
  resource.write(std::streampos(100), text.data(), 10);
  char buffer[10] = {};
  EXPECT_EQ(resource.read(std::streampos(103), buffer, 4), 4);
  EXPECT_EQ(std::string(buffer, 4), "3456");
}

TEST_F(CacheResourceTest, AWriteStartingInsideARunOnlyExtendsIt) {
  FilesystemCacheResource resource(metadata(), dataDir_);
  write(resource, 0, 10);
  write(resource, 20, 30);
  write(resource, 5, 25);
  // The extended run now overlaps its successor; nothing was merged.
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 25}, {20, 30}}));
  EXPECT_EQ(check(resource, 0, 25).status, IntegrityStatus::Complete);
  // Lookups take the first run that holds a position, so [20,30) answers only for
  // positions past the extended run.
  EXPECT_EQ(check(resource, 25, 5).status, IntegrityStatus::Complete);
  expectPartial(check(resource, 0, 30), 25, 20);

  // Extending a run to an end it already reaches changes nothing.
  write(resource, 3, 25);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 25}, {20, 30}}));
}

TEST_F(CacheResourceTest, IntegrityOfRequestsAcrossRuns) {
  FilesystemCacheResource resource(metadata(), dataDir_);
  write(resource, 0, 10);
  write(resource, 20, 30);

  EXPECT_EQ(check(resource, 0, 10).status, IntegrityStatus::Complete);
  EXPECT_EQ(check(resource, 20, 10).status, IntegrityStatus::Complete);
  EXPECT_EQ(check(resource, 9, 1).status, IntegrityStatus::Complete);
  // The first byte is not cached.
  EXPECT_EQ(check(resource, 10, 5).status, IntegrityStatus::Absent);
  EXPECT_EQ(check(resource, 30, 1).status, IntegrityStatus::Absent);
  EXPECT_FALSE(check(resource, 10, 5).missingRange.has_value());
  // One byte before the end of the first run, ending inside the next: fetch the gap.
  expectPartial(check(resource, 9, 16), 10, 20);
  // Ending exactly at the end of the next run.
  expectPartial(check(resource, 5, 25), 10, 20);
  // Ending beyond every run: fetch up to the request's end.
  expectPartial(check(resource, 9, 30), 10, 39);
  expectPartial(check(resource, 25, 10), 30, 35);
  // Ending inside the gap.
  expectPartial(check(resource, 5, 10), 10, 15);

  // A cached run lying wholly inside the missing span is fetched again, not split around.
  write(resource, 12, 14);
  expectPartial(check(resource, 5, 20), 10, 20);
}

TEST_F(CacheResourceTest, StaleCheckComparesWholeSeconds) {
  long long const t = 1600000000;
  auto const fileTimeIs = [&](long long seconds) {
    writeFile(checkoutPathOf(location_), "hello world");
    setFileTime(checkoutPathOf(location_), seconds);
  };

  // Expected time within the file's second (0.7 s later): fresh, adopted.
  fileTimeIs(t);
  {
    FilesystemCacheResource resource(metadata(location_, atSeconds(t) + pt::milliseconds(700), 11), dataDir_);
    EXPECT_TRUE(resource.exists());
    EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 11}}));
    EXPECT_EQ(resource.getCurrentLastModified(), atSeconds(t));
  }
  // One second later than the file: stale, deleted before anything else.
  fileTimeIs(t);
  {
    FilesystemCacheResource resource(metadata(location_, atSeconds(t + 1), 11), dataDir_);
    EXPECT_FALSE(stdfs::exists(checkoutPathOf(location_)));
    EXPECT_TRUE(resource.getCachedRuns().empty());
    EXPECT_EQ(check(resource, 0, 1).status, IntegrityStatus::Absent);
  }
  // Not a date time and minus infinity never remove; plus infinity always does.
  for (pt::ptime never : {pt::ptime(pt::not_a_date_time), pt::ptime(pt::neg_infin)}) {
    fileTimeIs(t);
    FilesystemCacheResource resource(metadata(location_, never, 11), dataDir_);
    EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 11}})) << never;
  }
  fileTimeIs(t);
  {
    FilesystemCacheResource resource(metadata(location_, pt::ptime(pt::pos_infin), 11), dataDir_);
    EXPECT_FALSE(stdfs::exists(checkoutPathOf(location_)));
  }

  // A later check uses the expectation fixed at construction against the file's time
  // now: the file is made older afterwards and a second check removes it.
  fileTimeIs(t);
  FilesystemCacheResource resource(metadata(location_, atSeconds(t), 11), dataDir_);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 11}}));
  resource.checkAndRemoveStaleEntry();
  EXPECT_TRUE(resource.exists());
  setFileTime(checkoutPathOf(location_), t - 1);
  resource.checkAndRemoveStaleEntry();
  EXPECT_FALSE(resource.exists());
  EXPECT_TRUE(resource.getCachedRuns().empty());

  // The conversion behind the check.
  EXPECT_EQ(FilesystemCacheResource::toEpochSeconds(kEpoch), 0);
  EXPECT_EQ(FilesystemCacheResource::toEpochSeconds(atSeconds(t) + pt::microseconds(999999)), t);
  EXPECT_EQ(FilesystemCacheResource::toEpochSeconds(kEpoch - pt::milliseconds(1500)), -1);
  EXPECT_EQ(FilesystemCacheResource::toEpochSeconds(pt::ptime(pt::not_a_date_time)), -9223372036854LL);
  EXPECT_EQ(FilesystemCacheResource::toEpochSeconds(pt::ptime(pt::neg_infin)), -9223372036854LL);
  EXPECT_EQ(FilesystemCacheResource::toEpochSeconds(pt::ptime(pt::pos_infin)), 9223372036854LL);
}

TEST_F(CacheResourceTest, AdoptsAFileLeftByAnEarlierRun) {
  std::string const content = "persisted content of the report";
  {
    FilesystemCacheResource first(metadata(content.size()), dataDir_);
    first.write(std::streampos(0), content.data(), static_cast<std::streamsize>(content.size()));
    first.close();
  }
  // The file outlives its resource; a new resource for the same location, whose
  // metadata is not newer, takes it as wholly valid and serves it.
  ASSERT_TRUE(stdfs::exists(checkoutPathOf(location_)));
  FilesystemCacheResource second(metadata(location_, atSeconds(0), content.size()), dataDir_);
  EXPECT_EQ(second.getCachedRuns(), (Runs{{0, static_cast<std::streamoff>(content.size())}}));
  EXPECT_EQ(check(second, 0, static_cast<std::streamsize>(content.size())).status, IntegrityStatus::Complete);
  std::string buffer(content.size(), '\0');
  EXPECT_EQ(second.read(std::streampos(0), buffer.data(), static_cast<std::streamsize>(buffer.size())),
            static_cast<std::streamsize>(content.size()));
  EXPECT_EQ(buffer, content);
  // Reading at the end of the file gives 0.
  EXPECT_EQ(second.read(std::streampos(static_cast<std::streamoff>(content.size())), buffer.data(), 4), 0);

  // The valid run comes from the metadata's size, not the file's.
  FilesystemCacheResource third(metadata(location_, atSeconds(0), 5), dataDir_);
  EXPECT_EQ(third.getCachedRuns(), (Runs{{0, 5}}));

  // An empty file adopted for an empty record leaves an empty run at 0, and a run that
  // starts where a write starts takes no new run.
  FilesystemCacheResource empty(metadata(location_, atSeconds(0), 0), dataDir_);
  EXPECT_EQ(empty.getCachedRuns(), (Runs{{0, 0}}));
  empty.write(std::streampos(0), "ab", 2);
  EXPECT_EQ(empty.getCachedRuns(), (Runs{{0, 0}}));
  empty.write(std::streampos(2), "cd", 2);
  EXPECT_EQ(empty.getCachedRuns(), (Runs{{0, 0}, {2, 4}}));

  // No file, nothing adopted and nothing created until the first write.
  StorageIRI const other(u"overlay:<mem://store/>/docs/other.txt");
  FilesystemCacheResource fresh(metadata(other, atSeconds(0), 100), dataDir_);
  EXPECT_TRUE(fresh.getCachedRuns().empty());
  EXPECT_FALSE(fresh.exists());
}

TEST_F(CacheResourceTest, CopyingConstructorCopiesTheSourceFile) {
  std::string const content = "bytes to copy";
  stdfs::path const source = root_ / "source.cache";
  writeFile(source, content);
  StorageIRI const target(u"overlay:<mem://store/>/docs/copy.txt");
  // A file left at the target's path is replaced by the copy.
  writeFile(checkoutPathOf(target), "an old, longer cache file of the copy's location");

  FilesystemCacheResource copy(metadata(target, pt::microsec_clock::universal_time(), content.size()), dataDir_,
                               source);
  EXPECT_EQ(copy.getCheckoutPath(), checkoutPathOf(target));
  EXPECT_EQ(readFile(checkoutPathOf(target)), content);
  EXPECT_EQ(readFile(source), content);
  EXPECT_EQ(copy.getCachedRuns(), (Runs{{0, static_cast<std::streamoff>(content.size())}}));
  EXPECT_EQ(copy.getLocation(), target);

  // A missing source copies nothing and records nothing; no stale check runs, so a file
  // at the target's path stays even though the metadata is newer.
  StorageIRI const second(u"overlay:<mem://store/>/docs/copy2.txt");
  writeFile(checkoutPathOf(second), "left over");
  setFileTime(checkoutPathOf(second), 1000);
  foundation::log::MemorySink sink;
  FilesystemCacheResource none(metadata(second, atSeconds(2000), 9), dataDir_, root_ / "missing.cache");
  EXPECT_TRUE(none.getCachedRuns().empty());
  EXPECT_EQ(readFile(checkoutPathOf(second)), "left over");
  EXPECT_TRUE(failureRecords(sink).empty());
}

TEST_F(CacheResourceTest, FlushStampsTheFileTime) {
  FilesystemCacheResource resource(metadata(3), dataDir_);
  resource.write(std::streampos(0), "abc", 3);
  pt::ptime const stamp = atSeconds(1000000000) + pt::milliseconds(750);
  resource.flush(stamp);  // with the descriptor open: fsync, then the times
  struct stat st {};
  ASSERT_EQ(::stat(resource.getCheckoutPath().c_str(), &st), 0);
  EXPECT_EQ(st.st_mtime, 1000000000);
  EXPECT_EQ(st.st_atime, 1000000000);
  EXPECT_EQ(resource.getCurrentLastModified(), atSeconds(1000000000));
  EXPECT_EQ(readFile(resource.getCheckoutPath()), "abc");

  // After close, flush still stamps the time.
  resource.close();
  resource.close();  // closing twice is harmless
  resource.flush(atSeconds(1234567890));
  EXPECT_EQ(resource.getCurrentLastModified(), atSeconds(1234567890));

  // The stamped time makes the file fresh for metadata of that second.
  FilesystemCacheResource again(metadata(location_, atSeconds(1234567890), 3), dataDir_);
  EXPECT_EQ(again.getCachedRuns(), (Runs{{0, 3}}));

  // Failures are silent: no file to stamp.
  foundation::log::MemorySink sink;
  resource.remove();
  resource.flush(stamp);
  EXPECT_FALSE(resource.exists());
  EXPECT_TRUE(failureRecords(sink).empty());
}

TEST_F(CacheResourceTest, StampNowSyncLaterHandsOutOnlyWhatIsUnsynced) {
  FilesystemCacheResource resource(metadata(3), dataDir_);
  // Nothing stored yet: no descriptor, nothing to make durable; the time is stamped all
  // the same (no file: silently nothing).
  EXPECT_EQ(resource.stampAndTakeDurabilityHandle(atSeconds(1000000000)), nullptr);

  resource.write(std::streampos(0), "abc", 3);
  auto handle = resource.stampAndTakeDurabilityHandle(atSeconds(1000000000) + pt::milliseconds(250));
  ASSERT_NE(handle, nullptr);
  // The times are there before the sync runs, as flush() would have left them.
  EXPECT_EQ(resource.getCurrentLastModified(), atSeconds(1000000000));
  // Taken once: a second request finds nothing new.
  EXPECT_EQ(resource.stampAndTakeDurabilityHandle(atSeconds(1100000000)), nullptr);
  EXPECT_EQ(resource.getCurrentLastModified(), atSeconds(1100000000));

  // The handle has its own descriptor: closing the resource and moving its file away
  // do not disturb it, and running it twice is harmless.
  resource.close();
  resource.setLocation(StorageIRI(u"overlay:<mem://store/>/elsewhere.txt"));
  handle->run();
  handle->run();
  EXPECT_EQ(readFile(resource.getCheckoutPath()), "abc");

  // A new write after the handle was taken needs a new one; a full flush() syncs it,
  // and then there is nothing left for a handle.
  resource.write(std::streampos(3), "d", 1);
  resource.flush(atSeconds(1200000000));
  EXPECT_EQ(resource.stampAndTakeDurabilityHandle(atSeconds(1200000000)), nullptr);
  resource.write(std::streampos(4), "e", 1);
  auto second = resource.stampAndTakeDurabilityHandle(atSeconds(1300000000));
  EXPECT_NE(second, nullptr);
  second.reset();  // dropped unrun: only the descriptor goes
  EXPECT_EQ(readFile(resource.getCheckoutPath()), "abcde");
  EXPECT_EQ(resource.getCurrentLastModified(), atSeconds(1300000000));
}

TEST_F(CacheResourceTest, MovesFollowTheLocation) {
  std::string const content = "moving bytes";
  FilesystemCacheResource resource(metadata(content.size()), dataDir_);
  resource.write(std::streampos(0), content.data(), static_cast<std::streamsize>(content.size()));
  stdfs::path const oldPath = resource.getCheckoutPath();

  StorageIRI const target(u"overlay:<mem://store/>/archive/report.txt");
  writeFile(checkoutPathOf(target), "stale bytes of the target");  // replaced by the move
  resource.setLocation(target);
  EXPECT_EQ(resource.getLocation(), target);
  EXPECT_EQ(resource.getCheckoutPath(), checkoutPathOf(target));
  EXPECT_FALSE(stdfs::exists(oldPath));
  EXPECT_EQ(readFile(checkoutPathOf(target)), content);
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, static_cast<std::streamoff>(content.size())}}));

  // The open descriptor moved with the file.
  resource.write(std::streampos(static_cast<std::streamoff>(content.size())), "!", 1);
  resource.close();
  EXPECT_EQ(readFile(checkoutPathOf(target)), content + "!");

  // Moving onto its own location keeps the file.
  resource.setLocation(target);
  EXPECT_EQ(readFile(checkoutPathOf(target)), content + "!");

  // Moving without a cache file only changes the names.
  StorageIRI const third(u"overlay:<mem://store/>/third.txt");
  resource.remove();
  resource.setLocation(third);
  EXPECT_EQ(resource.getCheckoutPath(), checkoutPathOf(third));
  EXPECT_FALSE(resource.exists());

  // remove() deletes the file and forgets the runs; again is harmless.
  resource.write(std::streampos(0), "x", 1);
  ASSERT_TRUE(resource.exists());
  resource.remove();
  EXPECT_FALSE(resource.exists());
  EXPECT_TRUE(resource.getCachedRuns().empty());
  resource.remove();
}

TEST_F(CacheResourceTest, WriteAndReadFailuresAreLoggedAndSwallowed) {
  // Below a regular file nothing can be created, not even by root.
  writeFile(root_ / "plain-file", "x");
  stdfs::path const blocked = root_ / "plain-file" / "V1.0";
  StorageIRI const location(u"overlay:<mem://store/>/d\u00e9j\u00e0 vu/\u6587\u4ef6.txt");
  FilesystemCacheResource resource(metadata(location, pt::microsec_clock::universal_time(), 10), blocked);
  {
    foundation::log::MemorySink sink;
    resource.write(std::streampos(0), "abc", 3);
    EXPECT_TRUE(resource.cacheWriteErrored());
    EXPECT_TRUE(resource.getCachedRuns().empty());
    auto const records = failureRecords(sink);
    ASSERT_EQ(records.size(), 1u);
    expectFailureRecord(records[0], foundation::log::Error, "error", "Failure in local cache writing",
                        "overlay:<mem://store/>/d\xc3\xa9j\xc3\xa0 vu/\xe6\x96\x87\xe4\xbb\xb6.txt",
                        resource.getCheckoutPath());
    EXPECT_EQ(records[0].exceptionRecord, "Exception caught: Bad file descriptor");
    // The device and seek throw the same error to their callers.
    EXPECT_THROW(resource.getFileDevice(), std::runtime_error);
    EXPECT_THROW(resource.seek(std::streampos(0), std::ios_base::beg), std::runtime_error);
  }

  // A resource that cannot open its file reports a read failure and answers 0.
  FilesystemCacheResource reader(metadata(location, pt::microsec_clock::universal_time(), 10), blocked);
  {
    foundation::log::MemorySink sink;
    char buffer[4] = {};
    EXPECT_EQ(reader.read(std::streampos(0), buffer, 4), 0);
    expectOneFailureRecord(sink, foundation::log::Error, "error", "Failure in local cache reading",
                           "overlay:<mem://store/>/d\xc3\xa9j\xc3\xa0 vu/\xe6\x96\x87\xe4\xbb\xb6.txt",
                           reader.getCheckoutPath());
    EXPECT_FALSE(reader.cacheWriteErrored());
  }
}

TEST_F(CacheResourceTest, AfterOneFailedWriteReadsReturnNothing) {
  FilesystemCacheResource resource(metadata(10), dataDir_);
  resource.write(std::streampos(0), "0123456789", 10);
  char buffer[10] = {};
  ASSERT_EQ(resource.read(std::streampos(0), buffer, 10), 10);
  resource.close();

  // A directory where the cache file was: the reopening write fails.
  stdfs::path const path = resource.getCheckoutPath();
  stdfs::remove(path);
  stdfs::create_directory(path);
  foundation::log::MemorySink sink;
  resource.write(std::streampos(10), "more", 4);
  EXPECT_TRUE(resource.cacheWriteErrored());
  ASSERT_EQ(failureRecords(sink).size(), 1u);

  // Even with a good file back in place, reads no longer touch the disk, and log nothing.
  stdfs::remove(path);
  writeFile(path, "0123456789");
  sink.clear();
  EXPECT_EQ(resource.read(std::streampos(0), buffer, 10), 0);
  EXPECT_EQ(resource.read(std::streampos(5), buffer, 1), 0);
  EXPECT_TRUE(sink.records().empty());
  // The runs written before the failure are still recorded; trusting them is the
  // caller's decision, which cacheWriteErrored() informs.
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 10}}));
  // Later writes still go to disk but the resource stays errored.
  resource.write(std::streampos(0), "X", 1);
  EXPECT_TRUE(resource.cacheWriteErrored());
}

TEST_F(CacheResourceTest, ExistenceCheckFailureAtConstruction) {
  // A directory name longer than NAME_MAX makes even the existence check fail.
  stdfs::path const unusable = root_ / std::string(300, 'n') / "V1.0";
  foundation::log::MemorySink sink;
  FilesystemCacheResource resource(metadata(10), unusable);
  EXPECT_TRUE(resource.getCachedRuns().empty());
  EXPECT_FALSE(resource.exists());
  expectOneFailureRecord(sink, foundation::log::Error, "error", "Failure in checking file existence",
                         "overlay:<mem://store/>/docs/report.txt", resource.getCheckoutPath());
  // Its time reads as now, since the file cannot be queried.
  pt::ptime const before = pt::microsec_clock::universal_time();
  pt::ptime const answer = resource.getCurrentLastModified();
  EXPECT_LE(before, answer);
  EXPECT_LE(answer, pt::microsec_clock::universal_time());
}

TEST_F(CacheResourceTest, CopyMoveAndRemoveFailures) {
  writeFile(root_ / "plain-file", "x");
  stdfs::path const source = root_ / "source.cache";
  writeFile(source, "content");
  {
    foundation::log::MemorySink sink;
    FilesystemCacheResource copy(metadata(7), root_ / "plain-file" / "V1.0", source);
    EXPECT_TRUE(copy.getCachedRuns().empty());
    expectOneFailureRecord(sink, foundation::log::Error, "error", "Failure in local cache writing",
                           "overlay:<mem://store/>/docs/report.txt", copy.getCheckoutPath());
  }

  FilesystemCacheResource resource(metadata(7), dataDir_);
  resource.write(std::streampos(0), "content", 7);
  resource.close();
  stdfs::path const oldPath = resource.getCheckoutPath();

  // The target's name is taken by a non-empty directory: the move fails, but the
  // resource follows the new location anyway and keeps its runs.
  StorageIRI const target(u"overlay:<mem://store/>/blocked.txt");
  stdfs::create_directories(checkoutPathOf(target) / "inside");
  {
    foundation::log::MemorySink sink;
    resource.setLocation(target);
    expectOneFailureRecord(sink, foundation::log::Error, "error", "Failure in moving cached item",
                           "overlay:<mem://store/>/docs/report.txt", oldPath);
  }
  EXPECT_EQ(resource.getLocation(), target);
  EXPECT_EQ(resource.getCheckoutPath(), checkoutPathOf(target));
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 7}}));
  EXPECT_TRUE(stdfs::exists(oldPath));

  // Removing that directory as a cache file fails: a debug record, and the runs stay.
  {
    foundation::log::MemorySink sink;
    resource.remove();
    expectOneFailureRecord(sink, foundation::log::Debug, "debug", "Function doRemove failed",
                           "overlay:<mem://store/>/blocked.txt", checkoutPathOf(target));
  }
  EXPECT_EQ(resource.getCachedRuns(), (Runs{{0, 7}}));
  EXPECT_EQ(check(resource, 0, 7).status, IntegrityStatus::Complete);
}

TEST_F(CacheResourceTest, LocationsThatCannotBeNamed) {
  // A lone surrogate has no UTF-8 form, hence no cache file name.
  std::u16string text = u"overlay:<mem://store/>/bad";
  text += static_cast<char16_t>(0xD800);
  text += u"name";
  StorageIRI const bad(text);
  EXPECT_THROW(FilesystemCacheResource(metadata(bad, pt::microsec_clock::universal_time(), 1), dataDir_),
               fl::i18n::internal_runtime_error);

  // Moving onto such a location keeps the current file name and says so; later failure
  // records show the location with U+FFFD in place of the surrogate.
  writeFile(root_ / "plain-file", "x");
  FilesystemCacheResource resource(metadata(1), root_ / "plain-file" / "V1.0");
  stdfs::path const path = resource.getCheckoutPath();
  foundation::log::MemorySink sink;
  resource.setLocation(bad);
  EXPECT_EQ(resource.getLocation(), bad);
  EXPECT_EQ(resource.getCheckoutPath(), path);
  resource.write(std::streampos(0), "a", 1);
  auto const records = failureRecords(sink);
  ASSERT_EQ(records.size(), 2u);
  expectFailureRecord(records[0], foundation::log::Error, "error", "Failure in moving cached item",
                      "overlay:<mem://store/>/docs/report.txt", path);
  expectFailureRecord(records[1], foundation::log::Error, "error", "Failure in local cache writing",
                      "overlay:<mem://store/>/bad\xef\xbf\xbdname", path);
}

TEST(NOOPCacheResource, KeepsNothing) {
  NOOPCacheResource resource;
  resource.write(std::streampos(0), "abc", 3);
  resource.setLocation(StorageIRI(u"mem://s/x"));
  resource.remove();
  resource.close();
  resource.flush(pt::microsec_clock::universal_time());
  EXPECT_FALSE(resource.exists());
  EXPECT_TRUE(resource.getCheckoutPath().empty());
  IntegrityInfo const info = resource.checkAndGetIntegrityInfo(std::streampos(0), 3);
  EXPECT_EQ(info.status, IntegrityStatus::Uncached);
  EXPECT_FALSE(info.missingRange.has_value());
  char buffer[3] = {};
  EXPECT_EQ(resource.read(std::streampos(0), buffer, 3), 0);
  EXPECT_EQ(std::streamoff(resource.seek(std::streampos(0), std::ios_base::beg)), -1);
  EXPECT_TRUE(resource.cacheWriteErrored());
  // The local time, whole seconds.
  pt::ptime const before = pt::second_clock::local_time();
  pt::ptime const now = resource.getCurrentLastModified();
  EXPECT_EQ(now.time_of_day().fractional_seconds(), 0);
  EXPECT_LE(before, now);
  EXPECT_LE(now, pt::second_clock::local_time());
}

TEST(CacheFileNaming, HashIsStableFilenameSafeAndDistinct) {
  StorageIRI const a(u"overlay:<mem://store/>/docs/report.txt");
  std::u16string const name = computeHashForIRI(a);
  EXPECT_EQ(name, computeHashForIRI(StorageIRI(u"overlay:<mem://store/>/docs/report.txt")));
  EXPECT_EQ(name.size(), 86u);  // 64 digest bytes, unpadded
  for (char16_t c : name) {
    bool const safe = (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9') ||
                      c == u'-' || c == u'_';
    EXPECT_TRUE(safe) << static_cast<int>(c);
  }

  // Against BLAKE2b-512 of the UTF-8 text computed with Crypto++ directly, in the
  // platform's unpadded URL-safe Base64 (checked against the RFC 4648 vectors in
  // crypto_test).
  std::u16string const text = u"overlay:<file:///srv/data/>/r\u00e9sum\u00e9 \U0001F600.txt";
  ASSERT_EQ(StorageIRI(text).toString(), text);
  std::string const utf8 = "overlay:<file:///srv/data/>/r\xc3\xa9sum\xc3\xa9 \xf0\x9f\x98\x80.txt";
  CryptoPP::BLAKE2b blake;
  std::vector<unsigned char> digest(blake.DigestSize());
  ASSERT_EQ(digest.size(), 64u);
  blake.CalculateDigest(digest.data(), reinterpret_cast<unsigned char const*>(utf8.data()), utf8.size());
  std::string const expected = foundation::crypto::utils::base64URLEncode(digest);
  EXPECT_EQ(computeHashForIRI(StorageIRI(text)), std::u16string(expected.begin(), expected.end()));

  // Different locations, even close ones, get different names.
  std::set<std::u16string> names;
  for (char16_t const* other : {u"overlay:<mem://store/>/docs/report.txt", u"overlay:<mem://store/>/docs/Report.txt",
                                u"overlay:<mem://store/>/docs/report.txt2", u"overlay:<mem://store/>/docs",
                                u"overlay:<mem://other/>/docs/report.txt", u"mem://store/docs/report.txt"}) {
    names.insert(computeHashForIRI(StorageIRI(other)));
  }
  EXPECT_EQ(names.size(), 6u);

  // The cache file's path: flat in the data directory, hash plus ".cache".
  stdfs::path const dir = "/var/cache/overlay/V1.0";
  stdfs::path const path = FilesystemCacheResource::checkoutPathFor(dir, a);
  EXPECT_EQ(path.parent_path(), dir);
  EXPECT_EQ(path.filename().string(), std::string(name.begin(), name.end()) + ".cache");
}

TEST(CacheFileNaming, UUIDStringsAreCanonicalVersion4) {
  std::u16string const first = generateUUIDString();
  std::u16string const second = generateUUIDString();
  EXPECT_NE(first, second);
  ASSERT_EQ(first.size(), 36u);
  for (std::size_t i = 0; i < first.size(); ++i) {
    char16_t const c = first[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      EXPECT_EQ(c, u'-') << i;
    } else {
      EXPECT_TRUE((c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f')) << i;
    }
  }
  EXPECT_EQ(first[14], u'4');
  EXPECT_NE(std::u16string(u"89ab").find(first[19]), std::u16string::npos);
}

}  // namespace
