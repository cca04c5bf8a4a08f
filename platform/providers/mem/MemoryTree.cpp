#include "MemoryTree.hpp"

#include <fl/i18n.hpp>

namespace providers::mem::detail {

using foundation::storage::provider::FilenameSensitivity;

MemoryTree::MemoryTree(FilenameSensitivity sensitivity, boost::posix_time::ptime now) : sensitivity_(sensitivity) {
  root_.folder = true;
  root_.lastModified = now;
}

Segments MemoryTree::split(std::u16string const& path) {
  Segments segments;
  std::size_t start = 0;
  while (start < path.size()) {
    auto end = path.find(u'/', start);
    if (end == std::u16string::npos) end = path.size();
    if (end > start) {
      std::u16string_view segment(path.data() + start, end - start);
      if (segment == u"..") {
        if (!segments.empty()) segments.pop_back();
      } else if (segment != u".") {
        segments.emplace_back(segment);
      }
    }
    start = end + 1;
  }
  return segments;
}

std::u16string MemoryTree::keyOf(std::u16string const& name) const {
  return sensitivity_ == FilenameSensitivity::CaseInsensitive ? fl::i18n::to_lower(name) : name;
}

Segments MemoryTree::keysOf(Segments const& segments) const {
  Segments keys;
  keys.reserve(segments.size());
  for (auto const& s : segments) keys.push_back(keyOf(s));
  return keys;
}

Node* MemoryTree::find(Segments const& segments) {
  Node* node = &root_;
  for (auto const& segment : segments) {
    node = child(*node, segment);
    if (node == nullptr) return nullptr;
  }
  return node;
}

Node* MemoryTree::child(Node& folder, std::u16string const& name) {
  if (!folder.folder) return nullptr;
  auto it = sensitivity_ == FilenameSensitivity::CaseInsensitive ? folder.children.find(keyOf(name))
                                                                 : folder.children.find(name);
  return it == folder.children.end() ? nullptr : it->second.get();
}

std::u16string MemoryTree::pathOf(Node const& node) {
  if (node.parent == nullptr) return u"/";
  std::vector<Node const*> chain;
  for (Node const* n = &node; n->parent != nullptr; n = n->parent) chain.push_back(n);
  std::u16string path;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    path += u'/';
    path += (*it)->name;
  }
  return path;
}

Segments MemoryTree::keyPathOf(Node const& node) {
  Segments keys;
  for (Node const* n = &node; n->parent != nullptr; n = n->parent) keys.push_back(n->key);
  return Segments(keys.rbegin(), keys.rend());
}

bool MemoryTree::isWithin(Node const& node, Node const& ancestor) {
  for (Node const* n = &node; n != nullptr; n = n->parent) {
    if (n == &ancestor) return true;
  }
  return false;
}

Node& MemoryTree::addFile(Node& folder, std::u16string const& name, boost::posix_time::ptime now) {
  auto node = std::make_unique<Node>();
  node->data = std::make_shared<FileData>();
  node->data->version = nextVersion();
  node->data->lastModified = now;
  return attach(folder, std::move(node), name, now);
}

Node& MemoryTree::addFolder(Node& folder, std::u16string const& name, boost::posix_time::ptime now) {
  auto node = std::make_unique<Node>();
  node->folder = true;
  node->lastModified = now;
  return attach(folder, std::move(node), name, now);
}

std::unique_ptr<Node> MemoryTree::detach(Node& node, boost::posix_time::ptime now) {
  Node& parent = *node.parent;
  auto it = parent.children.find(node.key);
  auto owned = std::move(it->second);
  parent.children.erase(it);
  parent.lastModified = now;
  owned->parent = nullptr;
  return owned;
}

Node& MemoryTree::attach(Node& folder, std::unique_ptr<Node> node, std::u16string const& name,
                         boost::posix_time::ptime now) {
  node->name = name;
  node->key = keyOf(name);
  node->parent = &folder;
  folder.lastModified = now;
  if (node->data && node->data->node == nullptr) {
    // Content coming (back) into the tree counts as used again.
    node->data->node = node.get();
    used_ += node->data->bytes.size();
  }
  Node& added = *node;
  folder.children.emplace(added.key, std::move(node));
  return added;
}

void MemoryTree::destroy(Node& node, boost::posix_time::ptime now) {
  unlinkFiles(node);
  detach(node, now);  // the returned owner frees the subtree
}

void MemoryTree::unlinkFiles(Node& node) {
  if (node.data) {
    used_ -= node.data->bytes.size();
    node.data->node = nullptr;
  }
  for (auto& [key, child] : node.children) unlinkFiles(*child);
}

void MemoryTree::resized(FileData const& data, std::size_t oldSize) {
  if (data.node == nullptr) return;
  used_ = used_ - oldSize + data.bytes.size();
}

void MemoryTree::touched(FileData& data, boost::posix_time::ptime now) {
  data.version = nextVersion();
  data.lastModified = now;
}

}  // namespace providers::mem::detail
