#include <providers/mem/SideDoor.hpp>

#include "StoreState.hpp"

#include <foundation/storage/provider/Exception.hpp>

namespace providers::mem {

using detail::MemoryTree;
using detail::Node;
using detail::Segments;
using detail::StoreState;
using foundation::storage::events::EntryType;
using foundation::storage::events::Kind;
using foundation::storage::provider::ErrorCode;
using foundation::storage::provider::Exception;
using foundation::storage::provider::StorageIRI;

namespace {

using Lock = std::lock_guard<std::mutex>;

void snapshotOf(Node const& folder, std::map<std::u16string, std::optional<std::string>>& out) {
  for (auto const& [key, child] : folder.children) {
    auto path = MemoryTree::pathOf(*child);
    if (child->folder) {
      out.emplace(std::move(path), std::nullopt);
      snapshotOf(*child, out);
    } else {
      out.emplace(std::move(path), child->data->bytes);
    }
  }
}

}  // namespace

StorageIRI SideDoor::iriOf(std::u16string const& path) const { return state_.iriOfPath(path); }

void SideDoor::writeFile(std::u16string const& path, std::string const& content) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  auto& tree = state_.tree;
  auto const now = StoreState::now();
  Node* node = tree.find(segments);
  if (node == nullptr) {
    Node* parent = tree.find(Segments(segments.begin(), segments.end() - 1));
    if (parent == nullptr || !parent->folder) {
      throw Exception(ErrorCode::DoesNotExist, iriOf(StoreState::joinPath(segments, segments.size() - 1)));
    }
    node = &tree.addFile(*parent, segments.back(), now);
    node->data->bytes = content;
    tree.resized(*node->data, 0);
    state_.publish(Kind::Added, *node);
    return;
  }
  if (node->folder) throw Exception(ErrorCode::AlreadyExists, iriOf(path), "a folder is there");
  auto const oldSize = node->data->bytes.size();
  node->data->bytes = content;
  tree.resized(*node->data, oldSize);
  tree.touched(*node->data, now);
  state_.publish(Kind::Modified, *node);
}

void SideDoor::createFolder(std::u16string const& path) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  auto& tree = state_.tree;
  auto const now = StoreState::now();
  Node* node = &tree.root();
  for (std::size_t depth = 0; depth < segments.size(); ++depth) {
    Node* next = tree.child(*node, segments[depth]);
    if (next == nullptr) {
      next = &tree.addFolder(*node, segments[depth], now);
      state_.publish(Kind::Added, *next);
    } else if (!next->folder) {
      throw Exception(ErrorCode::AlreadyExists, iriOf(StoreState::joinPath(segments, depth + 1)), "a file is there");
    }
    node = next;
  }
}

void SideDoor::remove(std::u16string const& path) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node* node = state_.tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iriOf(path));
  if (node->parent == nullptr) throw Exception(ErrorCode::InvalidName, iriOf(path), "the root cannot be removed");
  state_.publish(Kind::Removed, *node);
  state_.tree.destroy(*node, StoreState::now());
}

void SideDoor::rename(std::u16string const& from, std::u16string const& to) const {
  auto const source = MemoryTree::split(from);
  auto const target = MemoryTree::split(to);
  Lock lock(state_.treeMutex);
  auto& tree = state_.tree;
  Node* node = tree.find(source);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iriOf(from));
  if (node->parent == nullptr) throw Exception(ErrorCode::InvalidName, iriOf(from), "the root cannot be moved");
  if (target.empty()) throw Exception(ErrorCode::AlreadyExists, iriOf(to));
  Node* folder = tree.find(Segments(target.begin(), target.end() - 1));
  if (folder == nullptr || !folder->folder) {
    throw Exception(ErrorCode::DoesNotExist, iriOf(StoreState::joinPath(target, target.size() - 1)));
  }
  if (MemoryTree::isWithin(*folder, *node)) {
    throw Exception(ErrorCode::InvalidName, iriOf(to), "a folder cannot be moved into itself");
  }
  Node* existing = tree.child(*folder, target.back());
  if (existing == node) {
    if (node->name == target.back()) return;
    existing = nullptr;  // a change of case only
  }
  if (existing != nullptr && existing->folder) throw Exception(ErrorCode::AlreadyExists, iriOf(to), "a folder is there");
  auto const now = StoreState::now();
  auto fromKeys = MemoryTree::keyPathOf(*node);
  auto const fromPath = MemoryTree::pathOf(*node);
  if (existing != nullptr) tree.destroy(*existing, now);
  Node& moved = tree.attach(*folder, tree.detach(*node, now), target.back(), now);
  state_.publishMove(std::move(fromKeys), fromPath, moved);
}

void SideDoor::setExtendedAttribute(std::u16string const& path, std::string const& name, boost::any value) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node* node = state_.tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iriOf(path));
  node->extended.setAttribute(name, std::move(value));
  state_.publish(Kind::Modified, *node);
}

void SideDoor::removeExtendedAttribute(std::u16string const& path, std::string const& name) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node* node = state_.tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iriOf(path));
  node->extended.removeAttribute(name);
  state_.publish(Kind::Modified, *node);
}

void SideDoor::setWritable(std::u16string const& path, bool writable) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node* node = state_.tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iriOf(path));
  node->writable = writable;
  state_.publish(Kind::Modified, *node);
}

void SideDoor::setLastModified(std::u16string const& path, boost::posix_time::ptime time) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node* node = state_.tree.find(segments);
  if (node == nullptr) throw Exception(ErrorCode::DoesNotExist, iriOf(path));
  (node->folder ? node->lastModified : node->data->lastModified) = time;
  state_.publish(Kind::Modified, *node);
}

void SideDoor::publishRefresh(std::u16string const& path) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node const* node = state_.tree.find(segments);
  if (node != nullptr) {
    state_.publishAt(Kind::Refresh, MemoryTree::keyPathOf(*node), MemoryTree::pathOf(*node),
                     node->folder ? EntryType::Folder : EntryType::File);
  } else {
    state_.publishAt(Kind::Refresh, state_.tree.keysOf(segments), StoreState::joinPath(segments, segments.size()),
                     EntryType::Folder);
  }
}

std::optional<std::string> SideDoor::contentOf(std::u16string const& path) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node const* node = state_.tree.find(segments);
  if (node == nullptr || node->folder) return std::nullopt;
  return node->data->bytes;
}

bool SideDoor::hasFileAt(std::u16string const& path) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node const* node = state_.tree.find(segments);
  return node != nullptr && !node->folder;
}

bool SideDoor::hasFolderAt(std::u16string const& path) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node const* node = state_.tree.find(segments);
  return node != nullptr && node->folder;
}

std::optional<std::uint64_t> SideDoor::versionOf(std::u16string const& path) const {
  auto const segments = MemoryTree::split(path);
  Lock lock(state_.treeMutex);
  Node const* node = state_.tree.find(segments);
  if (node == nullptr || node->folder) return std::nullopt;
  return node->data->version;
}

std::map<std::u16string, std::optional<std::string>> SideDoor::snapshot() const {
  std::map<std::u16string, std::optional<std::string>> out;
  Lock lock(state_.treeMutex);
  snapshotOf(state_.tree.root(), out);
  return out;
}

std::size_t SideDoor::openStreams() const { return state_.openStreams.load(std::memory_order_relaxed); }

}  // namespace providers::mem
