// ProviderRegistry: which provider serves which IRI, what factories receive, and what
// callers see when a scheme, an IRI or a factory is bad.
#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <support/StubProvider.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

// Remembers the item it was made for, and its shut-down into a shared log.
class FakeProvider : public support::StubProvider {
 public:
  FakeProvider(fsp::StorageItem madeFor, std::vector<std::string>* shutdownLog)
      : madeFor_(std::move(madeFor)), shutdownLog_(shutdownLog) {}
  fsp::StorageItem const& madeFor() const { return madeFor_; }
  void doShutdown() override {
    if (shutdownLog_) shutdownLog_->push_back(madeFor_.getLocation().toUtf8());
    if (failShutdown) throw std::runtime_error("shutdown of " + madeFor_.getLocation().toUtf8() + " failed");
  }
  bool failShutdown = false;

 private:
  fsp::StorageItem const madeFor_;
  std::vector<std::string>* const shutdownLog_;
};

// Makes FakeProviders and records the items it was asked for. `hook`, when set, runs
// first and may throw or return a provider of its own (null: go on as usual).
class FakeFactory : public fsp::ContainerProviderFactory {
 public:
  explicit FakeFactory(std::vector<std::string>* shutdownLog = nullptr) : shutdownLog_(shutdownLog) {}

  std::shared_ptr<fsp::IProvider> createProvider(fsp::StorageItem const& item) override {
    calls.push_back(item);
    if (hook) {
      if (auto provider = hook(item)) return provider;
      if (returnNull) return nullptr;
    }
    return std::make_shared<FakeProvider>(item, shutdownLog_);
  }
  StorageIRI createContainerIRI(fsp::StorageItem const& item) override { return item.getLocation(); }

  std::vector<fsp::StorageItem> calls;
  std::function<std::shared_ptr<fsp::IProvider>(fsp::StorageItem const&)> hook;
  bool returnNull = false;

 private:
  std::vector<std::string>* const shutdownLog_;
};

FakeProvider& fake(fsp::StorageItem const& item) {
  auto* provider = dynamic_cast<FakeProvider*>(item.getProvider().get());
  if (!provider) throw std::logic_error("not a FakeProvider");
  return *provider;
}

std::string invalidArgument(std::function<void()> const& call) {
  try {
    call();
  } catch (std::invalid_argument const& e) {
    return e.what();
  }
  ADD_FAILURE() << "no std::invalid_argument";
  return {};
}

class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() {
    registry_.registerFactory(u"mem", mem_);
    registry_.registerFactory(u"file", file_);
    registry_.registerFactory(u"overlay", overlay_);
  }
  fsp::StorageItem resolve(std::string const& text) { return registry_.resolve(text); }

  std::vector<std::string> shutdownLog_;
  std::shared_ptr<FakeFactory> mem_ = std::make_shared<FakeFactory>(&shutdownLog_);
  std::shared_ptr<FakeFactory> file_ = std::make_shared<FakeFactory>(&shutdownLog_);
  std::shared_ptr<FakeFactory> overlay_ = std::make_shared<FakeFactory>(&shutdownLog_);
  fsp::ProviderRegistry registry_;
};

