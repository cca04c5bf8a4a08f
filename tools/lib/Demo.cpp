#include <ovl/Demo.hpp>

#include <ovl/Format.hpp>
#include <ovl/Interrupt.hpp>
#include <ovl/ItemIO.hpp>
#include <ovl/Overlay.hpp>

#include <core/provider/OverlayOptions.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <foundation/crypto/CryptoEngine.hpp>
#include <foundation/crypto/cryptopp/CryptoProvider.hpp>
#include <foundation/log/Severity.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/property_tree/json_parser.hpp>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

namespace ovl {

namespace {

using fsp::StorageIRI;
using fsp::StorageItem;
using Clock = std::chrono::steady_clock;

constexpr unsigned kModules = 10;
// A file that is in the store before the session starts and that "someone else" changes
// later: the session only reads it, so no write of the session's own is on its way to it.
constexpr char16_t const* kSharedFolder = u"/shared";
constexpr char16_t const* kChangedFile = u"/shared/notes.txt";
constexpr char16_t const* kRenamedFrom = u"/project/mod1";
constexpr char16_t const* kRenamedTo = u"/project/mod1-renamed";
constexpr char16_t const* kDeleted = u"/project/mod2";

// What a run has done, as the store must have it after a flush: every folder and every
// file with its content, by path below the run's folder. Changed only after the store
// (or the overlay) acknowledged the operation.
struct Model {
  std::set<std::u16string> folders;
  std::map<std::u16string, std::string> files;

  void renameFolder(std::u16string const& from, std::u16string const& to) {
    auto moved = [&](std::u16string const& path) {
      return path == from || path.rfind(from + u"/", 0) == 0 ? to + path.substr(from.size()) : path;
    };
    std::set<std::u16string> folders2;
    for (auto const& folder : folders) folders2.insert(moved(folder));
    std::map<std::u16string, std::string> files2;
    for (auto& [path, content] : files) files2.emplace(moved(path), std::move(content));
    folders = std::move(folders2);
    files = std::move(files2);
  }
  void removeFolder(std::u16string const& folder) {
    auto within = [&](std::u16string const& path) { return path == folder || path.rfind(folder + u"/", 0) == 0; };
    std::erase_if(folders, within);
    std::erase_if(files, [&](auto const& file) { return within(file.first); });
  }
};

std::string seconds(double s) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(s < 10 ? 2 : 1) << s << " s";
  return text.str();
}

// The demo's progress: a bar on a terminal, nothing otherwise (the step lines say enough).
class Progress {
 public:
  Progress(Session& session, std::uint64_t total, std::atomic<bool>* interrupt)
      : bar_(session.err(), total, session.errIsTerminal(), ProgressBar::Unit::Steps), interrupt_(interrupt) {}
  void label(std::string text) { bar_.setLabel(std::move(text)); }
  // One operation done; stops the demo here when it was interrupted.
  void step() {
    bar_.update(++done_);
    if (interrupt_ && interrupt_->load()) throw Interrupted(interruptSignal());
  }
  void finish() { bar_.finish(); }

 private:
  ProgressBar bar_;
  std::atomic<bool>* interrupt_;
  std::uint64_t done_ = 0;
};

// One run of the session against `root` (the throttled store, or the overlay over it),
// with `storeFolder` the same folder seen directly (for the change made "elsewhere").
class Run {
 public:
  Run(std::string name, StorageItem root, StorageItem storeFolder, DemoOptions const& options, Progress& progress)
      : name_(std::move(name)),
        root_(std::move(root)),
        storeFolder_(std::move(storeFolder)),
        options_(options),
        progress_(progress) {}

  Model const& model() const { return model_; }
  std::vector<std::pair<std::string, double>> const& times() const { return times_; }

