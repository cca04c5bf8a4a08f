#include <core/metadata/FutureFolderEntry.hpp>

#include <core/util/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <chrono>
#include <exception>

namespace storage::overlayprovider {

namespace {

using foundation::log::Severity;

constexpr char const* kListingFailure =
    "Couldn't read file/folder metadata during a backend folder "
    "listing operation. This is possibly due to a bad filename "
    "(g2635196).";

}  // namespace

FutureFolderEntry::FutureFolderEntry(fsp::StorageIRI location, std::shared_ptr<fsp::StorageItem> inner)
    : IFolderEntry(std::move(location)),
      inner_(std::move(inner)),
      listing_(std::async([this] { buildFolderDetail(); }).share()) {}

FutureFolderEntry::~FutureFolderEntry() {
  // A listing that never started (deferred) is not run just to be thrown away.
  if (listing_.valid() && listing_.wait_for(std::chrono::seconds(0)) != std::future_status::deferred) listing_.wait();
}

bool FutureFolderEntry::awaitListing() const {
  try {
    listing_.get();
    return true;
  } catch (...) {
    return false;
  }
}

void FutureFolderEntry::doBuildFolder() const {
  if (built_.load(std::memory_order_acquire)) return;
  try {
    listing_.get();
  } catch (...) {
    built_.store(true, std::memory_order_release);
    throw;
  }
  built_.store(true, std::memory_order_release);
}

LazyExtendedAttributes::Producer FutureFolderEntry::extendedAttributesProducer(std::shared_ptr<fsp::StorageItem> inner,
                                                                               bool folder) {
  return [inner = std::move(inner), folder](std::u16string path) -> fsp::ExtendedAttributes {
    try {
      return fsp::StorageItem(*inner, path).getExtendedAttributes();
    } catch (...) {
      getLogger().log(Severity::Debug, folder ? "Problem retrieving extended attributes (folder)"
                                              : "Problem retrieving extended attributes (file)");
      getLogger().log(Severity::Diagnostic, "Exception caught: " + describeCurrentException());
    }
    return fsp::ExtendedAttributes();
  };
}

FutureFolderEntry::Producers FutureFolderEntry::producersFor(std::shared_ptr<fsp::StorageItem> const& inner) {
  return {std::make_shared<LazyExtendedAttributes::Producer const>(extendedAttributesProducer(inner, false)),
          std::make_shared<LazyExtendedAttributes::Producer const>(extendedAttributesProducer(inner, true))};
}

FileOrFolderMetadata FutureFolderEntry::recordFor(fsp::FolderEntry const& entry, RecordLocation::Parent parent,
                                                  std::u16string name, std::shared_ptr<fsp::StorageItem> const& inner,
                                                  Producers const& producers) {
  if (entry.isFile()) {
    auto record = std::make_shared<FileMetadata>(std::move(parent), std::move(name), false);
    auto const& listed = entry.getFileAttributes();
    auto const attributes =
        listed.getSize() ? listed : fsp::StorageItem(*inner, record->getLocation().getPath()).getFileAttributes();
    record->withSize(attributes.getSize().value_or(0))
        .withWritable(attributes.isWritable())
        .withLastModified(attributes.getLastModified());
    if (entry.getExtendedAttributes()) {
      record->withExtendedAttributes(*entry.getExtendedAttributes());
    } else {
      record->withExtendedAttributes(producers.file);
    }
    return record;
  }
  auto const& attributes = entry.getFolderAttributes();
  auto record = std::make_shared<FolderMetadata>(std::move(parent), std::move(name), false);
  record->withWritable(attributes.isWritable()).withLastModified(attributes.getLastModified());
  if (entry.getExtendedAttributes()) {
    record->withExtendedAttributes(*entry.getExtendedAttributes());
  } else {
    record->withExtendedAttributes(producers.folder);
  }
  return record;
}

void FutureFolderEntry::buildFolderDetail() {
  fsp::StorageItem const folder(*inner_, getLocation().getPath());
  auto const attributes = folder.getFolderAttributes();
  auto const producers = producersFor(inner_);
  auto record = std::make_shared<FolderMetadata>(getLocation(), false);
  record->withLastModified(attributes.getLastModified())
      .withWritable(attributes.isWritable())
      .withExtendedAttributes(producers.folder);
  setListedMetadata(std::move(record));
  auto listing = folder.listAll();
  auto& children = childrenForListing();
  while (listing->notAtEnd()) {
    listing->advance();
    fsp::FolderEntry const entry = listing->current();
    try {
      children.insert(recordFor(entry, sharedLocation(), entry.getName(), inner_, producers));
    } catch (...) {
      getLogger().log(Severity::Error, kListingFailure);
    }
  }
}

}  // namespace storage::overlayprovider