TEST_F(RegistryTest, PlainIRIsShareTheProviderOfTheirSchemeAndAuthority) {
  auto a = resolve("mem://s1/a/b");
  auto c = resolve("mem://s1/c?q#f");
  auto upper = resolve("MEM://S1/d");
  auto bare = resolve("mem://s1");
  auto s2 = resolve("mem://s2/x");
  ASSERT_EQ(mem_->calls.size(), 2u);
  // The factory gets an item without provider whose location is the root.
  EXPECT_FALSE(mem_->calls[0].hasProvider());
  EXPECT_EQ(mem_->calls[0].getLocation().toString(), u"mem://s1/");
  EXPECT_EQ(mem_->calls[1].getLocation().toString(), u"mem://s2/");
  EXPECT_EQ(a.getProvider(), c.getProvider());
  EXPECT_EQ(a.getProvider(), upper.getProvider());
  EXPECT_EQ(a.getProvider(), bare.getProvider());
  EXPECT_NE(a.getProvider(), s2.getProvider());
  // Items keep the IRI as the caller wrote it.
  EXPECT_EQ(a.getLocation().toString(), u"mem://s1/a/b");
  EXPECT_EQ(c.getLocation().toString(), u"mem://s1/c?q#f");
  EXPECT_EQ(upper.getLocation().toString(), u"MEM://S1/d");

  auto f1 = resolve("file:///srv/x");
  auto f2 = resolve("file:///etc/passwd");
  ASSERT_EQ(file_->calls.size(), 1u);
  EXPECT_EQ(file_->calls[0].getLocation().toString(), u"file:///");
  EXPECT_EQ(f1.getProvider(), f2.getProvider());

  EXPECT_EQ(StorageIRI(u"mem://S1/a/../b").toString(), u"mem://S1/a/../b");
  EXPECT_EQ(fsp::ProviderRegistry::rootKey(StorageIRI(u"mem://S1/a/../b")), u"mem://s1/");
}

TEST_F(RegistryTest, SchemesAreCaseInsensitiveAndFactoriesCanBeReplacedOrRemoved) {
  EXPECT_TRUE(registry_.hasScheme(u"MeM"));
  EXPECT_FALSE(registry_.hasScheme(u"memx"));
  auto before = resolve("mem://s1/a");

  // A replacement serves new roots; the provider made before stays in use.
  auto replacement = std::make_shared<FakeFactory>();
  registry_.registerFactory(u"MEM", replacement);
  EXPECT_EQ(resolve("mem://s1/b").getProvider(), before.getProvider());
  resolve("mem://s3/");
  EXPECT_EQ(replacement->calls.size(), 1u);
  EXPECT_EQ(mem_->calls.size(), 1u);

  // Removing the scheme forgets its providers; items that hold one keep it.
  registry_.unregisterFactory(u"Mem");
  EXPECT_FALSE(registry_.hasScheme(u"mem"));
  EXPECT_THAT(invalidArgument([&] { resolve("mem://s1/a"); }),
              HasSubstr("No storage provider is registered for scheme \"mem\" (IRI: mem://s1/a)"));
  EXPECT_TRUE(before.hasProvider());
  registry_.registerFactory(u"mem", mem_);
  EXPECT_NE(resolve("mem://s1/a").getProvider(), before.getProvider());
  EXPECT_EQ(mem_->calls.size(), 2u);
  registry_.unregisterFactory(u"never-registered");

  EXPECT_THROW(registry_.registerFactory(u"1mem", mem_), std::invalid_argument);
  EXPECT_THROW(registry_.registerFactory(u"", mem_), std::invalid_argument);
  EXPECT_THROW(registry_.registerFactory(u"me m", mem_), std::invalid_argument);
  EXPECT_THROW(registry_.registerFactory(u"x", nullptr), std::invalid_argument);
  registry_.registerFactory(u"sync+file", file_);
  EXPECT_TRUE(registry_.hasScheme(u"SYNC+FILE"));
}

