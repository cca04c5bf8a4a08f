#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include "MemoryByteStream.hpp"
#include "StoreState.hpp"

#include <foundation/storage/provider/Exception.hpp>

#include <functional>
#include <stdexcept>

namespace providers::mem {

using detail::MemoryTree;
using detail::Node;
using detail::Segments;
using detail::StoreState;
using foundation::storage::events::Kind;
using foundation::storage::provider::ByteStreamOpenOptions;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::ExtendedFeature;
using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::ByteStreamPtr;
using foundation::storage::provider::Exception;
using foundation::storage::provider::ExtendedAttributes;
using foundation::storage::provider::FileAttributes;
using foundation::storage::provider::FolderAttributes;
using foundation::storage::provider::FolderEntry;
using foundation::storage::provider::FolderEntryIteratorPtr;
using foundation::storage::provider::ProviderCacheUsage;
using foundation::storage::provider::ProviderStorageInfo;
using foundation::storage::provider::ReplacementPolicy;
using foundation::storage::provider::VectorFolderEntryIterator;

namespace {

using Lock = std::lock_guard<std::mutex>;

Segments segmentsOf(StorageIRI const& iri) { return MemoryTree::split(iri.getPath()); }

Segments parentOf(Segments segments) {
  segments.pop_back();
  return segments;
}

// The IRI the caller would use for `node`: the caller's IRI with the node's path.
StorageIRI iriAt(StorageIRI const& callerIri, Node const& node) { return callerIri.withPath(MemoryTree::pathOf(node)); }

ExtendedAttributes extendedOf(Node const& node) {
  ExtendedAttributes attributes = node.extended;
  if (node.data) attributes.setAttribute("WATERMARK", std::to_string(node.data->version));
  return attributes;
}

FolderEntry entryOf(Node const& node, std::u16string name, bool withExtended) {
  FolderEntry entry = node.folder ? FolderEntry(std::move(name), FolderAttributes(node.lastModified, node.writable))
                                  : FolderEntry(std::move(name), FileAttributes(node.data->bytes.size(),
                                                                                node.data->lastModified, node.writable));
  if (withExtended) entry.withExtendedAttributes(extendedOf(node));
  return entry;
}

// Throws the injected fault `fault` of `op` on `iri`.
[[noreturn]] void raise(Operation op, detail::Fault const& fault, StorageIRI const& iri) {
  if (fault.unexpected) {
    throw std::runtime_error(std::string("Injected unexpected failure in ") + toString(op) + " on " + iri.toUtf8());
  }
  throw Exception(fault.code, iri, std::string("injected fault in ") + toString(op));
}

// A recursive listing taken at the call, handed out entry by entry; `descend` runs
// before the first entry inside each sub-folder (the entry right after its folder's).
class RecursiveListing : public foundation::storage::provider::IClonableFolderEntryIterator<RecursiveListing> {
 public:
  RecursiveListing(std::vector<FolderEntry> entries, std::function<void()> descend)
      : entries_(std::move(entries)), descend_(std::move(descend)) {}
  FolderEntry current() const override {
    if (pos_ == 0) throw std::logic_error("RecursiveListing: current() before advance()");
    return entries_[pos_ - 1];
  }
  bool notAtEnd() const override { return pos_ < entries_.size(); }
  void advance() override {
    if (!notAtEnd()) throw std::out_of_range("RecursiveListing: advance() at the end");
    if (pos_ > 0 && !entries_[pos_ - 1].isFile()) {
      auto const& folder = entries_[pos_ - 1].getName();
      auto const& next = entries_[pos_].getName();
      if (next.size() > folder.size() && next.compare(0, folder.size(), folder) == 0 && next[folder.size()] == u'/') {
        descend_();
      }
    }
    ++pos_;
  }

