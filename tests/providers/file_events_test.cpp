// Change events of the file store: changes made by other processes arrive with the right
// kind, entry type and IRIs; recursive watches follow new folders; filters, file
// subscriptions, stopping, shutdown and queue overflow.
#include "file_test_support.hpp"

#include <providers/file/FileProvider.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>

namespace {

using namespace foundation::storage::provider;
using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;
using foundation::storage::events::RecursiveFileWatching;
using filetest::runShell;
using filetest::ScratchFolder;
using providers::file::FileProvider;

// Only a guard against hanging: a failing test ends after it, a passing one never waits it
// out. Generous, since thousands of events under a sanitizer on a busy machine take a while.
constexpr auto kFailureGuard = std::chrono::seconds(120);

struct Record {
  Kind kind;
  StorageIRI subscribed;
  StorageIRI location;
  EntryType type;
  boost::property_tree::ptree details;
};

std::ostream& operator<<(std::ostream& out, Record const& r) {
  return out << foundation::storage::events::toString(r.kind) << " " << r.location
             << (r.type == EntryType::Folder ? " (folder)" : " (file)");
}

// Collects the events a callback receives and lets the test wait for one.
class Recorder {
 public:
  foundation::storage::events::Callback callback() {
    return [this](Kind const& kind, StorageIRI const& subscribed, StorageIRI const& location, EntryType const& type,
                  boost::property_tree::ptree details) {
      std::lock_guard lock(mutex_);
      records_.push_back(Record{kind, subscribed, location, type, std::move(details)});
      changed_.notify_all();
    };
  }

  // Waits until a record satisfies `pred`; false when the failure guard runs out.
  template <class Pred>
  bool waitFor(Pred pred) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kFailureGuard,
                             [&] { return std::any_of(records_.begin(), records_.end(), pred); });
  }
  bool waitFor(Kind kind, StorageIRI const& location) {
    return waitFor([&](Record const& r) { return r.kind == kind && r.location == location; });
  }
  // Waits until `count` records satisfy `pred`.
  template <class Pred>
  bool waitForCount(std::size_t count, Pred pred) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kFailureGuard, [&] {
      return static_cast<std::size_t>(std::count_if(records_.begin(), records_.end(), pred)) >= count;
    });
  }

  std::vector<Record> records() const {
    std::lock_guard lock(mutex_);
    return records_;
  }

 private:
  mutable std::mutex mutex_;  // guards records_
  std::condition_variable changed_;
  std::vector<Record> records_;
};

// Position of the first record with that kind, location and type; -1 when absent.
long find(std::vector<Record> const& records, Kind kind, StorageIRI const& location, EntryType type) {
  for (std::size_t i = 0; i < records.size(); ++i) {
    if (records[i].kind == kind && records[i].location == location && records[i].type == type) return static_cast<long>(i);
  }
  return -1;
}

std::string dump(std::vector<Record> const& records) {
  std::ostringstream out;
  for (auto const& r : records) out << "  " << r << "\n";
  return out.str();
}

std::vector<Kind> const kAllKinds{};

// Runs `end` when the test body leaves its scope, early returns of failed assertions
// included. Declared after the locals that callbacks use, so that the subscriptions end
// (and a delivery under way is waited for) before those locals are gone: the provider,
// a member of the fixture, outlives the test body.
class AtScopeEnd {
 public:
  explicit AtScopeEnd(std::function<void()> end) : end_(std::move(end)) {}
  ~AtScopeEnd() { end_(); }
  AtScopeEnd(AtScopeEnd const&) = delete;
  AtScopeEnd& operator=(AtScopeEnd const&) = delete;

 private:
  std::function<void()> end_;
};

class FileEventsTest : public ::testing::Test {
 protected:
  ScratchFolder scratch;
  Recorder recorder;
  FileProvider provider;  // declared last: destroyed (and its thread stopped) first
};

