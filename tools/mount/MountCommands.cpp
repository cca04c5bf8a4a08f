#define FUSE_USE_VERSION 312
#include <ovl/MountCommands.hpp>

#include <ovl/ControlChannel.hpp>
#include <ovl/Format.hpp>
#include <ovl/FuseFileSystem.hpp>
#include <ovl/Overlay.hpp>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <fuse3/fuse.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <pthread.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace ovl {

namespace {

namespace fs = std::filesystem;
namespace ptree = boost::property_tree;
using mount::FuseFileSystem;

// The descriptor a background start hands its serving process, to learn that the mount
// is in place ("ready") or that it could not be made (end of file).
constexpr char const* kReadyVariable = "OVL_MOUNT_READY_FD";

// What get_child answers for a missing list (it returns a reference to its default).
ptree::ptree const kNoChildren;

fs::path mountPointOf(std::string const& text) {
  std::error_code error;
  auto const absolute = fs::absolute(text, error);
  if (error || !fs::is_directory(absolute)) throw CommandError(text, "the mount point must be an existing folder");
  return absolute.lexically_normal();
}

// This program's own arguments, as it was started.
std::vector<std::string> ownArguments() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  std::vector<std::string> args;
  for (std::string arg; std::getline(in, arg, '\0');) args.push_back(arg);
  return args;
}

