// The throttle decorator: every call reaches the inner store with the mapped IRI, answers
// and errors come back in throttle terms, and the waits it asks for are exactly the
// latency and the link time of the bytes moved (observed through a fake clock).
#include <providers/throttle/ThrottleProvider.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/extensions/IClosesWithTime.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstring>
#include <stdexcept>

namespace {

using namespace foundation::storage::provider;
namespace ev = foundation::storage::events;
using providers::throttle::Options;
using providers::throttle::ThrottleProvider;
using testing::_;
using testing::ByMove;
using testing::Return;
using testing::StrictMock;
using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

class MockStore : public IConfigurableProvider, public extensions::IFlushableFilesystem {
 public:
  MOCK_METHOD(void, doCreateFile, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doCreateFolder, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doCreateFolderRecursive, (StorageIRI const&), (const, override));
  MOCK_METHOD(bool, doFileExists, (StorageIRI const&), (const, override));
  MOCK_METHOD(bool, doFolderExists, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doRemoveFile, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doMoveFile, (StorageIRI const&, StorageIRI const&, ReplacementPolicy const&), (const, override));
  MOCK_METHOD(void, doRemoveFolder, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doRemoveFolderRecursively, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doMoveFolder, (StorageIRI const&, StorageIRI const&, ReplacementPolicy const&), (const, override));
  MOCK_METHOD(FileAttributes, doGetFileAttributes, (StorageIRI const&), (const, override));
  MOCK_METHOD(FolderAttributes, doGetFolderAttributes, (StorageIRI const&), (const, override));
  MOCK_METHOD(ByteStreamPtr, doOpenStream, (StorageIRI const&, ByteStreamOpenOptions const&), (const, override));
  MOCK_METHOD(ByteStreamPtr, doOpenReadOnlyStream, (StorageIRI const&), (const, override));
  MOCK_METHOD(ByteStreamPtr, doOpenTransactionalStream, (StorageIRI const&, ByteStreamOpenOptions const&),
              (const, override));
  MOCK_METHOD(ByteStreamPtr, doOpenTransactionalStreamAtScratchLocation,
              (StorageIRI const&, StorageIRI const&, ByteStreamOpenOptions const&), (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListAll, (StorageIRI const&), (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListAllWildcards, (StorageIRI const&, std::u16string const&), (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListFiles, (StorageIRI const&), (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListFilesWildcards, (StorageIRI const&, std::u16string const&),
              (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListFolders, (StorageIRI const&), (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListFoldersWildcards, (StorageIRI const&, std::u16string const&),
              (const, override));
  MOCK_METHOD(NameList, doListAllNamesOnly, (StorageIRI const&), (const, override));
  MOCK_METHOD(NameList, doListAllNamesOnlyWildcards, (StorageIRI const&, std::u16string const&), (const, override));
  MOCK_METHOD(NameList, doListFoldersNamesOnly, (StorageIRI const&), (const, override));
  MOCK_METHOD(NameList, doListFoldersNamesOnlyWildcards, (StorageIRI const&, std::u16string const&), (const, override));
  MOCK_METHOD(NameList, doListFilesNamesOnly, (StorageIRI const&), (const, override));
  MOCK_METHOD(NameList, doListFilesNamesOnlyWildcards, (StorageIRI const&, std::u16string const&), (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListAllRecursive, (StorageIRI const&), (const, override));
  MOCK_METHOD(FolderEntryIteratorPtr, doListAllRecursiveWildcards, (StorageIRI const&, std::u16string const&),
              (const, override));
  MOCK_METHOD(NameList, doListAllRecursiveNamesOnly, (StorageIRI const&), (const, override));
  MOCK_METHOD(NameList, doListAllRecursiveNamesOnlyWildcards, (StorageIRI const&, std::u16string const&),
              (const, override));
  MOCK_METHOD(void, doCopyFile, (StorageIRI const&, StorageIRI const&, ReplacementPolicy const&), (const, override));
  MOCK_METHOD(bool, doCopyFileAtomic,
              (StorageIRI const&, StorageIRI const&, ReplacementPolicy const&, InterruptCallback const&),
              (const, override));
  MOCK_METHOD(void, doSetLastModified, (StorageIRI const&, boost::posix_time::ptime const&), (const, override));
  MOCK_METHOD(void, doSetWritable, (StorageIRI const&, bool), (const, override));
  MOCK_METHOD(void, doPublishFolderEventsFor,
              (StorageIRI const&, ev::Callback const&, std::vector<ev::Kind> const&, ev::RecursiveFileWatching),
              (const, override));
  MOCK_METHOD(void, doPublishFileEventsFor, (StorageIRI const&, ev::Callback const&), (const, override));
  MOCK_METHOD(void, doStopPublishingEventsFor, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doStartChangePollingMechanism, (StorageIRI const&, ev::Callback const&), (const, override));
  MOCK_METHOD(void, doStopChangePollingMechanism, (StorageIRI const&), (const, override));
  MOCK_METHOD(bool, doHasFeature, (ExtendedFeature const&), (const, override));
  MOCK_METHOD(PathComparator, doGetPathComparator, (StorageIRI const&), (const, override));
  MOCK_METHOD(StorageIRI, doGetCanonicalLocation, (StorageIRI const&), (const, override));
  MOCK_METHOD(FilenameSensitivity, doGetFilenameSensitivity, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doShutdown, (), (override));
  MOCK_METHOD(bool, doExists, (StorageIRI const&), (const, override));
  MOCK_METHOD(ExistenceKind, doExistsExtended, (StorageIRI const&), (const, override));
  MOCK_METHOD(ExtendedAttributes, doGetExtendedAttributes, (StorageIRI const&), (const, override));
  MOCK_METHOD(ProviderStorageInfo, doGetProviderStorageInfo, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doTruncateToSize, (StorageIRI const&, unsigned long long), (const, override));
  MOCK_METHOD(ProviderCacheUsage, doGetProviderCacheUsage, (StorageIRI const&), (const, override));
  MOCK_METHOD(void, doConfigure, (boost::property_tree::ptree), (override));
  MOCK_METHOD(void, doFlushFilesystem, (), (override));
};

// Content in a string; counts what was read and written.
class StringStream : public ByteStream {
 public:
  explicit StringStream(std::string content, std::string* sink = nullptr) : content_(std::move(content)), sink_(sink) {}
  long read(char* buffer, long count) override {
    if (pos_ >= content_.size()) return -1;
    auto n = std::min<std::size_t>(static_cast<std::size_t>(count), content_.size() - pos_);
    std::memcpy(buffer, content_.data() + pos_, n);
    pos_ += n;
    return static_cast<long>(n);
  }
  long write(char const* buffer, long count) override {
    if (sink_) sink_->append(buffer, static_cast<std::size_t>(count));
    return count;
  }
  long seek(long offset, std::ios_base::seekdir whence) override {
    if (whence == std::ios_base::beg) pos_ = static_cast<std::size_t>(offset);
    if (whence == std::ios_base::cur) pos_ += static_cast<std::size_t>(offset);
    if (whence == std::ios_base::end) pos_ = content_.size() + static_cast<std::size_t>(offset);
    return static_cast<long>(pos_);
  }
  void close() override { ++closes; }
  int closes = 0;

 private:
  std::string content_;
  std::string* sink_;
  std::size_t pos_ = 0;
};

// The same, closing with a time when asked.
class TimedStringStream : public StringStream, public extensions::IClosesWithTime {
 public:
  using StringStream::StringStream;
  bool closeWithTime(boost::posix_time::ptime const& time) override {
    closedWith = time;
    return true;
  }
  boost::posix_time::ptime closedWith;
};

StorageIRI iri(char16_t const* text) { return StorageIRI(std::u16string(text)); }

// A clock that moves only when the provider sleeps (or the test says so), and a record of
// every deadline asked for.
struct FakeTime {
  Clock::time_point now{Clock::duration(1'000'000'000)};
  std::vector<Clock::time_point> deadlines;
  bool sleepAdvancesClock = true;
};

Options fakeOptions(FakeTime& time, microseconds latency, double bytesPerSecond) {
  Options options;
  options.latency = latency;
  options.bytesPerSecond = bytesPerSecond;
  options.now = [&time] { return time.now; };
  options.sleepUntil = [&time](Clock::time_point deadline) {
    time.deadlines.push_back(deadline);
    if (time.sleepAdvancesClock && deadline > time.now) time.now = deadline;
  };
  return options;
}

class ThrottleTest : public testing::Test {
 protected:
  static constexpr microseconds kLatency{20000};

  ThrottleTest()
      : store_(std::make_shared<StrictMock<MockStore>>()),
        throttle_(StorageItem(store_, iri(u"mem://s1/base")), fakeOptions(time_, kLatency, 1e6)) {}

  // Runs `call` and checks it waited the latency exactly once, from the time it began.
  template <class Call>
  void paysLatencyOnce(Call&& call) {
    auto const start = time_.now;
    auto const before = time_.deadlines.size();
    call();
    ASSERT_EQ(time_.deadlines.size(), before + 1);
    EXPECT_EQ(time_.deadlines.back(), start + kLatency);
  }
  template <class Call>
  void waitsNothing(Call&& call) {
    auto const before = time_.deadlines.size();
    call();
    EXPECT_EQ(time_.deadlines.size(), before);
  }

  static StorageIRI outer(char16_t const* path) { return StorageIRI(u"throttle", iri(u"mem://s1/base"), path); }
  static StorageIRI inner(char16_t const* path) { return StorageIRI(iri(u"mem://s1/base"), path); }

  FakeTime time_;
  std::shared_ptr<StrictMock<MockStore>> store_;
  ThrottleProvider throttle_;
};

TEST_F(ThrottleTest, MapsIrisBothWays) {
  EXPECT_EQ(throttle_.getRootIRI().toString(), u"throttle:<mem://s1/base>/");
  EXPECT_EQ(throttle_.toInner(outer(u"/docs/a.txt")).toString(), u"mem://s1/base/docs/a.txt");
  EXPECT_EQ(throttle_.toInner(outer(u"/")).toString(), u"mem://s1/base/");
  EXPECT_EQ(throttle_.toOuter(iri(u"mem://s1/base/docs/a.txt")), outer(u"/docs/a.txt"));
  EXPECT_EQ(throttle_.toOuter(iri(u"mem://s1/base")), outer(u"/"));
  EXPECT_EQ(throttle_.toOuter(iri(u"mem://s1/base/")), outer(u"/"));
  // Scheme and authority compare case-insensitively, as IRIs do.
  EXPECT_EQ(throttle_.toOuter(iri(u"MEM://S1/base/x")), outer(u"/x"));
  // Outside the inner root, including a sibling that merely shares a prefix: unchanged.
  for (auto* text : {u"mem://s1/basement/a", u"mem://s1/other", u"mem://s2/base/a", u"file:///base/a"}) {
    EXPECT_EQ(throttle_.toOuter(iri(text)), iri(text)) << iri(text);
  }
  // A throttle over a store root maps every path of the store.
  ThrottleProvider overRoot(StorageItem(store_, iri(u"mem://s1/")), fakeOptions(time_, kLatency, 0));
  EXPECT_EQ(overRoot.toInner(StorageIRI(u"throttle", iri(u"mem://s1/"), u"/a/b")).toString(), u"mem://s1/a/b");
  EXPECT_EQ(overRoot.toOuter(iri(u"mem://s1/a/b")).toString(), u"throttle:<mem://s1/>/a/b");

  EXPECT_THROW({ ThrottleProvider t(StorageItem(nullptr, iri(u"mem://s1/")), {}); }, std::invalid_argument);
  Options negative;
  negative.bytesPerSecond = -1;
  EXPECT_THROW({ ThrottleProvider t(StorageItem(store_, iri(u"mem://s1/")), negative); }, std::invalid_argument);
}

TEST_F(ThrottleTest, ForwardsEveryStoreCallWithTheInnerIriAfterOneLatency) {
  auto const a = outer(u"/a"), b = outer(u"/b");
  auto const ia = inner(u"/a"), ib = inner(u"/b");
  auto const when = boost::posix_time::ptime(boost::gregorian::date(2024, 5, 1));

  EXPECT_CALL(*store_, doCreateFile(ia));
  paysLatencyOnce([&] { throttle_.doCreateFile(a); });
  EXPECT_CALL(*store_, doCreateFolder(ia));
  paysLatencyOnce([&] { throttle_.doCreateFolder(a); });
  EXPECT_CALL(*store_, doCreateFolderRecursive(ia));
  paysLatencyOnce([&] { throttle_.doCreateFolderRecursive(a); });
  EXPECT_CALL(*store_, doFileExists(ia)).WillOnce(Return(true));
  paysLatencyOnce([&] { EXPECT_TRUE(throttle_.doFileExists(a)); });
  EXPECT_CALL(*store_, doFolderExists(ia)).WillOnce(Return(false));
  paysLatencyOnce([&] { EXPECT_FALSE(throttle_.doFolderExists(a)); });
  EXPECT_CALL(*store_, doExists(ia)).WillOnce(Return(true));
  paysLatencyOnce([&] { EXPECT_TRUE(throttle_.doExists(a)); });
  EXPECT_CALL(*store_, doExistsExtended(ia)).WillOnce(Return(ExistenceKind::Folder));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doExistsExtended(a), ExistenceKind::Folder); });
  EXPECT_CALL(*store_, doRemoveFile(ia));
  paysLatencyOnce([&] { throttle_.doRemoveFile(a); });
  EXPECT_CALL(*store_, doRemoveFolder(ia));
  paysLatencyOnce([&] { throttle_.doRemoveFolder(a); });
  EXPECT_CALL(*store_, doRemoveFolderRecursively(ia));
  paysLatencyOnce([&] { throttle_.doRemoveFolderRecursively(a); });
  EXPECT_CALL(*store_, doMoveFile(ia, ib, ReplacementPolicy::Always));
  paysLatencyOnce([&] { throttle_.doMoveFile(a, b, ReplacementPolicy::Always); });
  EXPECT_CALL(*store_, doMoveFolder(ia, ib, ReplacementPolicy::KeepExisting));
  paysLatencyOnce([&] { throttle_.doMoveFolder(a, b, ReplacementPolicy::KeepExisting); });
  EXPECT_CALL(*store_, doCopyFile(ia, ib, ReplacementPolicy::Never));
  paysLatencyOnce([&] { throttle_.doCopyFile(a, b, ReplacementPolicy::Never); });
  int interrupts = 0;
  EXPECT_CALL(*store_, doCopyFileAtomic(ia, ib, ReplacementPolicy::Always, _))
      .WillOnce([](auto const&, auto const&, auto const&, InterruptCallback const& interrupt) {
        return interrupt() == InterruptSignal::Continue;
      });
  paysLatencyOnce([&] {
    EXPECT_TRUE(throttle_.doCopyFileAtomic(a, b, ReplacementPolicy::Always, [&] {
      ++interrupts;
      return InterruptSignal::Continue;
    }));
  });
  EXPECT_EQ(interrupts, 1) << "the caller's interrupt callback reaches the store";
  EXPECT_CALL(*store_, doSetLastModified(ia, when));
  paysLatencyOnce([&] { throttle_.doSetLastModified(a, when); });
  EXPECT_CALL(*store_, doSetWritable(ia, false));
  paysLatencyOnce([&] { throttle_.doSetWritable(a, false); });
  EXPECT_CALL(*store_, doTruncateToSize(ia, 42ull));
  paysLatencyOnce([&] { throttle_.doTruncateToSize(a, 42); });

  EXPECT_CALL(*store_, doGetFileAttributes(ia)).WillOnce(Return(FileAttributes(7ul, when, true)));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doGetFileAttributes(a), FileAttributes(7ul, when, true)); });
  EXPECT_CALL(*store_, doGetFolderAttributes(ia)).WillOnce(Return(FolderAttributes(when, false)));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doGetFolderAttributes(a), FolderAttributes(when, false)); });
  ExtendedAttributes xattrs;
  xattrs.setAttribute("WATERMARK", std::string("v3"));
  EXPECT_CALL(*store_, doGetExtendedAttributes(ia)).WillOnce(Return(xattrs));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doGetExtendedAttributes(a).getString("WATERMARK"), "v3"); });
  EXPECT_CALL(*store_, doGetProviderStorageInfo(ia))
      .WillOnce(Return(ProviderStorageInfo().withStorageCapacity(100).withSpaceOccupied(40)));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doGetProviderStorageInfo(a).getSpaceOccupied(), 40ul); });
}