 private:
  std::vector<FolderEntry> entries_;
  std::function<void()> descend_;
  std::size_t pos_ = 0;  // entries handed out so far
};

void listRecursively(Node const& folder, std::u16string const& prefix, bool withExtended, std::vector<FolderEntry>& out) {
  for (auto const& [key, child] : folder.children) {
    auto relative = prefix.empty() ? child->name : prefix + u"/" + child->name;
    out.push_back(entryOf(*child, relative, withExtended));
    if (child->folder) listRecursively(*child, relative, withExtended, out);
  }
}

// Throws NotWritable naming the first folder at or below `node` that would lose content
// but may not be changed.
void checkFoldersWritable(Node const& node, StorageIRI const& callerIri) {
  if (!node.folder) return;
  if (!node.children.empty() && !node.writable) throw Exception(ErrorCode::NotWritable, iriAt(callerIri, node));
  for (auto const& [key, child] : node.children) checkFoldersWritable(*child, callerIri);
}

}  // namespace

MemoryProvider::MemoryProvider() : MemoryProvider(Options{}) {}

MemoryProvider::MemoryProvider(Options options)
    : state_(std::make_shared<StoreState>(options)), sideDoor_(std::make_unique<SideDoor>(*state_)) {}

MemoryProvider::~MemoryProvider() {
  state_->controls.openAllGates();
  state_->events.shutdown();
}

StorageIRI MemoryProvider::root() const { return state_->root; }
std::u16string const& MemoryProvider::name() const { return state_->name; }

void MemoryProvider::enter(Operation op, StorageIRI const& iri) const {
  if (auto fault = state_->controls.enter(op)) raise(op, *fault, iri);
}

// ---- create ---------------------------------------------------------------------------

void MemoryProvider::doCreateFile(StorageIRI const& iri) const {
  enter(Operation::CreateFile, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  auto& tree = state_->tree;
  if (segments.empty() || tree.find(segments) != nullptr) throw Exception(ErrorCode::AlreadyExists, iri);
  Node* parent = tree.find(parentOf(segments));
  if (parent == nullptr || !parent->folder) throw Exception(ErrorCode::DoesNotExist, iri.getParent());
  if (!parent->writable) throw Exception(ErrorCode::NotWritable, iri.getParent());
  state_->publish(Kind::Added, tree.addFile(*parent, segments.back(), StoreState::now()));
}

void MemoryProvider::doCreateFolder(StorageIRI const& iri) const {
  enter(Operation::CreateFolder, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  auto& tree = state_->tree;
  if (segments.empty() || tree.find(segments) != nullptr) throw Exception(ErrorCode::AlreadyExists, iri);
  Node* parent = tree.find(parentOf(segments));
  if (parent == nullptr || !parent->folder) throw Exception(ErrorCode::DoesNotExist, iri.getParent());
  if (!parent->writable) throw Exception(ErrorCode::NotWritable, iri.getParent());
  state_->publish(Kind::Added, tree.addFolder(*parent, segments.back(), StoreState::now()));
}

void MemoryProvider::doCreateFolderRecursive(StorageIRI const& iri) const {
  enter(Operation::CreateFolderRecursive, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  auto& tree = state_->tree;
  // Walk what exists, then check before creating anything, so a failure leaves no trace.
  Node* node = &tree.root();
  std::size_t depth = 0;
  for (; depth < segments.size(); ++depth) {
    Node* next = tree.child(*node, segments[depth]);
    if (next == nullptr) break;
    if (!next->folder) {
      throw Exception(ErrorCode::AlreadyExists,
                      depth + 1 == segments.size() ? iri : iri.withPath(StoreState::joinPath(segments, depth + 1)));
    }
    node = next;
  }
  if (depth == segments.size()) return;
  if (!node->writable) throw Exception(ErrorCode::NotWritable, iri.withPath(StoreState::joinPath(segments, depth)));
  auto const now = StoreState::now();
  for (; depth < segments.size(); ++depth) {
    node = &tree.addFolder(*node, segments[depth], now);
    state_->publish(Kind::Added, *node);
  }
}

// ---- existence ------------------------------------------------------------------------

bool MemoryProvider::doFileExists(StorageIRI const& iri) const {
  enter(Operation::FileExists, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node const* node = state_->tree.find(segments);
  return node != nullptr && !node->folder;
}

bool MemoryProvider::doFolderExists(StorageIRI const& iri) const {
  enter(Operation::FolderExists, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node const* node = state_->tree.find(segments);
  return node != nullptr && node->folder;
}

// ---- remove ---------------------------------------------------------------------------

void MemoryProvider::doRemoveFile(StorageIRI const& iri) const {
  enter(Operation::RemoveFile, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node* node = state_->tree.find(segments);
  if (node == nullptr || node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  if (!node->parent->writable) throw Exception(ErrorCode::NotWritable, iri.getParent());
  state_->checkRemovable(*node, iri);
  state_->publish(Kind::Removed, *node);
  state_->tree.destroy(*node, StoreState::now());
}

void MemoryProvider::doRemoveFolder(StorageIRI const& iri) const {
  enter(Operation::RemoveFolder, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node* node = state_->tree.find(segments);
  if (node == nullptr || !node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  if (node->parent == nullptr) throw Exception(ErrorCode::InvalidName, iri, "the root cannot be removed");
  if (!node->parent->writable) throw Exception(ErrorCode::NotWritable, iri.getParent());
  if (!node->children.empty()) throw Exception(ErrorCode::FolderNotEmpty, iri);
  state_->publish(Kind::Removed, *node);
  state_->tree.destroy(*node, StoreState::now());
}

void MemoryProvider::doRemoveFolderRecursively(StorageIRI const& iri) const {
  enter(Operation::RemoveFolderRecursively, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node* node = state_->tree.find(segments);
  if (node == nullptr || !node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  if (node->parent == nullptr) throw Exception(ErrorCode::InvalidName, iri, "the root cannot be removed");
  if (!node->parent->writable) throw Exception(ErrorCode::NotWritable, iri.getParent());
  checkFoldersWritable(*node, iri);
  state_->checkRemovable(*node, iri);
  state_->publish(Kind::Removed, *node);
  state_->tree.destroy(*node, StoreState::now());
}

// ---- move and copy ----------------------------------------------------------------------

void MemoryProvider::doMoveFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  enter(Operation::MoveFile, src);
  auto const from = segmentsOf(src);
  auto const to = segmentsOf(dst);
  Lock lock(state_->treeMutex);
  auto& tree = state_->tree;
  Node* source = tree.find(from);
  if (source == nullptr || source->folder) throw Exception(ErrorCode::DoesNotExist, src);
  if (to.empty()) throw Exception(ErrorCode::AlreadyExists, dst);
  Node* folder = tree.find(parentOf(to));
  if (folder == nullptr || !folder->folder) throw Exception(ErrorCode::DoesNotExist, dst.getParent());
  Node* target = tree.child(*folder, to.back());
  if (target != nullptr && target != source) {
    if (target->folder || policy != ReplacementPolicy::Always) throw Exception(ErrorCode::AlreadyExists, dst);
  }
  if (target == source && source->name == to.back()) return;  // onto itself
  if (!source->parent->writable) throw Exception(ErrorCode::NotWritable, src.getParent());
  if (!folder->writable) throw Exception(ErrorCode::NotWritable, dst.getParent());
  if (target != nullptr && target != source) state_->checkRemovable(*target, dst);

  auto const now = StoreState::now();
  auto fromKeys = MemoryTree::keyPathOf(*source);
  auto const fromPath = MemoryTree::pathOf(*source);
  if (target != nullptr && target != source) tree.destroy(*target, now);
  Node& moved = tree.attach(*folder, tree.detach(*source, now), to.back(), now);
  state_->publishMove(std::move(fromKeys), fromPath, moved);
}

namespace {

// Checks that `source` can be merged into the existing folder `target` under `policy`
// (Always or KeepExisting) without changing anything: no file meets a folder, and no
// file that would go has a stream open that may not be removed.
void checkMerge(StoreState& state, Node const& source, Node& target, ReplacementPolicy policy, StorageIRI const& dst,
                StorageIRI const& src) {
  auto& tree = state.tree;
  for (auto const& [key, child] : source.children) {
    Node* existing = tree.child(target, child->name);
    if (existing == nullptr) continue;
    if (existing->folder != child->folder) throw Exception(ErrorCode::AlreadyExists, iriAt(dst, *existing));
    if (child->folder) {
      checkMerge(state, *child, *existing, policy, dst, src);
    } else if (policy == ReplacementPolicy::Always) {
      state.checkRemovable(*existing, iriAt(dst, *existing));
    } else {
      state.checkRemovable(*child, iriAt(src, *child));
    }
  }
}

// Moves the content of `source` into `target`; see checkMerge. What stays in `source`
// (files the destination kept) goes with it when the caller destroys it.
void merge(MemoryTree& tree, Node& source, Node& target, ReplacementPolicy policy, boost::posix_time::ptime now) {
  std::vector<Node*> children;
  for (auto const& [key, child] : source.children) children.push_back(child.get());
  for (Node* child : children) {
    Node* existing = tree.child(target, child->name);
    if (existing == nullptr) {
      auto const name = child->name;
      tree.attach(target, tree.detach(*child, now), name, now);
    } else if (child->folder) {
      merge(tree, *child, *existing, policy, now);
    } else if (policy == ReplacementPolicy::Always) {
      auto const name = existing->name;
      tree.destroy(*existing, now);
      tree.attach(target, tree.detach(*child, now), name, now);
    }
  }
}

}  // namespace

void MemoryProvider::doMoveFolder(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  enter(Operation::MoveFolder, src);
  auto const from = segmentsOf(src);
  auto const to = segmentsOf(dst);
  Lock lock(state_->treeMutex);
  auto& tree = state_->tree;
  Node* source = tree.find(from);
  if (source == nullptr || !source->folder) throw Exception(ErrorCode::DoesNotExist, src);
  if (source->parent == nullptr) throw Exception(ErrorCode::InvalidName, src, "the root cannot be moved");
  if (to.empty()) throw Exception(ErrorCode::AlreadyExists, dst);
  auto const sourceKeys = MemoryTree::keyPathOf(*source);
  auto const targetKeys = tree.keysOf(to);
  if (targetKeys == sourceKeys) {
    if (source->name == to.back()) return;  // onto itself
  } else if (targetKeys.size() > sourceKeys.size() &&
             std::equal(sourceKeys.begin(), sourceKeys.end(), targetKeys.begin())) {
    throw Exception(ErrorCode::InvalidName, dst, "a folder cannot be moved into itself");
  }
  Node* folder = tree.find(parentOf(to));
  if (folder == nullptr || !folder->folder) throw Exception(ErrorCode::DoesNotExist, dst.getParent());
  Node* target = tree.child(*folder, to.back());
  if (target == source) target = nullptr;  // a change of case only
  if (target != nullptr) {
    if (!target->folder || policy == ReplacementPolicy::Never) throw Exception(ErrorCode::AlreadyExists, dst);
    if (MemoryTree::isWithin(*source, *target)) {
      throw Exception(ErrorCode::InvalidName, dst, "a folder cannot be merged into its own ancestor");
    }
  }
  if (!source->parent->writable) throw Exception(ErrorCode::NotWritable, src.getParent());
  if (target == nullptr && !folder->writable) throw Exception(ErrorCode::NotWritable, dst.getParent());
  if (target != nullptr && !target->writable) throw Exception(ErrorCode::NotWritable, dst);

  auto const now = StoreState::now();
  auto fromKeys = sourceKeys;
  auto const fromPath = MemoryTree::pathOf(*source);
  if (target == nullptr) {
    Node& moved = tree.attach(*folder, tree.detach(*source, now), to.back(), now);
    state_->publishMove(std::move(fromKeys), fromPath, moved);
    return;
  }
  checkMerge(*state_, *source, *target, policy, dst, src);
  merge(tree, *source, *target, policy, now);
  tree.destroy(*source, now);
  state_->publishMove(std::move(fromKeys), fromPath, *target);
}

void MemoryProvider::doCopyFile(StorageIRI const& src, StorageIRI const& dst, ReplacementPolicy const& policy) const {
  enter(Operation::CopyFile, src);
  auto const from = segmentsOf(src);
  auto const to = segmentsOf(dst);
  Lock lock(state_->treeMutex);
  auto& tree = state_->tree;
  Node* source = tree.find(from);
  if (source == nullptr || source->folder) throw Exception(ErrorCode::DoesNotExist, src);
  if (to.empty()) throw Exception(ErrorCode::AlreadyExists, dst);
  Node* folder = tree.find(parentOf(to));
  if (folder == nullptr || !folder->folder) throw Exception(ErrorCode::DoesNotExist, dst.getParent());
  Node* target = tree.child(*folder, to.back());
  if (target != nullptr) {
    if (target->folder || policy != ReplacementPolicy::Always) throw Exception(ErrorCode::AlreadyExists, dst);
    if (target == source) return;  // a copy onto itself changes nothing
    if (!target->writable) throw Exception(ErrorCode::NotWritable, dst);
  } else if (!folder->writable) {
    throw Exception(ErrorCode::NotWritable, dst.getParent());
  }
  auto const size = source->data->bytes.size();
  auto const replaced = target != nullptr ? target->data->bytes.size() : 0;
  if (state_->capacity && tree.used() - replaced + size > *state_->capacity) {
    throw Exception(ErrorCode::QuotaExceeded, dst,
                    "the copy needs " + std::to_string(size) + " bytes; the store holds " + std::to_string(tree.used()) +
                        " of " + std::to_string(*state_->capacity));
  }
  auto const now = StoreState::now();
  if (target != nullptr) {
    target->data->bytes = source->data->bytes;
    tree.resized(*target->data, replaced);
    tree.touched(*target->data, now);
    state_->publish(Kind::Modified, *target);
    return;
  }
  Node& copy = tree.addFile(*folder, to.back(), now);
  copy.data->bytes = source->data->bytes;
  copy.writable = source->writable;
  tree.resized(*copy.data, 0);
  state_->publish(Kind::Added, copy);
}

// ---- attributes -------------------------------------------------------------------------

FileAttributes MemoryProvider::doGetFileAttributes(StorageIRI const& iri) const {
  enter(Operation::GetFileAttributes, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node const* node = state_->tree.find(segments);
  if (node == nullptr || node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  return FileAttributes(node->data->bytes.size(), node->data->lastModified, node->writable);
}

FolderAttributes MemoryProvider::doGetFolderAttributes(StorageIRI const& iri) const {
  enter(Operation::GetFolderAttributes, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node const* node = state_->tree.find(segments);
  if (node == nullptr || !node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  return FolderAttributes(node->lastModified, node->writable);
}

ExtendedAttributes MemoryProvider::doGetExtendedAttributes(StorageIRI const& iri) const {
  enter(Operation::GetExtendedAttributes, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node const* node = state_->tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iri);
  return extendedOf(*node);
}

void MemoryProvider::doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const {
  enter(Operation::SetLastModified, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node* node = state_->tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iri);
  (node->folder ? node->lastModified : node->data->lastModified) = time;
  state_->publish(Kind::Modified, *node);
}

void MemoryProvider::doSetWritable(StorageIRI const& iri, bool writable) const {
  enter(Operation::SetWritable, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node* node = state_->tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iri);
  node->writable = writable;
  state_->publish(Kind::Modified, *node);
}

// ---- streams ----------------------------------------------------------------------------

ByteStreamPtr MemoryProvider::doOpenStream(StorageIRI const& iri, ByteStreamOpenOptions const& options) const {
  enter(Operation::OpenStream, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  auto& tree = state_->tree;
  auto const now = StoreState::now();
  Node* node = tree.find(segments);
  if (node == nullptr) {
    if (options.openMode == ByteStreamOpenOptions::OpenExisting) throw Exception(ErrorCode::DoesNotExist, iri);
    Node* parent = tree.find(parentOf(segments));
    if (parent == nullptr || !parent->folder) throw Exception(ErrorCode::DoesNotExist, iri.getParent());
    if (!parent->writable) throw Exception(ErrorCode::NotWritable, iri.getParent());
    node = &tree.addFile(*parent, segments.back(), now);
    state_->publish(Kind::Added, *node);
  } else if (node->folder) {
    throw Exception(options.openMode == ByteStreamOpenOptions::OpenExisting ? ErrorCode::DoesNotExist
                                                                            : ErrorCode::AlreadyExists,
                    iri, "a folder is there");
  } else if (!node->writable) {
    throw Exception(ErrorCode::NotWritable, iri);
  }
  auto data = node->data;
  bool changed = false;
  if (options.truncate) {
    auto const oldSize = data->bytes.size();
    data->bytes.clear();
    tree.resized(*data, oldSize);
    tree.touched(*data, now);
    changed = true;
  }
  ++data->writers;
  state_->openStreams.fetch_add(1, std::memory_order_relaxed);
  return std::make_unique<detail::MemoryByteStream>(state_, std::move(data), iri, false, options.append, changed);
}

ByteStreamPtr MemoryProvider::doOpenReadOnlyStream(StorageIRI const& iri) const {
  enter(Operation::OpenReadOnlyStream, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node* node = state_->tree.find(segments);
  if (node == nullptr || node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  ++node->data->readers;
  state_->openStreams.fetch_add(1, std::memory_order_relaxed);
  return std::make_unique<detail::MemoryByteStream>(state_, node->data, iri, true, false, false);
}

// ---- listings ---------------------------------------------------------------------------

FolderEntryIteratorPtr MemoryProvider::list(Operation op, StorageIRI const& iri, bool files, bool folders) const {
  enter(op, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  Node const* node = state_->tree.find(segments);
  if (node == nullptr || !node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  bool const withExtended = state_->features.count(ExtendedFeature::ExtendedAttributes) != 0;
  std::vector<FolderEntry> entries;
  entries.reserve(node->children.size());
  for (auto const& [key, child] : node->children) {
    if (child->folder ? folders : files) entries.push_back(entryOf(*child, child->name, withExtended));
  }
  return std::make_unique<VectorFolderEntryIterator>(std::move(entries));
}

FolderEntryIteratorPtr MemoryProvider::doListAll(StorageIRI const& iri) const {
  return list(Operation::ListAll, iri, true, true);
}
FolderEntryIteratorPtr MemoryProvider::doListFiles(StorageIRI const& iri) const {
  return list(Operation::ListFiles, iri, true, false);
}
FolderEntryIteratorPtr MemoryProvider::doListFolders(StorageIRI const& iri) const {
  return list(Operation::ListFolders, iri, false, true);
}

FolderEntryIteratorPtr MemoryProvider::doListAllRecursive(StorageIRI const& iri) const {
  enter(Operation::ListAllRecursive, iri);
  auto const segments = segmentsOf(iri);
  Lock lock(state_->treeMutex);
  if (state_->features.count(ExtendedFeature::RecursiveListing) == 0) {
    throw Exception(ErrorCode::NotSupported, iri, "recursive listing is switched off");
  }
  Node const* node = state_->tree.find(segments);
  if (node == nullptr || !node->folder) throw Exception(ErrorCode::DoesNotExist, iri);
  std::vector<FolderEntry> entries;
  listRecursively(*node, {}, state_->features.count(ExtendedFeature::ExtendedAttributes) != 0, entries);
  return std::make_unique<RecursiveListing>(std::move(entries), [state = state_, iri] {
    if (auto fault = state->controls.enter(Operation::ListAllRecursiveDescend)) {
      raise(Operation::ListAllRecursiveDescend, *fault, iri);
    }
  });
}

// ---- events -----------------------------------------------------------------------------

void MemoryProvider::subscribe(StorageIRI const& iri, bool file, foundation::storage::events::Callback const& callback,
                               std::vector<Kind> const& kinds, bool recursive) const {
  enter(Operation::PublishEvents, iri);
  auto const segments = segmentsOf(iri);
  // Subscribing under the tree lock: no change can slip between the check and the
  // subscription.
  Lock lock(state_->treeMutex);
  Node const* node = state_->tree.find(segments);
  if (node == nullptr || node->folder == file) throw Exception(ErrorCode::DoesNotExist, iri);
  using Scope = detail::EventDispatcher::Scope;
  auto const scope = file ? Scope::File : recursive ? Scope::FolderRecursive : Scope::FolderDirect;
  state_->events.subscribe(iri, MemoryTree::keyPathOf(*node), scope, kinds, callback);
}

void MemoryProvider::doPublishFolderEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback,
                                              std::vector<Kind> const& kinds,
                                              foundation::storage::events::RecursiveFileWatching recursive) const {
  subscribe(iri, false, callback, kinds, recursive == foundation::storage::events::RecursiveFileWatching::Enabled);
}

void MemoryProvider::doPublishFileEventsFor(StorageIRI const& iri,
                                            foundation::storage::events::Callback const& callback) const {
  subscribe(iri, true, callback, {}, false);
}

void MemoryProvider::doStopPublishingEventsFor(StorageIRI const& iri) const {
  enter(Operation::StopEvents, iri);
  // Not under the tree lock: this waits for a running callback, which may call the store.
  state_->events.unsubscribe(state_->tree.keysOf(segmentsOf(iri)));
}

void MemoryProvider::waitForEventsDelivered() const { state_->events.waitUntilDelivered(); }

// ---- store-wide -------------------------------------------------------------------------

bool MemoryProvider::doHasFeature(ExtendedFeature const& feature) const {
  enter(Operation::HasFeature, state_->root);
  Lock lock(state_->treeMutex);
  return state_->features.count(feature) != 0;
}

foundation::storage::provider::FilenameSensitivity MemoryProvider::doGetFilenameSensitivity(StorageIRI const&) const {
  return state_->sensitivity;
}

void MemoryProvider::doShutdown() {
  enter(Operation::Shutdown, state_->root);
  state_->events.shutdown();
}

ProviderStorageInfo MemoryProvider::doGetProviderStorageInfo(StorageIRI const& iri) const {
  enter(Operation::GetStorageInfo, iri);
  Lock lock(state_->treeMutex);
  return ProviderStorageInfo()
      .withStorageCapacity(state_->capacity.value_or(kUnlimitedCapacity))
      .withSpaceOccupied(state_->tree.used());
}

ProviderCacheUsage MemoryProvider::doGetProviderCacheUsage(StorageIRI const& iri) const {
  enter(Operation::GetCacheUsage, iri);
  Lock lock(state_->treeMutex);
  return ProviderCacheUsage(state_->cacheSpaceAvailable);
}

void MemoryProvider::doConfigure(boost::property_tree::ptree config) {
  enter(Operation::Configure, state_->root);
  Lock lock(state_->treeMutex);
  state_->lastConfiguration = std::move(config);
}

// ---- test controls ----------------------------------------------------------------------

void MemoryProvider::failNext(Operation op, int count, ErrorCode code) {
  state_->controls.failNext(op, count, detail::Fault{false, code});
}

void MemoryProvider::failNextUnexpected(Operation op, int count) {
  state_->controls.failNext(op, count, detail::Fault{true, ErrorCode::TransientFailure});
}

void MemoryProvider::failEvery(Operation op, unsigned n, ErrorCode code, std::uint64_t seed) {
  state_->controls.failEvery(op, n, detail::Fault{false, code}, seed);
}

void MemoryProvider::clearFaults() { state_->controls.clearFaults(); }

void MemoryProvider::setLatency(Operation op, std::chrono::microseconds latency) {
  state_->controls.setLatency(op, latency);
}

void MemoryProvider::setLatency(std::chrono::microseconds latency) { state_->controls.setLatencyForAll(latency); }

Gate& MemoryProvider::gate(Operation op) { return state_->controls.gate(op); }

std::size_t MemoryProvider::calls(Operation op) const { return state_->controls.calls(op); }

void MemoryProvider::resetCounters() { state_->controls.resetCounters(); }

SideDoor& MemoryProvider::elsewhere() const { return *sideDoor_; }

boost::property_tree::ptree MemoryProvider::lastConfiguration() const {
  Lock lock(state_->treeMutex);
  return state_->lastConfiguration;
}

void MemoryProvider::setCapacity(std::optional<unsigned long> capacity) {
  Lock lock(state_->treeMutex);
  state_->capacity = capacity;
}

void MemoryProvider::setCacheSpaceAvailable(std::optional<unsigned long> spaceAvailable) {
  Lock lock(state_->treeMutex);
  state_->cacheSpaceAvailable = spaceAvailable;
}

void MemoryProvider::setFeatures(std::set<ExtendedFeature> features) {
  Lock lock(state_->treeMutex);
  state_->features = std::move(features);
}

std::optional<std::string> MemoryProvider::contentOf(std::u16string const& path) const {
  return sideDoor_->contentOf(path);
}
bool MemoryProvider::hasFileAt(std::u16string const& path) const { return sideDoor_->hasFileAt(path); }
bool MemoryProvider::hasFolderAt(std::u16string const& path) const { return sideDoor_->hasFolderAt(path); }
std::map<std::u16string, std::optional<std::string>> MemoryProvider::snapshot() const {
  return sideDoor_->snapshot();
}

}  // namespace providers::mem
