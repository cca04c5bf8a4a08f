#include <foundation/storage/provider/ErrorCode.hpp>

namespace foundation::storage::provider {

std::string toString(ErrorCode code) {
  switch (code) {
    case ErrorCode::FolderNotEmpty: return "FolderNotEmpty";
    case ErrorCode::InvalidName: return "InvalidName";
    case ErrorCode::NotWritable: return "NotWritable";
    case ErrorCode::AlreadyExists: return "AlreadyExists";
    case ErrorCode::DoesNotExist: return "DoesNotExist";
    case ErrorCode::NoCacheSpace: return "NoCacheSpace";
    case ErrorCode::InUse: return "InUse";
    case ErrorCode::NotSupported: return "NotSupported";
    case ErrorCode::QuotaExceeded: return "QuotaExceeded";
    case ErrorCode::TransientFailure: return "TransientFailure";
  }
  return "ErrorCode(" + std::to_string(static_cast<int>(code)) + ")";
}

}  // namespace foundation::storage::provider