  // The whole session; `flush` is the run's last step.
  void session(std::function<void()> const& flush) {
    // Put there from the store's side before the session starts.
    below(storeFolder_, kSharedFolder).createFolder();
    std::string const notes = "notes kept in the store, read by the session\n";
    writeWhole(below(storeFolder_, kChangedFile), notes);
    model_.folders.insert(kSharedFolder);
    model_.files[kChangedFile] = notes;
    timed("unpack the tree", [&] { unpack(); });
    timed("read everything (1st)", [&] { readAll(); });
    timed("read everything (2nd)", [&] { readAll(); });
    timed("list every folder", [&] { listAll(); });
    timed("rename a folder", [&] {
      below(root_, kRenamedFrom).moveFolder(StorageIRI(root_.getLocation(), kRenamedTo), fsp::ReplacementPolicy::Never);
      model_.renameFolder(kRenamedFrom, kRenamedTo);
      progress_.step();
    });
    timed("see a change made elsewhere", [&] { changeElsewhere(); });
    timed("delete a sub-tree", [&] {
      below(root_, kDeleted).removeFolderRecursively();
      model_.removeFolder(kDeleted);
      progress_.step();
    });
    timed("flush", [&] {
      flush();
      progress_.step();
    });
  }

  // Operations of one run, for the progress bar.
  static std::uint64_t operations(DemoOptions const& options) {
    auto const files = std::uint64_t{options.smallFiles} + options.largeFiles;
    return (2 + 3 * kModules) + files + 2 * (files + 1) + (3 + 3 * kModules) + 4;
  }

 private:
  void timed(std::string const& step, std::function<void()> const& work) {
    progress_.label(name_ + ": " + step);
    if (options_.onStep) options_.onStep(name_, step);
    auto const start = Clock::now();
    work();
    times_.emplace_back(step, std::chrono::duration<double>(Clock::now() - start).count());
  }

  void folder(std::u16string const& path) {
    below(root_, path).createFolder();
    model_.folders.insert(path);
    progress_.step();
  }

  void file(std::u16string const& path, std::string content) {
    writeWhole(below(root_, path), content);
    model_.files[path] = std::move(content);
    progress_.step();
  }

  // Contents are random bytes from a fixed seed: both runs write the same tree.
  void unpack() {
    std::mt19937_64 random(20261121);
    auto bytes = [&](std::size_t n) {
      std::string content(n, '\0');
      for (auto& c : content) c = static_cast<char>(random() & 0xFF);
      return content;
    };
    folder(u"/project");
    folder(u"/project/assets");
    for (unsigned m = 0; m < kModules; ++m) {
      auto const module = u"/project/mod" + ascii16(std::to_string(m));
      folder(module);
      folder(module + u"/src");
      folder(module + u"/doc");
    }
    for (unsigned i = 0; i < options_.smallFiles; ++i) {
      auto const module = u"/project/mod" + ascii16(std::to_string(i % kModules));
      auto const sub = (i / kModules) % 2 == 0 ? u"/src/file" : u"/doc/file";
      std::uniform_int_distribution<std::size_t> size(200, 16 * 1024);
      file(module + sub + ascii16(std::to_string(i)) + u".txt", bytes(size(random)));
    }
    for (unsigned i = 0; i < options_.largeFiles; ++i) {
      file(u"/project/assets/large" + ascii16(std::to_string(i)) + u".bin", bytes(options_.largeFileBytes));
    }
  }

  void readAll() {
    for (auto const& [path, content] : model_.files) {
      if (readWhole(below(root_, path)) != content) {
        throw CommandError(name_ + " run", "reading " + displayText(path) + " back gave other bytes than were written");
      }
      progress_.step();
    }
  }

  void listAll() {
    for (auto const& path : model_.folders) {
      collect(*below(root_, path).listAll());
      progress_.step();
    }
  }