// Runs `argv` and waits for it; its exit status, or -1 when it could not run.
int runProgram(std::vector<std::string> const& argv) {
  std::vector<char*> raw;
  for (auto const& arg : argv) raw.push_back(const_cast<char*>(arg.c_str()));
  raw.push_back(nullptr);
  pid_t const child = ::fork();
  if (child == 0) {
    ::execvp(raw[0], raw.data());
    ::_exit(127);
  }
  if (child < 0) return -1;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Unmounts `mountPoint`; `lazy` detaches it even while files are open there (they are
// still served until closed). The error text, or nothing when it worked.
std::optional<std::string> unmount(fs::path const& mountPoint, bool lazy) {
  if (::geteuid() == 0) {
    if (::umount2(mountPoint.c_str(), lazy ? MNT_DETACH : 0) == 0) return std::nullopt;
    if (errno == EBUSY) return std::string("busy: a program has a file or folder open there");
    return std::string(std::strerror(errno));
  }
  std::vector<std::string> argv{"fusermount3", "-u"};
  if (lazy) argv.push_back("-z");
  argv.push_back(mountPoint.string());
  if (runProgram(argv) == 0) return std::nullopt;
  return std::string("fusermount3 -u could not unmount it");
}

std::uint64_t folderBytes(fs::path const& folder) {
  std::uint64_t total = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    if (it->is_regular_file(error)) total += it->file_size(error);
  }
  return total;
}

// Everything `ovl status` shows, as one JSON tree.
struct StatusSource {
  std::string store;
  fs::path mountPoint;
  ToolSettings overlay;
  fs::path cacheFolder;
  FuseFileSystem* files = nullptr;
  foundation::storage::provider::extensions::IWriteBehindStatus* status = nullptr;
  std::atomic<bool> draining{false};
  std::atomic<bool> reportWanted{false};  // an ovl umount waits for the final report

  ptree::ptree tree() const {
    ptree::ptree t;
    t.put("mountpoint", mountPoint.string());
    t.put("store", store);
    t.put("pid", ::getpid());
    t.put("phase", draining ? "draining" : "serving");
    t.put("transfers", overlay.transfers);
    t.put("echoWindowMs", overlay.echoWindowMs);
    t.put("narrowInvalidation", overlay.narrowInvalidation);
    t.put("holdEventsForChangesOnly", overlay.holdEventsForChangesOnly);
    if (status) {
      auto const q = status->getQueueFigures();
      t.put("queue.queued", q.queued);
      t.put("queue.queued_bytes", q.queuedBytes);
      t.put("queue.drains", q.drains);
      t.put("queue.longest_busy_ms", q.longestBusyPeriodMs);
      t.put("queue.longest_wait_ms", q.longestWaitMs);
      t.put("queue.average_wait_ms", q.averageWaitMs);
      for (auto const& [kind, count] : q.transactions) t.put(ptree::ptree::path_type("queue.transactions." + kind, '|'), count);
    }
    auto const snapshot = files->snapshot();
    t.put("open_files", snapshot.openFiles);
    ptree::ptree writing;
    for (auto const& path : snapshot.openForWriting) writing.push_back({"", ptree::ptree(path)});
    t.add_child("open_for_writing", writing);
    t.put("failures.count", snapshot.failureCount);
    ptree::ptree recent;
    for (auto const& failure : snapshot.failures) {
      ptree::ptree one;
      one.put("path", failure.path);
      one.put("change", failure.change);
      one.put("cause", failure.cause);
      recent.push_back({"", one});
    }
    t.add_child("failures.recent", recent);
    if (!cacheFolder.empty()) {
      t.put("cache.folder", cacheFolder.string());
      t.put("cache.bytes", folderBytes(cacheFolder));
      std::error_code error;
      auto const space = fs::space(cacheFolder, error);
      if (!error) t.put("cache.free_bytes", space.available);
    }
    return t;
  }

  std::string json() const {
    std::ostringstream out;
    ptree::write_json(out, tree(), true);
    return out.str();
  }
};

// The store folder `text` names (an IRI or a local path), seen through a throttle rooted
// at it: with the session's latency and bandwidth when --throttle-ms/--throttle-mbps were
// given, else with none. Throws CommandError naming `text` when it is not an existing
// folder. Rooting matters beyond the delay: the overlay keeps the record of its root in
// the listing of the folder above, and over a folder of a local disk that is the folder
// holding the mount point, whose listing would ask this very mount for attributes.
fsp::StorageItem rootedStore(Session& session, std::string const& text) {
  fsp::StorageItem plain;
  try {
    plain = session.registry().resolve(text);
  } catch (std::exception const& e) {
    throw CommandError(text, e.what());
  }
  if (!plain.folderExists()) throw CommandError(text, "the store must be an existing folder");
  auto const folder = fsp::StorageIRI(plain.getLocation().getResolvedIRI(), u"/");
  providers::throttle::Options none;
  none.latency = std::chrono::microseconds(0);
  none.bytesPerSecond = 0;
  auto const provider = std::make_shared<providers::throttle::ThrottleProvider>(
      fsp::StorageItem(plain.getProvider(), folder), session.throttle().value_or(none));
  return fsp::StorageItem(provider, fsp::StorageIRI(providers::throttle::kScheme, folder, u"/"));
}

// Shows, on a terminal, how many changes are still on their way while `drain` runs.
void drainShowingProgress(Session& session, StatusSource const& source, std::function<void()> const& drain) {
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  std::thread shower;
  if (session.errIsTerminal() && source.status) {
    shower = std::thread([&] {
      std::unique_lock lock(mutex);
      while (!done.wait_for(lock, std::chrono::milliseconds(250), [&] { return finished; })) {
        auto const q = source.status->getQueueFigures();
        session.err() << "\rovl mount: writing to the store: " << q.queued << " changes (" << humanSize(q.queuedBytes)
                      << ") to go   " << std::flush;
      }
    });
  }
  // The progress line stops, and is wiped, however the drain ends.
  struct Stop {
    std::mutex& mutex;
    std::condition_variable& done;
    bool& finished;
    std::thread& shower;
    std::ostream& err;
    ~Stop() {
      {
        std::lock_guard lock(mutex);
        finished = true;
      }
      done.notify_all();
      if (!shower.joinable()) return;
      shower.join();
      err << "\r" << std::string(60, ' ') << "\r" << std::flush;
    }
  } stop{mutex, done, finished, shower, session.err()};
  drain();
}

// One line per failed change of a "failures.recent" list: "  PATH (CHANGE): CAUSE".
void printFailures(std::ostream& out, ptree::ptree const& failures) {
  for (auto const& one : failures) {
    out << "  " << one.second.get<std::string>("path", "") << " (" << one.second.get<std::string>("change", "")
        << "): " << one.second.get<std::string>("cause", "") << '\n';
  }
}

// Blocks the termination signals for this thread and every thread it starts after; one
// thread of ours takes them with sigwait (see Signals).
class Signals {
 public:
  explicit Signals(std::function<void(int)> onSignal) {
    sigemptyset(&set_);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigaddset(&set_, sig);
    pthread_sigmask(SIG_BLOCK, &set_, &previous_);
    onSignal_ = std::move(onSignal);
  }
  void start() {
    thread_ = std::thread([this] {
      for (;;) {
        int sig = 0;
        if (sigwait(&set_, &sig) != 0) continue;
        if (sig == SIGUSR1) return;  // stop()
        onSignal_(sig);
      }
    });
  }
  void stop() {
    if (!thread_.joinable()) return;
    pthread_kill(thread_.native_handle(), SIGUSR1);
    thread_.join();
  }
  ~Signals() {
    stop();
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }

 private:
  sigset_t set_;
  sigset_t previous_;
  std::function<void(int)> onSignal_;
  std::thread thread_;
};

void detachFromTerminal() {
  int const null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) return;
  ::dup2(null, 0);
  ::dup2(null, 1);
  ::dup2(null, 2);
  ::close(null);
}

