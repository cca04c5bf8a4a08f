// What the s3 store does beyond the conformance suite: objects in parts, long listings,
// names S3 must escape, a gateway that goes away, refused credentials, a missing bucket,
// and changes made by another client reaching the overlay through polling.
#include "s3_test_support.hpp"

#include <support/ScopedEnv.hpp>

#include <core/provider/OverlayProvider.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <boost/property_tree/ptree.hpp>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

namespace {

namespace sp = foundation::storage::provider;
using sp::ErrorCode;
namespace se = foundation::storage::events;

std::string patterned(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 4099) & 0xFF);
  return bytes;
}

void writeFile(sp::StorageItem const& item, std::string const& content) {
  sp::ByteStreamOpenOptions options;
  options.truncate = true;
  auto stream = item.openStream(options);
  for (std::size_t done = 0; done < content.size();) {
    done += static_cast<std::size_t>(stream->write(content.data() + done, static_cast<long>(content.size() - done)));
  }
  stream->close();
}

std::string readFile(sp::StorageItem const& item) {
  auto stream = item.openReadOnlyStream();
  std::string content;
  char buffer[1 << 16];
  for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) content.append(buffer, static_cast<std::size_t>(n));
  stream->close();
  return content;
}

// Runs scripts/ceph-s3.sh gateway DIR stop|start for the test run's gateway.
void gatewayCommand(s3test::Gateway const& gateway, char const* what) {
  char const* script = std::getenv("OVL_S3_SCRIPT");
  ASSERT_NE(script, nullptr) << "OVL_S3_SCRIPT names scripts/ceph-s3.sh";
  std::string const command =
      std::string("bash '") + script + "' gateway '" + gateway.values.at("CEPH_S3_DIR") + "' " + what;
  ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

TEST(S3Store, LargeObjectsTravelInPartsAndAreReadInRanges) {
  S3_GATEWAY_OR_SKIP(gateway);
  s3test::Folder folder(gateway);
  std::string const content = patterned((12u << 20) + 12345);  // three parts of 5 MiB
  writeFile(folder.item(u"big.bin"), content);
  // A multipart object's ETag ends in "-<parts>".
  EXPECT_EQ(folder.item(u"big.bin").getExtendedAttributes().getString("WATERMARK").substr(32), "-3");
  EXPECT_EQ(folder.item(u"big.bin").getFileAttributes().getSize(), content.size());

  auto stream = folder.item(u"big.bin").openReadOnlyStream();
  char buffer[100];
  EXPECT_EQ(stream->seek((7 << 20) + 3, std::ios_base::beg), (7 << 20) + 3);
  EXPECT_EQ(stream->read(buffer, 100), 100);
  EXPECT_EQ(std::string(buffer, 100), content.substr((7 << 20) + 3, 100));
  EXPECT_EQ(stream->seek(-10, std::ios_base::end), static_cast<long>(content.size()) - 10);
  EXPECT_EQ(stream->read(buffer, 100), 10);
  EXPECT_EQ(stream->read(buffer, 100), -1);
  stream->close();

  // Copied and moved on the server: the content arrives whole.
  folder.item(u"big.bin").copyFile(folder.at(u"copy.bin"), sp::ReplacementPolicy::Never);
  folder.item(u"copy.bin").moveFile(folder.at(u"moved.bin"), sp::ReplacementPolicy::Never);
  EXPECT_EQ(readFile(folder.item(u"moved.bin")), content);
  EXPECT_FALSE(folder.item(u"copy.bin").exists());

  // Appending to it downloads the object, changes the copy and uploads it in parts again.
  sp::ByteStreamOpenOptions append;
  append.append = true;
  auto more = folder.item(u"big.bin").openStream(append);
  more->write("tail", 4);
  more->close();
  EXPECT_EQ(readFile(folder.item(u"big.bin")), content + "tail");
}

TEST(S3Store, ListingsFollowContinuationBeyondAThousandKeys) {
  S3_GATEWAY_OR_SKIP(gateway);
  s3test::Folder folder(gateway);
  folder.item(u"many").createFolder();
  std::size_t const count = 1030;
  std::vector<std::thread> writers;
  for (unsigned w = 0; w < 8; ++w) {
    writers.emplace_back([&, w] {
      for (std::size_t i = w; i < count; i += 8) {
        folder.item(u"many/f" + fl::i18n::to_ustring(std::to_string(i))).createFile();
      }
    });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(folder.item(u"many").listAllNamesOnly().size(), count);
  EXPECT_EQ(folder.item(u"").listAllRecursiveNamesOnly().size(), count + 1);
  folder.item(u"many").moveFolder(folder.at(u"moved"), sp::ReplacementPolicy::Never);
  EXPECT_EQ(folder.item(u"moved").listFilesNamesOnly().size(), count);
  EXPECT_FALSE(folder.item(u"many").exists());
  folder.item(u"moved").removeFolderRecursively();
  EXPECT_TRUE(folder.item(u"").listAllNamesOnly().empty());
}

TEST(S3Store, NamesThatS3MustEscapeRoundTrip) {
  S3_GATEWAY_OR_SKIP(gateway);
  s3test::Folder folder(gateway);
  std::vector<std::u16string> const names{u"with space.txt", u"Grüße ✓.txt", u"plus+sign.txt", u"per%cent.txt",
                                          u"hash#tag.txt",   u"question?.txt", u"amp&eq=.txt",  u"~tilde (1).txt"};
  folder.item(u"dir a").createFolder();
  for (auto const& name : names) writeFile(folder.item(u"dir a/" + name), "content of " + fl::i18n::to_string(name));
  auto listed = folder.item(u"dir a").listAllNamesOnly();
  std::sort(listed.begin(), listed.end());
  auto expected = names;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listed, expected);
  for (auto const& name : names) {
    SCOPED_TRACE(fl::i18n::to_string(name));
    auto const item = folder.item(u"dir a/" + name);
    EXPECT_TRUE(item.fileExists());
    EXPECT_EQ(readFile(item), "content of " + fl::i18n::to_string(name));
    item.moveFile(folder.at(name), sp::ReplacementPolicy::Never);
    EXPECT_EQ(readFile(folder.item(name)), "content of " + fl::i18n::to_string(name));
  }
}

TEST(S3Store, AStoppedGatewayIsATransientFailureAndNothingAcknowledgedIsLost) {
  S3_GATEWAY_OR_SKIP(gateway);
  s3test::Folder folder(gateway);
  writeFile(folder.item(u"kept.txt"), "kept");
  sp::ByteStreamOpenOptions options;
  auto stream = folder.item(u"pending.txt").openStream(options);
  stream->write("written while the gateway is down", 33);

  gatewayCommand(gateway, "stop");
  try {
    stream->close();
    ADD_FAILURE() << "a close with the gateway down succeeded";
  } catch (sp::ByteStreamCloseFailure const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::TransientFailure) << e.what();
    EXPECT_NE(std::string(e.what()).find(gateway.settings.endpoint), std::string::npos) << e.what();
  }
  try {
    folder.item(u"kept.txt").getFileAttributes();
    ADD_FAILURE() << "a query with the gateway down succeeded";
  } catch (sp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::TransientFailure) << e.what();
  }
  gatewayCommand(gateway, "start");

  // The failed close kept the stream open: closing again delivers what was written.
  stream->close();
  EXPECT_EQ(readFile(folder.item(u"pending.txt")), "written while the gateway is down");
  EXPECT_EQ(readFile(folder.item(u"kept.txt")), "kept");
}