  // Writes new content to a file of the store from the store's side, then waits until
  // the session reads it (at once for the store itself; the overlay learns of it from the
  // store's change events, which it works off in its queue, after the changes of its
  // own that are still on their way to the store). The wait asks whether the file exists and for its size, not for its
  // content: the overlay holds the store's events back for a while after each of its own
  // stream openings (so that it does not take the echo of its own changes for a foreign
  // change), and reading the file over and over would keep them back. The existence
  // question matters too: the overlay works off the invalidations that events left it
  // when asked whether something exists or for a listing, not when asked for attributes.
  void changeElsewhere() {
    std::string const changed = "changed from the store's side, not through the session\n";
    writeWhole(below(storeFolder_, kChangedFile), changed);
    model_.files[kChangedFile] = changed;
    auto const file = below(root_, kChangedFile);
    std::string lastSeen = "nothing";
    auto seen = [&] {
      if (!file.fileExists()) {
        lastSeen = "no such file";
        return false;
      }
      auto const size = file.getFileAttributes().getSize();
      lastSeen = "a size of " + (size ? std::to_string(*size) : std::string("?")) + " bytes";
      if (!size || *size != changed.size()) return false;
      auto const content = readWhole(file);
      lastSeen = "the new size but other content (" + std::to_string(content.size()) + " bytes read)";
      return content == changed;
    };
    auto const deadline = Clock::now() + options_.changeTimeout;
    while (!seen()) {
      if (Clock::now() > deadline) {
        throw CommandError(name_ + " run", "the change made in the store to " + displayText(kChangedFile) +
                                               " was not seen within " +
                                               std::to_string(options_.changeTimeout.count() / 1000) + " s (it showed " +
                                               lastSeen + "; the store has " + std::to_string(changed.size()) +
                                               " bytes)");
      }
      if (options_.interrupt && options_.interrupt->load()) throw Interrupted(interruptSignal());
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    progress_.step();
  }

  std::string const name_;
  StorageItem const root_;
  StorageItem const storeFolder_;
  DemoOptions const& options_;
  Progress& progress_;
  Model model_;
  std::vector<std::pair<std::string, double>> times_;
};

// Every folder and file below `folder`, by path below it.
void walkStore(StorageItem const& folder, std::u16string const& prefix, Model& found) {
  for (auto const& entry : collect(*folder.listAll())) {
    auto const path = prefix + u"/" + entry.getName();
    auto const item = below(folder, entry.getName());
    if (entry.isFile()) {
      found.files[path] = readWhole(item);
    } else {
      found.folders.insert(path);
      walkStore(item, path, found);
    }
  }
}

std::string hex(std::vector<unsigned char> const& bytes, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < std::min(n, bytes.size()); ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 0xF];
  }
  return text;
}

// Compares the store's content below `storeFolder` with `model` by BLAKE2b checksums;
// prints one line for the run, and one per difference. True when they are equal.
bool verify(std::ostream& out, std::string const& run, StorageItem const& storeFolder, Model const& model) {
  Model found;
  walkStore(storeFolder, {}, found);
  foundation::crypto::CryptoEngine engine(std::make_shared<foundation::crypto::cryptopp::CryptoProvider>());
  auto blake = engine.createDigestEngine(foundation::crypto::DigestAlgorithm::BLAKE2b);
  auto checksum = [&](std::string const& content) {
    blake->update(content);
    return blake->digest();
  };
  std::vector<std::string> problems;
  std::vector<unsigned char> all;
  std::uint64_t bytes = 0;
  for (auto const& [path, content] : model.files) {
    bytes += content.size();
    auto const expected = checksum(content);
    all.insert(all.end(), expected.begin(), expected.end());
    auto it = found.files.find(path);
    if (it == found.files.end()) {
      problems.push_back("missing in the store: " + displayText(path));
    } else if (auto const actual = checksum(it->second); actual != expected) {
      problems.push_back("differs: " + displayText(path) + " (BLAKE2b " + hex(actual, 8) + "..., written " +
                         hex(expected, 8) + "...)");
    }
  }
  for (auto const& [path, content] : found.files) {
    if (!model.files.count(path)) problems.push_back("in the store but not written: " + displayText(path));
  }
  for (auto const& path : model.folders) {
    if (!found.folders.count(path)) problems.push_back("folder missing in the store: " + displayText(path));
  }
  for (auto const& path : found.folders) {
    if (!model.folders.count(path)) problems.push_back("folder in the store but not made: " + displayText(path));
  }
  if (problems.empty()) {
    out << "verified (" << run << "): the store holds exactly what was written: " << model.files.size() << " files, "
        << model.folders.size() << " folders, " << humanSize(bytes) << ", BLAKE2b of all checksums "
        << hex(checksum(std::string(all.begin(), all.end())), 8) << "...\n";
    return true;
  }
  out << "VERIFICATION FAILED (" << run << "): " << problems.size()
      << (problems.size() == 1 ? " difference" : " differences") << " between the store and what was written:\n";
  for (auto const& problem : problems) out << "  " << problem << '\n';
  return false;
}