int serve(Session& session, Arguments const& args, std::string const& storeText, fs::path const& mountPoint) {
  std::atomic<int> signalled{0};
  struct fuse* mounted = nullptr;
  Signals signals([&](int sig) {
    if (signalled.exchange(sig) != 0) {
      // A second signal: end now, as the signal would by default.
      std::_Exit(128 + sig);
    }
    if (mounted) fuse_exit(mounted);
    unmount(mountPoint, true);
  });

  StatusSource source;
  source.store = storeText;
  source.mountPoint = mountPoint;
  auto config = withToolSettings(session.config(), args, source.overlay);
  source.cacheFolder = config.get<std::string>("overlay.cacheRoot", "");
  OverlayHost host(session.registry(), session.bundlePath(), config);
  auto const inner = rootedStore(session, storeText);
  auto const root = host.over(inner, inner.getLocation());
  source.status = dynamic_cast<fsp::extensions::IWriteBehindStatus*>(root.getProvider().get());
  FuseFileSystem files(root, inner, source.status, u"/");
  source.files = &files;

  std::string const options = "fsname=ovl,subtype=ovl,default_permissions";
  std::vector<std::string> fuseArgs{"ovl", "-o", options};
  std::vector<char*> raw;
  for (auto& arg : fuseArgs) raw.push_back(arg.data());
  fuse_args parsed = FUSE_ARGS_INIT(static_cast<int>(raw.size()), raw.data());
  mounted = fuse_new(&parsed, &FuseFileSystem::operations(), sizeof(fuse_operations), &files);
  fuse_opt_free_args(&parsed);
  if (!mounted) throw CommandError(mountPoint.string(), "libfuse refused the mount options (" + options + ")");
  if (fuse_mount(mounted, mountPoint.c_str()) != 0) {
    fuse_destroy(mounted);
    throw CommandError(mountPoint.string(), "cannot mount here (is /dev/fuse there and fuse3 installed, and is the "
                                            "folder not mounted already?)");
  }
  files.watchStore(mounted);
  std::optional<mount::ControlServer> control;
  auto const socket = mount::controlSocketFor(mountPoint, true);
  try {
    // A report left by an earlier mount here that nobody read goes.
    std::error_code ignored;
    fs::remove(mount::reportPathFor(socket), ignored);
    control.emplace(socket, [&](std::string const& request) {
      if (request == "report") source.reportWanted = true;
      if (request == "no-report") source.reportWanted = false;
      return source.json();
    });
  } catch (std::exception const& e) {
    fuse_unmount(mounted);
    fuse_destroy(mounted);
    throw CommandError(mountPoint.string(), std::string("cannot answer ovl status: ") + e.what());
  }
  signals.start();

  if (char const* ready = std::getenv(kReadyVariable)) {
    int const fd = std::atoi(ready);
    ::unsetenv(kReadyVariable);
    [[maybe_unused]] auto const n = ::write(fd, "ready\n", 6);
    ::close(fd);
    detachFromTerminal();
  } else {
    session.out() << "ovl mount: " << storeText << " is mounted at " << mountPoint.string() << " ("
                  << source.overlay.describe() << "); Ctrl-C or 'ovl umount " << mountPoint.string()
                  << "' writes everything to the store and ends it" << std::endl;
  }

  fuse_loop_config* loop = fuse_loop_cfg_create();
  fuse_loop_cfg_set_max_threads(loop, 16);
  fuse_loop_mt(mounted, loop);
  fuse_loop_cfg_destroy(loop);
  files.stopWatching();
  fuse_unmount(mounted);

  source.draining = true;
  std::string drainFailure;
  try {
    drainShowingProgress(session, source, [&] { host.flush(); });
  } catch (std::exception const& e) {
    drainFailure = e.what();
  }
  auto const snapshot = files.snapshot();
  auto const& later = host.delivered().undelivered;
  std::uint64_t const failed = snapshot.failureCount + later.size();

  ptree::ptree report;
  report.put("delivered", failed == 0 && drainFailure.empty());
  report.put("failures.count", failed);
  ptree::ptree lines;
  auto add = [&](std::string const& path, std::string const& change, std::string const& cause) {
    ptree::ptree one;
    one.put("path", path);
    one.put("change", change);
    one.put("cause", cause);
    lines.push_back({"", one});
  };
  for (auto const& failure : snapshot.failures) add(failure.path, failure.change, failure.cause);
  for (auto const& change : later) {
    add(files.mountPathOf(change.location), change.change, causeText(change.code, change.cause));
  }
  report.add_child("failures.recent", lines);
  if (!drainFailure.empty()) report.put("error", drainFailure);
  if (source.reportWanted) {
    auto const reportPath = mount::reportPathFor(socket);
    auto const written = reportPath.string() + ".part";
    std::ofstream out(written);
    ptree::write_json(out, report, true);
    out.close();
    fs::rename(written, reportPath);
  }
  control.reset();
  signals.stop();
  fuse_destroy(mounted);

  if (failed == 0 && drainFailure.empty()) {
    session.out() << "ovl mount: unmounted " << mountPoint.string() << "; everything reached the store" << std::endl;
    return 0;
  }
  if (!drainFailure.empty()) session.err() << "ovl mount: writing to the store failed: " << drainFailure << '\n';
  session.err() << "ovl mount: " << failed << " change(s) did not reach the store:\n";
  printFailures(session.err(), report.get_child("failures.recent"));
  return 1;
}

