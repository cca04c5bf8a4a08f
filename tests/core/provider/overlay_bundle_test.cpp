// The overlay as the host meets it: a module file loaded by the bundle runtime, whose
// factory then serves every IRI of the scheme "overlay".
#include <foundation/storage/provider/BundleRuntime.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/MemoryProviderFactory.hpp>
#include <providers/mem/SideDoor.hpp>

#include <gtest/gtest.h>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;

namespace {

std::string readAll(fsp::StorageItem const& item) {
  auto stream = item.openReadOnlyStream();
  std::string content;
  char buffer[256];
  for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) content.append(buffer, static_cast<std::size_t>(n));
  stream->close();
  return content;
}

class OverlayBundle : public ::testing::Test {
 protected:
  void SetUp() override {
    providers::mem::registerWith(registry);
    registry.addProvider(StorageIRI(u"mem://s1/"), store);
  }

  fsp::ProviderRegistry registry;
  std::shared_ptr<providers::mem::MemoryProvider> store = std::make_shared<providers::mem::MemoryProvider>();
};

TEST_F(OverlayBundle, LoadedModuleServesTheOverlaySchemeOverMem) {
  fsp::BundleRuntime runtime(registry);
  auto const& bundle = runtime.load(OVERLAY_MODULE_PATH);
  EXPECT_EQ(bundle.symbolicName, "nimbrel_overlayprovider");
  EXPECT_EQ(bundle.scheme, u"overlay");
  ASSERT_TRUE(registry.hasScheme(u"overlay"));

  auto root = registry.resolve(std::u16string(u"overlay:<mem://s1/>/"));
  ASSERT_TRUE(root.hasProvider());
  EXPECT_TRUE(root.folderExists());

  fsp::StorageItem folder(root, u"/docs");
  folder.createFolder();
  fsp::StorageItem file(root, u"/docs/a.txt");
  {
    auto stream = file.openStream(fsp::ByteStreamOpenOptions{});
    stream->write("hello", 5);
    stream->close();
  }
  root.flushFilesystem();
  // The change reached the inner store at its own path, and reads back through the overlay.
  EXPECT_EQ(store->contentOf(u"/docs/a.txt"), std::optional<std::string>("hello"));
  EXPECT_EQ(readAll(file), "hello");
  EXPECT_TRUE(registry.resolve(std::u16string(u"overlay:<mem://s1/>/docs/a.txt")).fileExists());

  // Errors name the overlay IRI the caller used, not the inner one.
  fsp::StorageItem missing(root, u"/nope/b.txt");
  try {
    missing.createFile();
    FAIL() << "creating a file in a missing folder must fail";
  } catch (fsp::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), fsp::ErrorCode::DoesNotExist);
    EXPECT_EQ(e.getIRI().getScheme(), u"overlay");
  }

  root.shutdownProvider();
  runtime.unload(u"overlay");
  EXPECT_FALSE(registry.hasScheme(u"overlay"));
}

TEST_F(OverlayBundle, ContainerIRIOfAnInnerRootAddressesTheOverlayRoot) {
  fsp::BundleRuntime runtime(registry);
  runtime.load(OVERLAY_MODULE_PATH);
  auto inner = registry.resolve(std::u16string(u"mem://s1/"));
  // The registry's factory for "overlay" is the module's; ask it through a resolve of
  // the container IRI it builds.
  auto overlayRoot = registry.resolve(StorageIRI(u"overlay", StorageIRI(inner.getLocation(), u"/"), u"/"));
  EXPECT_EQ(overlayRoot.getLocation().getPath(), u"/");
  EXPECT_EQ(overlayRoot.getLocation().getInnerIRI(), StorageIRI(u"mem://s1/"));
  store->elsewhere().writeFile(u"/x.txt", "x");
  EXPECT_TRUE(fsp::StorageItem(overlayRoot, u"/x.txt").fileExists());
  overlayRoot.shutdownProvider();
}

}  // namespace
