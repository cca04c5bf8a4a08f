#include <support/ConformanceStores.hpp>
#include <support/TempFolder.hpp>

#include <providers/file/FileProvider.hpp>
#include <providers/mem/MemoryProvider.hpp>

#include <fl/filesystem.hpp>
#include <fl/i18n.hpp>

#include <memory>

#include <unistd.h>

namespace ovltest {

namespace sp = foundation::storage::provider;

StoreUnderTest memStore(bool caseSensitive) {
  return {caseSensitive ? "mem" : "mem_case_insensitive", [caseSensitive]() -> std::shared_ptr<Harness> {
            providers::mem::MemoryProvider::Options options;
            options.name = u"conformance";
            options.sensitivity =
                caseSensitive ? sp::FilenameSensitivity::CaseSensitive : sp::FilenameSensitivity::CaseInsensitive;
            auto provider = std::make_shared<providers::mem::MemoryProvider>(options);
            StoreCapabilities capabilities;
            capabilities.caseSensitive = caseSensitive;
            return std::make_shared<SimpleHarness>(sp::StorageItem(provider, provider->root()), capabilities,
                                                   [provider] { provider->doShutdown(); });
          }};
}

StoreUnderTest fileStore() {
  return {"file", []() -> std::shared_ptr<Harness> {
            auto folder = std::make_shared<support::TempFolder>("ovl-conformance");
            auto provider = std::make_shared<providers::file::FileProvider>();
            StoreCapabilities capabilities;
            capabilities.enforcesWritable = ::geteuid() != 0;
            capabilities.caseSensitive = true;
            sp::StorageItem root(provider, sp::StorageIRI(u"file://" + fl::filesystem::to_ustring(folder->path())));
            return std::make_shared<SimpleHarness>(root, capabilities, [provider, folder]() mutable {
              provider->doShutdown();
              folder.reset();
            });
          }};
}

}  // namespace ovltest
