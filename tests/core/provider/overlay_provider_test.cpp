// The provider's own lifecycle and configuration, over an in-memory inner store.
#include <core/exec/BackendExecutor.hpp>
#include <core/provider/OverlayProvider.hpp>
#include <core/provider/OverlayProviderFactory.hpp>
#include <core/exec/SynchronousExecutor.hpp>
#include <core/content/Versioning.hpp>

#include <foundation/log/MemorySink.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <boost/property_tree/json_parser.hpp>
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <sstream>
#include <thread>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using providers::mem::MemoryProvider;
using storage::overlayprovider::BackendExecutor;
using storage::overlayprovider::IExecutor;
using storage::overlayprovider::ObservableTransactionType;
using storage::overlayprovider::OverlayProvider;
using storage::overlayprovider::OverlayProviderFactory;
using storage::overlayprovider::SynchronousExecutor;

namespace {

boost::property_tree::ptree config(std::string const& json) {
  std::istringstream in(json);
  boost::property_tree::ptree tree;
  boost::property_tree::read_json(in, tree);
  return tree;
}

class OverlayProviderTest : public ::testing::Test {
 protected:
  StorageIRI overlayIRI(std::u16string const& path) const { return StorageIRI(u"overlay", store->root(), path); }

  std::shared_ptr<MemoryProvider> store = std::make_shared<MemoryProvider>();
  StorageItem inner{store, store->root()};
};

TEST_F(OverlayProviderTest, NegativeMaxQueueWeightConfiguresTheInnerStoreThenThrows) {
  OverlayProvider provider(inner);
  try {
    provider.doConfigure(config(R"({"overlay": {"maxQueueWeight": "-1"}})"));
    FAIL() << "a negative weight must be refused";
  } catch (std::logic_error const& e) {
    EXPECT_STREQ(e.what(), "overlay.maxQueueWeight < 0. Value must be >= 0");
  }
  EXPECT_EQ(store->lastConfiguration().get<std::string>("overlay.maxQueueWeight"), "-1");
  EXPECT_EQ(provider.maxQueueWeight(), -1);  // the value stays stored
}

TEST_F(OverlayProviderTest, KeysConvertAsDocumented) {
  OverlayProvider provider(inner);
  foundation::log::MemorySink sink;
  provider.doConfigure(config(R"({"overlay": {
      "maxQueueWeight": "2.5", "minQueueItemWeight": "0.25", "persistContentCache": "1",
      "maxReadPayloadSize": "12x", "maxWritePayloadSize": "4096", "synchronous": "1",
      "disableContentCache": "TRUE", "backslashToForwardSlash": "true"}})"));
  EXPECT_EQ(provider.maxQueueWeight(), 2.5);
  EXPECT_EQ(provider.minQueueItemWeight(), 0.25);
  EXPECT_TRUE(provider.persistContentCache());   // "1" counts for persistence ...
  EXPECT_FALSE(provider.isSynchronous());        // ... but not for the boolalpha keys
  EXPECT_EQ(provider.maxReadPayloadSize(), 12);  // std::stol stops at the first non-digit
  EXPECT_EQ(provider.maxWritePayloadSize(), 4096);
  EXPECT_FALSE(provider.isContentCacheDisabled());
  EXPECT_TRUE(provider.backslashToForwardSlash());
  // The five numeric/text keys are logged under their "overlay.configuration." names.
  EXPECT_TRUE(sink.contains(R"("configuration":{"maxQueueWeight":"2.5"})"));
  EXPECT_TRUE(sink.contains(R"("maxReadPayloadSize":"12x")"));
  EXPECT_FALSE(sink.contains("persistContentCache"));
  // A later call overrides key by key; absent keys and false texts change nothing.
  provider.doConfigure(config(R"({"overlay": {"maxWritePayloadSize": "10", "backslashToForwardSlash": "false"}})"));
  EXPECT_EQ(provider.maxReadPayloadSize(), 12);
  EXPECT_EQ(provider.maxWritePayloadSize(), 10);
  EXPECT_TRUE(provider.backslashToForwardSlash());
}

TEST_F(OverlayProviderTest, UnparsableValueIsLoggedAndStopsTheReading) {
  OverlayProvider provider(inner);
  foundation::log::MemorySink sink;
  provider.doConfigure(config(R"({"overlay": {"maxQueueWeight": "3", "minQueueItemWeight": "abc",
                                               "maxWritePayloadSize": "7"}})"));
  EXPECT_EQ(provider.maxQueueWeight(), 3);  // applied before the failing key
  EXPECT_EQ(provider.maxWritePayloadSize(), OverlayProvider::kDefaultPayloadSize);  // never read
  EXPECT_TRUE(sink.contains("Error parsing configuration data."));
  EXPECT_TRUE(sink.contains("Exception caught: stod"));
}

