// The file commands of ovl: ls, stat, cat, cp, mkdir, rm, mv.
#include <ovl/Command.hpp>
#include <ovl/Format.hpp>
#include <ovl/Interrupt.hpp>

#include <fl/i18n.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <vector>

namespace ovl {

namespace {

using fsp::ErrorCode;
using fsp::ExistenceKind;
using fsp::StorageItem;

constexpr long kChunk = 1 << 20;
// Files from this size up get a progress bar when stderr is a terminal.
constexpr std::uint64_t kProgressFrom = 4ull << 20;

[[noreturn]] void doesNotExist(StorageItem const& item) { throw fsp::Exception(ErrorCode::DoesNotExist, item.getLocation()); }

std::string sizeColumn(std::string const& text) {
  return text.size() >= 12 ? text : std::string(12 - text.size(), ' ') + text;
}

std::string entryLine(fsp::FolderEntry const& entry, bool longFormat) {
  std::string line;
  bool writable;
  std::string size;
  boost::posix_time::ptime modified;
  if (entry.isFile()) {
    auto const& attributes = entry.getFileAttributes();
    line = "-";
    writable = attributes.isWritable();
    size = attributes.getSize() ? std::to_string(*attributes.getSize()) : "?";
    modified = attributes.getLastModified();
  } else {
    auto const& attributes = entry.getFolderAttributes();
    line = "d";
    writable = attributes.isWritable();
    size = "-";
    modified = attributes.getLastModified();
  }
  if (longFormat) line += writable ? " rw" : " r-";
  line += " " + sizeColumn(size) + "  " + isoTime(modified) + "  " + displayText(entry.getName());
  return line;
}

// Folders below the listed one that could not be listed: the first, and how many.
struct Unlisted {
  std::string first;
  std::size_t count = 0;
};

// Everything below `folder`, folders before their content, named by relative path; for
// stores that do not list recursively themselves, or whose recursive listing failed. A
// folder below that cannot be listed is left out and counted in `unlisted`.
void walk(Session& session, StorageItem const& folder, std::u16string const& prefix, std::vector<fsp::FolderEntry>& out,
          Unlisted& unlisted) {
  std::vector<fsp::FolderEntry> entries;
  try {
    entries = collect(*folder.listAll());
  } catch (fsp::Exception const& e) {
    if (prefix.empty()) throw;
    if (unlisted.count++ == 0) unlisted.first = session.plainIRI(folder.getLocation()) + ": " + causeOf(e);
    return;
  }
  for (auto& entry : entries) {
    auto const relative = prefix.empty() ? entry.getName() : prefix + u"/" + entry.getName();
    bool const isFolder = !entry.isFile();
    out.push_back(entry.withName(relative));
    if (isFolder) {
      walk(session, StorageItem(folder.getProvider(), fsp::StorageIRI(folder.getLocation(), entry.getName())), relative,
           out, unlisted);
    }
  }
}

std::vector<fsp::FolderEntry> listRecursively(Session& session, StorageItem const& folder, Unlisted& unlisted) {
  try {
    return collect(*folder.listAllRecursive());
  } catch (fsp::Exception const&) {
    // Not supported, or one folder below could not be listed: folder by folder, leaving
    // out (and naming) the ones that fail.
  }
  std::vector<fsp::FolderEntry> entries;
  walk(session, folder, {}, entries, unlisted);
  return entries;
}

// Whether a store can name a file called `name`: its name must be valid UTF-8 without
// control characters.
bool nameable(std::string const& name) {
  std::u16string text;
  try {
    text = fl::i18n::to_ustring(name);
  } catch (std::exception const&) {
    return false;
  }
  return std::none_of(text.begin(), text.end(), [](char16_t c) { return c < 0x20 || c == 0x7F; });
}

// How many names in the local folder `path` (and below, with `recursive`) no store can
// show: not valid UTF-8, or holding control characters. What lies below such a folder is
// not counted; 0 when `path` cannot be read.
std::size_t unnameableBelow(std::filesystem::path const& path, bool recursive) {
  namespace fs = std::filesystem;
  std::error_code error;
  std::size_t count = 0;
  fs::recursive_directory_iterator it(path, fs::directory_options::skip_permission_denied, error), end;
  for (; !error && it != end; it.increment(error)) {
    bool const ok = nameable(it->path().filename().string());
    if (!ok) ++count;
    if (!ok || !recursive) it.disable_recursion_pending();
  }
  return count;
}

int runLs(Session& session, Arguments const& args) {
  auto const item = session.resolve(args.operands[0]);
  bool const longFormat = args.has("--long");
  bool const recursive = args.has("--recursive");
  switch (item.existsExtended()) {
    case ExistenceKind::None:
      doesNotExist(item);
    case ExistenceKind::File:
      session.out() << entryLine(fsp::FolderEntry(item.getLocation().getName(), item.getFileAttributes()), longFormat)
                    << '\n';
      return 0;
    case ExistenceKind::Folder:
      break;
  }
  Unlisted unlisted;
  auto entries = recursive ? listRecursively(session, item, unlisted) : collect(*item.listAll());
  std::stable_sort(entries.begin(), entries.end(),
                   [](auto const& a, auto const& b) { return a.getName() < b.getName(); });
  for (auto const& entry : entries) session.out() << entryLine(entry, longFormat) << '\n';
  session.out().flush();
  if (unlisted.count > 0) {
    session.err() << "ovl ls: warning: could not list " << printable(unlisted.first)
                  << (unlisted.count > 1 ? "; " + std::to_string(unlisted.count - 1) + " more folders" : std::string())
                  << '\n';
  }
  auto const plain = session.plainIRI(item.getLocation());
  if (plain.rfind("file://", 0) == 0) {
    if (auto const hidden = unnameableBelow(plain.substr(7), recursive)) {
      session.err() << "ovl ls: warning: " << printable(session.nameOf(item)) << ": " << hidden
                    << (hidden == 1 ? " name" : " names")
                    << " not shown (not valid UTF-8, or holding control characters)\n";
    }
  }
  return 0;
}

void statLine(Session& session, char const* label, std::string const& value) {
  char padded[16];
  std::snprintf(padded, sizeof padded, "%-10s", label);
  session.out() << padded << value << '\n';
}

int runStat(Session& session, Arguments const& args) {
  auto const item = session.resolve(args.operands[0]);
  auto const kind = item.existsExtended();
  if (kind == ExistenceKind::None) doesNotExist(item);
  statLine(session, "name:", session.nameOf(item));
  statLine(session, "iri:", session.plainIRI(item.getLocation()));
  if (kind == ExistenceKind::File) {
    auto const attributes = item.getFileAttributes();
    statLine(session, "kind:", "file");
    auto const& size = attributes.getSize();
    statLine(session, "size:", size ? std::to_string(*size) + " bytes (" + humanSize(*size) + ")" : "unknown");
    statLine(session, "modified:", isoTime(attributes.getLastModified()));
    statLine(session, "writable:", attributes.isWritable() ? "yes" : "no");
  } else {
    auto const attributes = item.getFolderAttributes();
    statLine(session, "kind:", "folder");
    statLine(session, "size:", "-");
    statLine(session, "modified:", isoTime(attributes.getLastModified()));
    statLine(session, "writable:", attributes.isWritable() ? "yes" : "no");
  }
  fsp::ExtendedAttributes extended;
  try {
    extended = item.getExtendedAttributes();
  } catch (fsp::Exception const& e) {
    if (e.getErrorCode() != ErrorCode::NotSupported) throw;
    statLine(session, "extended:", "not supported by the store");
    return 0;
  }
  statLine(session, "extended:", extended.empty() ? "none" : std::to_string(extended.size()));
  for (auto const& name : extended.getNames()) {
    session.out() << "  " << name << " = " << attributeText(extended.getAttribute(name)) << '\n';
  }
  return 0;
}

fsp::ByteStreamPtr openForReading(Session& session, StorageItem const& item) {
  try {
    return item.openReadOnlyStream();
  } catch (fsp::Exception const&) {
    bool isFolder = false;
    try {
      isFolder = item.folderExists();
    } catch (std::exception const&) {
      // Report the failure of the open, not of this second question.
    }
    if (isFolder) throw CommandError(session.nameOf(item), "is a folder");
    throw;
  }
}

int runCat(Session& session, Arguments const& args) {
  auto const item = session.resolve(args.operands[0]);
  auto in = openForReading(session, item);
  std::vector<char> buffer(kChunk);
  for (;;) {
    throwIfInterrupted();
    long n;
    try {
      n = in->read(buffer.data(), kChunk);
    } catch (fsp::ByteStreamFailure const& e) {
      throw CommandError(session.nameOf(item), e.what());
    }
    if (n <= 0) break;
    session.out().write(buffer.data(), n);
    if (!session.out()) throw CommandError("standard output", "write failed");
  }
  in->close();
  session.out().flush();
  return 0;
}

// Copies every byte of `in` to `out`, adding to `done` and drawing `progress`. Errors
// name `src` or `dst`.
void pump(Session& session, fsp::ByteStream& in, fsp::ByteStream& out, StorageItem const& src, StorageItem const& dst,
          ProgressBar& progress, std::uint64_t& done) {
  std::vector<char> buffer(kChunk);
  for (;;) {
    throwIfInterrupted();
    long n;
    try {
      n = in.read(buffer.data(), kChunk);
    } catch (fsp::ByteStreamFailure const& e) {
      throw CommandError(session.nameOf(src), e.what());
    }
    if (n <= 0) break;
    try {
      for (long written = 0; written < n;) {
        long const w = out.write(buffer.data() + written, n - written);
        if (w <= 0) throw CommandError(session.nameOf(dst), "the store accepted no more bytes");
        written += w;
      }
    } catch (fsp::ByteStreamFailure const& e) {
      throw CommandError(session.nameOf(dst), e.what());
    }
    done += static_cast<std::uint64_t>(n);
    progress.update(done);
  }
}

// A copy written through the overlay into a scratch file beside its target, to be moved
// into place once the store has its bytes (see commitCopies).
struct PendingCopy {
  StorageItem scratch;
  StorageItem target;
};

// Writes the content of the file `src` toward `dst`, which is created or replaced only
// once the whole content has arrived; a failure leaves it as it was. Directly on a store
// the copy is done when this returns (a transactional stream). Through the overlay, which
// acknowledges bytes before the store has them, the content goes into a scratch file of
// its own that commitCopies moves into place once the store took every byte.
std::optional<PendingCopy> writeCopy(Session& session, StorageItem const& src, StorageItem const& dst,
                                     ProgressBar& progress, std::uint64_t& done) {
  auto in = openForReading(session, src);
  fsp::ByteStreamOpenOptions options;
  options.truncate = true;
  if (dst.getLocation().getScheme() != kOverlayScheme) {
    auto out = dst.openTransactionalStream(options);
    pump(session, *in, *out, src, dst, progress, done);
    in->close();
    try {
      out->close();
    } catch (fsp::ByteStreamFailure const& e) {
      throw CommandError(session.nameOf(dst), e.what());
    }
    return std::nullopt;
  }
  StorageItem const scratch(dst.getProvider(), fsp::scratchLocationFor(dst.getLocation()));
  try {
    auto out = scratch.openStream(options);
    pump(session, *in, *out, src, dst, progress, done);
    in->close();
    out->close();
  } catch (...) {
    try {
      if (scratch.fileExists()) scratch.removeFile();
    } catch (std::exception const&) {
      // The scratch file is left; the error that stopped the copy matters more.
    }
    throw;
  }
  return PendingCopy{scratch, dst};
}

// Flushes the overlay once for all `copies`, then moves each scratch file whose content
// reached the store into place; one that did not is removed, its target left as it was.
// Returns "TARGET: the store did not take the new content (CAUSE)" for each failure.
std::vector<std::string> commitCopies(Session& session, std::vector<PendingCopy> const& copies) {
  std::vector<StorageItem> scratches;
  for (auto const& copy : copies) scratches.push_back(copy.scratch);
  auto const failures = session.deliver(scratches);
  std::vector<std::string> texts;
  for (std::size_t i = 0; i < copies.size(); ++i) {
    if (failures[i]) {
      try {
        copies[i].scratch.removeFile();
      } catch (std::exception const&) {
      }
      texts.push_back(session.nameOf(copies[i].target) + ": the store did not take the new content (" + *failures[i] +
                      ")");
      continue;
    }
    copies[i].scratch.moveFile(copies[i].target.getLocation(), fsp::ReplacementPolicy::Always);
  }
  return texts;
}

// Throws one CommandError for `failures` (the first, and how many more), saying that the
// destinations were left as they were.
void failWith(std::vector<std::string> const& failures) {
  if (failures.empty()) return;
  auto const& first = failures.front();
  auto const colon = first.find(": ");
  std::string more = failures.size() > 1 ? "; " + std::to_string(failures.size() - 1) + " more" : "";
  throw CommandError(first.substr(0, colon), first.substr(colon + 2) + "; the destination was left as it was" + more);
}

bool progressWanted(Session& session, Arguments const& args, std::uint64_t total) {
  return args.has("--progress") || (session.errIsTerminal() && total >= kProgressFrom);
}

// Copies the file `src` to `target`, created or replaced once the store has the whole
// content (see writeCopy), with a progress bar as `args` ask.
void copyFile(Session& session, StorageItem const& src, StorageItem const& target, Arguments const& args) {
  std::uint64_t const total = src.getFileAttributes().getSize().value_or(0);
  ProgressBar progress(session.err(), total, progressWanted(session, args, total));
  std::uint64_t done = 0;
  auto const pending = writeCopy(session, src, target, progress, done);
  progress.finish();
  if (pending) failWith(commitCopies(session, {*pending}));
}

// Where SRC goes when DST is given: inside DST when that is an existing folder.
StorageItem destinationFor(Session& session, StorageItem const& src, StorageItem const& dst) {
  if (dst.folderExists()) return session.child(dst, src.getLocation().getName());
  return dst;
}

// Copies the folder `src` with everything in it to `target` (made when missing, its
// parent must exist), with one progress bar for all the bytes; through the overlay one
// flush for the whole tree. What could not be copied is reported at the end (the rest is
// copied); a folder below that cannot be listed is a warning.
void copyTree(Session& session, Arguments const& args, StorageItem const& src, StorageItem const& target) {
  if (src.getProvider() == target.getProvider() &&
      (src.getLocation() == target.getLocation() || src.getLocation().isAncestorOf(target.getLocation()))) {
    throw CommandError(session.nameOf(target), "lies inside " + session.nameOf(src) + ", which it would copy into itself");
  }
  Unlisted unlisted;
  auto const entries = listRecursively(session, src, unlisted);
  std::uint64_t total = 0;
  for (auto const& entry : entries) {
    if (entry.isFile()) total += entry.getFileAttributes().getSize().value_or(0);
  }
  ProgressBar progress(session.err(), total, progressWanted(session, args, total));
  std::uint64_t done = 0;
  if (!target.folderExists()) target.createFolder();
  std::vector<PendingCopy> pending;
  std::vector<std::string> failures;
  for (auto const& entry : entries) {
    throwIfInterrupted();
    // Named in messages as the user named the folders, plus the path below them.
    auto const from = session.child(src, entry.getName());
    auto const to = session.child(target, entry.getName());
    progress.setLabel(displayText(entry.getName()));
    if (!entry.isFile()) {
      if (!to.folderExists()) to.createFolder();
      continue;
    }
    if (args.has("--no-clobber") && to.exists()) {
      failures.push_back(session.nameOf(to) + ": already exists");
      continue;
    }
    if (auto copy = writeCopy(session, from, to, progress, done)) pending.push_back(std::move(*copy));
  }
  progress.finish();
  for (auto& failure : commitCopies(session, pending)) failures.push_back(std::move(failure));
  if (unlisted.count > 0) {
    session.err() << "ovl cp: warning: could not list " << printable(unlisted.first)
                  << (unlisted.count > 1 ? "; " + std::to_string(unlisted.count - 1) + " more folders" : std::string())
                  << " (not copied)\n";
  }
  failWith(failures);
  if (unlisted.count > 0) throw CommandError(session.nameOf(src), "not everything below it could be read");
}

int runCp(Session& session, Arguments const& args) {
  // With --overlay, the source may lie outside the overlay's root: it is then only read,
  // directly from its store.
  auto const src = session.resolve(args.operands[0], Session::Reach::AnywhereForReading);
  auto const dst = session.resolve(args.operands[1]);
  auto const& dstText = args.operands[1];
  if (dstText.size() > 1 && dstText.back() == '/' && !dst.folderExists()) {
    throw CommandError(dstText, "no such folder (a name ending in / names a folder to copy into)");
  }
  switch (src.existsExtended()) {
    case ExistenceKind::None:
      doesNotExist(src);
    case ExistenceKind::Folder: {
      if (!args.has("--recursive")) {
        throw CommandError(session.nameOf(src), "is a folder (use -r to copy it with everything in it)");
      }
      auto const target = destinationFor(session, src, dst);
      if (target.fileExists()) throw CommandError(session.nameOf(target), "is a file (a folder cannot replace it)");
      copyTree(session, args, src, target);
      return 0;
    }
    case ExistenceKind::File:
      break;
  }
  auto const target = destinationFor(session, src, dst);
  switch (target.existsExtended()) {
    case ExistenceKind::Folder:
      throw CommandError(session.nameOf(target), "is a folder");
    case ExistenceKind::File:
      if (args.has("--no-clobber")) throw fsp::Exception(ErrorCode::AlreadyExists, target.getLocation());
      break;
    case ExistenceKind::None:
      break;
  }
  copyFile(session, src, target, args);
  return 0;
}

int runMkdir(Session& session, Arguments const& args) {
  auto const item = session.resolve(args.operands[0]);
  if (args.has("--parents")) {
    item.createFolderRecursive();
  } else {
    item.createFolder();
  }
  return 0;
}

// Whether the last segment of `text` (a path or an IRI, trailing slashes aside) is "."
// or "..".
bool namesDotOrDotDot(std::string text) {
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  auto const slash = text.find_last_of("/:>");
  auto const last = slash == std::string::npos ? text : text.substr(slash + 1);
  return last == "." || last == "..";
}

int runRm(Session& session, Arguments const& args) {
  // As rm does: removing "." or ".." would pull the folder out from under its own path.
  if (namesDotOrDotDot(args.operands[0])) throw CommandError(args.operands[0], "refusing to remove '.' or '..'");
  auto const item = session.resolve(args.operands[0]);
  switch (item.existsExtended()) {
    case ExistenceKind::None:
      doesNotExist(item);
    case ExistenceKind::File:
      item.removeFile();
      return 0;
    case ExistenceKind::Folder:
      if (!args.has("--recursive")) {
        throw CommandError(session.nameOf(item), "is a folder (use -r to remove it with everything in it)");
      }
      item.removeFolderRecursively();
      return 0;
  }
  return 0;
}

int runMv(Session& session, Arguments const& args) {
  auto const src = session.resolve(args.operands[0]);
  auto const dst = session.resolve(args.operands[1]);
  auto const policy = args.has("--replace") ? fsp::ReplacementPolicy::Always : fsp::ReplacementPolicy::Never;
  auto const kind = src.existsExtended();
  if (kind == ExistenceKind::None) doesNotExist(src);
  auto const target = destinationFor(session, src, dst);
  if (target.getProvider() == src.getProvider()) {
    if (kind == ExistenceKind::File) {
      src.moveFile(target.getLocation(), policy);
    } else {
      src.moveFolder(target.getLocation(), policy);
    }
    return 0;
  }
  // Between two stores: a file is copied, then removed at the source.
  if (kind == ExistenceKind::Folder) {
    throw CommandError(session.nameOf(src), "moving a folder to another store is not supported");
  }
  if (target.exists()) {
    if (policy != fsp::ReplacementPolicy::Always || target.folderExists()) {
      throw fsp::Exception(ErrorCode::AlreadyExists, target.getLocation());
    }
  }
  copyFile(session, src, target, Arguments{});
  src.removeFile();
  return 0;
}

}  // namespace

std::vector<Command> fileCommands() {
  return {
      {"ls",
       {"IRI"},
       0,
       "List a folder, or show one file",
       "Prints one line per entry, sorted by name: type ('d' folder, '-' file), size in\n"
       "bytes ('-' for folders), last modification (UTC) and name.",
       {{"--long", "-l", "also show whether the entry is writable ('rw' or 'r-')"},
        {"--recursive", "-R", "list everything below the folder, named by relative path"}},
       runLs},
      {"stat",
       {"IRI"},
       0,
       "Show the attributes of a file or folder",
       "Prints the kind, size, last modification (UTC), whether it is writable, and the\n"
       "extended attributes the store keeps for it (such as WATERMARK).",
       {},
       runStat},
      {"cat",
       {"IRI"},
       0,
       "Write a file's content to standard output",
       "Streams the content unchanged (binary-safe).",
       {},
       runCat},
      {"cp",
       {"SRC", "DST"},
       0,
       "Copy a file, or a folder with -r",
       "Copies the file SRC to DST through streams; SRC and DST may be on different stores.\n"
       "When DST is an existing folder the copy goes inside it under SRC's name. An existing\n"
       "file at DST is replaced, but only once the whole content has arrived (through the\n"
       "overlay: once the store has it). With -r a folder is copied with everything in it,\n"
       "with one progress bar and, through the overlay, one flush. With --overlay, SRC may\n"
       "lie outside the overlay's root: it is then read directly. A progress bar is drawn\n"
       "on standard error from 4 MiB on when it is a terminal.",
       {{"--recursive", "-r", "copy a folder and everything in it"},
        {"--progress", "", "draw the progress bar whatever the size and wherever stderr goes"},
        {"--no-clobber", "-n", "fail when DST already exists (with -r: leave existing files, report them)"}},
       runCp},
      {"mkdir",
       {"IRI"},
       0,
       "Create a folder",
       "Creates the folder; its parent must exist unless -p is given.",
       {{"--parents", "-p", "create missing parents too; an existing folder is not an error"}},
       runMkdir},
      {"rm",
       {"IRI"},
       0,
       "Remove a file, or a folder with -r",
       "Removes the file. A folder is removed only with -r, together with everything in it.",
       {{"--recursive", "-r", "remove a folder and everything in it"}},
       runRm},
      {"mv",
       {"SRC", "DST"},
       0,
       "Move or rename a file or folder",
       "Moves SRC to DST. When DST is an existing folder, SRC goes inside it under its own\n"
       "name. An existing destination is an error unless --replace is given. A file may\n"
       "move to another store (copied, then removed at the source); a folder may not.",
       {{"--replace", "", "replace what is at the destination"}},
       runMv},
  };
}

}  // namespace ovl