TEST_F(ThrottleTest, ForwardsEveryListingWithItsPattern) {
  auto const a = outer(u"/dir");
  auto const ia = inner(u"/dir");
  auto const when = boost::posix_time::ptime(boost::gregorian::date(2024, 5, 1));
  auto listing = [&](char16_t const* name) {
    return ByMove(std::make_unique<VectorFolderEntryIterator>(
        std::vector<FolderEntry>{FolderEntry(name, FileAttributes(1ul, when, true))}));
  };
  auto firstName = [](FolderEntryIteratorPtr it) { return collect(*it).at(0).getName(); };

  EXPECT_CALL(*store_, doListAll(ia)).WillOnce(Return(listing(u"all")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListAll(a)), u"all"); });
  EXPECT_CALL(*store_, doListAllWildcards(ia, std::u16string(u"*.txt"))).WillOnce(Return(listing(u"allw")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListAllWildcards(a, u"*.txt")), u"allw"); });
  EXPECT_CALL(*store_, doListFiles(ia)).WillOnce(Return(listing(u"files")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListFiles(a)), u"files"); });
  EXPECT_CALL(*store_, doListFilesWildcards(ia, std::u16string(u"?"))).WillOnce(Return(listing(u"filesw")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListFilesWildcards(a, u"?")), u"filesw"); });
  EXPECT_CALL(*store_, doListFolders(ia)).WillOnce(Return(listing(u"folders")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListFolders(a)), u"folders"); });
  EXPECT_CALL(*store_, doListFoldersWildcards(ia, std::u16string(u"d*"))).WillOnce(Return(listing(u"foldersw")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListFoldersWildcards(a, u"d*")), u"foldersw"); });
  EXPECT_CALL(*store_, doListAllRecursive(ia)).WillOnce(Return(listing(u"x/rec")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListAllRecursive(a)), u"x/rec"); });
  EXPECT_CALL(*store_, doListAllRecursiveWildcards(ia, std::u16string(u"r*"))).WillOnce(Return(listing(u"x/recw")));
  paysLatencyOnce([&] { EXPECT_EQ(firstName(throttle_.doListAllRecursiveWildcards(a, u"r*")), u"x/recw"); });

  EXPECT_CALL(*store_, doListAllNamesOnly(ia)).WillOnce(Return(NameList{u"n1"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListAllNamesOnly(a), NameList{u"n1"}); });
  EXPECT_CALL(*store_, doListAllNamesOnlyWildcards(ia, std::u16string(u"p"))).WillOnce(Return(NameList{u"n2"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListAllNamesOnlyWildcards(a, u"p"), NameList{u"n2"}); });
  EXPECT_CALL(*store_, doListFoldersNamesOnly(ia)).WillOnce(Return(NameList{u"n3"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListFoldersNamesOnly(a), NameList{u"n3"}); });
  EXPECT_CALL(*store_, doListFoldersNamesOnlyWildcards(ia, std::u16string(u"q"))).WillOnce(Return(NameList{u"n4"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListFoldersNamesOnlyWildcards(a, u"q"), NameList{u"n4"}); });
  EXPECT_CALL(*store_, doListFilesNamesOnly(ia)).WillOnce(Return(NameList{u"n5"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListFilesNamesOnly(a), NameList{u"n5"}); });
  EXPECT_CALL(*store_, doListFilesNamesOnlyWildcards(ia, std::u16string(u"r"))).WillOnce(Return(NameList{u"n6"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListFilesNamesOnlyWildcards(a, u"r"), NameList{u"n6"}); });
  EXPECT_CALL(*store_, doListAllRecursiveNamesOnly(ia)).WillOnce(Return(NameList{u"x/n7"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListAllRecursiveNamesOnly(a), NameList{u"x/n7"}); });
  EXPECT_CALL(*store_, doListAllRecursiveNamesOnlyWildcards(ia, std::u16string(u"s")))
      .WillOnce(Return(NameList{u"x/n8"}));
  paysLatencyOnce([&] { EXPECT_EQ(throttle_.doListAllRecursiveNamesOnlyWildcards(a, u"s"), NameList{u"x/n8"}); });
}

