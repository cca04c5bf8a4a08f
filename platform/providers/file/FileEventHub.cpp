#include "FileEventHub.hpp"

#include "FileTree.hpp"
#include "OsErrors.hpp"

#include <fl/i18n.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

namespace providers::file::detail {

namespace {

foundation::log::diagnostic_logger& logger() {
  static foundation::log::diagnostic_logger instance("providers::file");
  return instance;
}

constexpr std::uint32_t kFolderMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE |
                                      IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

std::string joinPath(std::string const& folder, std::string const& name) {
  if (!folder.empty() && folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

bool isAtOrBelow(std::string const& path, std::string const& folder) {
  return path == folder || (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
                            path[folder.size()] == '/');
}

struct Subscription {
  std::uint64_t id = 0;
  sp::StorageIRI iri;     // as the subscriber gave it
  std::u16string key;     // the resolved IRI's text, matched by unsubscribe
  std::string fileName;   // file subscriptions: the watched entry; empty for folders
  bool recursive = false;
  std::vector<ev::Kind> kinds;  // empty: every kind
  ev::Callback callback;
  int rootWd = -1;                     // the watch on the subscribed folder (files: their folder)
  std::map<int, std::string> watches;  // watch descriptor -> native path of that folder
  std::shared_ptr<std::atomic<bool>> active = std::make_shared<std::atomic<bool>>(true);

  bool isFile() const { return !fileName.empty(); }
  bool wants(ev::Kind kind) const {
    return kinds.empty() || std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
  }
  ev::EntryType ownType() const { return isFile() ? ev::EntryType::File : ev::EntryType::Folder; }
};

// One callback call prepared under the mutex and made after it is released.
struct Pending {
  std::uint64_t subscription;
  std::shared_ptr<std::atomic<bool>> active;
  ev::Callback callback;
  ev::Kind kind;
  sp::StorageIRI subscribed;
  sp::StorageIRI location;
  ev::EntryType type;
  boost::property_tree::ptree details;
};

// The two halves of a rename seen in one read of the queue.
struct MovePair {
  std::optional<std::string> from;
  std::optional<std::string> to;
};

}  // namespace

struct FileEventHub::State {
  std::mutex mutex;  // guards every member below
  std::condition_variable roundEnded;  // notified when a callback round ends
  bool started = false;
  bool stopped = false;
  int inotifyFd = -1;
  int wakeFd = -1;
  std::thread thread;
  std::thread::id threadId;
  std::uint64_t nextId = 1;
  std::map<std::uint64_t, Subscription> subscriptions;
  std::map<int, std::set<std::uint64_t>> watchUsers;  // watch descriptor -> subscriptions using it
  bool dispatching = false;  // a callback round is running on the event thread
  std::uint64_t round = 0;   // rounds completed
  // Sources of renames whose IN_MOVED_TO has not been read yet (cookie -> native path),
  // oldest first, so that the destination half can name its source even when the two
  // halves arrive in different reads. Bounded: sources moved out of every watched folder
  // never get their other half.
  std::deque<std::pair<std::uint32_t, std::string>> unpairedSources;

  // Everything below: caller holds `mutex`.

  void ensureStarted(std::shared_ptr<State> const& self, sp::StorageIRI const& iri);
  // Adds a watch on the folder `path` for `sub`. Returns the descriptor, or -1 when the
  // folder is not there (any more). Throws for other failures.
  int addWatch(Subscription& sub, std::string const& path, bool followLinks);
  // Watches the folder `child` and everything below it (see watchBelow).
  void watchFolderBelow(Subscription& sub, std::string const& child, std::vector<Pending>* added);
  void removeWatch(Subscription& sub, int wd);
  void removeAllWatches(Subscription& sub);
  // Watches every folder below `path` (whose own watch exists). With `added`, publishes
  // each entry found as Added. Folders that cannot be read are skipped with a log record.
  void watchBelow(Subscription& sub, std::string const& path, std::vector<Pending>* added);
  std::optional<sp::StorageIRI> locationFor(Subscription const& sub, std::string const& path) const;
  void publish(std::vector<Pending>& out, Subscription const& sub, ev::Kind kind, sp::StorageIRI const& location,
               ev::EntryType type, boost::property_tree::ptree details) const;
  void handle(char const* buffer, std::size_t length, std::vector<Pending>& out);
  void handleOne(inotify_event const& event, std::map<std::uint32_t, MovePair> const& moves, std::vector<Pending>& out);

  static void run(std::shared_ptr<State> self);
};

void FileEventHub::State::ensureStarted(std::shared_ptr<State> const& self, sp::StorageIRI const& iri) {
  if (stopped) throw sp::Exception(sp::ErrorCode::NotSupported, iri, "the provider is shut down");
  if (started) return;
  int in = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (in < 0) throw osFailure(sp::ErrorCode::TransientFailure, errno, iri, "cannot start watching for changes (inotify)");
  int wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wake < 0) {
    int const err = errno;
    ::close(in);
    throw osFailure(sp::ErrorCode::TransientFailure, err, iri, "cannot start watching for changes (eventfd)");
  }
  inotifyFd = in;
  wakeFd = wake;
  thread = std::thread(&State::run, self);
  threadId = thread.get_id();
  started = true;
}

int FileEventHub::State::addWatch(Subscription& sub, std::string const& path, bool followLinks) {
  int wd = ::inotify_add_watch(inotifyFd, path.c_str(), kFolderMask | (followLinks ? 0 : IN_DONT_FOLLOW));
  if (wd < 0) {
    int const err = errno;
    if (err == ENOENT || err == ENOTDIR) return -1;
    if (err == ENOSPC) {
      throw osFailure(sp::ErrorCode::TransientFailure, err, sub.iri, "the limit of inotify watches is reached");
    }
    throw osFailure(err, sub.iri, "cannot watch " + path);
  }
  sub.watches.emplace(wd, path);  // a folder reached twice keeps its first path
  watchUsers[wd].insert(sub.id);
  return wd;
}

void FileEventHub::State::removeWatch(Subscription& sub, int wd) {
  sub.watches.erase(wd);
  if (sub.rootWd == wd) sub.rootWd = -1;
  auto users = watchUsers.find(wd);
  if (users == watchUsers.end()) return;
  users->second.erase(sub.id);
  if (users->second.empty()) {
    watchUsers.erase(users);
    (void)::inotify_rm_watch(inotifyFd, wd);  // EINVAL when the kernel already dropped it
  }
}

void FileEventHub::State::removeAllWatches(Subscription& sub) {
  while (!sub.watches.empty()) removeWatch(sub, sub.watches.begin()->first);
}

void FileEventHub::State::watchBelow(Subscription& sub, std::string const& path, std::vector<Pending>* added) {
  if (added == nullptr) {
    // Only the sub-folders are wanted: read from the folder itself, without a call per
    // file (a subscription over a tree of a million files reads a million names).
    std::vector<std::string> folders;
    try {
      DirFd dir = openFolder(path, sub.iri);
      folders = readSubFolders(dir.get(), sub.iri);
    } catch (std::exception const& e) {
      logger().log(foundation::log::Warning, "Changes below " + path + " are not watched: " + e.what());
      return;
    }
    for (auto const& name : folders) watchFolderBelow(sub, joinPath(path, name), nullptr);
    return;
  }
  std::vector<NativeEntry> entries;
  try {
    DirFd dir = openFolder(path, sub.iri);
    entries = readFolder(dir.get(), sub.iri, false, true);
  } catch (std::exception const& e) {
    logger().log(foundation::log::Warning, "Changes below " + path + " are not watched: " + e.what());
    return;
  }
  for (auto const& entry : entries) {
    auto const child = joinPath(path, entry.nativeName);
    bool const isFolder = S_ISDIR(entry.st.st_mode);
    if (auto location = locationFor(sub, child)) {
      boost::property_tree::ptree details;
      details.put("scan", true);
      publish(*added, sub, ev::Kind::Added, *location, isFolder ? ev::EntryType::Folder : ev::EntryType::File,
              std::move(details));
    }
    if (isFolder) watchFolderBelow(sub, child, added);
  }
}

void FileEventHub::State::watchFolderBelow(Subscription& sub, std::string const& child, std::vector<Pending>* added) {
  try {
    if (addWatch(sub, child, false) >= 0) watchBelow(sub, child, added);
  } catch (std::exception const& e) {
    logger().log(foundation::log::Warning, "Changes in " + child + " are not watched: " + e.what());
  }
}

std::optional<sp::StorageIRI> FileEventHub::State::locationFor(Subscription const& sub, std::string const& path) const {
  try {
    return sub.iri.withPath(fl::i18n::to_ustring(path));
  } catch (std::exception const&) {
    // Not valid UTF-8, or not expressible in an IRI: nobody could address the item.
    return std::nullopt;
  }
}

void FileEventHub::State::publish(std::vector<Pending>& out, Subscription const& sub, ev::Kind kind,
                                  sp::StorageIRI const& location, ev::EntryType type,
                                  boost::property_tree::ptree details) const {
  if (!sub.wants(kind)) return;
  // One write shows up as several IN_MODIFY and an IN_CLOSE_WRITE; publish it once.
  if (kind == ev::Kind::Modified && !out.empty()) {
    auto const& last = out.back();
    if (last.subscription == sub.id && last.kind == kind && last.location == location) return;
  }
  out.push_back(Pending{sub.id, sub.active, sub.callback, kind, sub.iri, location, type, std::move(details)});
}

void FileEventHub::State::handle(char const* buffer, std::size_t length, std::vector<Pending>& out) {
  // First pass: pair the halves of renames by cookie, so both can name source and target.
  std::map<std::uint32_t, MovePair> moves;
  for (auto const& [cookie, path] : unpairedSources) moves[cookie].from = path;
  for (std::size_t pos = 0; pos < length;) {
    auto const* event = reinterpret_cast<inotify_event const*>(buffer + pos);
    pos += sizeof(inotify_event) + event->len;
    if (!(event->mask & (IN_MOVED_FROM | IN_MOVED_TO)) || event->len == 0) continue;
    auto users = watchUsers.find(event->wd);
    if (users == watchUsers.end() || users->second.empty()) continue;
    auto owner = subscriptions.find(*users->second.begin());
    if (owner == subscriptions.end()) continue;
    auto folder = owner->second.watches.find(event->wd);
    if (folder == owner->second.watches.end()) continue;
    auto full = joinPath(folder->second, event->name);
    if (event->mask & IN_MOVED_FROM) {
      moves[event->cookie].from = std::move(full);
    } else {
      moves[event->cookie].to = std::move(full);
    }
  }
  std::set<std::uint32_t> readNow;
  for (std::size_t pos = 0; pos < length;) {
    auto const* event = reinterpret_cast<inotify_event const*>(buffer + pos);
    pos += sizeof(inotify_event) + event->len;
    if (event->mask & (IN_MOVED_FROM | IN_MOVED_TO)) readNow.insert(event->cookie);
    try {
      handleOne(*event, moves, out);
    } catch (std::exception const& e) {
      logger().log(foundation::log::Error, std::string("A change event was lost: ") + e.what());
    }
  }
  // Keep the sources still waiting for their destination half; drop the paired ones.
  std::erase_if(unpairedSources, [&](auto const& entry) { return moves.at(entry.first).to.has_value(); });
  for (auto cookie : readNow) {
    auto found = moves.find(cookie);
    if (found == moves.end()) continue;
    auto const& pair = found->second;
    bool const known = std::any_of(unpairedSources.begin(), unpairedSources.end(),
                                   [&](auto const& entry) { return entry.first == cookie; });
    if (pair.from && !pair.to && !known) unpairedSources.emplace_back(cookie, *pair.from);
  }
  constexpr std::size_t kMaxUnpaired = 256;
  while (unpairedSources.size() > kMaxUnpaired) unpairedSources.pop_front();
}

void FileEventHub::State::handleOne(inotify_event const& event, std::map<std::uint32_t, MovePair> const& moves,
                                    std::vector<Pending>& out) {
  if (event.mask & IN_Q_OVERFLOW) {
    for (auto const& [id, sub] : subscriptions) publish(out, sub, ev::Kind::Refresh, sub.iri, sub.ownType(), {});
    return;
  }
  auto users = watchUsers.find(event.wd);
  if (users == watchUsers.end()) return;
  std::vector<std::uint64_t> const ids(users->second.begin(), users->second.end());
  if (event.mask & IN_IGNORED) {
    // The kernel dropped the watch (its folder is gone): forget it everywhere.
    for (auto id : ids) {
      auto found = subscriptions.find(id);
      if (found == subscriptions.end()) continue;
      found->second.watches.erase(event.wd);
      if (found->second.rootWd == event.wd) found->second.rootWd = -1;
    }
    watchUsers.erase(event.wd);
    return;
  }

  for (auto id : ids) {
    auto found = subscriptions.find(id);
    if (found == subscriptions.end()) continue;
    auto& sub = found->second;
    auto folder = sub.watches.find(event.wd);
    if (folder == sub.watches.end()) continue;
    bool const atRoot = event.wd == sub.rootWd;

    if (event.len == 0) {
      // An event about the watched folder itself; below the root, the parent's watch
      // reports the same change with a name.
      if (!atRoot) continue;
      if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF)) {
        publish(out, sub, ev::Kind::Removed, sub.iri, sub.ownType(), {});
      } else if ((event.mask & IN_ATTRIB) && !sub.isFile()) {
        publish(out, sub, ev::Kind::Modified, sub.iri, ev::EntryType::Folder, {});
      }
      continue;
    }

