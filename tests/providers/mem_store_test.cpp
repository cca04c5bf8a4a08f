// The `mem` store's test controls and its own choices: fault switches, counters, the
// side door and its events, case-insensitive names, capacity, watermarks, features.
// What every store answers is checked by the shared conformance suite.
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/MemoryProviderFactory.hpp>
#include <providers/mem/SideDoor.hpp>

#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace providers::mem;
using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;
using foundation::storage::provider::ByteStreamCloseFailure;
using foundation::storage::provider::ByteStreamFailure;
using foundation::storage::provider::ByteStreamOpenOptions;
using foundation::storage::provider::ByteStreamReadFailure;
using foundation::storage::provider::ByteStreamSeekFailure;
using foundation::storage::provider::ByteStreamWriteFailure;
using foundation::storage::provider::collect;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::Exception;
using foundation::storage::provider::ExtendedFeature;
using foundation::storage::provider::FilenameSensitivity;
using foundation::storage::provider::ReplacementPolicy;
using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::StorageItem;

// What a call threw, reduced to what the tests compare.
struct Outcome {
  bool threw = false;
  bool storageError = false;  // a foundation Exception
  std::optional<ErrorCode> code;
  std::optional<StorageIRI> iri;
  std::string what;
};

template <class F>
Outcome outcomeOf(F&& action) {
  Outcome outcome;
  try {
    action();
  } catch (Exception const& e) {
    outcome = {true, true, e.getErrorCode(), e.getIRI(), e.what()};
  } catch (ByteStreamFailure const& e) {
    outcome = {true, false, e.getErrorCode(), std::nullopt, e.what()};
  } catch (std::exception const& e) {
    outcome = {true, false, std::nullopt, std::nullopt, e.what()};
  }
  return outcome;
}

// The code of the storage Exception `action` throws; nullopt when it throws none.
template <class F>
std::optional<ErrorCode> storageErrorOf(F&& action) {
  auto outcome = outcomeOf(action);
  return outcome.storageError ? outcome.code : std::nullopt;
}

// The code carried by the stream failure of type `Failure` that `action` throws.
template <class Failure, class F>
std::optional<ErrorCode> streamFailureOf(F&& action) {
  try {
    action();
  } catch (Failure const& e) {
    return e.getErrorCode();
  } catch (...) {
    return std::nullopt;
  }
  return std::nullopt;
}

// Collects events as "Kind Type location" lines (plus " from=... to=..." for moves).
class EventLog {
 public:
  foundation::storage::events::Callback callback() {
    return [this](Kind const& kind, StorageIRI const& subscribed, StorageIRI const& location, EntryType const& type,
                  boost::property_tree::ptree details) {
      std::string line = std::string(foundation::storage::events::toString(kind)) +
                         (type == EntryType::File ? " File " : " Folder ") + location.toUtf8();
      if (auto from = details.get_optional<std::string>("from")) line += " from=" + *from;
      if (auto to = details.get_optional<std::string>("to")) line += " to=" + *to;
      std::lock_guard lock(mutex_);
      lines_.push_back(line);
      subscribed_.insert(subscribed.toUtf8());
      threads_.insert(std::this_thread::get_id());
    };
  }
  std::vector<std::string> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }
  std::set<std::string> subscribed() {
    std::lock_guard lock(mutex_);
    return subscribed_;
  }
  std::set<std::thread::id> threads() {
    std::lock_guard lock(mutex_);
    return threads_;
  }

 private:
  std::mutex mutex_;  // guards the members below
  std::vector<std::string> lines_;
  std::set<std::string> subscribed_;
  std::set<std::thread::id> threads_;
};

class MemStoreTest : public ::testing::Test {
 protected:
  void useStore(MemoryProvider::Options options) { store = std::make_shared<MemoryProvider>(std::move(options)); }

  StorageIRI iri(std::u16string const& path) const { return StorageIRI(store->root(), path); }
  StorageItem item(std::u16string const& path) const { return StorageItem(store, iri(path)); }