TEST_F(ThrottleTest, LocalQueriesAndManagementCallsForwardWithoutLatency) {
  auto const a = outer(u"/a");
  auto const ia = inner(u"/a");

  EXPECT_CALL(*store_, doHasFeature(ExtendedFeature::RecursiveListing)).WillOnce(Return(true));
  waitsNothing([&] { EXPECT_TRUE(throttle_.doHasFeature(ExtendedFeature::RecursiveListing)); });
  EXPECT_CALL(*store_, doGetFilenameSensitivity(ia)).WillOnce(Return(FilenameSensitivity::CaseInsensitive));
  waitsNothing([&] { EXPECT_EQ(throttle_.doGetFilenameSensitivity(a), FilenameSensitivity::CaseInsensitive); });
  EXPECT_CALL(*store_, doGetPathComparator(ia)).WillOnce(Return(PathComparator([](auto const&, auto const&) {
    return 5;
  })));
  waitsNothing([&] { EXPECT_EQ(throttle_.doGetPathComparator(a)(u"x", u"y"), 5); });
  EXPECT_CALL(*store_, doGetProviderCacheUsage(ia)).WillOnce(Return(ProviderCacheUsage(77ul)));
  waitsNothing([&] { EXPECT_EQ(throttle_.doGetProviderCacheUsage(a).getSpaceAvailable(), 77ul); });

  // The canonical location comes back as a throttle IRI; an inner answer outside the
  // inner root falls back to the resolved throttle IRI.
  EXPECT_CALL(*store_, doGetCanonicalLocation(inner(u"/x/../A")))
      .WillOnce(Return(iri(u"mem://s1/base/a")))
      .WillOnce(Return(iri(u"mem://elsewhere/a")));
  waitsNothing([&] { EXPECT_EQ(throttle_.doGetCanonicalLocation(outer(u"/x/../A")), outer(u"/a")); });
  EXPECT_EQ(throttle_.doGetCanonicalLocation(outer(u"/x/../A")), outer(u"/A"));

  EXPECT_CALL(*store_, doStopPublishingEventsFor(ia));
  waitsNothing([&] { throttle_.doStopPublishingEventsFor(a); });
  EXPECT_CALL(*store_, doStopChangePollingMechanism(ia));
  waitsNothing([&] { throttle_.doStopChangePollingMechanism(a); });

  boost::property_tree::ptree config;
  config.put("capacity", 12);
  EXPECT_CALL(*store_, doConfigure(config));
  waitsNothing([&] { throttle_.doConfigure(config); });
  EXPECT_CALL(*store_, doFlushFilesystem());
  waitsNothing([&] { throttle_.doFlushFilesystem(); });
  // The inner store is shared, not owned: shutting the throttle down leaves it running.
  EXPECT_CALL(*store_, doShutdown()).Times(0);
  throttle_.doShutdown();

  // Through StorageItem, as callers reach these extensions.
  StorageItem item(std::make_shared<ThrottleProvider>(StorageItem(store_, iri(u"mem://s1/base")), Options{}), a);
  EXPECT_CALL(*store_, doFlushFilesystem());
  item.flushFilesystem();
  EXPECT_CALL(*store_, doConfigure(config));
  item.configure(config);
}