    std::string const name(event.name);
    if (sub.isFile() && name != sub.fileName) continue;
    std::optional<ev::Kind> kind;
    if (event.mask & (IN_CREATE | IN_MOVED_TO)) {
      kind = ev::Kind::Added;
    } else if (event.mask & (IN_DELETE | IN_MOVED_FROM)) {
      kind = ev::Kind::Removed;
    } else if (event.mask & (IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB)) {
      kind = ev::Kind::Modified;
    }
    if (!kind) continue;

    auto const full = joinPath(folder->second, name);
    bool const isFolder = (event.mask & IN_ISDIR) != 0;
    auto const type = isFolder ? ev::EntryType::Folder : ev::EntryType::File;

    boost::property_tree::ptree details;
    if (event.mask & (IN_MOVED_FROM | IN_MOVED_TO)) {
      details.put("cookie", event.cookie);
      auto pair = moves.find(event.cookie);
      if (pair != moves.end() && pair->second.from && pair->second.to) {
        auto from = locationFor(sub, *pair->second.from);
        auto to = locationFor(sub, *pair->second.to);
        if (from) details.put("from", from->toUtf8());
        if (to) details.put("to", to->toUtf8());
      }
    }

    std::optional<sp::StorageIRI> location = sub.isFile() ? std::optional<sp::StorageIRI>(sub.iri) : locationFor(sub, full);
    if (location) publish(out, sub, *kind, *location, type, std::move(details));