  void write(std::u16string const& path, std::string const& content, bool append = false) const {
    ByteStreamOpenOptions options;
    options.truncate = !append;
    options.append = append;
    auto stream = item(path).openStream(options);
    stream->write(content.data(), static_cast<long>(content.size()));
    stream->close();
  }
  std::string read(std::u16string const& path) const {
    auto stream = item(path).openReadOnlyStream();
    std::string content;
    char buffer[7];  // small on purpose: several reads per file
    for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) content.append(buffer, static_cast<std::size_t>(n));
    stream->close();
    return content;
  }
  std::string watermark(std::u16string const& path) const {
    return item(path).getExtendedAttributes().getString("WATERMARK");
  }
  std::vector<std::u16string> names(std::u16string const& folder) const { return item(folder).listAllNamesOnly(); }

  std::shared_ptr<MemoryProvider> store = std::make_shared<MemoryProvider>();
};

TEST_F(MemStoreTest, FailNextFailsExactlyTheNextCallsThenTheStoreAnswersAgain) {
  store->failNext(Operation::CreateFile, 2, ErrorCode::TransientFailure);
  for (int i = 0; i < 2; ++i) {
    auto outcome = outcomeOf([&] { item(u"/a.txt").createFile(); });
    ASSERT_TRUE(outcome.storageError) << outcome.what;
    EXPECT_EQ(outcome.code, ErrorCode::TransientFailure);
    EXPECT_EQ(outcome.iri, iri(u"/a.txt"));
    EXPECT_FALSE(store->hasFileAt(u"/a.txt")) << "a failed call must change nothing";
  }
  EXPECT_NO_THROW(item(u"/a.txt").createFile());
  EXPECT_TRUE(store->hasFileAt(u"/a.txt"));
  EXPECT_EQ(store->calls(Operation::CreateFile), 3u);

  // Faults queue up in the order they were armed; other operations are untouched.
  store->failNext(Operation::FileExists, 1, ErrorCode::NotWritable);
  store->failNext(Operation::FileExists, 1, ErrorCode::InUse);
  EXPECT_EQ(storageErrorOf([&] { item(u"/a.txt").fileExists(); }), ErrorCode::NotWritable);
  EXPECT_FALSE(item(u"/a.txt").folderExists());
  EXPECT_EQ(storageErrorOf([&] { item(u"/a.txt").fileExists(); }), ErrorCode::InUse);
  EXPECT_TRUE(item(u"/a.txt").fileExists());

  // A fault on a move names the source the caller gave and leaves both places alone.
  store->failNext(Operation::MoveFile, 1, ErrorCode::QuotaExceeded);
  auto move = outcomeOf([&] { item(u"/a.txt").moveFile(iri(u"/b.txt"), ReplacementPolicy::Never); });
  EXPECT_EQ(move.code, ErrorCode::QuotaExceeded);
  EXPECT_EQ(move.iri, iri(u"/a.txt"));
  EXPECT_TRUE(store->hasFileAt(u"/a.txt"));
  EXPECT_FALSE(store->hasFileAt(u"/b.txt"));

  // A non-Exception error is a plain std::runtime_error.
  store->failNextUnexpected(Operation::GetFileAttributes, 1);
  auto unexpected = outcomeOf([&] { item(u"/a.txt").getFileAttributes(); });
  EXPECT_TRUE(unexpected.threw);
  EXPECT_FALSE(unexpected.storageError) << unexpected.what;
  EXPECT_NE(unexpected.what.find("GetFileAttributes"), std::string::npos) << unexpected.what;
  EXPECT_NO_THROW(item(u"/a.txt").getFileAttributes());

  store->failNext(Operation::RemoveFile, 5, ErrorCode::InUse);
  store->failNextUnexpected(Operation::RemoveFile, 5);
  store->clearFaults();
  EXPECT_NO_THROW(item(u"/a.txt").removeFile());
}