int startInBackground(Session& session, std::string const& storeText, fs::path const& mountPoint) {
  auto args = ownArguments();
  if (args.empty()) throw CommandError("/proc/self/cmdline", "cannot read this program's arguments");
  args.push_back("--foreground");
  std::vector<char*> raw;
  for (auto& arg : args) raw.push_back(arg.data());
  raw.push_back(nullptr);
  int ready[2];
  if (::pipe2(ready, O_CLOEXEC) != 0) throw CommandError(mountPoint.string(), "cannot make a pipe to the mount process");
  ::setenv(kReadyVariable, std::to_string(ready[1]).c_str(), 1);
  session.out().flush();
  session.err().flush();
  pid_t const child = ::fork();
  if (child == 0) {
    ::setsid();
    ::fcntl(ready[1], F_SETFD, 0);
    ::execv("/proc/self/exe", raw.data());
    ::_exit(127);
  }
  ::unsetenv(kReadyVariable);
  ::close(ready[1]);
  if (child < 0) {
    ::close(ready[0]);
    throw CommandError(mountPoint.string(), "cannot start the mount process");
  }
  char said[16] = {};
  ssize_t n;
  while ((n = ::read(ready[0], said, sizeof said - 1)) < 0 && errno == EINTR) {
  }
  ::close(ready[0]);
  if (n > 0 && std::string(said, static_cast<std::size_t>(n)).rfind("ready", 0) == 0) {
    session.out() << "ovl mount: " << storeText << " is mounted at " << mountPoint.string() << " (process " << child
                  << "); 'ovl umount " << mountPoint.string() << "' writes everything to the store and unmounts\n";
    return 0;
  }
  // The mount process said why on the standard error it shares with us, and ended.
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) != 0 ? WEXITSTATUS(status) : 1;
}

