// How the overlay provider creates and uses its metadata cache in its lifecycle: the
// cache follows the inner store's name sensitivity, the first operation starts the
// whole-tree population, and flush and invalidation empty the cache.
#include "metadata/metadata_test_support.hpp"

#include <core/metadata/MetadataCache.hpp>
#include <core/provider/OverlayProvider.hpp>

#include <providers/mem/Gate.hpp>

#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include <future>

#include <chrono>
#include <thread>

using storage::overlayprovider::OverlayProvider;

namespace {

class OverlayMetadataCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store->elsewhere().createFolder(u"/d/sub");
    store->elsewhere().writeFile(u"/d/a.txt", "abc");
  }
  StorageIRI overlay(std::u16string const& path) const { return StorageIRI(u"overlay", store->root(), path); }

  std::shared_ptr<MemStore> store = std::make_shared<MemStore>();
  StorageItem inner{store, store->root()};
};

TEST_F(OverlayMetadataCacheTest, TheCacheMatchesNamesAsTheInnerStoreDoesAndIsMadeWithoutListing) {
  OverlayProvider sensitive(inner);
  ASSERT_NE(sensitive.metadataCache(), nullptr);
  EXPECT_TRUE(sensitive.metadataCache()->isCaseSensitive());

  auto insensitiveStore = std::make_shared<MemStore>(metadata_test::caseInsensitive());
  OverlayProvider insensitive(StorageItem(insensitiveStore, insensitiveStore->root()));
  EXPECT_FALSE(insensitive.metadataCache()->isCaseSensitive());

  auto given = std::make_unique<MetadataCache>(std::make_shared<StorageItem>(inner), false);
  auto const* givenCache = given.get();
  OverlayProvider injected(inner, nullptr, std::move(given), nullptr);
  EXPECT_EQ(injected.metadataCache().get(), givenCache);
  EXPECT_EQ(store->calls(Operation::ListAll) + store->calls(Operation::ListAllRecursive), 0u);
}

TEST_F(OverlayMetadataCacheTest, TheFirstOperationStartsPopulationWhichAFlushEnds) {
  OverlayProvider provider(inner);
  auto& gate = store->gate(Operation::ListAllRecursive);
  gate.close();
  // Not synchronous: the root is loaded at once, the rest follows from one listing, and a
  // query answers while that listing is still held.
  EXPECT_TRUE(provider.doFolderExists(overlay(u"/d")));
  ASSERT_TRUE(gate.waitForWaiters(1, std::chrono::seconds(60)));
  EXPECT_EQ(provider.metadataCache()->cachedFolders(), std::vector<StorageIRI>{iri(u"")});

  // A flush empties the cache at once and ends the population (what it would still add
  // is the store's state from before the flush); it returns once the population stopped.
  auto flushed = std::async(std::launch::async, [&] { provider.doFlushFilesystem(); });
  gate.open();
  flushed.get();
  EXPECT_EQ(store->calls(Operation::ListAllRecursive), 1u);
  EXPECT_TRUE(provider.metadataCache()->cachedFolders().empty());
  EXPECT_TRUE(provider.doFileExists(overlay(u"/d/a.txt"))) << "loaded on demand";

  provider.metadataCache()->loadAndGetFolderContainer(iri(u"d"));
  provider.doInvalidate(overlay(u"/d/a.txt"));
  EXPECT_TRUE(provider.metadataCache()->cachedFolders().empty());
  EXPECT_EQ(store->calls(Operation::ListAllRecursive), 1u) << "population runs once per provider";
}

TEST_F(OverlayMetadataCacheTest, SynchronousModeWaitsForThePopulation) {
  OverlayProvider provider(inner);
  boost::property_tree::ptree config;
  config.put("overlay.synchronous", "true");
  provider.doConfigure(config);
  EXPECT_TRUE(provider.doFileExists(overlay(u"/d/a.txt")));
  auto const folders = provider.metadataCache()->cachedFolders();
  EXPECT_EQ(folders, (std::vector<StorageIRI>{iri(u""), iri(u"d"), iri(u"d/sub")}));
  EXPECT_NE(provider.metadataCache()->getFileMetadataFromCache(iri(u"d/a.txt")), nullptr);
}

TEST_F(OverlayMetadataCacheTest, WithoutRecursiveListingNothingIsPopulated) {
  store->setFeatures({});
  OverlayProvider provider(inner);
  EXPECT_TRUE(provider.doFolderExists(overlay(u"/d")));
  provider.doFlushFilesystem();
  EXPECT_TRUE(provider.metadataCache()->cachedFolders().empty());
  EXPECT_EQ(store->calls(Operation::ListAllRecursive), 0u);
}

}  // namespace