TEST_F(MemStoreTest, StreamFaultsAreTheStreamFailureOfTheCallCarryingTheCode) {
  store->elsewhere().writeFile(u"/f.bin", "abcdef");
  store->failNext(Operation::OpenStream, 1, ErrorCode::NotWritable);
  EXPECT_EQ(storageErrorOf([&] { item(u"/f.bin").openStream({}); }), ErrorCode::NotWritable);
  store->failNext(Operation::OpenReadOnlyStream, 1, ErrorCode::TransientFailure);
  EXPECT_EQ(storageErrorOf([&] { item(u"/f.bin").openReadOnlyStream(); }), ErrorCode::TransientFailure);

  auto stream = item(u"/f.bin").openStream({});
  char buffer[16];

  store->failNext(Operation::Read, 1, ErrorCode::TransientFailure);
  EXPECT_EQ(streamFailureOf<ByteStreamReadFailure>([&] { stream->read(buffer, 3); }), ErrorCode::TransientFailure);
  EXPECT_EQ(stream->read(buffer, 3), 3) << "the failed read must not move the position";
  EXPECT_EQ(std::string(buffer, 3), "abc");

  store->failNext(Operation::Write, 1, ErrorCode::QuotaExceeded);
  EXPECT_EQ(streamFailureOf<ByteStreamWriteFailure>([&] { stream->write("XYZ", 3); }), ErrorCode::QuotaExceeded);
  EXPECT_EQ(store->contentOf(u"/f.bin"), "abcdef");

  store->failNext(Operation::Seek, 1, ErrorCode::InvalidName);
  EXPECT_EQ(streamFailureOf<ByteStreamSeekFailure>([&] { stream->seek(0, std::ios_base::beg); }),
            ErrorCode::InvalidName);

  store->failNextUnexpected(Operation::Read, 1);
  auto unexpected = outcomeOf([&] { stream->read(buffer, 1); });
  EXPECT_TRUE(unexpected.threw);
  EXPECT_FALSE(unexpected.code.has_value()) << "must not be a stream failure: " << unexpected.what;

  // A failed close leaves the stream open and usable.
  store->failNext(Operation::Close, 1, ErrorCode::TransientFailure);
  EXPECT_EQ(streamFailureOf<ByteStreamCloseFailure>([&] { stream->close(); }), ErrorCode::TransientFailure);
  EXPECT_EQ(stream->write("XYZ", 3), 3);
  EXPECT_EQ(store->contentOf(u"/f.bin"), "abcXYZ");
  EXPECT_NO_THROW(stream->close());
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);
}

TEST_F(MemStoreTest, FailEveryFollowsTheSeedAndYieldsToFailNext) {
  auto pattern = [](std::uint64_t seed, unsigned n) {
    auto other = std::make_shared<MemoryProvider>();
    other->failEvery(Operation::FileExists, n, ErrorCode::TransientFailure, seed);
    StorageItem probe(other, StorageIRI(u"mem://s1/x"));
    std::vector<bool> failed;
    for (int i = 0; i < 60; ++i) failed.push_back(storageErrorOf([&] { probe.fileExists(); }).has_value());
    return failed;
  };
  auto const first = pattern(42, 3);
  EXPECT_EQ(first, pattern(42, 3)) << "the same seed must fail the same calls";
  EXPECT_NE(first, pattern(43, 3));
  auto const failures = std::count(first.begin(), first.end(), true);
  EXPECT_GT(failures, 5);
  EXPECT_LT(failures, 40);
  EXPECT_EQ(pattern(7, 1), std::vector<bool>(60, true));
  EXPECT_EQ(pattern(7, 0), std::vector<bool>(60, false));

  store->failEvery(Operation::CreateFolder, 1, ErrorCode::InUse, 1);
  store->failNext(Operation::CreateFolder, 1, ErrorCode::NotWritable);
  EXPECT_EQ(storageErrorOf([&] { item(u"/d").createFolder(); }), ErrorCode::NotWritable);
  EXPECT_EQ(storageErrorOf([&] { item(u"/d").createFolder(); }), ErrorCode::InUse);
  store->clearFaults();
  EXPECT_NO_THROW(item(u"/d").createFolder());
}

