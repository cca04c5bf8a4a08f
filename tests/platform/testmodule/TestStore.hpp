// The store of the test bundle: a flat set of file names per provider, enough to show that
// an item resolved through the registry reaches a provider made by the module.
//
// The module reports what happens to it through `ovl_test_module_journal`, which the test
// program defines and exports; the module declares it weak so that it loads anywhere.
#pragma once

#include <support/StubProvider.hpp>

#include <foundation/storage/provider/ContainerProviderFactory.hpp>

#include <mutex>
#include <set>
#include <string>

extern "C" __attribute__((weak)) void ovl_test_module_journal(char const* event);

namespace ovltest {

namespace fsp = foundation::storage::provider;

void journal(std::string const& event);

class TestStore final : public support::StubProvider {
 public:
  explicit TestStore(fsp::StorageIRI root);
  ~TestStore() override;

  void doCreateFile(fsp::StorageIRI const& iri) const override;
  bool doFileExists(fsp::StorageIRI const& iri) const override;
  bool doFolderExists(fsp::StorageIRI const& iri) const override;
  // Capacity 4242, so that a test can tell this store from any other.
  fsp::ProviderStorageInfo doGetProviderStorageInfo(fsp::StorageIRI const& iri) const override;

 private:
  fsp::StorageIRI const root_;
  mutable std::mutex mutex_;  // guards files_
  mutable std::set<std::u16string> files_;
};

class TestProviderFactory final : public fsp::ContainerProviderFactory {
 public:
  TestProviderFactory();
  ~TestProviderFactory() override;
  std::shared_ptr<fsp::IProvider> createProvider(fsp::StorageItem const& item) override;
  fsp::StorageIRI createContainerIRI(fsp::StorageItem const& item) override;
};

}  // namespace ovltest