    if (sub.recursive && isFolder) {
      if (*kind == ev::Kind::Added) {
        // Watch the new folder, then publish what it already holds: entries made before
        // the watch existed would otherwise go unseen.
        try {
          if (addWatch(sub, full, false) >= 0) watchBelow(sub, full, &out);
        } catch (std::exception const& e) {
          logger().log(foundation::log::Warning, "Changes in " + full + " are not watched: " + e.what());
        }
      } else if (*kind == ev::Kind::Removed) {
        // A folder moved away keeps its watches, under paths that are no longer true.
        std::vector<int> stale;
        for (auto const& [wd, path] : sub.watches) {
          if (wd != sub.rootWd && isAtOrBelow(path, full)) stale.push_back(wd);
        }
        for (int wd : stale) removeWatch(sub, wd);
      }
    }
  }
}

void FileEventHub::State::run(std::shared_ptr<State> self) {
  int inotifyFd = -1;
  int wakeFd = -1;
  {
    std::lock_guard lock(self->mutex);
    inotifyFd = self->inotifyFd;
    wakeFd = self->wakeFd;
  }
  // Large enough for many events per read; operator new aligns it for inotify_event.
  std::vector<char> storage(64 * 1024);
  char* const buffer = storage.data();
  pollfd fds[2] = {{inotifyFd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
  for (;;) {
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      logger().log(foundation::log::Error, "Change events stopped: poll failed: " + errorText(errno));
      break;
    }
    if (fds[1].revents != 0) break;
    if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
      logger().log(foundation::log::Error, "Change events stopped: the inotify descriptor failed");
      break;
    }
    if (!(fds[0].revents & POLLIN)) continue;
    ssize_t n = ::read(inotifyFd, buffer, storage.size());
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      logger().log(foundation::log::Error, "Change events stopped: reading inotify failed: " + errorText(errno));
      break;
    }

    std::vector<Pending> batch;
    {
      std::lock_guard lock(self->mutex);
      if (self->stopped) break;
      self->handle(buffer, static_cast<std::size_t>(n), batch);
      self->dispatching = true;
    }
    for (auto& call : batch) {
      if (!call.active->load()) continue;  // ended by an earlier callback of this round
      try {
        call.callback(call.kind, call.subscribed, call.location, call.type, std::move(call.details));
      } catch (std::exception const& e) {
        logger().log(foundation::log::Error, std::string("A change event callback failed: ") + e.what());
      } catch (...) {
        logger().log(foundation::log::Error, "A change event callback failed with a non-standard exception");
      }
    }
    batch.clear();  // drops the callback copies before the round counts as ended
    {
      std::lock_guard lock(self->mutex);
      self->dispatching = false;
      ++self->round;
    }
    self->roundEnded.notify_all();
  }

  std::lock_guard lock(self->mutex);
  self->stopped = true;  // also after a failure: further subscriptions are refused
  self->dispatching = false;
  ::close(self->inotifyFd);
  ::close(self->wakeFd);
  self->inotifyFd = -1;
  self->wakeFd = -1;
  for (auto& [id, sub] : self->subscriptions) sub.active->store(false);
  self->subscriptions.clear();
  self->watchUsers.clear();
  self->roundEnded.notify_all();
}

