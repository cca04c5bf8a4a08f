// OwnChanges: which store events count as echoes of the overlay's own folder changes (the
// expected kind at exactly the changed location, while the change is on its way and for
// the window after), and the executor handle reporting the changes it takes.
#include <core/exec/OwnChanges.hpp>
#include <core/exec/SwitchableExecutor.hpp>

#include "exec/executor_test_support.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace {

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using storage::overlayprovider::ObservableTransactionType;
using storage::overlayprovider::OwnChanges;
using storage::overlayprovider::SwitchableExecutor;
using storage::overlayprovider::Touches;
using Kind = OwnChanges::Kind;
using EntryType = OwnChanges::EntryType;
using Type = ObservableTransactionType;
using namespace std::chrono_literals;

class OwnChangesTest : public ::testing::Test {
 protected:
  static StorageIRI at(std::u16string const& path) { return StorageIRI(u"mem://s" + path); }
  static Touches touching(std::u16string const& path) { return Touches::location(at(path).toString()); }
  bool folderEcho(std::u16string const& path, Kind kind) const {
    return changes.isEcho(at(path), kind, EntryType::Folder);
  }

  std::chrono::steady_clock::time_point now{std::chrono::hours(1)};
  OwnChanges changes{1000ms, [this] { return now; }};
};

TEST_F(OwnChangesTest, AFolderEventIsAnEchoWhenItSaysWhatTheOverlaysFolderChangeMade) {
  changes.taken(Type::FOLDER_CREATION, touching(u"/made"));
  changes.taken(Type::FOLDER_REMOVAL_RECURSIVE, touching(u"/gone"));
  changes.taken(Type::FOLDER_MOVE, Touches::transfer(at(u"/from").toString(), at(u"/to/").toString()));
  EXPECT_TRUE(folderEcho(u"/made", Kind::Added));
  EXPECT_TRUE(folderEcho(u"/made/", Kind::Added));
  EXPECT_TRUE(folderEcho(u"/gone", Kind::Removed));
  EXPECT_TRUE(folderEcho(u"/from", Kind::Removed));
  EXPECT_TRUE(folderEcho(u"/to", Kind::Added));
  // The store's host does not matter: events and calls may name it differently.
  EXPECT_TRUE(changes.isEcho(StorageIRI(u"mem://elsewhere/made"), Kind::Added, EntryType::Folder));

  // What contradicts the change, or lies elsewhere, counts: a folder made by the overlay
  // and removed elsewhere, what lies below, a sibling, a file of the same name, and
  // every change of a file (a write made elsewhere looks like the echo of the
  // overlay's own).
  EXPECT_FALSE(folderEcho(u"/made", Kind::Removed));
  EXPECT_FALSE(folderEcho(u"/made", Kind::Modified));
  EXPECT_FALSE(folderEcho(u"/gone", Kind::Added));
  EXPECT_FALSE(folderEcho(u"/made/sub", Kind::Added));
  EXPECT_FALSE(folderEcho(u"/madex", Kind::Added));
  EXPECT_FALSE(changes.isEcho(at(u"/made"), Kind::Added, EntryType::File));
  changes.taken(Type::FILE_CLOSE, touching(u"/f.txt"));
  changes.taken(Type::FILE_MOVE, Touches::transfer(at(u"/g.txt").toString(), at(u"/h").toString()));
  EXPECT_FALSE(changes.isEcho(at(u"/f.txt"), Kind::Modified, EntryType::File));
  EXPECT_FALSE(folderEcho(u"/h", Kind::Added));
}

TEST_F(OwnChangesTest, ASettledChangeMakesEchoesForTheWindowOnly) {
  changes.taken(Type::FOLDER_CREATION, touching(u"/d"));
  changes.taken(Type::FOLDER_CREATION, touching(u"/d"));
  changes.settled(Type::FOLDER_CREATION, touching(u"/d"));
  now += 5s;
  EXPECT_TRUE(folderEcho(u"/d", Kind::Added)) << "the second change is still on its way";
  changes.settled(Type::FOLDER_CREATION, touching(u"/d"));
  now += 1000ms;
  EXPECT_TRUE(folderEcho(u"/d", Kind::Added));
  now += 1ms;
  EXPECT_FALSE(folderEcho(u"/d", Kind::Added));

  // Records past the window are forgotten as more come in; the recent ones stay.
  for (int i = 0; i < 200; ++i) {
    auto const touches = touching(u"/n" + std::u16string(1, static_cast<char16_t>(u'A' + i % 26)) +
                                  std::u16string(1, static_cast<char16_t>(u'a' + i / 26)));
    changes.taken(Type::FOLDER_CREATION, touches);
    changes.settled(Type::FOLDER_CREATION, touches);
  }
  EXPECT_TRUE(folderEcho(u"/nAa", Kind::Added));
  EXPECT_FALSE(folderEcho(u"/d", Kind::Added));
}

TEST_F(OwnChangesTest, TheExecutorHandleReportsTheChangesItTakesUntilTheyRunOrAreDropped) {
  auto own = std::make_shared<OwnChanges>(1000ms, [this] { return now; });
  auto queue = std::make_shared<overlay_test::RecordingExecutor>();
  SwitchableExecutor handle;
  handle.set(queue);
  handle.recordOwnChanges(own);
  auto const echo = [&](std::u16string const& path) { return own->isEcho(at(path), Kind::Added, EntryType::Folder); };

  handle.executeTouching([] {}, Type::FOLDER_CREATION, 1, touching(u"/made"));
  EXPECT_TRUE(echo(u"/made"));
  now += 10s;
  EXPECT_TRUE(echo(u"/made")) << "still queued";
  queue->runAll();
  EXPECT_TRUE(echo(u"/made"));
  now += 1001ms;
  EXPECT_FALSE(echo(u"/made"));

  // A change let go unrun (a cancelling shutdown) has settled as well.
  handle.executeTouching([] {}, Type::FOLDER_CREATION, 1, touching(u"/dropped"));
  EXPECT_TRUE(echo(u"/dropped"));
  queue->shutdown(true);
  now += 1001ms;
  EXPECT_FALSE(echo(u"/dropped"));
}

}  // namespace
