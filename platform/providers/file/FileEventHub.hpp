// FileEventHub: the file store's change events, from one inotify instance read by one
// thread.
//
// The inotify descriptor and the thread are made by the first subscription and end with
// stop(). The thread waits in poll() on the inotify descriptor and an eventfd that stop()
// signals. It turns each read of the queue into a batch of callback calls under the
// hub's mutex, then makes the calls with no mutex held. Folder watches are shared between
// subscriptions and counted, so that ending one subscription keeps the watches another
// one still needs.
//
// Thread-safe. The shared state lives in a block that the thread co-owns, so the hub (and
// the provider that owns it) may be destroyed from inside a callback.
#pragma once

#include <foundation/storage/events/Events.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <memory>
#include <string>
#include <vector>

namespace providers::file::detail {

namespace sp = foundation::storage::provider;
namespace ev = foundation::storage::events;

class FileEventHub {
 public:
  FileEventHub();
  // stop().
  ~FileEventHub();

  FileEventHub(FileEventHub const&) = delete;
  FileEventHub& operator=(FileEventHub const&) = delete;

  // Watches the folder at `path` (and, when `recursive`, every folder below it) for the
  // subscriber `iri`. The watches are in place on return. Throws Exception naming `iri`:
  // DoesNotExist when `path` is not a folder, NotSupported after stop(), TransientFailure
  // (or the mapped code) when inotify refuses. Folders below that cannot be read are left
  // unwatched, with a log record.
  void subscribeFolder(sp::StorageIRI const& iri, std::string const& path, ev::Callback const& callback,
                       std::vector<ev::Kind> const& kinds, bool recursive);
  // Watches the entry `fileName` of the folder `folderPath` for the subscriber `iri`.
  void subscribeFile(sp::StorageIRI const& iri, std::string const& folderPath, std::string const& fileName,
                     ev::Callback const& callback);
  // Ends the subscriptions whose IRI resolves like `iri`. Unless called on the event
  // thread, waits for a callback round in progress to end, so that no callback of those
  // subscriptions runs after the return.
  void unsubscribe(sp::StorageIRI const& iri);
  // Ends every subscription and the thread, and closes the descriptors. Idempotent. On the
  // event thread it does not wait: the thread ends when the running callback returns.
  void stop();

 private:
  struct State;
  std::shared_ptr<State> const state_;
};

}  // namespace providers::file::detail