TEST(S3Store, RefusedCredentialsAndAMissingBucketAreOneClearError) {
  S3_GATEWAY_OR_SKIP(gateway);
  auto settings = gateway.settings;
  std::string const secret = "Not-The-Secret-0123456789";
  settings.secretKey = secret;
  providers::s3::S3Provider refused(gateway.bucket, settings);
  auto const root = sp::StorageIRI(u"s3://" + fl::i18n::to_ustring(gateway.bucket) + u"/");
  try {
    refused.doListAll(root);
    ADD_FAILURE() << "a listing with a wrong secret succeeded";
  } catch (sp::Exception const& e) {
    std::string const what = e.what();
    EXPECT_EQ(e.getErrorCode(), ErrorCode::NotWritable) << what;
    EXPECT_NE(what.find(gateway.settings.endpoint), std::string::npos) << what;
    EXPECT_NE(what.find("secret"), std::string::npos) << what;
    EXPECT_EQ(what.find(secret), std::string::npos) << what;
  }

  providers::s3::S3Provider missing("no-such-bucket-here", gateway.settings);
  try {
    missing.doListAll(sp::StorageIRI(u"s3://no-such-bucket-here/"));
    ADD_FAILURE() << "a listing of a missing bucket succeeded";
  } catch (sp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::DoesNotExist) << e.what();
    EXPECT_NE(std::string(e.what()).find("no-such-bucket-here does not exist at " + gateway.settings.endpoint),
              std::string::npos)
        << e.what();
  }
  EXPECT_FALSE(missing.doFolderExists(sp::StorageIRI(u"s3://no-such-bucket-here/")));
}

