// A provider that caches its store and learns of changes made elsewhere from the store's
// events tells a host when it has acted on such a change, so that the host drops caches
// of its own (a kernel's pages, say) at the moment the provider answers with the change,
// not before: dropped at the store's event, they would be filled again from the
// provider's caches while these still held the item as it was.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <functional>

namespace foundation::storage::provider::extensions {

class IAppliedChanges {
 public:
  // Called with the store's IRI of the item that changed (a file or a folder; the root
  // of the store when everything may have changed), on a thread of the provider's.
  using Callback = std::function<void(StorageIRI const& location)>;

  virtual ~IAppliedChanges() = default;

  // From now on `callback` is called for each change made elsewhere once the provider's
  // caches no longer answer with the item as it was. Replaces an earlier callback; an
  // empty one stops the calls. Thread-safe.
  virtual void onAppliedChanges(Callback callback) = 0;
};

}  // namespace foundation::storage::provider::extensions
