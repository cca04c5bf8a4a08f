#include "TestStore.hpp"

namespace ovltest {

void journal(std::string const& event) {
  if (ovl_test_module_journal) ovl_test_module_journal(event.c_str());
}

TestStore::TestStore(fsp::StorageIRI root) : root_(std::move(root)) { journal("store-made " + root_.toUtf8()); }

TestStore::~TestStore() { journal("store-destroyed " + root_.toUtf8()); }

void TestStore::doCreateFile(fsp::StorageIRI const& iri) const {
  std::lock_guard lock(mutex_);
  files_.insert(iri.getResolvedIRI().getPath());
}

bool TestStore::doFileExists(fsp::StorageIRI const& iri) const {
  std::lock_guard lock(mutex_);
  return files_.count(iri.getResolvedIRI().getPath()) != 0;
}

bool TestStore::doFolderExists(fsp::StorageIRI const& iri) const { return !iri.getResolvedIRI().hasParent(); }

fsp::ProviderStorageInfo TestStore::doGetProviderStorageInfo(fsp::StorageIRI const&) const {
  return fsp::ProviderStorageInfo().withStorageCapacity(4242);
}

TestProviderFactory::TestProviderFactory() { journal("factory-made"); }

TestProviderFactory::~TestProviderFactory() { journal("factory-destroyed"); }

std::shared_ptr<fsp::IProvider> TestProviderFactory::createProvider(fsp::StorageItem const& item) {
  return std::make_shared<TestStore>(item.getLocation());
}

fsp::StorageIRI TestProviderFactory::createContainerIRI(fsp::StorageItem const& item) { return item.getLocation(); }

}  // namespace ovltest