TEST_F(MemStoreTest, CountersCountEveryStartedCallButNotTheSideDoor) {
  std::set<std::string> names;
  for (std::size_t i = 0; i < kOperationCount; ++i) names.insert(toString(static_cast<Operation>(i)));
  EXPECT_EQ(names.size(), kOperationCount) << "every operation needs its own name";
  EXPECT_STREQ(toString(Operation::ListAllRecursive), "ListAllRecursive");

  store->elsewhere().createFolder(u"/docs");
  store->elsewhere().writeFile(u"/docs/a.txt", "hello");
  for (std::size_t i = 0; i < kOperationCount; ++i) EXPECT_EQ(store->calls(static_cast<Operation>(i)), 0u);

  item(u"/docs").exists();  // the framework default asks for a file, then a folder
  item(u"/docs").listAll(u"*.txt");
  item(u"/docs").listAllNamesOnly();
  EXPECT_EQ(storageErrorOf([&] { item(u"/nowhere").listFiles(); }), ErrorCode::DoesNotExist);
  EXPECT_EQ(read(u"/docs/a.txt"), "hello");
  EXPECT_EQ(store->calls(Operation::FileExists), 1u);
  EXPECT_EQ(store->calls(Operation::FolderExists), 1u);
  EXPECT_EQ(store->calls(Operation::ListAll), 2u);
  EXPECT_EQ(store->calls(Operation::ListFiles), 1u);
  EXPECT_EQ(store->calls(Operation::OpenReadOnlyStream), 1u);
  EXPECT_EQ(store->calls(Operation::Read), 2u) << "one read of 5 bytes, one at the end";
  EXPECT_EQ(store->calls(Operation::Close), 1u);
  EXPECT_EQ(store->calls(Operation::Write), 0u);

  store->resetCounters();
  EXPECT_EQ(store->calls(Operation::ListAll), 0u);
  item(u"/docs").hasFeature(ExtendedFeature::RecursiveListing);
  EXPECT_EQ(store->calls(Operation::HasFeature), 1u);
}

TEST_F(MemStoreTest, SideDoorChangesReachSubscribersOnTheStoreThread) {
  store->elsewhere().createFolder(u"/docs");
  EventLog log;
  StorageIRI const subscribed(u"mem://s1/docs/");  // passed back exactly as given
  store->doPublishFolderEventsFor(subscribed, log.callback(), {}, foundation::storage::events::RecursiveFileWatching::Enabled);

  auto& elsewhere = store->elsewhere();
  elsewhere.writeFile(u"/docs/a.txt", "one");
  elsewhere.writeFile(u"/docs/a.txt", "two");
  elsewhere.rename(u"/docs/a.txt", u"/docs/b.txt");
  elsewhere.setExtendedAttribute(u"/docs/b.txt", "color", std::string("red"));
  elsewhere.setWritable(u"/docs/b.txt", false);
  elsewhere.createFolder(u"/docs/sub/deeper");
  elsewhere.publishRefresh(u"/docs/sub");
  elsewhere.remove(u"/docs/sub");
  store->waitForEventsDelivered();

  EXPECT_EQ(log.take(), (std::vector<std::string>{
                            "Added File mem://s1/docs/a.txt",
                            "Modified File mem://s1/docs/a.txt",
                            "Removed File mem://s1/docs/a.txt from=mem://s1/docs/a.txt to=mem://s1/docs/b.txt",
                            "Added File mem://s1/docs/b.txt from=mem://s1/docs/a.txt to=mem://s1/docs/b.txt",
                            "Modified File mem://s1/docs/b.txt",
                            "Modified File mem://s1/docs/b.txt",
                            "Added Folder mem://s1/docs/sub",
                            "Added Folder mem://s1/docs/sub/deeper",
                            "Refresh Folder mem://s1/docs/sub",
                            "Removed Folder mem://s1/docs/sub",
                        }));
  EXPECT_EQ(log.subscribed(), std::set<std::string>{"mem://s1/docs/"});
  EXPECT_EQ(log.threads().count(std::this_thread::get_id()), 0u) << "callbacks must not run on the caller's thread";

  // What the side door did is what the store answers.
  EXPECT_EQ(read(u"/docs/b.txt"), "two");
  EXPECT_FALSE(item(u"/docs/b.txt").getFileAttributes().isWritable());
  auto const attributes = item(u"/docs/b.txt").getExtendedAttributes();
  EXPECT_EQ(attributes.getString("color"), "red");
  EXPECT_FALSE(attributes.getString("WATERMARK").empty());
  EXPECT_EQ(store->snapshot(), (std::map<std::u16string, std::optional<std::string>>{
                                   {u"/docs", std::nullopt}, {u"/docs/b.txt", std::string("two")}}));
  EXPECT_EQ(storageErrorOf([&] { elsewhere.writeFile(u"/missing/x", "x"); }), ErrorCode::DoesNotExist);
  EXPECT_EQ(storageErrorOf([&] { elsewhere.remove(u"/missing"); }), ErrorCode::DoesNotExist);
  EXPECT_EQ(storageErrorOf([&] { elsewhere.rename(u"/docs", u"/docs/inside"); }), ErrorCode::InvalidName);
}