TEST_F(OverlayProviderTest, SynchronousAfterFirstUseReplacesTheRunningExecutor) {
  OverlayProvider provider(inner);
  provider.doCreateFolder(overlayIRI(u"/a"));
  std::weak_ptr<IExecutor> before = provider.executor();
  ASSERT_NE(dynamic_cast<BackendExecutor*>(before.lock().get()), nullptr);
  provider.doConfigure(config(R"({"overlay": {"synchronous": "true"}})"));
  EXPECT_TRUE(provider.isSynchronous());
  EXPECT_NE(dynamic_cast<SynchronousExecutor*>(provider.executor().get()), nullptr);
  EXPECT_TRUE(before.expired());  // released by reference count
  provider.doCreateFolder(overlayIRI(u"/b"));
  EXPECT_TRUE(store->elsewhere().hasFolderAt(u"/b"));
}

// Values that parse but that the overlay cannot work with are refused, naming the key,
// before any key is applied: a payload size of 0 made every read return nothing.
TEST_F(OverlayProviderTest, UnworkableValuesAreRefusedBeforeAnyKeyIsApplied) {
  OverlayProvider provider(inner);
  for (auto const& [key, value] : std::vector<std::pair<std::string, std::string>>{
           {"maxReadPayloadSize", "0"}, {"maxWritePayloadSize", "-1"}, {"maxQueueWeight", "nan"},
           {"maxQueueWeight", "inf"}, {"minQueueItemWeight", "-0.5"}, {"minQueueItemWeight", "inf"}}) {
    try {
      provider.doConfigure(config(R"({"overlay": {"synchronous": "true", ")" + key + R"(": ")" + value + R"("}})"));
      ADD_FAILURE() << key << " = " << value << " was accepted";
    } catch (std::invalid_argument const& e) {
      EXPECT_NE(std::string(e.what()).find("overlay." + key + ": '" + value + "'"), std::string::npos) << e.what();
    }
  }
  EXPECT_FALSE(provider.isSynchronous());
  EXPECT_EQ(provider.maxReadPayloadSize(), OverlayProvider::kDefaultPayloadSize);
  EXPECT_EQ(provider.maxWritePayloadSize(), OverlayProvider::kDefaultPayloadSize);
}

// In synchronous mode the content cache's recycle bin is emptied as the queue's worker
// empties it when it runs dry, so entries of removed files do not pile up.
TEST_F(OverlayProviderTest, SynchronousModeEmptiesTheRecycleBin) {
  OverlayProvider provider(inner);
  provider.doConfigure(config(R"({"overlay": {"synchronous": "true"}})"));
  for (char16_t n = u'0'; n < u'6'; ++n) {
    auto const iri = overlayIRI(std::u16string(u"/f") + n + u".txt");
    auto stream = provider.doOpenStream(iri, {});
    stream->write("x", 1);
    stream->close();
    provider.doRemoveFile(iri);
  }
  EXPECT_LE(provider.contentCache().recycleBinSize(), 1u);
}

// A provider that never ran an operation leaves no trace on disk.
TEST_F(OverlayProviderTest, AProviderThatNeverRanTouchesNoDisk) {
  auto const root = std::filesystem::temp_directory_path() / ("overlay_never_" + std::to_string(::getpid()));
  {
    OverlayProvider provider(inner);
    provider.doConfigure(config(R"({"overlay": {"cacheRoot": ")" + root.string() + R"("}})"));
  }
  EXPECT_FALSE(std::filesystem::exists(root));
}

TEST_F(OverlayProviderTest, ConfiguredWeightReachesTheExecutor) {
  OverlayProvider provider(inner);
  foundation::log::MemorySink sink;
  provider.doConfigure(config(R"({"overlay": {"maxQueueWeight": "8"}})"));
  EXPECT_TRUE(provider.doFileExists(overlayIRI(u"/x")) == false);
  EXPECT_TRUE(sink.contains(R"("initialization":{"maxQueueWeight":"8")"));
  provider.doConfigure(config(R"({"overlay": {"maxQueueWeight": "16"}})"));
  EXPECT_TRUE(sink.contains("Updating BackendExecutor max queue weight to 16"));
}

