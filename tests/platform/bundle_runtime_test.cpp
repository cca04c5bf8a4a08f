// BundleRuntime: loading the test bundles built in testmodule/, the life cycle of a loaded
// bundle, and one clear error per kind of broken module.
#include <foundation/storage/provider/BundleRuntime.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <support/StubProvider.hpp>
#include <support/TempFolder.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

namespace fsp = foundation::storage::provider;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::mutex journalMutex;  // guards journalEvents
std::vector<std::string> journalEvents;

std::vector<std::string> takeJournal() {
  std::lock_guard lock(journalMutex);
  return std::exchange(journalEvents, {});
}

}  // namespace

// Called by the test bundles (they declare it weak and find it in this program).
extern "C" void ovl_test_module_journal(char const* event) {
  std::lock_guard lock(journalMutex);
  journalEvents.emplace_back(event);
}

namespace {

std::filesystem::path const kGood = TEST_MODULE_PATH;

// True while the module at `path` is mapped in this process.
bool isOpen(std::filesystem::path const& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle) dlclose(handle);
  return handle != nullptr;
}

class BundleRuntimeTest : public ::testing::Test {
 protected:
  void SetUp() override { takeJournal(); }

  // The error `load(module)` throws; fails the test when it loads.
  std::string loadError(fsp::BundleRuntime& runtime, std::filesystem::path const& module) {
    try {
      runtime.load(module);
    } catch (fsp::BundleError const& e) {
      EXPECT_EQ(e.getModulePath(), std::filesystem::absolute(module).lexically_normal());
      return e.what();
    }
    ADD_FAILURE() << "loading " << module << " succeeded";
    return {};
  }

  fsp::ProviderRegistry registry_;
};

TEST_F(BundleRuntimeTest, LoadsTheModuleAndServesItsSchemeThroughTheRegistry) {
  fsp::BundleRuntime runtime(registry_);
  auto const& bundle = runtime.load(kGood);

  EXPECT_EQ(bundle.symbolicName, "ovl_test_module");
  EXPECT_EQ(bundle.scheme, u"testscheme");
  EXPECT_EQ(bundle.implementationClass, "ovltest::TestProviderFactory");
  EXPECT_EQ(bundle.modulePath, std::filesystem::absolute(kGood).lexically_normal());
  EXPECT_EQ(bundle.manifest.get<std::string>(boost::property_tree::ptree::path_type("bundle.version", '/')), "1.0.0");
  EXPECT_GT(bundle.id, 0);
  // The context is set before the component exists, and carries the manifest.
  EXPECT_THAT(takeJournal(), ElementsAre("context-set ovl_test_module #" + std::to_string(bundle.id) + " testscheme",
                                         "new-instance", "factory-made"));
  EXPECT_TRUE(registry_.hasScheme(u"TestScheme"));
  ASSERT_EQ(runtime.bundles().size(), 1u);
  EXPECT_EQ(runtime.bundles()[0].id, bundle.id);

  // Items of one root share the module's provider; another root gets its own.
  auto file = registry_.resolve(std::string("testscheme://box/docs/a.txt"));
  auto sibling = registry_.resolve(std::string("TESTSCHEME://Box/docs/b.txt"));
  auto other = registry_.resolve(std::string("testscheme://crate/"));
  EXPECT_EQ(file.getProviderStorageInfo().getStorageCapacity(), 4242u);
  EXPECT_EQ(file.getProvider(), sibling.getProvider());
  EXPECT_NE(file.getProvider(), other.getProvider());
  file.createFile();
  EXPECT_TRUE(registry_.resolve(std::string("testscheme://box/docs/./a.txt")).fileExists());
  EXPECT_FALSE(fsp::StorageItem(other, u"/docs/a.txt").fileExists());
  EXPECT_THAT(takeJournal(), ElementsAre("store-made testscheme://box/", "store-made testscheme://crate/"));

  // The bundle sees its own context: id, name, module path and this registry.
  void* handle = dlopen(kGood.c_str(), RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr);
  auto get = reinterpret_cast<fsp::bundle_abi::GetContextFunction>(
      dlsym(handle, "_us_get_bundle_context_instance_ovl_test_module"));
  ASSERT_NE(get, nullptr);
  fsp::BundleContext* context = get();
  ASSERT_NE(context, nullptr);
  EXPECT_EQ(context->getBundleId(), bundle.id);
  EXPECT_EQ(context->getSymbolicName(), "ovl_test_module");
  EXPECT_EQ(context->getModulePath(), bundle.modulePath);
  EXPECT_EQ(&context->getRegistry(), &registry_);
  dlclose(handle);

  // The manifest can be read without loading the module.
  EXPECT_THAT(fsp::BundleRuntime::readManifestText(kGood), HasSubstr("\"scheme\": \"testscheme\""));
}