TEST_F(ThrottleTest, ErrorsNameTheThrottleIri) {
  auto const a = outer(u"/dir/a"), b = outer(u"/dir/b");
  auto const ia = inner(u"/dir/a"), ib = inner(u"/dir/b");
  auto expectFailure = [](auto&& call, ErrorCode code, StorageIRI const& named, std::string const& detail) {
    try {
      call();
      ADD_FAILURE() << "no exception";
    } catch (Exception const& e) {
      EXPECT_EQ(e.getErrorCode(), code);
      EXPECT_EQ(e.getIRI(), named);
      EXPECT_EQ(e.getDetail(), detail);
      EXPECT_NE(std::string(e.what()).find(named.toUtf8()), std::string::npos) << e.what();
    }
  };

  EXPECT_CALL(*store_, doGetFileAttributes(ia)).WillOnce([&](auto const&) -> FileAttributes {
    throw Exception(ErrorCode::DoesNotExist, ia, "no such file");
  });
  expectFailure([&] { throttle_.doGetFileAttributes(a); }, ErrorCode::DoesNotExist, a, "no such file");

  // The destination of a move, and the source.
  EXPECT_CALL(*store_, doMoveFile(ia, ib, ReplacementPolicy::Never))
      .WillOnce([&](auto const&, auto const&, auto const&) { throw Exception(ErrorCode::AlreadyExists, ib); })
      .WillOnce([&](auto const&, auto const&, auto const&) { throw Exception(ErrorCode::InUse, ia); });
  expectFailure([&] { throttle_.doMoveFile(a, b, ReplacementPolicy::Never); }, ErrorCode::AlreadyExists, b, "");
  expectFailure([&] { throttle_.doMoveFile(a, b, ReplacementPolicy::Never); }, ErrorCode::InUse, a, "");

  // An IRI the caller did not name (the parent) still comes back in throttle terms; the
  // caller's own spelling is kept where it maps to the failing IRI.
  EXPECT_CALL(*store_, doCreateFile(ia)).WillOnce([&](auto const&) {
    throw Exception(ErrorCode::DoesNotExist, inner(u"/dir"));
  });
  expectFailure([&] { throttle_.doCreateFile(a); }, ErrorCode::DoesNotExist, outer(u"/dir"), "");
  auto const spelled = StorageIRI(u"throttle", iri(u"mem://S1/base/"), u"/dir/a");
  EXPECT_CALL(*store_, doRemoveFile(ia)).WillOnce([&](auto const&) { throw Exception(ErrorCode::NotWritable, ia); });
  expectFailure([&] { throttle_.doRemoveFile(spelled); }, ErrorCode::NotWritable, spelled, "");

  // Outside the inner root: unchanged. Other errors: unchanged, same type.
  EXPECT_CALL(*store_, doFolderExists(ia))
      .WillOnce([&](auto const&) -> bool { throw Exception(ErrorCode::TransientFailure, iri(u"mem://other/x")); })
      .WillOnce([&](auto const&) -> bool { throw std::runtime_error("socket closed"); });
  expectFailure([&] { throttle_.doFolderExists(a); }, ErrorCode::TransientFailure, iri(u"mem://other/x"), "");
  try {
    throttle_.doFolderExists(a);
    ADD_FAILURE() << "no exception";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "socket closed");
  }
  // A failing open pays its latency all the same.
  EXPECT_CALL(*store_, doOpenReadOnlyStream(ia)).WillOnce([&](auto const&) -> ByteStreamPtr {
    throw Exception(ErrorCode::DoesNotExist, ia);
  });
  paysLatencyOnce([&] { expectFailure([&] { throttle_.doOpenReadOnlyStream(a); }, ErrorCode::DoesNotExist, a, ""); });
}

