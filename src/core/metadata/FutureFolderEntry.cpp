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

FileOrFolderMetadata FutureFolderEntry::recordFor(fsp::FolderEntry const& entry, fsp::StorageIRI const& location,
                                                  std::shared_ptr<fsp::StorageItem> const& inner) {
  if (entry.isFile()) {
    auto const& listed = entry.getFileAttributes();
    auto const attributes =
        listed.getSize() ? listed : fsp::StorageItem(*inner, location.getPath()).getFileAttributes();
    auto record = std::make_shared<FileMetadata>(location, false);
    record->withSize(attributes.getSize().value_or(0))
        .withWritable(attributes.isWritable())
        .withLastModified(attributes.getLastModified());
    if (entry.getExtendedAttributes()) {
      record->withExtendedAttributes(*entry.getExtendedAttributes());
    } else {
      record->withExtendedAttributes(extendedAttributesProducer(inner, false));
    }
    return record;
  }
  auto const& attributes = entry.getFolderAttributes();
  auto record = std::make_shared<FolderMetadata>(location, false);
  record->withWritable(attributes.isWritable()).withLastModified(attributes.getLastModified());
  if (entry.getExtendedAttributes()) {
    record->withExtendedAttributes(*entry.getExtendedAttributes());
  } else {
    record->withExtendedAttributes(extendedAttributesProducer(inner, true));
  }
  return record;
}

void FutureFolderEntry::buildFolderDetail() {
  fsp::StorageItem const folder(*inner_, getLocation().getPath());
  auto const attributes = folder.getFolderAttributes();
  auto record = std::make_shared<FolderMetadata>(getLocation(), false);
  record->withLastModified(attributes.getLastModified())
      .withWritable(attributes.isWritable())
      .withExtendedAttributes(extendedAttributesProducer(inner_, true));
  setListedMetadata(std::move(record));

  auto listing = folder.listAll();
  auto& children = childrenForListing();
  while (listing->notAtEnd()) {
    listing->advance();
    fsp::FolderEntry const entry = listing->current();
    try {
      fsp::StorageIRI child(getLocation(), entry.getName());
      auto childRecord = recordFor(entry, child, inner_);
      children.emplace(std::move(child), std::move(childRecord));
    } catch (...) {
      getLogger().log(Severity::Error, kListingFailure);
    }
  }
}

}  // namespace storage::overlayprovider