TEST_F(RegistryTest, WrappedIRIsAreServedByTheWrappingFactoryOverTheResolvedInnerItem) {
  auto a = resolve("overlay:<file:///srv/>/docs/a.txt");
  ASSERT_EQ(overlay_->calls.size(), 1u);
  auto const inner = overlay_->calls[0];  // a copy: calls grows below
  // The wrapping factory receives the inner item, on the inner scheme's provider.
  EXPECT_EQ(inner.getLocation().toString(), u"file:///srv");
  ASSERT_TRUE(inner.hasProvider());
  EXPECT_EQ(inner.getProvider(), resolve("file:///srv/").getProvider());
  EXPECT_EQ(a.getLocation().toString(), u"overlay:<file:///srv/>/docs/a.txt");

  // Spellings of the same inner IRI share the overlay provider; another inner folder does not.
  EXPECT_EQ(resolve("overlay:<file:///srv>/b").getProvider(), a.getProvider());
  EXPECT_EQ(resolve("OVERLAY:<FILE:///srv/./x/..//>/c").getProvider(), a.getProvider());
  auto other = resolve("overlay:<file:///other/>/a");
  EXPECT_NE(other.getProvider(), a.getProvider());
  ASSERT_EQ(overlay_->calls.size(), 2u);
  EXPECT_EQ(overlay_->calls[1].getProvider(), inner.getProvider());
  EXPECT_EQ(file_->calls.size(), 1u);
  // Case matters in paths.
  EXPECT_NE(resolve("overlay:<file:///SRV/>/a").getProvider(), a.getProvider());

  // Two levels: the outer overlay wraps the inner overlay's item.
  auto nested = resolve("overlay:<overlay:<mem://s1/>/>/a");
  auto onMem = resolve("overlay:<mem://s1/>/z");
  ASSERT_EQ(overlay_->calls.size(), 5u);
  EXPECT_EQ(overlay_->calls[3].getLocation().toString(), u"mem://s1/");
  EXPECT_EQ(overlay_->calls[4].getLocation().toString(), u"overlay:<mem://s1/>/");
  EXPECT_EQ(overlay_->calls[4].getProvider(), onMem.getProvider());
  EXPECT_NE(nested.getProvider(), onMem.getProvider());
  EXPECT_EQ(fake(nested).madeFor().getProvider(), onMem.getProvider());
  EXPECT_EQ(fake(onMem).madeFor().getProvider(), resolve("mem://s1/").getProvider());
  EXPECT_EQ(fsp::ProviderRegistry::rootKey(StorageIRI(u"Overlay:<overlay:<MEM://S1/./>/x>/a")),
            u"overlay:<overlay:<mem://s1/>/x>/");
  // A second lookup of a known wrapped root does not touch the inner scheme again.
  registry_.unregisterFactory(u"mem");
  EXPECT_EQ(resolve("overlay:<overlay:<mem://s1/>/>/b").getProvider(), nested.getProvider());
}

TEST_F(RegistryTest, UnknownSchemesAndMalformedTextAreRejectedNamingTheIRI) {
  EXPECT_EQ(invalidArgument([&] { resolve("nope://x/y"); }),
            "No storage provider is registered for scheme \"nope\" (IRI: nope://x/y)");
  // An unknown inner scheme is reported with the whole IRI asked for.
  EXPECT_EQ(invalidArgument([&] { resolve("overlay:<Nope:///x>/a"); }),
            "No storage provider is registered for scheme \"Nope\" (IRI: overlay:<Nope:///x>/a)");
  EXPECT_TRUE(overlay_->calls.empty());
  EXPECT_EQ(invalidArgument([&] { resolve("nope:<file:///x>/a"); }),
            "No storage provider is registered for scheme \"nope\" (IRI: nope:<file:///x>/a)");
  EXPECT_TRUE(file_->calls.empty());

  EXPECT_THAT(invalidArgument([&] { resolve("overlay:<file:///x/a"); }), HasSubstr("overlay:<file:///x/a"));
  EXPECT_THAT(invalidArgument([&] { resolve("1abc:/x"); }), HasSubstr("1abc:/x"));
  EXPECT_THAT(invalidArgument([&] { resolve("mem://s1/a\x01"); }), HasSubstr("mem://s1/a"));
  EXPECT_THROW(resolve(""), std::invalid_argument);
  EXPECT_TRUE(mem_->calls.empty());
}