// The overlay queue's figures, as its provider gives them.
void printQueueFigures(std::ostream& out, std::optional<fsp::extensions::QueueFigures> const& figures) {
  if (!figures) {
    out << "overlay queue: no figures (the overlay does not report them)\n";
    return;
  }
  out << "overlay queue: drained " << figures->drains << (figures->drains == 1 ? " time" : " times")
      << ", the longest busy period " << figures->longestBusyPeriodMs << " ms\n"
      << "  average wait " << std::llround(figures->averageWaitMs) << " ms, longest " << figures->longestWaitMs
      << " ms; transactions:";
  for (auto const& [type, count] : figures->transactions) out << ' ' << type << ' ' << count;
  out << '\n';
}

// The time-out after which the overlay lets the store's events through again, in seconds.
double latchSeconds() {
  auto const timeout = storage::overlayprovider::OverlayOptions::fromEnvironment().eventRobustnessTimeout;
  return static_cast<double>(timeout.count()) / 1000.0;
}

void printTable(std::ostream& out, Run const& direct, Run const& overlay, DemoOptions const& options) {
  out << '\n'
      << std::left << std::setw(30) << "step" << std::right << std::setw(11) << "direct" << std::setw(11) << "overlay"
      << std::setw(10) << "ratio" << '\n';
  double totalDirect = 0, totalOverlay = 0;
  auto row = [&](std::string const& step, std::optional<double> d, double o) {
    std::ostringstream ratio;
    if (d && o > 0) ratio << std::fixed << std::setprecision(1) << *d / o << "x";
    out << std::left << std::setw(30) << step << std::right << std::setw(11) << (d ? seconds(*d) : "-")
        << std::setw(11) << seconds(o) << std::setw(10) << ratio.str() << '\n';
  };
  for (std::size_t i = 0; i < direct.times().size() && i < overlay.times().size(); ++i) {
    auto const& step = direct.times()[i].first;
    // The store used directly has nothing to flush.
    row(step, step == "flush" ? std::nullopt : std::optional<double>(direct.times()[i].second), overlay.times()[i].second);
    totalDirect += direct.times()[i].second;
    totalOverlay += overlay.times()[i].second;
  }
  row("total", totalDirect, totalOverlay);
  out << "(" << options.smallFiles << " small files of 200 B to 16 KiB, " << options.largeFiles << " of "
      << humanSize(options.largeFileBytes) << "; ratio = direct / overlay, above 1 the overlay is faster)\n"
      << "(a change made elsewhere reaches the overlay as a change event of the store; the overlay holds\n"
         " those back until "
      << latchSeconds()
      << " s after its own last change (QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT, in ms), so that it\n"
         " does not take the echo of its own writes for a foreign change, and works them off in its\n"
         " queue, after the writes of its own that are still on their way to the store)\n";
}

// The store the demo works in: the folder named by --inner, or a new temporary folder.
struct DemoStore {
  StorageItem folder;       // the demo's own folder in the store, seen directly
  std::filesystem::path temporary;  // the temporary folder made for it, if any

