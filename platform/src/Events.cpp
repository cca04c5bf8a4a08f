#include <foundation/storage/events/Events.hpp>

namespace foundation::storage::events {

char const* toString(Kind kind) {
  switch (kind) {
    case Kind::Refresh: return "Refresh";
    case Kind::Added: return "Added";
    case Kind::Modified: return "Modified";
    case Kind::Removed: return "Removed";
  }
  return "Unknown";
}

}  // namespace foundation::storage::events