TEST_F(RegistryTest, LocalPathsBecomeFileIRIsOfTheirAbsoluteForm) {
  std::string const cwd = std::filesystem::current_path().lexically_normal().generic_string();
  auto const root = cwd == "/" ? std::string() : cwd;
  EXPECT_EQ(resolve("/tmp/x").getLocation().toUtf8(), "file:///tmp/x");
  EXPECT_EQ(resolve("/tmp/x/../y/./z/").getLocation().toUtf8(), "file:///tmp/y/z");
  EXPECT_EQ(resolve("//tmp///x").getLocation().toUtf8(), "file:///tmp/x");
  EXPECT_EQ(resolve("/").getLocation().toUtf8(), "file:///");
  EXPECT_EQ(resolve("a/b").getLocation().toUtf8(), "file://" + root + "/a/b");
  EXPECT_EQ(resolve("./a").getLocation().toUtf8(), "file://" + root + "/a");
  EXPECT_EQ(resolve(".").getLocation().toUtf8(), "file://" + (root.empty() ? "/" : root));
  // Not schemes: a drive-letter look-alike, a ":" after a "/".
  EXPECT_EQ(resolve("C:x").getLocation().toUtf8(), "file://" + root + "/C:x");
  EXPECT_EQ(resolve("dir/n:1").getLocation().toUtf8(), "file://" + root + "/dir/n:1");
  // "?" and "#" are part of a local file's name.
  auto odd = resolve("/tmp/what?#1");
  EXPECT_EQ(odd.getLocation().getPath(), u"/tmp/what?#1");
  EXPECT_FALSE(odd.getLocation().getQuery().has_value());
  EXPECT_EQ(registry_.resolve(std::u16string(u"/tmp/caf\u00e9")).getLocation().getPath(), u"/tmp/caf\u00e9");
  // All on the one provider of "file:///".
  EXPECT_EQ(file_->calls.size(), 1u);
  EXPECT_EQ(odd.getProvider(), resolve("file:///elsewhere").getProvider());

  EXPECT_TRUE(fsp::looksLikeIRI(u"mem://s1/"));
  EXPECT_TRUE(fsp::looksLikeIRI(u"ab:"));
  EXPECT_TRUE(fsp::looksLikeIRI(u"1abc:/x"));
  EXPECT_FALSE(fsp::looksLikeIRI(u"C:\\x"));
  EXPECT_FALSE(fsp::looksLikeIRI(u"/tmp/a:b"));
  EXPECT_FALSE(fsp::looksLikeIRI(u"plain"));
  EXPECT_FALSE(fsp::looksLikeIRI(u""));
}

TEST_F(RegistryTest, AddedProvidersServeTheirRootWithoutAFactory) {
  auto store = std::make_shared<support::StubProvider>();
  registry_.addProvider(StorageIRI(u"cfg://Box/ignored/path"), store);
  EXPECT_EQ(registry_.resolve(std::string("CFG://box/a")).getProvider(), store);
  EXPECT_FALSE(registry_.hasScheme(u"cfg"));

  auto wrapped = std::make_shared<support::StubProvider>();
  registry_.addProvider(StorageIRI(u"overlay:<file:///srv/>/"), wrapped);
  EXPECT_EQ(resolve("overlay:<file:///srv>/docs").getProvider(), wrapped);
  EXPECT_TRUE(overlay_->calls.empty());
  EXPECT_TRUE(file_->calls.empty());

  // Replacing an added or made provider.
  auto made = resolve("mem://s1/");
  auto replacement = std::make_shared<support::StubProvider>();
  registry_.addProvider(StorageIRI(u"mem://s1/"), replacement);
  EXPECT_EQ(resolve("mem://s1/a").getProvider(), replacement);
  EXPECT_THROW(registry_.addProvider(StorageIRI(u"mem://s2/"), nullptr), std::invalid_argument);
}