TEST_F(ThrottleTest, EventsComeBackInThrottleTerms) {
  auto const folder = outer(u"/dir");
  ev::Callback innerFolderCallback, innerFileCallback, innerPollCallback;
  std::vector<ev::Kind> const kinds{ev::Kind::Added, ev::Kind::Removed};
  EXPECT_CALL(*store_, doPublishFolderEventsFor(inner(u"/dir"), _, kinds, ev::RecursiveFileWatching::Disabled))
      .WillOnce([&](auto const&, ev::Callback const& cb, auto const&, auto) { innerFolderCallback = cb; });
  EXPECT_CALL(*store_, doPublishFileEventsFor(inner(u"/dir/f"), _)).WillOnce([&](auto const&, ev::Callback const& cb) {
    innerFileCallback = cb;
  });
  EXPECT_CALL(*store_, doStartChangePollingMechanism(inner(u"/"), _))
      .WillOnce([&](auto const&, ev::Callback const& cb) { innerPollCallback = cb; });

  struct Seen {
    ev::Kind kind;
    StorageIRI subscribed, changed;
    ev::EntryType type;
    boost::property_tree::ptree details;
  };
  std::vector<Seen> seen;
  auto record = [&](ev::Kind const& kind, StorageIRI const& subscribed, StorageIRI const& changed,
                    ev::EntryType const& type, boost::property_tree::ptree details) {
    seen.push_back({kind, subscribed, changed, type, std::move(details)});
  };
  paysLatencyOnce([&] { throttle_.doPublishFolderEventsFor(folder, record, kinds, ev::RecursiveFileWatching::Disabled); });
  paysLatencyOnce([&] { throttle_.doPublishFileEventsFor(outer(u"/dir/f"), record); });
  paysLatencyOnce([&] { throttle_.doStartChangePollingMechanism(outer(u"/"), record); });
  ASSERT_TRUE(innerFolderCallback && innerFileCallback && innerPollCallback);

  boost::property_tree::ptree move;
  move.put("from", "mem://s1/base/dir/old");
  move.put("to", "mem://s1/base/dir/new");
  move.put("note", "kept");
  innerFolderCallback(ev::Kind::Removed, inner(u"/dir"), inner(u"/dir/old"), ev::EntryType::Folder, move);
  innerFileCallback(ev::Kind::Modified, inner(u"/dir/f"), inner(u"/dir/f"), ev::EntryType::File, {});
  // A refresh of the whole store arrives naming the inner root.
  innerPollCallback(ev::Kind::Refresh, iri(u"mem://s1/base"), iri(u"mem://s1/base"), ev::EntryType::Folder, {});

  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].kind, ev::Kind::Removed);
  EXPECT_EQ(seen[0].subscribed, folder);
  EXPECT_EQ(seen[0].changed, outer(u"/dir/old"));
  EXPECT_EQ(seen[0].type, ev::EntryType::Folder);
  EXPECT_EQ(seen[0].details.get<std::string>("from"), "throttle:<mem://s1/base>/dir/old");
  EXPECT_EQ(seen[0].details.get<std::string>("to"), "throttle:<mem://s1/base>/dir/new");
  EXPECT_EQ(seen[0].details.get<std::string>("note"), "kept");
  EXPECT_EQ(seen[1].kind, ev::Kind::Modified);
  EXPECT_EQ(seen[1].subscribed, outer(u"/dir/f"));
  EXPECT_EQ(seen[1].changed, outer(u"/dir/f"));
  EXPECT_EQ(seen[2].subscribed, outer(u"/"));
  EXPECT_EQ(seen[2].changed, outer(u"/"));

  // A subscription the inner store refuses fails naming the throttle IRI.
  EXPECT_CALL(*store_, doPublishFileEventsFor(inner(u"/g"), _)).WillOnce([&](auto const&, auto const&) {
    throw Exception(ErrorCode::NotSupported, inner(u"/g"));
  });
  try {
    throttle_.doPublishFileEventsFor(outer(u"/g"), record);
    ADD_FAILURE() << "no exception";
  } catch (Exception const& e) {
    EXPECT_EQ(e.getIRI(), outer(u"/g"));
  }
}

