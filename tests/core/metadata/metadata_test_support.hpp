// Helpers for the metadata cache tests: an in-memory store whose listings can be made to
// leave out file sizes (so that the cache asks for each file's attributes), and log
// lookups.
#pragma once

#include <foundation/log/MemorySink.hpp>
#include <foundation/storage/provider/FolderEntry.hpp>
#include <foundation/storage/provider/IFolderEntryIterator.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

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

inline providers::mem::MemoryProvider::Options caseInsensitive() {
  providers::mem::MemoryProvider::Options options;
  options.sensitivity = fsp::FilenameSensitivity::CaseInsensitive;
  return options;
}

// How many captured records have exactly this text and severity.
inline std::size_t countRecords(foundation::log::MemorySink const& sink, std::string const& message, unsigned severity) {
  std::size_t count = 0;
  for (auto const& record : sink.records()) {
    if (record.message == message && record.severity == severity) ++count;
  }
  return count;
}

inline std::string const kListingFailureText =
    "Couldn't read file/folder metadata during a backend folder listing operation. This is possibly due to a bad "
    "filename (g2635196).";
inline std::string const kRecursiveListingFailureText =
    "Couldn't read file/folder metadata during a backend folder recursive listing operation. This is possibly due "
    "to a bad filename (g2635196).";

}  // namespace metadata_test