TEST_F(BundleRuntimeTest, UnloadDeletesTheInstanceClearsTheContextAndClosesTheModule) {
  fsp::BundleRuntime runtime(registry_);
  auto const firstId = runtime.load(kGood).id;
  takeJournal();

  runtime.unload(u"TestScheme");
  EXPECT_THAT(takeJournal(), ElementsAre("delete-instance", "factory-destroyed", "context-cleared"));
  EXPECT_FALSE(registry_.hasScheme(u"testscheme"));
  EXPECT_TRUE(runtime.bundles().empty());
  EXPECT_FALSE(isOpen(kGood));
  EXPECT_THROW(registry_.resolve(std::string("testscheme://box/a")), std::invalid_argument);
  try {
    runtime.unload(u"testscheme");
    ADD_FAILURE() << "a second unload succeeded";
  } catch (fsp::BundleError const& e) {
    EXPECT_THAT(e.what(), HasSubstr("no loaded bundle serves the scheme \"testscheme\""));
  }

  // Loaded again: a new id; a provider still held keeps the module mapped after unload,
  // and keeps working, until the last holder lets go.
  auto const& again = runtime.load(kGood);
  EXPECT_GT(again.id, firstId);
  auto item = registry_.resolve(std::string("testscheme://box/kept"));
  item.createFile();
  runtime.unload(again);
  EXPECT_THAT(takeJournal(), ElementsAre("context-set ovl_test_module #" + std::to_string(firstId + 1) + " testscheme",
                                         "new-instance", "factory-made", "store-made testscheme://box/",
                                         "delete-instance", "factory-destroyed", "context-cleared"));
  EXPECT_TRUE(isOpen(kGood));
  EXPECT_TRUE(item.fileExists());
  item = fsp::StorageItem();
  EXPECT_THAT(takeJournal(), ElementsAre("store-destroyed testscheme://box/"));
  EXPECT_FALSE(isOpen(kGood));
}

TEST_F(BundleRuntimeTest, DestroyingTheRuntimeUnloadsEveryBundle) {
  {
    fsp::BundleRuntime runtime(registry_);
    runtime.load(kGood);
    takeJournal();
  }
  EXPECT_THAT(takeJournal(), ElementsAre("delete-instance", "factory-destroyed", "context-cleared"));
  EXPECT_FALSE(registry_.hasScheme(u"testscheme"));
  EXPECT_FALSE(isOpen(kGood));
}

TEST_F(BundleRuntimeTest, EachBrokenModuleGivesOneClearErrorAndLeavesNothingBehind) {
  support::TempFolder temp("bundle_runtime_test");
  auto const text = temp.path() / "notes.txt";
  std::ofstream(text) << "just some text, long enough to hold an ELF header if it were one...................\n";

  // A copy of the good module cut short, and one that claims to be 32-bit.
  auto const truncated = temp.path() / "truncated.so";
  auto const elf32 = temp.path() / "elf32.so";
  std::filesystem::copy_file(kGood, truncated);
  std::filesystem::resize_file(truncated, 4096);
  std::filesystem::copy_file(kGood, elf32);
  {
    std::fstream patch(elf32, std::ios::in | std::ios::out | std::ios::binary);
    patch.seekp(4);
    patch.put(1);  // EI_CLASS = ELFCLASS32
  }

  struct Case {
    std::filesystem::path module;
    std::string problem;
  };
  std::vector<Case> const cases = {
      {temp.path() / "missing" / "libnothing.so", "the file does not exist"},
      {temp.path(), "not a loadable module (not a regular file)"},
      {text, "not a loadable module (not an ELF64 file)"},
      {elf32, "not a loadable module (not an ELF64 file)"},
      {truncated, "not a loadable module (the file is damaged"},
      {TEST_MODULE_NOMANIFEST_PATH, "no manifest (no \".bundle.manifest\" section)"},
      {TEST_MODULE_NOTJSON_PATH, "the manifest is not JSON (line 2"},
      {TEST_MODULE_NOSCHEME_PATH, "the manifest has no \"scheme\""},
      {TEST_MODULE_NOINTERFACE_PATH,
       "the component ovltest::TestProviderFactory does not offer foundation::storage::provider::ContainerProviderFactory"},
      {TEST_MODULE_NODELETE_PATH, "the entry point DeleteInstance_ovltest_TestProviderFactory is missing"},
      {TEST_MODULE_NULLINSTANCE_PATH, "NewInstance_ovltest_TestProviderFactory returned no instance"},
      {TEST_MODULE_UNDEFINED_PATH, "not a loadable module ("},
  };

  fsp::BundleRuntime runtime(registry_);
  for (auto const& c : cases) {
    SCOPED_TRACE(c.module.string());
    auto const message = loadError(runtime, c.module);
    auto const absolute = std::filesystem::absolute(c.module).lexically_normal();
    EXPECT_THAT(message, HasSubstr("Cannot load bundle \"" + absolute.string() + "\": " + c.problem));
    EXPECT_FALSE(registry_.hasScheme(u"testscheme"));
    EXPECT_TRUE(runtime.bundles().empty());
    EXPECT_FALSE(isOpen(c.module));
  }
  // The loader's own text says what is missing.
  EXPECT_THAT(loadError(runtime, TEST_MODULE_UNDEFINED_PATH), HasSubstr("ovl_symbol_no_host_defines"));

  // Only the null-instance variant got as far as running code, and it was cleaned up.
  EXPECT_THAT(takeJournal(), ElementsAre("context-set ovl_test_module #1 testscheme", "new-instance null",
                                         "context-cleared"));
  // A failed load leaves the runtime able to load a good module.
  EXPECT_EQ(runtime.load(kGood).scheme, u"testscheme");
}