FileEventHub::FileEventHub() : state_(std::make_shared<State>()) {}

FileEventHub::~FileEventHub() { stop(); }

void FileEventHub::subscribeFolder(sp::StorageIRI const& iri, std::string const& path, ev::Callback const& callback,
                                   std::vector<ev::Kind> const& kinds, bool recursive) {
  auto& s = *state_;
  std::lock_guard lock(s.mutex);
  s.ensureStarted(state_, iri);
  Subscription sub;
  sub.id = s.nextId++;
  sub.iri = iri;
  sub.key = iri.getResolvedIRI().toString();
  sub.recursive = recursive;
  sub.kinds = kinds;
  sub.callback = callback;
  try {
    sub.rootWd = s.addWatch(sub, path, true);
    if (sub.rootWd < 0) throw sp::Exception(sp::ErrorCode::DoesNotExist, iri, "no folder here");
    if (recursive) s.watchBelow(sub, path, nullptr);
  } catch (...) {
    s.removeAllWatches(sub);
    throw;
  }
  s.subscriptions.emplace(sub.id, std::move(sub));
}

void FileEventHub::subscribeFile(sp::StorageIRI const& iri, std::string const& folderPath, std::string const& fileName,
                                 ev::Callback const& callback) {
  auto& s = *state_;
  std::lock_guard lock(s.mutex);
  s.ensureStarted(state_, iri);
  Subscription sub;
  sub.id = s.nextId++;
  sub.iri = iri;
  sub.key = iri.getResolvedIRI().toString();
  sub.fileName = fileName;
  sub.callback = callback;
  sub.rootWd = s.addWatch(sub, folderPath, true);
  if (sub.rootWd < 0) throw sp::Exception(sp::ErrorCode::DoesNotExist, iri.getParent(), "no folder here");
  s.subscriptions.emplace(sub.id, std::move(sub));
}

