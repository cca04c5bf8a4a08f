// Change events that providers publish about their items.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/property_tree/ptree.hpp>

#include <functional>
#include <vector>

namespace foundation::storage::events {

enum class Kind : int {
  Refresh = 1,   // anything at or below the location may have changed
  Added = 2,
  Modified = 3,
  Removed = 4,
};

enum class EntryType : int { File = 0, Folder = 1 };

enum class RecursiveFileWatching : int { Enabled = 0, Disabled = 1 };

// (kind, IRI subscribed to, IRI of the item that changed, entry type, details).
// A move is published as Removed at the source and Added at the destination; the
// details of both carry "from" and "to".
using Callback = std::function<void(Kind const&, provider::StorageIRI const&, provider::StorageIRI const&,
                                    EntryType const&, boost::property_tree::ptree)>;

char const* toString(Kind kind);

}  // namespace foundation::storage::events