TEST_F(FileEventsTest, ChangesMadeByAnotherProcessArriveWithKindTypeAndIris) {
  auto const root = scratch.iri();
  provider.doPublishFolderEventsFor(root, recorder.callback(), kAllKinds, RecursiveFileWatching::Enabled);

  ASSERT_EQ(runShell(scratch.path(), "echo x > f && mv f g && rm g && mkdir d && rmdir d"), 0);
  ASSERT_TRUE(recorder.waitFor([&](Record const& r) {
    return r.kind == Kind::Removed && r.location == scratch.iri("d");
  })) << dump(recorder.records());

  auto const records = recorder.records();
  SCOPED_TRACE(dump(records));
  long const addedF = find(records, Kind::Added, scratch.iri("f"), EntryType::File);
  long const modifiedF = find(records, Kind::Modified, scratch.iri("f"), EntryType::File);
  long const removedF = find(records, Kind::Removed, scratch.iri("f"), EntryType::File);
  long const addedG = find(records, Kind::Added, scratch.iri("g"), EntryType::File);
  long const removedG = find(records, Kind::Removed, scratch.iri("g"), EntryType::File);
  long const addedD = find(records, Kind::Added, scratch.iri("d"), EntryType::Folder);
  long const removedD = find(records, Kind::Removed, scratch.iri("d"), EntryType::Folder);
  EXPECT_GE(addedF, 0);
  EXPECT_GT(modifiedF, addedF);
  EXPECT_GT(removedF, modifiedF);
  EXPECT_GT(addedG, removedF);
  EXPECT_GT(removedG, addedG);
  EXPECT_GT(addedD, removedG);
  EXPECT_GT(removedD, addedD);
  for (auto const& r : records) EXPECT_EQ(r.subscribed, root);

  // The two halves of the rename share a cookie; the destination half names both ends.
  ASSERT_GE(removedF, 0);
  ASSERT_GE(addedG, 0);
  auto const& from = records[static_cast<std::size_t>(removedF)].details;
  auto const& to = records[static_cast<std::size_t>(addedG)].details;
  ASSERT_TRUE(from.get_optional<std::uint32_t>("cookie"));
  EXPECT_EQ(from.get<std::uint32_t>("cookie"), to.get<std::uint32_t>("cookie", 0));
  EXPECT_EQ(to.get<std::string>("from", ""), scratch.iri("f").toUtf8());
  EXPECT_EQ(to.get<std::string>("to", ""), scratch.iri("g").toUtf8());
  // The source half names them too when both halves were read together.
  if (from.get_optional<std::string>("to")) {
    EXPECT_EQ(from.get<std::string>("to"), scratch.iri("g").toUtf8());
  }
}

TEST_F(FileEventsTest, RecursiveWatchesFollowFoldersMadeAndMovedAway) {
  ScratchFolder outside;
  scratch.mkdir("pre/deeper");
  provider.doPublishFolderEventsFor(scratch.iri(), recorder.callback(), kAllKinds, RecursiveFileWatching::Enabled);

  // Folders that existed at subscription time are watched.
  ASSERT_EQ(runShell(scratch.path(), "echo 1 > pre/deeper/x"), 0);
  EXPECT_TRUE(recorder.waitFor(Kind::Added, scratch.iri("pre/deeper/x"))) << dump(recorder.records());

  // A tree made in one go, faster than watches can be added: its content is still seen,
  // and later changes inside it arrive.
  ASSERT_EQ(runShell(scratch.path(), "mkdir -p new/a/b && echo y > new/a/b/f"), 0);
  EXPECT_TRUE(recorder.waitFor([&](Record const& r) {
    return r.kind == Kind::Added && r.location == scratch.iri("new/a/b/f") && r.type == EntryType::File;
  })) << dump(recorder.records());
  EXPECT_GE(find(recorder.records(), Kind::Added, scratch.iri("new/a"), EntryType::Folder), 0);
  ASSERT_EQ(runShell(scratch.path(), "echo z >> new/a/b/f"), 0);
  EXPECT_TRUE(recorder.waitFor(Kind::Modified, scratch.iri("new/a/b/f"))) << dump(recorder.records());

  // Moved out of the tree, a folder is no longer watched.
  ASSERT_EQ(runShell(scratch.path(), "mv new '" + outside.path().string() + "/new' && echo w > '" + outside.path().string() +
                                         "/new/a/b/late' && touch sentinel"),
            0);
  ASSERT_TRUE(recorder.waitFor(Kind::Added, scratch.iri("sentinel"))) << dump(recorder.records());
  auto const records = recorder.records();
  EXPECT_GE(find(records, Kind::Removed, scratch.iri("new"), EntryType::Folder), 0) << dump(records);
  for (auto const& r : records) {
    EXPECT_EQ(r.location.toUtf8().find("late"), std::string::npos) << r;
    EXPECT_EQ(r.location.toUtf8().find(outside.path().string()), std::string::npos) << r;
  }
}

