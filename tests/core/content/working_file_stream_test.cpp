// WorkingFileByteStream: the caller's position, append mode, seeking, read-only streams,
// closing once, and the translation of every failure into the four stream failures.
#include "content/working_file_test_support.hpp"

#include <core/content/WorkingFileByteStream.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/exception/exception.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

namespace overlay_test {
namespace {

using ovl::WorkingFileByteStream;
using ovl::WorkingFileEntryParams;
using ::testing::HasSubstr;

// What a stream operation threw: its failure type's name (as its message carries it),
// the error code, and whether Boost's exception support can see it.
struct Caught {
  std::string what;
  fsp::ErrorCode code = fsp::ErrorCode::TransientFailure;
  bool boostWrapped = false;
  bool streamCategory = false;
  std::string diagnostic;
};

template <class Failure>
Caught expectFailure(std::function<void()> const& call) {
  Caught caught;
  try {
    call();
    ADD_FAILURE() << "nothing thrown";
  } catch (Failure const& e) {
    caught.what = e.what();
    caught.code = e.getErrorCode();
    caught.boostWrapped = dynamic_cast<boost::exception const*>(&e) != nullptr;
    caught.streamCategory = e.code() == std::make_error_code(std::io_errc::stream);
    caught.diagnostic = boost::current_exception_diagnostic_information();
  } catch (std::exception const& e) {
    ADD_FAILURE() << "another exception: " << e.what();
  }
  return caught;
}

// Runs open transactions inline; refuses every other transaction with NotWritable, as an
// executor that fails to take a payload would.
class RefusingExecutor final : public FakeExecutor {
 public:
  void execute(Task task, ovl::ObservableTransactionType type, double) override {
    if (type == ovl::ObservableTransactionType::FILE_OPEN_READWRITE ||
        type == ovl::ObservableTransactionType::FILE_OPEN_READONLY) {
      task();
      return;
    }
    throw fsp::Exception(fsp::ErrorCode::NotWritable, fsp::StorageIRI(u"mem://s1/refused"));
  }
};

class WorkingFileStreamTest : public EntryFixture {
 protected:
  std::shared_ptr<RecordingExecutor> executor = std::make_shared<RecordingExecutor>(/*runInline=*/true);
};

TEST_F(WorkingFileStreamTest, PositionFollowsReadsWritesAndSeeks) {
  std::string const content = patternBytes(100);
  store->elsewhere().writeFile(u"/s", content);
  auto entry = makeEntry(u"/s", WorkingFileEntryParams(64, 64), executor);
  WorkingFileByteStream stream(entry, {});
  EXPECT_EQ(entry->getRefCount(), 1);
  EXPECT_EQ(stream.getPosition(), 0);

  char buffer[40] = {};
  EXPECT_EQ(stream.read(buffer, 40), 40);
  EXPECT_EQ(std::string(buffer, 40), content.substr(0, 40));
  EXPECT_EQ(stream.getPosition(), 40);

  EXPECT_EQ(stream.seek(-10, std::ios_base::end), 90);
  EXPECT_EQ(stream.read(buffer, 40), 10);
  EXPECT_EQ(std::string(buffer, 10), content.substr(90));
  EXPECT_EQ(stream.getPosition(), 100);
  EXPECT_EQ(stream.read(buffer, 40), -1);  // at the end: -1, position kept
  EXPECT_EQ(stream.getPosition(), 100);

  EXPECT_EQ(stream.seek(5, std::ios_base::beg), 5);
  EXPECT_EQ(stream.seek(7, std::ios_base::cur), 12);
  EXPECT_EQ(stream.write("hello", 5), 5);
  EXPECT_EQ(stream.getPosition(), 17);
  EXPECT_EQ(stream.seek(200, std::ios_base::beg), 200);
  EXPECT_EQ(stream.write("!", 1), 1);  // past the end: the gap becomes zeros
  EXPECT_EQ(entry->getFileSize(), 201u);

  stream.close();
  std::string expected = content;
  expected.replace(12, 5, "hello");
  expected.resize(200, '\0');
  expected += "!";
  EXPECT_EQ(storeContent(u"/s"), expected);
  EXPECT_EQ(entry->getRefCount(), 0);
}

TEST_F(WorkingFileStreamTest, AppendModeWritesAtTheEndWhateverThePosition) {
  store->elsewhere().writeFile(u"/a", "0123456789");
  auto entry = makeEntry(u"/a", WorkingFileEntryParams(64, 64), executor);
  fsp::ByteStreamOpenOptions options;
  options.append = true;
  WorkingFileByteStream stream(entry, options);
  EXPECT_TRUE(stream.isAppendMode());
  EXPECT_EQ(stream.getPosition(), 10);

  EXPECT_EQ(stream.seek(0, std::ios_base::beg), 0);
  EXPECT_EQ(stream.write("abc", 3), 3);
  EXPECT_EQ(stream.getPosition(), 13);
  EXPECT_EQ(entry->getFileSize(), 13u);
  char buffer[13] = {};
  EXPECT_EQ(stream.seek(0, std::ios_base::beg), 0);
  EXPECT_EQ(stream.read(buffer, 13), 13);
  EXPECT_EQ(std::string(buffer, 13), "0123456789abc");
  stream.close();
  EXPECT_EQ(storeContent(u"/a"), "0123456789abc");  // the inner stream was not opened in append mode
}

TEST_F(WorkingFileStreamTest, ReadOnlyStreamsShareTheEntryAndRefuseWrites) {
  store->elsewhere().writeFile(u"/r", "read me");
  auto entry = makeEntry(u"/r", WorkingFileEntryParams(64, 64), executor);
  auto first = WorkingFileByteStream::openReadOnly(entry);
  auto second = WorkingFileByteStream::openReadOnly(entry);
  EXPECT_TRUE(entry->isReadOnly());
  EXPECT_EQ(entry->getRefCount(), 2);
  char buffer[7] = {};
  EXPECT_EQ(first->read(buffer, 7), 7);
  EXPECT_EQ(std::string(buffer, 7), "read me");
  EXPECT_EQ(second->read(buffer, 4), 4);
  EXPECT_EQ(store->calls(providers::mem::Operation::Read), 1u);

  auto caught = expectFailure<fsp::ByteStreamWriteFailure>([&] { first->write("x", 1); });
  EXPECT_EQ(caught.code, fsp::ErrorCode::NotWritable);
  EXPECT_EQ(entry->getFileSize(), 7u);

  first->close();
  first->close();  // harmless, releases nothing more
  EXPECT_EQ(entry->getRefCount(), 1);
  EXPECT_EQ(expectFailure<fsp::ByteStreamReadFailure>([&] { first->read(buffer, 1); }).code,
            fsp::ErrorCode::TransientFailure);
  second->close();
  EXPECT_EQ(entry->getRefCount(), 0);
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);
}

TEST_F(WorkingFileStreamTest, FailuresCarryTheInnerCodeOrTransientFailure) {
  auto entry = makeEntry(u"/f", WorkingFileEntryParams(64, 64), executor);
  WorkingFileByteStream stream(entry, {});

  quota->setSpace(4);
  auto caught = expectFailure<fsp::ByteStreamWriteFailure>([&] { stream.write("12345", 5); });
  EXPECT_EQ(caught.code, fsp::ErrorCode::QuotaExceeded);
  EXPECT_THAT(caught.what, HasSubstr("ByteStreamWriteFailure"));
  EXPECT_TRUE(caught.boostWrapped);
  EXPECT_TRUE(caught.streamCategory);
  EXPECT_THAT(caught.diagnostic, HasSubstr("ByteStreamWriteFailure"));
  EXPECT_EQ(stream.getPosition(), 0);
  quota->setSpace(std::nullopt);

  EXPECT_EQ(stream.write("ab", 2), 2);  // buffered
  store->setCacheSpaceAvailable(3);
  EXPECT_EQ(expectFailure<fsp::ByteStreamWriteFailure>([&] { stream.write("cd", 2); }).code,
            fsp::ErrorCode::NoCacheSpace);
  EXPECT_EQ(storeContent(u"/f"), "ab");  // pushed out before the refusal was reported
  store->setCacheSpaceAvailable(std::nullopt);

  // Causes that are not the store's Exception become TransientFailure.
  EXPECT_EQ(expectFailure<fsp::ByteStreamWriteFailure>([&] { stream.write("x", -1); }).code,
            fsp::ErrorCode::TransientFailure);
  EXPECT_EQ(expectFailure<fsp::ByteStreamReadFailure>([&] {
              char c;
              stream.read(&c, -1);
            }).code,
            fsp::ErrorCode::TransientFailure);
  stream.close();
  EXPECT_EQ(expectFailure<fsp::ByteStreamSeekFailure>([&] { stream.seek(0, std::ios_base::beg); }).code,
            fsp::ErrorCode::TransientFailure);
}

TEST_F(WorkingFileStreamTest, CloseAndWriteFailuresFromTheQueue) {
  auto refusing = std::make_shared<RefusingExecutor>();
  auto entry = makeEntry(u"/q", WorkingFileEntryParams(64, 8), refusing);
  WorkingFileByteStream stream(entry, {});
  EXPECT_EQ(stream.write("1234", 4), 4);  // fits the buffer: nothing queued yet
  auto closeFailure = expectFailure<fsp::ByteStreamCloseFailure>([&] { stream.close(); });
  EXPECT_EQ(closeFailure.code, fsp::ErrorCode::NotWritable);
  EXPECT_THAT(closeFailure.what, HasSubstr("ByteStreamCloseFailure"));

  WorkingFileByteStream other(entry, {});
  EXPECT_EQ(expectFailure<fsp::ByteStreamWriteFailure>([&] { other.write("0123456789", 10); }).code,
            fsp::ErrorCode::NotWritable);
}

TEST_F(WorkingFileStreamTest, AFailedOpeningGivesBackTheStreamsShare) {
  store->failNext(providers::mem::Operation::OpenStream, 1, fsp::ErrorCode::InUse);
  auto entry = makeEntry(u"/o", WorkingFileEntryParams(64, 64).withSynchronous(true), executor);
  EXPECT_THROW({ WorkingFileByteStream stream(entry, fsp::ByteStreamOpenOptions{}); }, fsp::Exception);
  EXPECT_EQ(entry->getRefCount(), 0);
  EXPECT_THROW({ WorkingFileByteStream stream(nullptr, fsp::ByteStreamOpenOptions{}); }, std::invalid_argument);
}

}  // namespace
}  // namespace overlay_test
