// A provider that keeps caches which callers may ask it to drop.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

namespace foundation::storage::provider::extensions {

class IInvalidatable {
 public:
  virtual ~IInvalidatable() = default;
  // Forgets what is cached for `iri` and below.
  /* 56 */ virtual void doInvalidate(StorageIRI const& iri) = 0;
};

}  // namespace foundation::storage::provider::extensions