TEST_F(OverlayProviderTest, FirstUseFromManyThreadsCreatesOneOfEachComponent) {
  OverlayProvider provider(inner);
  constexpr int kThreads = 8;
  std::vector<std::future<IExecutor*>> seen;
  std::promise<void> go;
  std::shared_future<void> start = go.get_future().share();
  for (int i = 0; i < kThreads; ++i) {
    seen.push_back(std::async(std::launch::async, [&, start] {
      start.wait();
      provider.doFolderExists(overlayIRI(u"/"));
      return provider.executor().get();
    }));
  }
  go.set_value();
  IExecutor* first = seen.front().get();
  ASSERT_NE(first, nullptr);
  for (std::size_t i = 1; i < seen.size(); ++i) EXPECT_EQ(seen[i].get(), first);
  // One quota accountant (it asks the store once when made), one event listener (it
  // subscribes once).
  EXPECT_EQ(store->calls(providers::mem::Operation::GetStorageInfo), 1u);
  EXPECT_EQ(store->calls(providers::mem::Operation::PublishEvents), 1u);
}

TEST_F(OverlayProviderTest, ShutdownDropsQueuedTransactionsAndRepeatsHarmlessly) {
  auto executor = std::make_shared<BackendExecutor>([] {}, 0.0);
  auto provider = std::make_unique<OverlayProvider>(inner, executor);
  provider->doFolderExists(overlayIRI(u"/"));
  // Hold the worker in a first task so that the second stays queued.
  std::promise<void> entered, leave;
  std::atomic<bool> secondRan{false};
  executor->execute([&] { entered.set_value(); leave.get_future().wait(); }, ObservableTransactionType::FILE_WRITE, 0);
  executor->execute([&] { secondRan = true; }, ObservableTransactionType::FILE_WRITE, 0);
  entered.get_future().wait();
  std::thread stopper([&] { provider->doShutdown(); });
  // Shutdown discards the queued task and stops the executor, then joins the worker once
  // the first task ends.
  while (!executor->isShutdown()) std::this_thread::yield();
  leave.set_value();
  stopper.join();
  EXPECT_FALSE(secondRan.load());
  EXPECT_TRUE(provider->isShutDown());
  EXPECT_TRUE(executor->isShutdown());
  EXPECT_EQ(store->calls(providers::mem::Operation::Shutdown), 1u);
  provider.reset();  // the destructor shuts down again without failing
  EXPECT_EQ(store->calls(providers::mem::Operation::Shutdown), 2u);
}

TEST_F(OverlayProviderTest, OnlyExtendedAttributesIsReportedAsFeature) {
  OverlayProvider provider(inner);
  EXPECT_TRUE(provider.doHasFeature(fsp::ExtendedFeature::ExtendedAttributes));
  EXPECT_TRUE(inner.hasFeature(fsp::ExtendedFeature::RecursiveListing));
  EXPECT_FALSE(provider.doHasFeature(fsp::ExtendedFeature::RecursiveListing));
  EXPECT_FALSE(provider.doHasFeature(fsp::ExtendedFeature::RemoveOpenFiles));
  MemoryProvider::Options bare;
  bare.features = {};
  auto plain = std::make_shared<MemoryProvider>(bare);
  OverlayProvider overPlain(StorageItem(plain, plain->root()));
  EXPECT_FALSE(overPlain.doHasFeature(fsp::ExtendedFeature::ExtendedAttributes));
}

// That errors name overlay IRIs below the overlay's root is checked by the conformance
// suite. An IRI wrapping a sub-folder of the provider's inner store, not its root, gets
// errors named below that sub-folder.
TEST_F(OverlayProviderTest, ErrorsNameTheOverlayIRIOverASubFolder) {
  OverlayProvider provider(inner);
  store->elsewhere().createFolder(u"/base");
  StorageIRI const nested(u"overlay", StorageIRI(u"mem://s1/base/"), u"/f.txt");
  try {
    provider.doGetFileAttributes(nested);
    FAIL();
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::DoesNotExist);
    EXPECT_EQ(e.getIRI(), nested);
  }
}

TEST(OverlayProviderFactoryTest, ContainerIRIOfAnInnerRootAddressesTheOverlayRoot) {
  auto store = std::make_shared<MemoryProvider>();
  OverlayProviderFactory factory;
  StorageItem innerRoot(store, StorageIRI(u"mem://s1/"));
  auto container = factory.createContainerIRI(innerRoot);
  EXPECT_EQ(container.toString(), u"overlay:<mem://s1/>/");
  StorageItem innerFolder(store, StorageIRI(u"mem://s1/docs"));
  EXPECT_EQ(factory.createContainerIRI(innerFolder).toString(), u"overlay:<mem://s1/docs/>/");
  auto provider = factory.createProvider(innerRoot);
  ASSERT_NE(dynamic_cast<OverlayProvider*>(provider.get()), nullptr);
  EXPECT_TRUE(provider->doFolderExists(container));
  EXPECT_EQ(storage::overlayprovider::Versioning::GetVersionString(), u"V1.0");
  provider->doShutdown();
}

}  // namespace
