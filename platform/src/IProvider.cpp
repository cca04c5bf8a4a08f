// The framework defaults of the provider contract.
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/IProvider.hpp>

#include <fl/i18n.hpp>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <random>
#include <vector>

namespace foundation::storage::provider {

namespace {

constexpr long kChunk = 1 << 20;

// The longest name, in UTF-8 bytes, that common file systems take.
constexpr std::size_t kMaxNameBytes = 255;

// Bytes of `c` in UTF-8 (a surrogate counts half of its pair's four).
std::size_t utf8Bytes(char16_t c) {
  if (c < 0x80) return 1;
  if (c < 0x800) return 2;
  if (c >= 0xD800 && c <= 0xDFFF) return 2;
  return 3;
}

// Eight hexadecimal digits, drawn at random: two scratch files for the same target, in
// one process or two, get different names.
std::u16string uniqueTag() {
  thread_local std::mt19937 random(std::random_device{}());
  std::uint32_t const value = static_cast<std::uint32_t>(random());
  std::u16string tag(8, u'0');
  for (std::size_t i = 0; i < 8; ++i) tag[7 - i] = u"0123456789abcdef"[(value >> (4 * i)) & 0xFu];
  return tag;
}

// A scratch file of its own beside `iri`: "." + name + "." + tag + ".partial", the name
// shortened (never inside a surrogate pair) so that the whole fits in 255 UTF-8 bytes.
StorageIRI scratchBeside(StorageIRI const& iri) {
  std::u16string const suffix = u"." + uniqueTag() + u".partial";
  std::size_t const room = kMaxNameBytes - 1 - suffix.size();
  auto const& name = iri.getName();
  std::size_t bytes = 0, kept = 0;
  while (kept < name.size() && bytes + utf8Bytes(name[kept]) <= room) bytes += utf8Bytes(name[kept++]);
  if (kept > 0 && kept < name.size() && name[kept - 1] >= 0xD800 && name[kept - 1] <= 0xDBFF) --kept;
  return StorageIRI(iri.getParent(), u"." + name.substr(0, kept) + suffix);
}

// A stream on a scratch file that replaces the target when closed, and is discarded when
// dropped unclosed.
class TransactionalStream : public ByteStream {
 public:
  TransactionalStream(IProvider const& provider, ByteStreamPtr scratchStream, StorageIRI target, StorageIRI scratch)
      : provider_(provider), stream_(std::move(scratchStream)), target_(std::move(target)), scratch_(std::move(scratch)) {}
  ~TransactionalStream() override {
    if (closed_) return;
    try {
      stream_->close();
      provider_.doRemoveFile(scratch_);
    } catch (...) {
      // Abandoning the scratch file is best effort; the target is untouched either way.
    }
  }
  long read(char* buffer, long count) override { return stream_->read(buffer, count); }
  long write(char const* buffer, long count) override { return stream_->write(buffer, count); }
  long seek(long offset, std::ios_base::seekdir whence) override { return stream_->seek(offset, whence); }
  void close() override {
    if (closed_) return;
    closed_ = true;
    stream_->close();
    try {
      provider_.doMoveFile(scratch_, target_, ReplacementPolicy::Always);
    } catch (std::exception const& e) {
      throw ByteStreamCloseFailure(std::string("Could not move scratch file into place: ") + e.what(),
                                   ErrorCode::TransientFailure);
    }
  }

 private:
  IProvider const& provider_;
  ByteStreamPtr stream_;
  StorageIRI target_;
  StorageIRI scratch_;
  bool closed_ = false;
};

// Copies the whole of `from` into `to`; asks `interrupt` (when set) between chunks.
// Returns false when interrupted.
bool copyStream(ByteStream& from, ByteStream& to, InterruptCallback const& interrupt) {
  std::vector<char> buffer(kChunk);
  for (;;) {
    if (interrupt && interrupt() == InterruptSignal::Interrupt) return false;
    long n = from.read(buffer.data(), kChunk);
    if (n <= 0) return true;
    for (long done = 0; done < n;) done += to.write(buffer.data() + done, n - done);
  }
}

FolderEntryIteratorPtr filtered(FolderEntryIteratorPtr listing, std::u16string const& pattern) {
  std::vector<FolderEntry> kept;
  for (auto& entry : collect(*listing)) {
    if (matchesWildcard(entry.getName(), pattern)) kept.push_back(std::move(entry));
  }
  return std::make_unique<VectorFolderEntryIterator>(std::move(kept));
}

NameList namesOf(FolderEntryIteratorPtr listing) {
  NameList names;
  for (auto& entry : collect(*listing)) names.push_back(entry.getName());
  return names;
}

void walk(IProvider const& provider, StorageIRI const& folder, std::u16string const& prefix, std::vector<FolderEntry>& out) {
  for (auto& entry : collect(*provider.doListAll(folder))) {
    auto relative = prefix.empty() ? entry.getName() : prefix + u"/" + entry.getName();
    bool const isFolder = !entry.isFile();
    out.push_back(entry.withName(relative));
    if (isFolder) walk(provider, StorageIRI(folder, entry.getName()), relative, out);
  }
}

// The entries of a recursive listing whose own name (the last segment of the relative
// path) matches a wildcard pattern, taken from the store's listing as they are asked for.
class RecursiveWildcardFilter : public LookAheadFolderEntryIterator {
 public:
  RecursiveWildcardFilter(FolderEntryIteratorPtr listing, std::u16string pattern)
      : listing_(std::move(listing)), pattern_(std::move(pattern)) {}