TEST_F(ThrottleTest, StreamsPayLatencyOnceAndTheirBytesOnTheLink) {
  // 1e6 bytes per second: one byte costs exactly one microsecond of link time.
  std::string written;
  EXPECT_CALL(*store_, doOpenReadOnlyStream(inner(u"/r")))
      .WillOnce(Return(ByMove(std::make_unique<StringStream>(std::string(1500, 'x')))));
  ByteStreamOpenOptions truncating;
  truncating.truncate = true;
  EXPECT_CALL(*store_, doOpenStream(inner(u"/w"), testing::Field(&ByteStreamOpenOptions::truncate, true)))
      .WillOnce(Return(ByMove(std::make_unique<StringStream>("", &written))));

  auto const t0 = time_.now;
  auto reader = throttle_.doOpenReadOnlyStream(outer(u"/r"));
  ASSERT_EQ(time_.deadlines, std::vector{t0 + kLatency});
  auto const opened = time_.now;

  char buffer[1000];
  EXPECT_EQ(reader->read(buffer, 1000), 1000);
  EXPECT_EQ(time_.deadlines.back(), opened + microseconds(1000));
  EXPECT_EQ(reader->read(buffer, 1000), 500);
  EXPECT_EQ(time_.deadlines.back(), opened + microseconds(1500));
  auto const count = time_.deadlines.size();
  EXPECT_EQ(reader->read(buffer, 1000), -1);  // the end costs nothing
  EXPECT_EQ(reader->seek(0, std::ios_base::beg), 0);
  reader->close();
  EXPECT_EQ(time_.deadlines.size(), count);

  // An idle link builds up no credit.
  time_.now += milliseconds(50);
  auto const beforeWriter = time_.now;
  auto writer = throttle_.doOpenStream(outer(u"/w"), truncating);
  EXPECT_EQ(time_.deadlines.back(), beforeWriter + kLatency);
  auto const writerOpened = time_.now;
  EXPECT_EQ(writer->write("hello", 5), 5);
  EXPECT_EQ(time_.deadlines.back(), writerOpened + microseconds(5));
  writer->close();
  EXPECT_EQ(written, "hello");
}

