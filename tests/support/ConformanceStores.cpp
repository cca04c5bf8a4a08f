#include <support/ConformanceStores.hpp>

#include <providers/file/FileProvider.hpp>
#include <providers/mem/MemoryProvider.hpp>

#include <fl/filesystem.hpp>
#include <fl/i18n.hpp>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <stdlib.h>
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

namespace {

// Makes everything below `folder` writable again, so that a test that left a read-only
// folder behind cannot keep its temporary folder from being removed.
void makeWritable(std::filesystem::path const& folder) {
  std::error_code ignored;
  std::filesystem::permissions(folder, std::filesystem::perms::owner_all, std::filesystem::perm_options::add, ignored);
  for (auto it = std::filesystem::recursive_directory_iterator(folder, ignored);
       it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
    if (it->is_symlink(ignored)) continue;
    std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all, std::filesystem::perm_options::add,
                                 ignored);
  }
}

}  // namespace

StoreUnderTest fileStore() {
  return {"file", []() -> std::shared_ptr<Harness> {
            std::string pattern = (fl::filesystem::temp_directory_name() / "ovl-conformance-XXXXXX").string();
            std::vector<char> buffer(pattern.begin(), pattern.end());
            buffer.push_back('\0');
            if (::mkdtemp(buffer.data()) == nullptr) {
              throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
            }
            std::filesystem::path const folder(buffer.data());
            auto provider = std::make_shared<providers::file::FileProvider>();
            StoreCapabilities capabilities;
            capabilities.enforcesWritable = ::geteuid() != 0;
            capabilities.caseSensitive = true;
            sp::StorageItem root(provider, sp::StorageIRI(u"file://" + fl::filesystem::to_ustring(folder)));
            return std::make_shared<SimpleHarness>(root, capabilities, [provider, folder] {
              provider->doShutdown();
              makeWritable(folder);
              std::error_code ignored;
              std::filesystem::remove_all(folder, ignored);
            });
          }};
}

}  // namespace ovltest