void FileEventHub::unsubscribe(sp::StorageIRI const& iri) {
  auto& s = *state_;
  auto const key = iri.getResolvedIRI().toString();
  std::unique_lock lock(s.mutex);
  for (auto it = s.subscriptions.begin(); it != s.subscriptions.end();) {
    if (it->second.key != key) {
      ++it;
      continue;
    }
    it->second.active->store(false);
    s.removeAllWatches(it->second);
    it = s.subscriptions.erase(it);
  }
  if (s.dispatching && std::this_thread::get_id() != s.threadId) {
    auto const round = s.round;
    s.roundEnded.wait(lock, [&] { return !s.dispatching || s.round != round; });
  }
}

void FileEventHub::stop() {
  auto& s = *state_;
  std::thread toJoin;
  {
    std::lock_guard lock(s.mutex);
    s.stopped = true;
    for (auto& [id, sub] : s.subscriptions) {
      sub.active->store(false);
      s.removeAllWatches(sub);
    }
    s.subscriptions.clear();
    if (!s.thread.joinable()) return;
    if (s.wakeFd >= 0) {
      std::uint64_t one = 1;
      (void)!::write(s.wakeFd, &one, sizeof one);
    }
    if (std::this_thread::get_id() == s.threadId) {
      s.thread.detach();
      return;
    }
    toJoin = std::move(s.thread);
  }
  toJoin.join();
}

}  // namespace providers::file::detail