TEST_F(ThrottleTest, AStreamClosesWithATimeAsTheInnerStreamCanWithoutALatency) {
  boost::posix_time::ptime const when(boost::gregorian::date(2001, 2, 3));
  auto* timedInner = new TimedStringStream("");
  auto* plainInner = new StringStream("");
  EXPECT_CALL(*store_, doOpenStream(inner(u"/t"), testing::_)).WillOnce(Return(ByMove(ByteStreamPtr(timedInner))));
  EXPECT_CALL(*store_, doOpenStream(inner(u"/p"), testing::_)).WillOnce(Return(ByMove(ByteStreamPtr(plainInner))));
  auto timed = throttle_.doOpenStream(outer(u"/t"), {});
  auto plain = throttle_.doOpenStream(outer(u"/p"), {});
  auto const count = time_.deadlines.size();

  auto* const asTimed = dynamic_cast<extensions::IClosesWithTime*>(timed.get());
  ASSERT_NE(asTimed, nullptr);
  EXPECT_TRUE(asTimed->closeWithTime(when));
  EXPECT_EQ(timedInner->closedWith, when);
  // An inner stream that cannot: closed, and the caller told to set the time itself.
  EXPECT_FALSE(dynamic_cast<extensions::IClosesWithTime*>(plain.get())->closeWithTime(when));
  EXPECT_EQ(plainInner->closes, 1);
  EXPECT_EQ(time_.deadlines.size(), count) << "a close pays no latency, with a time or without";
}

