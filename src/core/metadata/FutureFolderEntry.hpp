// FutureFolderEntry: a folder entry whose content comes from listing the folder on the
// inner store, in the background.
//
// The constructor starts the listing at once through std::async with the default launch
// policy: normally on a thread of its own; if no thread can be started, the listing is
// deferred and runs at the first build. The cache can thus hand out the entry at once,
// and readers block only when they first look inside: the first build waits for the
// listing and receives its failure, if any; later builds return at once and see what
// the listing left.
//
// The listing reads the folder's attributes (its record: last modified and writable from
// them, extended attributes produced lazily), then lists the folder and makes one record
// per child. A child whose record cannot be made is skipped and logged (512); a failure
// of the folder's attributes or of the listing as a whole ends the listing and goes to
// the first reader.
//
// Thread-safety: as IFolderEntry. The listing thread fills the entry without its lock;
// no one reads the content before the listing has ended (every reader builds first).
// The destructor waits for a listing still running.
#pragma once

#include <core/metadata/IFolderEntry.hpp>
#include <core/metadata/LazyExtendedAttributes.hpp>

#include <foundation/storage/provider/FolderEntry.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <atomic>
#include <future>
#include <memory>

namespace storage::overlayprovider {

class FutureFolderEntry : public IFolderEntry {
 public:
  // Starts listing `location` (an inner-most IRI) through `inner`, the inner store's
  // root item.
  FutureFolderEntry(fsp::StorageIRI location, std::shared_ptr<fsp::StorageItem> inner);
  ~FutureFolderEntry() override;

  // Blocks until the listing has ended, without taking the entry's lock (a deferred
  // listing runs here). True when it succeeded. Does not consume the listing's failure:
  // the first build still receives it.
  bool awaitListing() const;
  // True once the first build has returned or thrown; from then on the entry behaves as
  // a plain IFolderEntry.
  bool isBuilt() const { return built_.load(std::memory_order_acquire); }

  // The producers of extended attributes that the records of one listing share (one for
  // files, one for folders: extendedAttributesProducer).
  struct Producers {
    LazyExtendedAttributes::SharedProducer file;
    LazyExtendedAttributes::SharedProducer folder;
  };
  static Producers producersFor(std::shared_ptr<fsp::StorageItem> const& inner);

  // The record for one listing entry `entry` found at `StorageIRI(*parent, name)`: for a
  // file, size, writable and last modified from the entry when it carries a size,
  // otherwise from the inner store's getFileAttributes; for a folder, from the entry's
  // folder attributes. Extended attributes as a value when the entry carries them,
  // otherwise the shared lazy producer. The record is not frozen. Passes on what the
  // inner store (or the IRI's construction) throws.
  static FileOrFolderMetadata recordFor(fsp::FolderEntry const& entry, RecordLocation::Parent parent,
                                        std::u16string name, std::shared_ptr<fsp::StorageItem> const& inner,
                                        Producers const& producers);
  // A producer that asks the inner store (an item with the path it is given) for the
  // extended attributes. When the store fails it logs "Problem retrieving extended
  // attributes (folder)" or "... (file)" (4) and "Exception caught: " with the failure's
  // text (16), and returns empty attributes: a failure to read attributes never reaches
  // the reader.
  static LazyExtendedAttributes::Producer extendedAttributesProducer(std::shared_ptr<fsp::StorageItem> inner,
                                                                     bool folder);

 protected:
  // Called with the entry's lock held: the first call waits for the listing and passes
  // on its failure; later calls return at once.
  void doBuildFolder() const override;

 private:
  // The listing itself, on the listing thread.
  void buildFolderDetail();

  std::shared_ptr<fsp::StorageItem> const inner_;
  std::shared_future<void> const listing_;  // set once at construction; only const members are used
  mutable std::atomic<bool> built_{false};  // written under the entry's lock, read anywhere
};

}  // namespace storage::overlayprovider
