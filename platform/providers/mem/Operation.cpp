#include <providers/mem/Operation.hpp>

namespace providers::mem {

char const* toString(Operation operation) {
  switch (operation) {
    case Operation::CreateFile: return "CreateFile";
    case Operation::CreateFolder: return "CreateFolder";
    case Operation::CreateFolderRecursive: return "CreateFolderRecursive";
    case Operation::FileExists: return "FileExists";
    case Operation::FolderExists: return "FolderExists";
    case Operation::RemoveFile: return "RemoveFile";
    case Operation::RemoveFolder: return "RemoveFolder";
    case Operation::RemoveFolderRecursively: return "RemoveFolderRecursively";
    case Operation::MoveFile: return "MoveFile";
    case Operation::MoveFolder: return "MoveFolder";
    case Operation::CopyFile: return "CopyFile";
    case Operation::GetFileAttributes: return "GetFileAttributes";
    case Operation::GetFolderAttributes: return "GetFolderAttributes";
    case Operation::GetExtendedAttributes: return "GetExtendedAttributes";
    case Operation::SetLastModified: return "SetLastModified";
    case Operation::SetWritable: return "SetWritable";
    case Operation::OpenStream: return "OpenStream";
    case Operation::OpenReadOnlyStream: return "OpenReadOnlyStream";
    case Operation::Read: return "Read";
    case Operation::Write: return "Write";
    case Operation::Seek: return "Seek";
    case Operation::Close: return "Close";
    case Operation::ListAll: return "ListAll";
    case Operation::ListFiles: return "ListFiles";
    case Operation::ListFolders: return "ListFolders";
    case Operation::ListAllRecursive: return "ListAllRecursive";
    case Operation::ListAllRecursiveDescend: return "ListAllRecursiveDescend";
    case Operation::PublishEvents: return "PublishEvents";
    case Operation::StopEvents: return "StopEvents";
    case Operation::GetStorageInfo: return "GetStorageInfo";
    case Operation::GetCacheUsage: return "GetCacheUsage";
    case Operation::HasFeature: return "HasFeature";
    case Operation::Configure: return "Configure";
    case Operation::Shutdown: return "Shutdown";
  }
  return "Operation(?)";
}

}  // namespace providers::mem