 private:
  std::optional<FolderEntry> findNext() override {
    while (listing_->notAtEnd()) {
      listing_->advance();
      FolderEntry entry = listing_->current();
      auto const& path = entry.getName();
      auto const slash = path.rfind(u'/');
      if (matchesWildcard(slash == std::u16string::npos ? path : path.substr(slash + 1), pattern_)) return entry;
    }
    return std::nullopt;
  }

  FolderEntryIteratorPtr listing_;
  std::u16string const pattern_;
};

}  // namespace

StorageIRI scratchLocationFor(StorageIRI const& target) { return scratchBeside(target); }

bool matchesWildcard(std::u16string const& name, std::u16string const& pattern) {
  // Iterative glob matching with backtracking to the last '*'.
  std::size_t n = 0, p = 0, star = std::u16string::npos, mark = 0;
  while (n < name.size()) {
    if (p < pattern.size() && (pattern[p] == u'?' || pattern[p] == name[n])) {
      ++n;
      ++p;
    } else if (p < pattern.size() && pattern[p] == u'*') {
      star = p++;
      mark = n;
    } else if (star != std::u16string::npos) {
      p = star + 1;
      n = ++mark;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == u'*') ++p;
  return p == pattern.size();
}

ByteStreamPtr IProvider::doOpenTransactionalStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const {
  return doOpenTransactionalStreamAtScratchLocation(iri, scratchBeside(iri), options);
}

ByteStreamPtr IProvider::doOpenTransactionalStreamAtScratchLocation(StorageIRI const& iri, StorageIRI const& scratch,
                                                                   ByteStreamOpenOptions const& options) const {
  bool const exists = doFileExists(iri);
  if (!exists && options.openMode == ByteStreamOpenOptions::OpenExisting) throw Exception(ErrorCode::DoesNotExist, iri);
  if (exists && !options.truncate) {
    doCopyFile(iri, scratch, ReplacementPolicy::Always);
  } else {
    if (doFileExists(scratch)) doRemoveFile(scratch);
    doCreateFile(scratch);
  }
  ByteStreamOpenOptions scratchOptions = options;
  scratchOptions.openMode = ByteStreamOpenOptions::OpenExisting;
  scratchOptions.truncate = false;
  return std::make_unique<TransactionalStream>(*this, doOpenStream(scratch, scratchOptions), iri, scratch);
}

FolderEntryIteratorPtr IProvider::doListAllWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  return filtered(doListAll(iri), pattern);
}
FolderEntryIteratorPtr IProvider::doListFilesWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  return filtered(doListFiles(iri), pattern);
}
FolderEntryIteratorPtr IProvider::doListFoldersWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  return filtered(doListFolders(iri), pattern);
}
NameList IProvider::doListAllNamesOnly(StorageIRI const& iri) const { return namesOf(doListAll(iri)); }
NameList IProvider::doListAllNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  return namesOf(doListAllWildcards(iri, pattern));
}
NameList IProvider::doListFoldersNamesOnly(StorageIRI const& iri) const { return namesOf(doListFolders(iri)); }
NameList IProvider::doListFoldersNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  return namesOf(doListFoldersWildcards(iri, pattern));
}
NameList IProvider::doListFilesNamesOnly(StorageIRI const& iri) const { return namesOf(doListFiles(iri)); }
NameList IProvider::doListFilesNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  return namesOf(doListFilesWildcards(iri, pattern));
}

FolderEntryIteratorPtr IProvider::doListAllRecursive(StorageIRI const& iri) const {
  if (!doFolderExists(iri)) throw Exception(ErrorCode::DoesNotExist, iri);
  std::vector<FolderEntry> entries;
  walk(*this, iri, {}, entries);
  return std::make_unique<VectorFolderEntryIterator>(std::move(entries));
}
FolderEntryIteratorPtr IProvider::doListAllRecursiveWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  // "*" keeps every entry: the store's own listing, not a copy of it (a whole tree can
  // hold millions of entries).
  if (pattern == u"*") return doListAllRecursive(iri);
  return std::make_unique<RecursiveWildcardFilter>(doListAllRecursive(iri), pattern);
}
NameList IProvider::doListAllRecursiveNamesOnly(StorageIRI const& iri) const { return namesOf(doListAllRecursive(iri)); }
NameList IProvider::doListAllRecursiveNamesOnlyWildcards(StorageIRI const& iri, std::u16string const& pattern) const {
  return namesOf(doListAllRecursiveWildcards(iri, pattern));
}