// Events as one subscriber sees them.
struct Seen {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::pair<se::Kind, std::u16string>> events;
  se::Callback callback() {
    return [this](se::Kind const& kind, sp::StorageIRI const&, sp::StorageIRI const& item, se::EntryType const&,
                  boost::property_tree::ptree) {
      std::lock_guard lock(mutex);
      events.emplace_back(kind, item.getName());
      changed.notify_all();
    };
  }
};

TEST(S3Store, PollingPublishesWhatAnotherClientChanged) {
  S3_GATEWAY_OR_SKIP(gateway);
  s3test::Folder folder(gateway);
  writeFile(folder.item(u"changes.txt"), "one");
  writeFile(folder.item(u"goes.txt"), "bye");
  Seen seen;
  folder.provider()->doPublishFolderEventsFor(folder.root(), seen.callback(), {}, se::RecursiveFileWatching::Enabled);

  // Another client: its own store object on the same bucket.
  providers::s3::S3Provider other(gateway.bucket, gateway.settings);
  auto at = [&](std::u16string const& path) { return sp::StorageItem(std::shared_ptr<providers::s3::S3Provider>(
                                                                          &other, [](auto*) {}),
                                                                      folder.at(path)); };
  writeFile(at(u"changes.txt"), "two!");
  at(u"goes.txt").removeFile();
  at(u"sub").createFolder();
  writeFile(at(u"sub/new.txt"), "new");

  folder.provider()->pollNow();
  std::lock_guard lock(seen.mutex);
  std::sort(seen.events.begin(), seen.events.end());
  EXPECT_EQ(seen.events, (std::vector<std::pair<se::Kind, std::u16string>>{{se::Kind::Added, u"new.txt"},
                                                                           {se::Kind::Added, u"sub"},
                                                                           {se::Kind::Modified, u"changes.txt"},
                                                                           {se::Kind::Removed, u"goes.txt"}}));
  folder.provider()->doStopPublishingEventsFor(folder.root());
  other.doShutdown();
}

TEST(S3Store, AChangeByAnotherClientReachesTheOverlay) {
  S3_GATEWAY_OR_SKIP(gateway);
  s3test::Folder folder(gateway);
  writeFile(folder.item(u"a.txt"), "old");
  // The overlay holds the store's events back until its own calls have been quiet this
  // long; the loop below leaves it that quiet between its rounds.
  support::ScopedEnv const quiet("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT", "50");
  auto overlay = std::make_shared<storage::overlayprovider::OverlayProvider>(folder.item(u""));
  boost::property_tree::ptree config;
  config.put("overlay.transfers", 8);
  overlay->doConfigure(config);
  sp::StorageItem const root(overlay, sp::StorageIRI(u"overlay", folder.root(), u"/"));
  auto through = [&](std::u16string const& name) { return sp::StorageItem(overlay, sp::StorageIRI(root.getLocation(), name)); };
  EXPECT_EQ(readFile(through(u"a.txt")), "old");
  EXPECT_EQ(root.listAllNamesOnly(), std::vector<std::u16string>{u"a.txt"});

  providers::s3::S3Provider other(gateway.bucket, gateway.settings);
  sp::StorageItem const elsewhere(std::shared_ptr<providers::s3::S3Provider>(&other, [](auto*) {}), folder.at(u"b.txt"));
  writeFile(elsewhere, "from elsewhere");
  writeFile(sp::StorageItem(elsewhere.getProvider(), folder.at(u"a.txt")), "new content");

  // Each round publishes what changed; the overlay drops what it cached of it once its
  // calls have been quiet for the time-out. Waits on the answers, not on a clock.
  bool arrived = false;
  for (int round = 0; round < 600 && !arrived; ++round) {
    folder.provider()->pollNow();
    auto names = root.listAllNamesOnly();
    std::sort(names.begin(), names.end());
    arrived = names == std::vector<std::u16string>{u"a.txt", u"b.txt"} && readFile(through(u"a.txt")) == "new content";
    if (!arrived) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_TRUE(arrived) << "the other client's changes never reached the overlay";
  EXPECT_EQ(readFile(through(u"b.txt")), "from elsewhere");
  overlay->doShutdown();
  other.doShutdown();
}

}  // namespace