TEST_F(FileEventsTest, NonRecursiveSubscriptionsHonourTheKindsFilter) {
  scratch.mkdir("sub");
  provider.doPublishFolderEventsFor(scratch.iri(), recorder.callback(), {Kind::Added},
                                    RecursiveFileWatching::Disabled);
  ASSERT_EQ(runShell(scratch.path(), "echo x > sub/inner && echo y > top && echo z >> top && rm top && touch sentinel"), 0);
  ASSERT_TRUE(recorder.waitFor(Kind::Added, scratch.iri("sentinel"))) << dump(recorder.records());
  auto const records = recorder.records();
  ASSERT_EQ(records.size(), 2u) << dump(records);
  EXPECT_EQ(find(records, Kind::Added, scratch.iri("top"), EntryType::File), 0);
  EXPECT_EQ(find(records, Kind::Added, scratch.iri("sentinel"), EntryType::File), 1);
}

TEST_F(FileEventsTest, AFileSubscriptionFollowsThatNameOnly) {
  scratch.write("f", "0");
  auto const f = scratch.iri("f");
  provider.doPublishFileEventsFor(f, recorder.callback());
  try {
    provider.doPublishFileEventsFor(scratch.iri("missing"), recorder.callback());
    ADD_FAILURE() << "subscribing to a missing file succeeded";
  } catch (Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::DoesNotExist);
  }

  // Replaced, removed and made again: the subscription keeps following the name.
  ASSERT_EQ(runShell(scratch.path(), "echo 1 >> f && touch other && mv f f2 && touch f2 && echo 2 > f && rm f"), 0);
  ASSERT_TRUE(recorder.waitForCount(2, [](Record const& r) { return r.kind == Kind::Removed; }))
      << dump(recorder.records());
  auto const records = recorder.records();
  std::vector<Kind> kinds;
  for (auto const& r : records) {
    EXPECT_EQ(r.subscribed, f);
    EXPECT_EQ(r.location, f) << r;
    EXPECT_EQ(r.type, EntryType::File);
    if (kinds.empty() || kinds.back() != r.kind) kinds.push_back(r.kind);
  }
  EXPECT_THAT(kinds, ::testing::ElementsAre(Kind::Modified, Kind::Removed, Kind::Added, Kind::Modified, Kind::Removed))
      << dump(records);
}

TEST_F(FileEventsTest, StoppedSubscriptionsAndCallbacksThatCallBack) {
  scratch.mkdir("a");
  scratch.mkdir("b");
  scratch.mkdir("c");
  scratch.mkdir("r");
  Recorder other;
  provider.doPublishFolderEventsFor(scratch.iri("a"), recorder.callback(), kAllKinds, RecursiveFileWatching::Enabled);
  provider.doPublishFolderEventsFor(scratch.iri("b"), other.callback(), kAllKinds, RecursiveFileWatching::Enabled);
  // A subscription ended from inside its own callback, which also uses the provider: no
  // lock is held around callbacks.
  Recorder reentrant;
  auto record = reentrant.callback();
  provider.doPublishFolderEventsFor(
      scratch.iri("r"),
      [&](Kind const& kind, StorageIRI const& subscribed, StorageIRI const& location, EntryType const& type,
          boost::property_tree::ptree details) {
        provider.doStopPublishingEventsFor(scratch.iri("r/"));  // resolves to the same IRI
        provider.doListAll(scratch.iri("r"));
        record(kind, subscribed, location, type, std::move(details));
      },
      kAllKinds, RecursiveFileWatching::Disabled);
  AtScopeEnd const stopAll([&] { provider.doShutdown(); });

  provider.doStopPublishingEventsFor(scratch.iri("a"));
  ASSERT_EQ(runShell(scratch.path(), "touch a/x && touch r/y && touch r/z && touch b/y"), 0);
  // One queue, read in order: once "b/y" arrived, everything before it was handled.
  ASSERT_TRUE(other.waitFor(Kind::Added, scratch.iri("b/y"))) << dump(other.records());
  EXPECT_TRUE(recorder.records().empty()) << dump(recorder.records());
  // The re-entrant subscription saw its first event only.
  auto const once = reentrant.records();
  ASSERT_EQ(once.size(), 1u) << dump(once);
  EXPECT_EQ(once[0].kind, Kind::Added);
  EXPECT_EQ(once[0].location, scratch.iri("r/y"));

  // Shutting down from inside a callback ends the thread without waiting on itself.
  std::promise<void> shutDown;
  provider.doPublishFolderEventsFor(
      scratch.iri("c"),
      [&](Kind const&, StorageIRI const&, StorageIRI const&, EntryType const&, boost::property_tree::ptree) {
        provider.doShutdown();
        shutDown.set_value();
      },
      kAllKinds, RecursiveFileWatching::Enabled);
  ASSERT_EQ(runShell(scratch.path(), "touch c/x"), 0);
  ASSERT_EQ(shutDown.get_future().wait_for(kFailureGuard), std::future_status::ready);
  provider.doShutdown();  // idempotent
  try {
    provider.doPublishFolderEventsFor(scratch.iri("c"), recorder.callback(), kAllKinds, RecursiveFileWatching::Enabled);
    ADD_FAILURE() << "subscribing after shutdown succeeded";
  } catch (Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::NotSupported);
  }
}