TEST_F(BundleRuntimeTest, ASchemeWithAFactoryIsNotTakenOver) {
  class Factory : public fsp::ContainerProviderFactory {
   public:
    std::shared_ptr<fsp::IProvider> createProvider(fsp::StorageItem const&) override {
      return std::make_shared<support::StubProvider>();
    }
    fsp::StorageIRI createContainerIRI(fsp::StorageItem const& item) override { return item.getLocation(); }
  };
  fsp::BundleRuntime runtime(registry_);
  auto const& bundle = runtime.load(kGood);
  auto const id = bundle.id;
  EXPECT_THAT(loadError(runtime, kGood), HasSubstr("the scheme \"testscheme\" already has a storage provider factory"));
  ASSERT_EQ(runtime.bundles().size(), 1u);
  EXPECT_EQ(runtime.bundles()[0].id, id);
  EXPECT_EQ(registry_.resolve(std::string("testscheme://box/")).getProviderStorageInfo().getStorageCapacity(), 4242u);
  runtime.unload(bundle);

  registry_.registerFactory(u"testscheme", std::make_shared<Factory>());
  EXPECT_THAT(loadError(runtime, kGood), HasSubstr("already has a storage provider factory"));
  EXPECT_EQ(registry_.resolve(std::string("testscheme://box/")).getProviderStorageInfo().getStorageCapacity(), 0u);
  EXPECT_FALSE(isOpen(kGood));
}

// The helpers a real bundle uses, compiled into this program and called directly.
int factoriesAlive = 0;
class MacroFactory : public fsp::ContainerProviderFactory {
 public:
  MacroFactory() { ++factoriesAlive; }
  ~MacroFactory() override { --factoriesAlive; }
  std::shared_ptr<fsp::IProvider> createProvider(fsp::StorageItem const&) override { return nullptr; }
  fsp::StorageIRI createContainerIRI(fsp::StorageItem const& item) override { return item.getLocation(); }
};

}  // namespace

OVL_BUNDLE_CONTEXT(macro_bundle)
OVL_BUNDLE_COMPONENT(macrotest_MacroFactory, MacroFactory)

namespace {

TEST(BundleAbiTest, EntryPointNamesAndHelperMacros) {
  namespace abi = fsp::bundle_abi;
  EXPECT_EQ(abi::newInstanceSymbol("storage::overlayprovider::OverlayProviderFactory"),
            "NewInstance_storage_overlayprovider_OverlayProviderFactory");
  EXPECT_EQ(abi::deleteInstanceSymbol("storage::overlayprovider::OverlayProviderFactory"),
            "DeleteInstance_storage_overlayprovider_OverlayProviderFactory");
  EXPECT_EQ(abi::setContextSymbol("nimbrel_overlayprovider"), "_us_set_bundle_context_instance_nimbrel_overlayprovider");
  EXPECT_EQ(abi::getContextSymbol("nimbrel_overlayprovider"), "_us_get_bundle_context_instance_nimbrel_overlayprovider");
  EXPECT_EQ(abi::entryPointSuffix("Plain"), "Plain");

  fsp::ProviderRegistry registry;
  fsp::BundleContext context(7, "macro_bundle", "/x/libm.so", {}, registry);
  EXPECT_EQ(_us_get_bundle_context_instance_macro_bundle(), nullptr);
  _us_set_bundle_context_instance_macro_bundle(&context);
  EXPECT_EQ(_us_get_bundle_context_instance_macro_bundle(), &context);
  _us_set_bundle_context_instance_macro_bundle(nullptr);
  EXPECT_EQ(_us_get_bundle_context_instance_macro_bundle(), nullptr);

  void* instance = NewInstance_macrotest_MacroFactory();
  ASSERT_NE(instance, nullptr);
  auto* component = static_cast<fsp::ComponentInstance*>(instance);
  auto factory = component->getFactory();
  EXPECT_NE(factory, nullptr);
  EXPECT_EQ(component->getFactory(), factory);
  EXPECT_EQ(factoriesAlive, 1);
  DeleteInstance_macrotest_MacroFactory(instance);
  EXPECT_EQ(factoriesAlive, 1);  // still held here
  factory.reset();
  EXPECT_EQ(factoriesAlive, 0);
}

}  // namespace
