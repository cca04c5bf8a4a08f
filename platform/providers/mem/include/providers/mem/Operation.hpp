// Operation: one value per call of the `mem` store that its test controls can count,
// hold, slow down or fail.
//
// Slots that the framework builds from other slots (wildcard and names-only listings,
// doExists, doTruncateToSize, transactional streams, atomic copies) are counted as the
// calls they make. Read, Write, Seek and Close are calls on the streams the store hands
// out.
#pragma once

#include <cstddef>

namespace providers::mem {

enum class Operation : int {
  CreateFile,
  CreateFolder,
  CreateFolderRecursive,
  FileExists,
  FolderExists,
  RemoveFile,
  RemoveFolder,
  RemoveFolderRecursively,
  MoveFile,
  MoveFolder,
  CopyFile,
  GetFileAttributes,
  GetFolderAttributes,
  GetExtendedAttributes,
  SetLastModified,
  SetWritable,
  OpenStream,
  OpenReadOnlyStream,
  Read,
  Write,
  Seek,
  Close,
  ListAll,
  ListFiles,
  ListFolders,
  ListAllRecursive,
  // A recursive listing about to hand out the first entry inside a sub-folder (passed,
  // counted and faulted on the iterator's advance, once per sub-folder that has any).
  ListAllRecursiveDescend,
  PublishEvents,  // doPublishFolderEventsFor and doPublishFileEventsFor
  StopEvents,     // doStopPublishingEventsFor
  GetStorageInfo,
  GetCacheUsage,
  HasFeature,
  Configure,
  Shutdown,
};

// The number of values of Operation; they run from 0 to kOperationCount - 1.
inline constexpr std::size_t kOperationCount = static_cast<std::size_t>(Operation::Shutdown) + 1;

// The value's name ("CreateFile", "Read", ...); "Operation(?)" for a value outside the list.
char const* toString(Operation operation);

}  // namespace providers::mem