bool IProvider::doCopyFileAtomic(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy,
                                 InterruptCallback const& interrupt) const {
  if (!doFileExists(src)) throw Exception(ErrorCode::DoesNotExist, src);
  if (policy != ReplacementPolicy::Always && doExists(dst)) throw Exception(ErrorCode::AlreadyExists, dst);
  auto scratch = scratchBeside(dst);
  auto in = doOpenReadOnlyStream(src);
  ByteStreamOpenOptions options;
  options.truncate = true;
  auto out = doOpenStream(scratch, options);
  bool const complete = copyStream(*in, *out, interrupt);
  in->close();
  out->close();
  if (!complete) {
    doRemoveFile(scratch);
    return false;
  }
  doMoveFile(scratch, dst, ReplacementPolicy::Always);
  return true;
}

void IProvider::doPublishFolderEventsFor(StorageIRI const& iri, events::Callback const&, std::vector<events::Kind> const&,
                                         events::RecursiveFileWatching) const {
  throw Exception(ErrorCode::NotSupported, iri, "change events are not supported");
}
void IProvider::doPublishFileEventsFor(StorageIRI const& iri, events::Callback const&) const {
  throw Exception(ErrorCode::NotSupported, iri, "change events are not supported");
}
void IProvider::doStopPublishingEventsFor(StorageIRI const&) const {}
void IProvider::doStartChangePollingMechanism(StorageIRI const& iri, events::Callback const&) const {
  throw Exception(ErrorCode::NotSupported, iri, "change polling is not supported");
}
void IProvider::doStopChangePollingMechanism(StorageIRI const&) const {}

PathComparator IProvider::doGetPathComparator(StorageIRI const& iri) const {
  if (doGetFilenameSensitivity(iri) == FilenameSensitivity::CaseInsensitive) {
    return [](std::u16string const& a, std::u16string const& b) {
      return fl::i18n::to_lower(a).compare(fl::i18n::to_lower(b));
    };
  }
  return [](std::u16string const& a, std::u16string const& b) { return a.compare(b); };
}

StorageIRI IProvider::doGetCanonicalLocation(StorageIRI const& iri) const { return iri.getResolvedIRI(); }

FilenameSensitivity IProvider::doGetFilenameSensitivity(StorageIRI const&) const {
  return FilenameSensitivity::CaseSensitive;
}

bool IProvider::doExists(StorageIRI const& iri) const { return doFileExists(iri) || doFolderExists(iri); }

ExistenceKind IProvider::doExistsExtended(StorageIRI const& iri) const {
  if (doFileExists(iri)) return ExistenceKind::File;
  if (doFolderExists(iri)) return ExistenceKind::Folder;
  return ExistenceKind::None;
}

void IProvider::doTruncateToSize(StorageIRI const& iri, unsigned long long size) const {
  auto const current = doGetFileAttributes(iri).getSize().value_or(0);
  if (current == size) return;
  ByteStreamOpenOptions existing;
  existing.openMode = ByteStreamOpenOptions::OpenExisting;
  if (current < size) {
    auto stream = doOpenStream(iri, existing);
    stream->seek(0, std::ios_base::end);
    std::vector<char> zeros(static_cast<std::size_t>(std::min<unsigned long long>(size - current, kChunk)), 0);
    for (auto left = size - current; left > 0;) {
      auto n = static_cast<long>(std::min<unsigned long long>(left, zeros.size()));
      left -= static_cast<unsigned long long>(stream->write(zeros.data(), n));
    }
    stream->close();
    return;
  }
  std::vector<char> kept(static_cast<std::size_t>(size));
  {
    auto in = doOpenReadOnlyStream(iri);
    for (std::size_t done = 0; done < kept.size();) {
      long n = in->read(kept.data() + done, static_cast<long>(kept.size() - done));
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    in->close();
  }
  existing.truncate = true;
  auto out = doOpenStream(iri, existing);
  for (std::size_t done = 0; done < kept.size();) {
    done += static_cast<std::size_t>(out->write(kept.data() + done, static_cast<long>(kept.size() - done)));
  }
  out->close();
}

ProviderCacheUsage IProvider::doGetProviderCacheUsage(StorageIRI const&) const { return ProviderCacheUsage(); }

}  // namespace foundation::storage::provider