int runMount(Session& session, Arguments const& args) {
  auto const& storeText = args.operands[0];
  auto const mountPoint = mountPointOf(args.operands[1]);
  if (!args.has("--foreground")) return startInBackground(session, storeText, mountPoint);
  return serve(session, args, storeText, mountPoint);
}

// The JSON tree of `answer`; nothing when there is none or it is not JSON.
std::optional<ptree::ptree> parsed(std::optional<std::string> const& answer) {
  if (!answer || answer->empty()) return std::nullopt;
  ptree::ptree tree;
  std::istringstream in(*answer);
  try {
    ptree::read_json(in, tree);
  } catch (std::exception const&) {
    return std::nullopt;
  }
  return tree;
}

std::optional<ptree::ptree> askStatus(fs::path const& socket, std::string const& request = "status") {
  return parsed(mount::askControl(socket, request));
}

int runUmount(Session& session, Arguments const& args) {
  auto const mountPoint = mountPointOf(args.operands[0]);
  auto const socket = mount::controlSocketFor(mountPoint, false);
  auto const status = askStatus(socket, "report");
  if (!status) throw CommandError(mountPoint.string(), "no ovl mount answers for this folder");
  pid_t const pid = status->get<pid_t>("pid", 0);
  if (auto const failure = unmount(mountPoint, false)) {
    mount::askControl(socket, "no-report");
    throw CommandError(mountPoint.string(), "cannot unmount: " + *failure);
  }
  // The mount process now drains its queue into the store; wait for its report.
  while (pid > 0 && ::kill(pid, 0) == 0) {
    if (auto const now = askStatus(socket)) {
      if (session.errIsTerminal()) {
        session.err() << "\rovl umount: writing to the store: " << now->get<std::string>("queue.queued", "?")
                      << " changes (" << humanSize(now->get<std::uint64_t>("queue.queued_bytes", 0)) << ") to go   "
                      << std::flush;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (session.errIsTerminal()) session.err() << "\r" << std::string(60, ' ') << "\r" << std::flush;
  auto const reportPath = mount::reportPathFor(socket);
  ptree::ptree report;
  try {
    ptree::read_json(reportPath.string(), report);
  } catch (std::exception const&) {
    throw CommandError(mountPoint.string(), "unmounted, but the mount process ended without its report: whether "
                                            "everything reached the store is unknown");
  }
  fs::remove(reportPath);
  if (report.get<bool>("delivered", false)) {
    session.out() << "ovl umount: " << mountPoint.string() << ": everything reached the store\n";
    return 0;
  }
  session.err() << "ovl umount: " << mountPoint.string() << ": " << report.get<std::string>("failures.count", "?")
                << " change(s) did not reach the store:\n";
  printFailures(session.err(), report.get_child("failures.recent", kNoChildren));
  if (auto const error = report.get_optional<std::string>("error")) session.err() << "  " << *error << '\n';
  return 1;
}

int runStatus(Session& session, Arguments const& args) {
  auto const mountPoint = mountPointOf(args.operands[0]);
  auto const socket = mount::controlSocketFor(mountPoint, false);
  auto const answer = mount::askControl(socket, "status");
  if (!answer || answer->empty()) throw CommandError(mountPoint.string(), "no ovl mount answers for this folder");
  if (args.has("--json")) {
    session.out() << *answer;
    return 0;
  }
  auto const status = parsed(answer);
  if (!status) throw CommandError(mountPoint.string(), "the mount process gave an answer that is not JSON");
  auto& out = session.out();
  auto const& s = *status;
  out << "mount point       " << s.get<std::string>("mountpoint", "") << '\n'
      << "store             " << s.get<std::string>("store", "") << '\n'
      << "process           " << s.get<std::string>("pid", "") << " (" << s.get<std::string>("phase", "") << ")\n"
      << "transfers         " << s.get<std::string>("transfers", "") << '\n'
      << "not yet in store  " << s.get<std::string>("queue.queued", "0") << " queued changes carrying "
      << humanSize(s.get<std::uint64_t>("queue.queued_bytes", 0)) << "\n"
      << "open files        " << s.get<std::string>("open_files", "0");
  auto const writing = s.get_child("open_for_writing", kNoChildren);
  if (!writing.empty()) {
    out << ", for writing:";
    for (auto const& one : writing) out << ' ' << one.second.data();
  }
  out << '\n' << "failed changes    " << s.get<std::string>("failures.count", "0") << '\n';
  printFailures(out, s.get_child("failures.recent", kNoChildren));
  out << "queue             " << s.get<std::string>("queue.drains", "0") << " drains, longest wait "
      << s.get<std::string>("queue.longest_wait_ms", "0") << " ms, average wait " << std::fixed
      << std::setprecision(1) << s.get<double>("queue.average_wait_ms", 0) << " ms\n";
  if (auto const bytes = s.get_optional<std::uint64_t>("cache.bytes")) {
    out << "cache             " << humanSize(*bytes) << " in " << s.get<std::string>("cache.folder", "");
    if (auto const free = s.get_optional<std::uint64_t>("cache.free_bytes")) out << ", " << humanSize(*free) << " free";
    out << '\n';
  }
  return 0;
}

}  // namespace

std::vector<Command> mountCommands() {
  return {
      {"mount",
       {"STORE", "MOUNTPOINT"},
       0,
       "Serve the overlay over a store as a file system that every program can use",
       "Lays the overlay over the store folder STORE (an IRI or a local folder; with\n"
       "--throttle-ms/--throttle-mbps through a throttle, as a remote store would be) and mounts\n"
       "it at the existing folder MOUNTPOINT with libfuse. Programs read and write there as on a\n"
       "local disk; changes reach the store in the background, with 8 transfers at once unless\n"
       "--transfers says otherwise; the store's change events are handled with the refinements\n"
       "of 'ovl demo' (the echoes of its own folder changes of the last 5 s dropped, narrow\n"
       "invalidation, events held back by its own changes only; --plain-events switches them\n"
       "off). Runs in the background unless --foreground. On unmount\n"
       "(ovl umount), SIGTERM, SIGINT or SIGHUP the overlay writes everything still queued to\n"
       "the store, then says whether everything arrived: exit status 0 when it did, 1 otherwise.\n"
       "close() returns once the bytes are in the overlay's cache; fsync() once the file's\n"
       "changes are in the store; a change the store refused makes the file's next close or\n"
       "fsync fail with EIO. The overlay takes --config/--set.",
       {{"--foreground", "-f", "stay attached: serve until unmounted or interrupted, then drain"},
        {"--transfers", "", kTransfersHelp, "N"},
        {"--echo-window-ms", "", kEchoWindowHelp, "N"},
        {"--plain-events", "", kPlainEventsHelp}},
       runMount},
      {"umount",
       {"MOUNTPOINT"},
       0,
       "Unmount an ovl mount once everything it holds is in the store",
       "Unmounts MOUNTPOINT and waits while the mount process writes what it still holds to the\n"
       "store, showing how much is left on a terminal. Exit status 0 when everything reached the\n"
       "store; 1 with one line per change that did not, or when it cannot unmount (a program\n"
       "has a file open there).",
       {},
       runUmount},
      {"status",
       {"MOUNTPOINT"},
       0,
       "Show what an ovl mount still has to write to its store",
       "Asks the process serving MOUNTPOINT for the changes not yet in the store, the files open\n"
       "for writing, the changes that failed, the queue's figures and the cache's size and free\n"
       "space.",
       {{"--json", "", "print the answer as JSON"}},
       runStatus},
  };
}

}  // namespace ovl