  DemoStore(Session& session, DemoOptions const& options) {
    StorageItem base;
    if (options.inner) {
      base = session.registry().resolve(*options.inner);
      if (!base.folderExists()) {
        throw CommandError(*options.inner, "the store for --inner must be an existing folder; it does not exist");
      }
    } else {
      std::string pattern = (std::filesystem::temp_directory_path() / "ovl-demo-store.XXXXXX").string();
      if (!::mkdtemp(pattern.data())) throw CommandError(pattern, "cannot make a temporary folder for the store");
      temporary = pattern;
      base = session.registry().resolve(pattern);
    }
    std::random_device random;
    folder = below(base, u"ovl-demo-" + ascii16(std::to_string(::getpid())) + u"-" + ascii16(std::to_string(random() % 100000)));
    folder.createFolder();
  }

  void remove() {
    try {
      folder.removeFolderRecursively();
    } catch (std::exception const&) {
      // Cleaning up is best effort; the temporary folder goes below anyway.
    }
    std::error_code ignored;
    if (!temporary.empty()) std::filesystem::remove_all(temporary, ignored);
  }
};

}  // namespace

int runDemo(Session& session, DemoOptions const& options) {
  auto& out = session.out();
  DemoStore store(session, options);
  auto const directFolder = below(store.folder, u"direct");
  auto const overlayFolder = below(store.folder, u"overlay");
  directFolder.createFolder();
  overlayFolder.createFolder();

  providers::throttle::Options slow;
  slow.latency = std::chrono::microseconds(std::llround(options.latencyMs * 1000));
  slow.bytesPerSecond = options.megabytesPerSecond * 1e6;
  auto throttled = [&](StorageItem const& folder) {
    auto const root = StorageIRI(folder.getLocation(), u"/");
    return StorageItem(std::make_shared<providers::throttle::ThrottleProvider>(StorageItem(folder.getProvider(), root), slow),
                       StorageIRI(providers::throttle::kScheme, root, u"/"));
  };

  out << "ovl demo: a store at " << session.plainIRI(store.folder.getLocation()) << ", reached through a throttle of "
      << options.latencyMs << " ms per call and "
      << (options.megabytesPerSecond > 0 ? std::to_string(static_cast<long>(options.megabytesPerSecond)) + " MB/s"
                                         : std::string("unlimited bandwidth"))
      << ".\nThe same session runs twice: directly on the store, then through the overlay ("
      << options.overlay.describe() << ").\n\n";

  Progress progress(session, 2 * Run::operations(options), options.interrupt);
  int status = 0;
  Run direct("direct", throttled(directFolder), directFolder, options, progress);
  std::optional<Run> overlayRun;
  std::string stage = "direct";
  try {
    direct.session([] {});
    progress.finish();
    if (!verify(out, "direct", directFolder, direct.model())) status = 1;

    stage = "overlay";
    auto config = session.config();
    options.overlay.applyTo(config);
    OverlayHost host(session.registry(), session.bundlePath(), config);
    auto const inner = throttled(overlayFolder);
    overlayRun.emplace("overlay", host.over(inner, inner.getLocation()), overlayFolder, options, progress);
    auto const overlayRoot = host.roots().front();
    try {
      overlayRun->session([&] { overlayRoot.flushFilesystem(); });
    } catch (Interrupted const&) {
      progress.finish();
      out << "\ninterrupted: flushing what the overlay acknowledged ...\n";
      host.finish();
      out << "flushed.\n";
      verify(out, "overlay, up to the interruption", overlayFolder, overlayRun->model());
      if (!options.keep) store.remove();
      return 130;
    }
    progress.finish();
    auto const figures = host.queueFigures();
    host.finish();
    printTable(out, direct, *overlayRun, options);
    out << '\n';
    printQueueFigures(out, figures);
    if (auto const& undelivered = host.delivered().undelivered; !undelivered.empty()) {
      out << "the overlay could not make " << undelivered.size() << " change(s) in the store, the first: "
          << session.plainIRI(undelivered.front().location) << " (" << undelivered.front().change << "): "
          << (undelivered.front().code ? describe(*undelivered.front().code) : undelivered.front().cause) << '\n';
      status = 1;
    }
    if (options.beforeVerify) options.beforeVerify(overlayFolder);
    if (!verify(out, "overlay, after flush", overlayFolder, overlayRun->model())) status = 1;
  } catch (Interrupted const&) {
    progress.finish();
    out << "\ninterrupted during the " << stage << " run; nothing of it goes through the overlay.\n";
    if (!options.keep) store.remove();
    return 130;
  } catch (...) {
    progress.finish();
    if (!options.keep) store.remove();
    throw;
  }
  if (options.keep) {
    out << "kept: " << session.plainIRI(store.folder.getLocation()) << '\n';
  } else {
    store.remove();
  }
  return status;
}