TEST_F(MemStoreTest, EventsReachOnlyTheSubscriptionsTheyConcern) {
  using foundation::storage::events::RecursiveFileWatching;
  store->elsewhere().createFolder(u"/a/b");
  store->elsewhere().writeFile(u"/a/f.txt", "");
  EventLog recursive, direct, file, removalsOnly;
  item(u"/a").publishFolderEvents(recursive.callback());
  item(u"/a").publishFolderEvents(direct.callback(), {Kind::Added, Kind::Modified, Kind::Removed, Kind::Refresh},
                                  RecursiveFileWatching::Disabled);
  item(u"/a/f.txt").publishFileEvents(file.callback());
  item(u"/").publishFolderEvents(removalsOnly.callback(), {Kind::Removed});
  EXPECT_EQ(storageErrorOf([&] { item(u"/nowhere").publishFolderEvents(recursive.callback()); }),
            ErrorCode::DoesNotExist);
  EXPECT_EQ(storageErrorOf([&] { item(u"/a").publishFileEvents(file.callback()); }), ErrorCode::DoesNotExist);

  // Changes through the provider publish as well; a stream's changes once, on close.
  item(u"/a/b/deep.txt").createFile();
  write(u"/a/f.txt", "first");
  item(u"/a/f.txt").moveFile(iri(u"/a/g.txt"), ReplacementPolicy::Never);
  store->elsewhere().publishRefresh(u"/");
  store->waitForEventsDelivered();

  std::string const moveDetails = " from=mem://s1/a/f.txt to=mem://s1/a/g.txt";
  EXPECT_EQ(recursive.take(), (std::vector<std::string>{
                                  "Added File mem://s1/a/b/deep.txt",
                                  "Modified File mem://s1/a/f.txt",
                                  "Removed File mem://s1/a/f.txt" + moveDetails,
                                  "Added File mem://s1/a/g.txt" + moveDetails,
                                  "Refresh Folder mem://s1/",
                              }));
  EXPECT_EQ(direct.take(), (std::vector<std::string>{
                               "Modified File mem://s1/a/f.txt",
                               "Removed File mem://s1/a/f.txt" + moveDetails,
                               "Added File mem://s1/a/g.txt" + moveDetails,
                               "Refresh Folder mem://s1/",
                           }));
  EXPECT_EQ(file.take(), (std::vector<std::string>{
                             "Modified File mem://s1/a/f.txt",
                             "Removed File mem://s1/a/f.txt" + moveDetails,
                             "Refresh Folder mem://s1/",
                         }));
  EXPECT_EQ(removalsOnly.take(), (std::vector<std::string>{"Removed File mem://s1/a/f.txt" + moveDetails}));

  // Removing an ancestor reaches subscriptions below it; stopping drops every
  // subscription made for the IRI.
  item(u"/a").stopPublishingFolderEvents();
  store->elsewhere().writeFile(u"/a/h.txt", "x");
  store->elsewhere().remove(u"/a");
  store->waitForEventsDelivered();
  EXPECT_TRUE(recursive.take().empty());
  EXPECT_TRUE(direct.take().empty());
  EXPECT_EQ(file.take(), (std::vector<std::string>{"Removed Folder mem://s1/a"}));
  EXPECT_EQ(removalsOnly.take(), (std::vector<std::string>{"Removed Folder mem://s1/a"}));
  EXPECT_EQ(store->calls(Operation::PublishEvents), 6u);
  EXPECT_EQ(store->calls(Operation::StopEvents), 1u);
}

