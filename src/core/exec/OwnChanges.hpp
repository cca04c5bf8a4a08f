// OwnChanges: the overlay's own folder changes of the inner store, on their way or made
// a moment ago, so that the store's events that merely echo them can be told apart.
//
// A store that publishes change events publishes the overlay's own changes as well: a
// folder the overlay created comes back as "Added", one it removed as "Removed". Taken as
// changes made elsewhere, these echoes make the overlay drop what it has cached around
// them (the echo of a folder made at the top of the tree drops all of it), and the next
// look at any of it waits for the store again.
//
// The executor handle reports each change it takes (`taken`, with its type and what it
// touches) and when the change has run or was let go (`settled`). Folder creations,
// removals and moves are recorded: a creation expects "Added" at its folder, a removal
// "Removed", a move "Removed" at its source and "Added" at its destination. A folder
// event is an echo when it is such an expected event at exactly such a location and the
// change is still on its way or settled at most `window` ago. Such an event says what the
// overlay's caches already hold, whoever caused it, so dropping it loses nothing: a folder
// removed and made again elsewhere shows as "Removed" first, which is not dropped, and
// what is made inside comes as events of its own. File events are never echoes: a change
// made elsewhere to a file the overlay has just written looks the same as the echo of the
// write. Locations are compared by their path in the inner store (events and the
// overlay's calls may name the store's host differently).
//
// Thread-safety: every operation may be called from any thread; one mutex guards the
// record. The clock is injected so that tests move time by hand.
#pragma once

#include <core/exec/ObservableTransactionType.hpp>
#include <core/exec/Touches.hpp>
#include <core/util/Mutex.hpp>
#include <core/util/SteadyClock.hpp>

#include <foundation/storage/events/Events.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace storage::overlayprovider {

class OwnChanges {
 public:
  using Clock = std::chrono::steady_clock;
  using Kind = foundation::storage::events::Kind;
  using EntryType = foundation::storage::events::EntryType;

  explicit OwnChanges(std::chrono::milliseconds window, SteadyClockSource clock = &steadyNow);

  OwnChanges(OwnChanges const&) = delete;
  OwnChanges& operator=(OwnChanges const&) = delete;

  // A change of type `type` that touches `touches` is on its way to the store. Only
  // folder creations, removals and moves are recorded.
  void taken(ObservableTransactionType type, Touches const& touches) EXCLUDES(mutex_);
  // The change reported by `taken(type, touches)` has run, or was let go unrun.
  void settled(ObservableTransactionType type, Touches const& touches) EXCLUDES(mutex_);

  // Whether the event (`kind` of the `entryType` at `location`) is the echo of one of the
  // overlay's own changes (see above).
  bool isEcho(foundation::storage::provider::StorageIRI const& location, Kind kind, EntryType entryType) const
      EXCLUDES(mutex_);

  std::chrono::milliseconds window() const noexcept { return window_; }

 private:
  struct Record {
    long onTheWay = 0;          // changes taken and not yet settled
    Clock::time_point settled;  // when the last of them settled
    bool added = false;         // "Added" is expected here
    bool removed = false;       // "Removed" is expected here
  };
  // A recorded location's path and the kind of event the change makes there.
  using Expectation = std::pair<std::u16string, Kind>;

  // What a change of `type` touching `touches` makes the store publish (nothing for
  // changes other than folder creations, removals and moves; a location that does not
  // parse is left out).
  static std::vector<Expectation> expectationsOf(ObservableTransactionType type, Touches const& touches);
  // Forgets the records that can no longer make an echo, once the record has doubled.
  void prune(Clock::time_point now) REQUIRES(mutex_);

  std::chrono::milliseconds const window_;
  SteadyClockSource const clock_;
  mutable Mutex mutex_;
  std::map<std::u16string, Record> byPath_ GUARDED_BY(mutex_);
  std::size_t pruneAt_ GUARDED_BY(mutex_) = 64;
};

}  // namespace storage::overlayprovider