namespace {

int runDemoCommand(Session& session, Arguments const& args) {
  DemoOptions options;
  if (args.values.count("--inner")) options.inner = args.values.at("--inner");
  options.latencyMs = args.number("--latency-ms", options.latencyMs, 0, 10000);
  options.megabytesPerSecond = args.number("--mbps", options.megabytesPerSecond, 0, 1e6);
  options.smallFiles = static_cast<unsigned>(args.number("--files", options.smallFiles, 1, 1e6));
  options.largeFiles = static_cast<unsigned>(args.number("--large-files", options.largeFiles, 0, 1000));
  options.largeFileBytes =
      static_cast<std::uint64_t>(args.number("--large-mib", static_cast<double>(options.largeFileBytes >> 20), 0, 4096)) << 20;
  options.keep = args.has("--keep");
  withToolSettings(session.config(), args, options.overlay);
  // Ctrl-C or SIGTERM stops the demo between two operations; the overlay then writes what
  // it acknowledged before the program ends.
  options.interrupt = &interruptRequested();
  int const status = runDemo(session, options);
  return status == 130 && interruptSignal() != 0 ? 128 + interruptSignal() : status;
}

}  // namespace

Command demoCommand() {
  return {"demo",
          {},
          0,
          "Show the overlay at work: one session on a slow store, direct and through the overlay",
          "Makes a local folder that stands for a remote store (or uses the store named by --inner),\n"
          "reaches it through a throttle (20 ms per call and 50 MB/s unless told otherwise) and runs\n"
          "the same session twice, directly and through the overlay bundle: unpack a tree of small\n"
          "files and a few large ones, read everything twice, list every folder, rename a folder,\n"
          "change a file from the store's side and wait until the session sees it, delete a\n"
          "sub-tree, flush. Prints each step's time in both runs and their ratio, the overlay's\n"
          "queue figures, and checks by BLAKE2b checksums that the store holds exactly what was\n"
          "written. Exit status 1 when a check fails; 130 when interrupted with Ctrl-C, 143 with\n"
          "SIGTERM (the overlay first writes and checks what it acknowledged). The overlay takes\n"
          "--config/--set.",
          {{"--inner", "", "the store to use: an IRI or an existing local folder (default: a new\n"
                           "                        temporary folder); the demo works in a folder of its own there",
            "IRI"},
           {"--latency-ms", "", "the throttle's latency per store call (default 20)", "N"},
           {"--mbps", "", "the throttle's bandwidth in MB/s, 0 = unlimited (default 50)", "N"},
           {"--files", "", "number of small files (default 300)", "N"},
           {"--large-files", "", "number of large files (default 3)", "N"},
           {"--large-mib", "", "size of each large file in MiB (default 8)", "N"},
           {"--transfers", "", kTransfersHelp, "N"},
           {"--echo-window-ms", "", kEchoWindowHelp, "N"},
           {"--plain-events", "", kPlainEventsHelp},
           {"--keep", "", "leave the demo's folders in the store"}},
          runDemoCommand};
}

}  // namespace ovl