TEST_F(ThrottleTest, ReadsShareTheDownloadLinkAndWritesTheUploadLink) {
  // Streams moving bytes "at once" (the clock stands still while they wait): a booking
  // starts where the previous one in the same direction ends; the two directions do not
  // wait for each other.
  EXPECT_CALL(*store_, doOpenReadOnlyStream(inner(u"/a")))
      .WillOnce(Return(ByMove(std::make_unique<StringStream>(std::string(300, 'a')))));
  EXPECT_CALL(*store_, doOpenReadOnlyStream(inner(u"/d")))
      .WillOnce(Return(ByMove(std::make_unique<StringStream>(std::string(100, 'd')))));
  EXPECT_CALL(*store_, doOpenTransactionalStream(inner(u"/b"), _))
      .WillOnce(Return(ByMove(std::make_unique<StringStream>(""))));
  EXPECT_CALL(*store_, doOpenTransactionalStreamAtScratchLocation(inner(u"/c"), inner(u"/.c.tmp"), _))
      .WillOnce(Return(ByMove(std::make_unique<StringStream>(""))));
  auto first = throttle_.doOpenReadOnlyStream(outer(u"/a"));
  auto second = throttle_.doOpenTransactionalStream(outer(u"/b"), {});
  auto third = throttle_.doOpenTransactionalStreamAtScratchLocation(outer(u"/c"), outer(u"/.c.tmp"), {});
  auto fourth = throttle_.doOpenReadOnlyStream(outer(u"/d"));
  time_.sleepAdvancesClock = false;
  auto const now = time_.now;
  char buffer[300];
  ASSERT_EQ(first->read(buffer, 300), 300);
  ASSERT_EQ(second->write(buffer, 200), 200);
  ASSERT_EQ(third->write(buffer, 100), 100);
  ASSERT_EQ(fourth->read(buffer, 300), 100);
  std::vector<Clock::time_point> const expected{now + microseconds(300), now + microseconds(200),
                                                now + microseconds(300), now + microseconds(400)};
  EXPECT_EQ(std::vector(time_.deadlines.end() - 4, time_.deadlines.end()), expected);

  // waitTransfer is the same booking, for callers that move bytes themselves.
  throttle_.waitTransfer(ThrottleProvider::Direction::Upload, 50);
  EXPECT_EQ(time_.deadlines.back(), now + microseconds(350));
}

TEST(ThrottleUnlimitedTest, ZeroLatencyAndZeroRateNeverWait) {
  FakeTime time;
  auto store = std::make_shared<StrictMock<MockStore>>();
  ThrottleProvider throttle(StorageItem(store, iri(u"mem://s1/")), fakeOptions(time, microseconds(0), 0));
  EXPECT_CALL(*store, doFileExists(iri(u"mem://s1/a"))).WillOnce(Return(true));
  EXPECT_CALL(*store, doOpenReadOnlyStream(iri(u"mem://s1/a")))
      .WillOnce(Return(ByMove(std::make_unique<StringStream>(std::string(4096, 'z')))));
  EXPECT_TRUE(throttle.doFileExists(StorageIRI(u"throttle", iri(u"mem://s1/"), u"/a")));
  auto stream = throttle.doOpenReadOnlyStream(StorageIRI(u"throttle", iri(u"mem://s1/"), u"/a"));
  char buffer[4096];
  EXPECT_EQ(stream->read(buffer, 4096), 4096);
  EXPECT_TRUE(time.deadlines.empty());
}

TEST(ThrottleRegistryTest, RegistryMakesThrottlesOverTheInnerStore) {
  ProviderRegistry registry;
  auto store = std::make_shared<StrictMock<MockStore>>();
  registry.addProvider(iri(u"mem://s1/"), store);
  FakeTime time;
  providers::throttle::registerWith(registry, fakeOptions(time, milliseconds(3), 0));
  ASSERT_TRUE(registry.hasScheme(u"throttle"));

  auto item = registry.resolve(std::u16string(u"throttle:<mem://s1/>/docs/a.txt"));
  ASSERT_NE(dynamic_cast<ThrottleProvider*>(item.getProvider().get()), nullptr);
  EXPECT_CALL(*store, doFileExists(iri(u"mem://s1/docs/a.txt"))).WillOnce(Return(true));
  EXPECT_TRUE(item.fileExists());
  EXPECT_EQ(time.deadlines.size(), 1u);
  // Items under the same root share one throttle (and so its links).
  EXPECT_EQ(registry.resolve(std::u16string(u"throttle:<mem://s1/>/other")).getProvider(), item.getProvider());

  providers::throttle::ThrottleProviderFactory factory;
  StorageItem innerItem(store, iri(u"mem://s1/sub"));
  EXPECT_EQ(factory.createContainerIRI(innerItem).toString(), u"throttle:<mem://s1/sub>/");
  auto made = std::dynamic_pointer_cast<ThrottleProvider>(factory.createProvider(innerItem));
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->getRootIRI(), factory.createContainerIRI(innerItem));
  EXPECT_EQ(made->toInner(StorageIRI(u"throttle", iri(u"mem://s1/sub"), u"/x")).toString(), u"mem://s1/sub/x");
}

}  // namespace