TEST_F(MemStoreTest, CaseInsensitiveStoreMatchesAnyCaseAndKeepsTheCreatedOne) {
  MemoryProvider::Options options;
  options.sensitivity = FilenameSensitivity::CaseInsensitive;
  useStore(options);
  // Reporting the sensitivity, refusing a second file that differs only in case, and the
  // case-sensitive default are checked by the conformance suite; here: paths through
  // folders, the side door, Unicode and renames that change only the case.
  item(u"/Docs").createFolder();
  item(u"/DOCS/ReadMe.TXT").createFile();
  EXPECT_TRUE(item(u"/docs/readme.txt").fileExists());
  EXPECT_EQ(store->elsewhere().contentOf(u"/dOcS/rEaDmE.tXt"), "");

  // Beyond ASCII: lower-casing is Unicode's.
  item(u"/\u00C4rger").createFolder();
  EXPECT_TRUE(item(u"/\u00E4RGER").folderExists());

  // A move that changes only the case renames the item.
  item(u"/docs/readme.txt").moveFile(iri(u"/docs/README.md"), ReplacementPolicy::Never);
  item(u"/docs/readme.md").moveFile(iri(u"/docs/readme.MD"), ReplacementPolicy::Never);
  EXPECT_EQ(names(u"/DOCS"), std::vector<std::u16string>{u"readme.MD"});
  item(u"/docs").moveFolder(iri(u"/dOCS"), ReplacementPolicy::Never);
  EXPECT_EQ(store->snapshot(), (std::map<std::u16string, std::optional<std::string>>{
                                   {u"/dOCS", std::nullopt},
                                   {u"/dOCS/readme.MD", std::string()},
                                   {u"/\u00C4rger", std::nullopt}}));
}

TEST_F(MemStoreTest, CapacityRefusesWritesAndCopiesThatWouldExceedIt) {
  MemoryProvider::Options options;
  options.capacity = 10;
  useStore(options);
  write(u"/a", "12345678");

  auto stream = item(u"/a").openStream({});
  stream->seek(0, std::ios_base::end);
  EXPECT_EQ(streamFailureOf<ByteStreamWriteFailure>([&] { stream->write("abc", 3); }), ErrorCode::QuotaExceeded);
  EXPECT_EQ(store->contentOf(u"/a"), "12345678") << "a refused write writes nothing";
  EXPECT_EQ(stream->write("ab", 2), 2);
  stream->seek(0, std::ios_base::beg);
  EXPECT_EQ(stream->write("XY", 2), 2) << "overwriting needs no space";
  stream->close();
  EXPECT_EQ(store->contentOf(u"/a"), "XY345678ab");

  auto info = item(u"/").getProviderStorageInfo();
  EXPECT_EQ(info.getStorageCapacity(), 10u);
  EXPECT_EQ(info.getSpaceOccupied(), 10u);

  auto copy = outcomeOf([&] { item(u"/a").copyFile(iri(u"/b"), ReplacementPolicy::Never); });
  EXPECT_EQ(copy.code, ErrorCode::QuotaExceeded);
  EXPECT_EQ(copy.iri, iri(u"/b"));
  EXPECT_FALSE(store->hasFileAt(u"/b"));
  // Replacing a file only needs the difference (12 - 2 + 10 = 20).
  store->setCapacity(20);
  write(u"/b", "xy");
  EXPECT_NO_THROW(item(u"/a").copyFile(iri(u"/b"), ReplacementPolicy::Always));
  EXPECT_EQ(item(u"/").getProviderStorageInfo().getSpaceOccupied(), 20u);

  // Removed content frees its space.
  item(u"/a").removeFile();
  EXPECT_EQ(item(u"/").getProviderStorageInfo().getSpaceOccupied(), 10u);

  useStore({});
  EXPECT_EQ(item(u"/").getProviderStorageInfo().getStorageCapacity(), MemoryProvider::kUnlimitedCapacity);
  EXPECT_FALSE(item(u"/").getProviderCacheUsage().getSpaceAvailable().has_value());
  options.cacheSpaceAvailable = 1234;
  useStore(options);
  EXPECT_EQ(item(u"/").getProviderCacheUsage().getSpaceAvailable(), 1234u);
  store->setCacheSpaceAvailable(0);
  EXPECT_EQ(item(u"/").getProviderCacheUsage().getSpaceAvailable(), 0u);
}