TEST_F(RegistryTest, FactoryFailuresPassThroughAndAreNotRemembered) {
  int failures = 1;
  mem_->hook = [&](fsp::StorageItem const&) -> std::shared_ptr<fsp::IProvider> {
    if (failures-- > 0) throw std::runtime_error("store unavailable");
    return nullptr;
  };
  try {
    resolve("mem://s1/a");
    ADD_FAILURE() << "no error";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "store unavailable");
  }
  EXPECT_TRUE(resolve("mem://s1/a").hasProvider());
  EXPECT_EQ(mem_->calls.size(), 2u);

  // A factory that gives nothing: an error naming the root, and a retry next time.
  mem_->returnNull = true;
  try {
    resolve("mem://s2/a");
    ADD_FAILURE() << "no error";
  } catch (std::runtime_error const& e) {
    EXPECT_THAT(e.what(), HasSubstr("made no provider for mem://s2/ (IRI: mem://s2/a)"));
  }
  mem_->returnNull = false;
  EXPECT_TRUE(resolve("mem://s2/a").hasProvider());

  // A failing inner factory: the wrapping factory is not called, nothing is kept.
  file_->hook = [](fsp::StorageItem const&) -> std::shared_ptr<fsp::IProvider> { throw std::runtime_error("disk gone"); };
  EXPECT_THROW(resolve("overlay:<file:///srv/>/a"), std::runtime_error);
  EXPECT_TRUE(overlay_->calls.empty());
  file_->hook = nullptr;
  EXPECT_TRUE(resolve("overlay:<file:///srv/>/a").hasProvider());
  EXPECT_EQ(overlay_->calls.size(), 1u);
}

TEST_F(RegistryTest, FactoriesMayUseTheRegistryButNotForTheRootTheyAreMaking) {
  // A factory that resolves another root while making its own: allowed.
  fsp::StorageItem seenInside;
  overlay_->hook = [&](fsp::StorageItem const&) -> std::shared_ptr<fsp::IProvider> {
    seenInside = resolve("mem://side/x");
    return nullptr;
  };
  auto item = resolve("overlay:<file:///srv/>/a");
  EXPECT_TRUE(seenInside.hasProvider());
  EXPECT_EQ(seenInside.getProvider(), resolve("mem://side/").getProvider());

  // One that resolves its own root would wait for itself: refused.
  mem_->hook = [&](fsp::StorageItem const& root) -> std::shared_ptr<fsp::IProvider> {
    if (root.getLocation().toString() == u"mem://loop/") resolve("mem://loop/again");
    return nullptr;
  };
  EXPECT_THROW(resolve("mem://loop/a"), std::logic_error);
  mem_->hook = nullptr;
  EXPECT_TRUE(resolve("mem://loop/a").hasProvider());
}

TEST_F(RegistryTest, ShutdownAllStopsWrappersBeforeWhatTheyWrapAndForgetsEverything) {
  auto outer = resolve("overlay:<overlay:<mem://s1/>/>/a");
  auto plain = resolve("file:///x");
  auto added = std::make_shared<FakeProvider>(fsp::StorageItem(nullptr, StorageIRI(u"cfg://added/")), &shutdownLog_);
  registry_.addProvider(StorageIRI(u"cfg://added/"), added);
  registry_.addProvider(StorageIRI(u"cfg://again/"), added);  // one provider, two roots: shut down once
  fake(plain).failShutdown = true;

  try {
    registry_.shutdownAll();
    ADD_FAILURE() << "no error";
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "shutdown of file:/// failed");
  }
  ASSERT_EQ(shutdownLog_.size(), 5u);
  EXPECT_EQ(shutdownLog_[0], "overlay:<mem://s1/>/");  // made for the inner overlay's item: the outer overlay
  EXPECT_EQ(shutdownLog_[1], "mem://s1/");             // the inner overlay
  EXPECT_THAT(std::vector<std::string>(shutdownLog_.begin() + 2, shutdownLog_.end()),
              ::testing::UnorderedElementsAre("cfg://added/", "file:///", "mem://s1/"));

  // Forgotten: the next resolve makes new providers.
  EXPECT_NE(resolve("file:///x").getProvider(), plain.getProvider());
  EXPECT_THROW(resolve("cfg://added/"), std::invalid_argument);
}

}  // namespace
