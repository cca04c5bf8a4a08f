// MemoryTree: the files and folders of one `mem` store.
//
// Folders hold their children by match key: the name itself, or its lower case in a
// case-insensitive store; a child keeps the name it was created with. File content lives
// in a FileData shared with the streams open on the file, so a stream keeps working on a
// file that is moved, replaced or removed while it is open (it then works on content that
// is no longer in the tree).
//
// Not thread-safe: every member, and every Node and FileData reached through it, is
// guarded by the owning store's tree mutex (StoreState::treeMutex).
#pragma once

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/Types.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace providers::mem::detail {

struct Node;

// The content of one file and what changes with it.
struct FileData {
  std::string bytes;
  std::uint64_t version = 0;  // the watermark: a fresh value on every content change
  boost::posix_time::ptime lastModified;
  Node* node = nullptr;  // the node that holds this content in the tree; null once out of it
  int readers = 0;       // read-only streams open on this content
  int writers = 0;       // read-write streams open on this content
};

struct Node {
  std::u16string name;    // as created (or as last renamed)
  std::u16string key;     // the name as matched
  Node* parent = nullptr;  // null for the root
  bool folder = false;
  bool writable = true;
  boost::posix_time::ptime lastModified;  // folders only; files keep theirs in `data`
  foundation::storage::provider::ExtendedAttributes extended;  // set through the side door
  std::map<std::u16string, std::unique_ptr<Node>> children;  // folders: by key, so in name order
  std::shared_ptr<FileData> data;                            // files only
};

using Segments = std::vector<std::u16string>;

class MemoryTree {
 public:
  MemoryTree(foundation::storage::provider::FilenameSensitivity sensitivity, boost::posix_time::ptime now);
  MemoryTree(MemoryTree const&) = delete;
  MemoryTree& operator=(MemoryTree const&) = delete;

  // The segments of `path` ("/a//b/" -> a, b); "." is dropped and ".." drops the segment
  // before it (never above the root).
  static Segments split(std::u16string const& path);
  // The match key of one name.
  std::u16string keyOf(std::u16string const& name) const;
  Segments keysOf(Segments const& segments) const;

  Node& root() { return root_; }
  // The node at `segments`, or null when there is none.
  Node* find(Segments const& segments);
  Node* child(Node& folder, std::u16string const& name);

  // "/a/b" (the root is "/"), in the names as created.
  static std::u16string pathOf(Node const& node);
  // The match keys from the root down to `node`.
  static Segments keyPathOf(Node const& node);
  // True when `node` is `ancestor` or lies below it.
  static bool isWithin(Node const& node, Node const& ancestor);

  // Adds an empty file or folder named `name` to `folder`. The caller has checked that
  // the name is free.
  Node& addFile(Node& folder, std::u16string const& name, boost::posix_time::ptime now);
  Node& addFolder(Node& folder, std::u16string const& name, boost::posix_time::ptime now);

  // Takes `node` (not the root) out of its folder for a move; the files in it stay in
  // the tree's accounting. Put it back with attach().
  std::unique_ptr<Node> detach(Node& node, boost::posix_time::ptime now);
  // Puts a detached node into `folder` under `name`; the name must be free.
  Node& attach(Node& folder, std::unique_ptr<Node> node, std::u16string const& name, boost::posix_time::ptime now);
  // Removes `node` (not the root) and everything below it. Streams open on its files
  // keep their content, which no longer counts as used.
  void destroy(Node& node, boost::posix_time::ptime now);

  // Records that `data` changed size from `oldSize`: its bytes count as used while it
  // is in the tree.
  void resized(FileData const& data, std::size_t oldSize);
  // Marks a content change of `data`: a fresh version and modification time.
  void touched(FileData& data, boost::posix_time::ptime now);
  // A version no file has had yet.
  std::uint64_t nextVersion() { return ++lastVersion_; }

  // Bytes held by the files in the tree.
  unsigned long used() const { return used_; }

 private:
  void unlinkFiles(Node& node);

  foundation::storage::provider::FilenameSensitivity const sensitivity_;
  Node root_;
  unsigned long used_ = 0;
  std::uint64_t lastVersion_ = 0;
};

}  // namespace providers::mem::detail