TEST_F(MemStoreTest, WatermarkChangesWithTheContentAndOnlyWithIt) {
  write(u"/a", "one");
  auto const created = watermark(u"/a");
  ASSERT_FALSE(created.empty());

  // Reads, attributes and listings are checked by the conformance suite; setting the flag:
  item(u"/a").setWritable(true);
  EXPECT_EQ(watermark(u"/a"), created) << "attributes leave the watermark alone";

  std::set<std::string> seen{created};
  auto expectFresh = [&](char const* what) {
    auto const now = watermark(u"/a");
    EXPECT_TRUE(seen.insert(now).second) << what << " must give a watermark never seen before";
  };
  write(u"/a", "two", /*append=*/true);
  expectFresh("a write");
  {
    ByteStreamOpenOptions truncate;
    truncate.truncate = true;
    item(u"/a").openStream(truncate)->close();
  }
  expectFresh("a truncation");
  store->elsewhere().writeFile(u"/a", "from elsewhere");
  expectFresh("a change through the side door");
  write(u"/b", "bbb");
  item(u"/b").copyFile(iri(u"/a"), ReplacementPolicy::Always);
  expectFresh("a replacement by copy");
  write(u"/c", "ccc");
  auto const moving = watermark(u"/c");
  item(u"/c").moveFile(iri(u"/a"), ReplacementPolicy::Always);
  EXPECT_EQ(watermark(u"/a"), moving) << "a moved file keeps its watermark";
  expectFresh("a replacement by move");
}

TEST_F(MemStoreTest, OpenStreamsFollowTheirFileAndRemovalFollowsTheFeatures) {
  write(u"/a", "");
  auto stream = item(u"/a").openStream({});
  item(u"/a").moveFile(iri(u"/b"), ReplacementPolicy::Never);
  stream->write("xyz", 3);
  EXPECT_EQ(store->contentOf(u"/b"), "xyz") << "a write is visible at once, at the file's new place";
  item(u"/b").removeFile();  // RemoveOpenFiles is on by default
  EXPECT_EQ(stream->write("!", 1), 1) << "the stream keeps its removed content";
  EXPECT_EQ(store->elsewhere().openStreams(), 1u);
  stream->close();
  EXPECT_EQ(store->elsewhere().openStreams(), 0u);
  EXPECT_TRUE(store->snapshot().empty());

  store->setFeatures({});
  store->elsewhere().createFolder(u"/d");
  write(u"/d/f", "f");
  auto reader = item(u"/d/f").openReadOnlyStream();
  EXPECT_EQ(storageErrorOf([&] { item(u"/d/f").removeFile(); }), ErrorCode::InUse);
  EXPECT_EQ(storageErrorOf([&] { item(u"/d").removeFolderRecursively(); }), ErrorCode::InUse);
  write(u"/g", "g");
  EXPECT_EQ(storageErrorOf([&] { item(u"/g").moveFile(iri(u"/d/f"), ReplacementPolicy::Always); }), ErrorCode::InUse);
  store->setFeatures({ExtendedFeature::RemoveFilesOpenForReading});
  auto writer = item(u"/g").openStream({});
  EXPECT_EQ(storageErrorOf([&] { item(u"/g").removeFile(); }), ErrorCode::InUse) << "open for writing";
  EXPECT_NO_THROW(item(u"/d").removeFolderRecursively()) << "open for reading only";
  writer->close();
  reader->close();

  // Listings carry extended attributes only with the feature; recursive listing needs its own.
  EXPECT_FALSE(collect(*item(u"/").listAll()).front().getExtendedAttributes().has_value());
  EXPECT_EQ(storageErrorOf([&] { item(u"/").listAllRecursive(); }), ErrorCode::NotSupported);
  store->setFeatures({ExtendedFeature::ExtendedAttributes, ExtendedFeature::RecursiveListing});
  auto const entries = collect(*item(u"/").listAll());
  ASSERT_TRUE(entries.front().getExtendedAttributes().has_value());
  EXPECT_EQ(entries.front().getExtendedAttributes()->getString("WATERMARK"), watermark(u"/g"));
  EXPECT_EQ(store->calls(Operation::ListAllRecursive), 1u);
}

