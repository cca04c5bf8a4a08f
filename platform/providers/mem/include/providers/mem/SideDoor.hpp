// SideDoor: changes a `mem` store's tree the way another client of the same storage
// would, and lets tests look at the raw tree.
//
// Paths are the store's paths ("/docs/a.txt"; a missing leading "/" is implied). Changes
// bypass the test controls (no counters, gates, latency or faults), the writable flags
// and the capacity, and publish the events a change by another client would: Added,
// Modified, Removed, and Removed plus Added (details "from"/"to") for a rename. Content
// changes give the file a fresh watermark and modification time, and streams open on the
// file see them at once. Failures are Exception(code, mem://<name>/<path>).
//
// Thread-safe. Obtained from MemoryProvider::elsewhere(); lives as long as the provider.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/any.hpp>
#include <boost/date_time/posix_time/ptime.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace providers::mem {

namespace detail {
struct StoreState;
}  // namespace detail

class SideDoor {
 public:
  explicit SideDoor(detail::StoreState& state) : state_(state) {}
  SideDoor(SideDoor const&) = delete;
  SideDoor& operator=(SideDoor const&) = delete;

  // Makes `content` the whole content of the file at `path`, creating the file when
  // missing (Added) or replacing its content (Modified). The folder must exist
  // (DoesNotExist naming it); a folder at `path` is AlreadyExists.
  void writeFile(std::u16string const& path, std::string const& content) const;
  // Creates the folder at `path` and any missing ancestors (Added for each). Succeeds
  // when the folder exists; a file in the way is AlreadyExists naming it.
  void createFolder(std::u16string const& path) const;
  // Removes the file or the folder with everything in it (one Removed). DoesNotExist
  // when nothing is there; InvalidName for the root.
  void remove(std::u16string const& path) const;
  // Moves the file or folder at `from` to `to`, replacing a file at `to`. DoesNotExist
  // when `from` or the folder of `to` is missing; AlreadyExists when a folder is at `to`;
  // InvalidName when `to` lies inside `from`.
  void rename(std::u16string const& from, std::u16string const& to) const;
  // Sets or removes an extended attribute of the file or folder (Modified). A value set
  // as "WATERMARK" is stored but hidden by the store's own watermark on files.
  void setExtendedAttribute(std::u16string const& path, std::string const& name, boost::any value) const;
  void removeExtendedAttribute(std::u16string const& path, std::string const& name) const;
  // Sets the writable flag or the modification time of the file or folder (Modified).
  void setWritable(std::u16string const& path, bool writable) const;
  void setLastModified(std::u16string const& path, boost::posix_time::ptime time) const;
  // Publishes Refresh for `path` ("anything at or below may have changed") without
  // changing anything. The item need not exist (its type is then Folder).
  void publishRefresh(std::u16string const& path = u"/") const;

  // ---- raw inspection -----------------------------------------------------------------
  // The content of the file at `path`; empty when no file is there.
  std::optional<std::string> contentOf(std::u16string const& path) const;
  bool hasFileAt(std::u16string const& path) const;
  bool hasFolderAt(std::u16string const& path) const;
  // The file's version (its WATERMARK as a number); empty when no file is there.
  std::optional<std::uint64_t> versionOf(std::u16string const& path) const;
  // Every item below the root by path ("/docs", "/docs/a.txt"), with its content, or
  // nullopt for a folder. Paths keep the case the items were created with.
  std::map<std::u16string, std::optional<std::string>> snapshot() const;
  // Streams handed out and not yet closed, over the whole store.
  std::size_t openStreams() const;

  // The IRI of `path` in this store: mem://<name>/<path>.
  foundation::storage::provider::StorageIRI iriOf(std::u16string const& path) const;

 private:
  detail::StoreState& state_;
};

}  // namespace providers::mem