TEST_F(FileEventsTest, AnOverflowingQueueBecomesRefreshOnTheSubscribedFolder) {
  long limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  if (limit <= 0 || limit > 200000) GTEST_SKIP() << "inotify queue limit " << limit << " is impractical to fill";

  // The first callback holds the event thread until the queue has overflowed.
  std::mutex gateMutex;
  std::condition_variable gateChanged;
  bool entered = false;
  bool released = false;
  auto record = recorder.callback();
  auto const root = scratch.iri();
  provider.doPublishFolderEventsFor(
      root,
      [&](Kind const& kind, StorageIRI const& subscribed, StorageIRI const& location, EntryType const& type,
          boost::property_tree::ptree details) {
        {
          std::unique_lock lock(gateMutex);
          entered = true;
          gateChanged.notify_all();
          gateChanged.wait(lock, [&] { return released; });
        }
        // Only the refresh is of interest among the thousands of events.
        if (kind == Kind::Refresh) record(kind, subscribed, location, type, std::move(details));
      },
      kAllKinds, RecursiveFileWatching::Disabled);
  auto release = [&] {
    std::lock_guard lock(gateMutex);
    released = true;
    gateChanged.notify_all();
  };

  scratch.write("first", "1");
  {
    std::unique_lock lock(gateMutex);
    ASSERT_TRUE(gateChanged.wait_for(lock, kFailureGuard, [&] { return entered; }));
  }
  // While a callback runs, the provider takes new subscriptions: no lock is held.
  Recorder other;
  scratch.mkdir("elsewhere");
  auto subscribed = std::async(std::launch::async, [&] {
    provider.doPublishFolderEventsFor(scratch.iri("elsewhere"), other.callback(), kAllKinds,
                                      RecursiveFileWatching::Enabled);
  });
  if (subscribed.wait_for(kFailureGuard) != std::future_status::ready) {
    release();
    FAIL() << "subscribing blocked while a callback ran";
  }
  subscribed.get();
  // An overflow also reaches `other` (as a refresh of its folder), possibly after the
  // test has seen its own.
  AtScopeEnd const unsubscribe([&] {
    release();
    provider.doStopPublishingEventsFor(root);
    provider.doStopPublishingEventsFor(scratch.iri("elsewhere"));
  });

  // Each rename queues two events (no merging: every rename has its own cookie).
  for (long i = 0; i < limit / 2 + 8; ++i) {
    ASSERT_EQ(::rename(scratch.path(i % 2 ? "y" : "first").c_str(), scratch.path(i % 2 ? "first" : "y").c_str()), 0);
  }
  release();
  EXPECT_TRUE(recorder.waitFor([&](Record const& r) {
    return r.kind == Kind::Refresh && r.location == root && r.type == EntryType::Folder && r.subscribed == root;
  }));
}

}  // namespace