// How merges keep or replace files is checked by the conformance suite; here: the clashes
// the mem store refuses whole.
TEST_F(MemStoreTest, FolderMergesRefuseTypeClashesWhole) {
  auto& elsewhere = store->elsewhere();
  elsewhere.createFolder(u"/d/sub");
  elsewhere.writeFile(u"/d/a", "dst-a");
  elsewhere.writeFile(u"/d/sub/y", "dst-y");

  // A file meeting a folder stops the merge before it changes anything.
  elsewhere.createFolder(u"/s");
  elsewhere.writeFile(u"/s/a", "new-a");
  elsewhere.writeFile(u"/s/sub", "a file where the destination has a folder");
  auto const before = store->snapshot();
  auto clash = outcomeOf([&] { item(u"/s").moveFolder(iri(u"/d"), ReplacementPolicy::KeepExisting); });
  EXPECT_EQ(clash.code, ErrorCode::AlreadyExists);
  EXPECT_EQ(clash.iri, iri(u"/d/sub"));
  EXPECT_EQ(store->snapshot(), before);
  // Nor can a folder merge into the folder that holds it.
  EXPECT_EQ(storageErrorOf([&] { item(u"/d/sub").moveFolder(iri(u"/d"), ReplacementPolicy::Always); }),
            ErrorCode::InvalidName);
  EXPECT_EQ(store->snapshot(), before);
}

TEST_F(MemStoreTest, ConfigureAndShutdownAreCountedAndTheStoreKeepsAnswering) {
  boost::property_tree::ptree config;
  config.put("latency", "5");
  item(u"/").configure(config);
  EXPECT_EQ(store->lastConfiguration().get<std::string>("latency"), "5");
  EXPECT_EQ(store->calls(Operation::Configure), 1u);
  store->failNext(Operation::Configure, 1, ErrorCode::TransientFailure);
  EXPECT_EQ(storageErrorOf([&] { item(u"/").configure({}); }), ErrorCode::TransientFailure);
  EXPECT_EQ(store->lastConfiguration().get<std::string>("latency"), "5");

  EventLog log;
  item(u"/").publishFolderEvents(log.callback());
  item(u"/before").createFile();
  item(u"/").shutdownProvider();
  EXPECT_EQ(log.take(), std::vector<std::string>{"Added File mem://s1/before"}) << "shutdown delivers what is queued";
  EXPECT_EQ(store->calls(Operation::Shutdown), 1u);
  item(u"/after").createFile();
  store->waitForEventsDelivered();
  EXPECT_TRUE(log.take().empty()) << "shutdown ends the subscriptions";
  EXPECT_TRUE(item(u"/after").fileExists());
}

TEST_F(MemStoreTest, FactoryAndRegistryNameTheStoreAfterTheAuthority) {
  MemoryProviderFactory factory;
  auto made = std::dynamic_pointer_cast<MemoryProvider>(factory.createProvider(StorageItem({}, StorageIRI(u"mem://s7/"))));
  ASSERT_TRUE(made);
  EXPECT_EQ(made->root(), StorageIRI(u"mem://s7/"));
  EXPECT_EQ(factory.createContainerIRI(StorageItem({}, StorageIRI(u"mem://s7/a/b"))), StorageIRI(u"mem://s7/"));

  foundation::storage::provider::ProviderRegistry registry;
  registerWith(registry);
  EXPECT_TRUE(registry.hasScheme(u"mem"));
  auto resolved = registry.resolve(std::u16string(u"mem://reg/x.txt"));
  resolved.createFile();
  auto viaRegistry = std::dynamic_pointer_cast<MemoryProvider>(resolved.getProvider());
  ASSERT_TRUE(viaRegistry);
  EXPECT_EQ(viaRegistry->name(), u"reg");
  EXPECT_TRUE(viaRegistry->hasFileAt(u"/x.txt"));

  // Only the path counts: a wrapped IRI with the same path reaches the same item and
  // errors name the IRI the caller used.
  store->elsewhere().writeFile(u"/w.txt", "wrapped");
  StorageIRI const wrapped(u"overlay:<mem://s1/>/w.txt");
  EXPECT_TRUE(store->doFileExists(wrapped));
  StorageIRI const missing(u"overlay:<mem://s1/>/nope/x");
  auto outcome = outcomeOf([&] { store->doCreateFile(missing); });
  EXPECT_EQ(outcome.code, ErrorCode::DoesNotExist);
  EXPECT_EQ(outcome.iri, missing.getParent());
}

}  // namespace
