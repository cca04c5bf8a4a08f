// Helpers for the metadata cache tests: an in-memory store whose listings can be made to
// leave out file sizes (so that the cache asks for each file's attributes), a fixture
// with a metadata cache over it, the texts of the cache's failure records, and the names
// the tests use at file scope.
#pragma once

#include <core/metadata/MetadataCache.hpp>

#include <foundation/log/MemorySink.hpp>
#include <support/LogRecords.hpp>
#include <foundation/storage/provider/FolderEntry.hpp>
#include <foundation/storage/provider/IFolderEntryIterator.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace metadata_test {

namespace fsp = foundation::storage::provider;

// The `mem` store; with `sizeless` set, its listings (plain and recursive) report files
// without a size, as some stores do.
class MemStore : public providers::mem::MemoryProvider {
 public:
  using MemoryProvider::MemoryProvider;

  std::atomic<bool> sizeless{false};

  fsp::FolderEntryIteratorPtr doListAll(fsp::StorageIRI const& iri) const override {
    return adjust(MemoryProvider::doListAll(iri));
  }
  fsp::FolderEntryIteratorPtr doListAllRecursive(fsp::StorageIRI const& iri) const override {
    return adjust(MemoryProvider::doListAllRecursive(iri));
  }

 private:
  fsp::FolderEntryIteratorPtr adjust(fsp::FolderEntryIteratorPtr listing) const {
    if (!sizeless.load()) return listing;
    std::vector<fsp::FolderEntry> entries;
    for (auto const& entry : fsp::collect(*listing)) {
      if (!entry.isFile()) {
        entries.push_back(entry);
        continue;
      }
      auto const& attributes = entry.getFileAttributes();
      fsp::FolderEntry stripped(entry.getName(),
                                fsp::FileAttributes(std::nullopt, attributes.getLastModified(), attributes.isWritable()));
      if (entry.getExtendedAttributes()) stripped.withExtendedAttributes(*entry.getExtendedAttributes());
      entries.push_back(stripped);
    }
    return std::make_unique<fsp::VectorFolderEntryIterator>(std::move(entries));
  }
};

// "mem:///<path>": the inner-most form of a location in the store.
inline fsp::StorageIRI iri(std::u16string const& path) { return fsp::StorageIRI(u"mem:///" + path); }

inline bool contains(std::vector<fsp::StorageIRI> const& keys, fsp::StorageIRI const& key) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

// A metadata cache (with recursive listing) over a `mem` store of its own.
class CacheFixture : public ::testing::Test {
 protected:
  std::shared_ptr<MemStore> store = std::make_shared<MemStore>();
  std::shared_ptr<fsp::StorageItem> inner = std::make_shared<fsp::StorageItem>(store, store->root());
  storage::overlayprovider::MetadataCache cache{inner, true};
};

inline providers::mem::MemoryProvider::Options caseInsensitive() {
  providers::mem::MemoryProvider::Options options;
  options.sensitivity = fsp::FilenameSensitivity::CaseInsensitive;
  return options;
}

using support::countRecords;

inline std::string const kListingFailureText =
    "Couldn't read file/folder metadata during a backend folder listing operation. This is possibly due to a bad "
    "filename (g2635196).";
inline std::string const kRecursiveListingFailureText =
    "Couldn't read file/folder metadata during a backend folder recursive listing operation. This is possibly due "
    "to a bad filename (g2635196).";

}  // namespace metadata_test

// The names every metadata cache test uses, at file scope.
namespace fsp = foundation::storage::provider;
using fsp::StorageIRI;
using fsp::StorageItem;
using metadata_test::contains;
using metadata_test::iri;
using metadata_test::MemStore;
using providers::mem::Operation;
using storage::overlayprovider::MetadataCache;
