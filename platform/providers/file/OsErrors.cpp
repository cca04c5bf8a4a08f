#include "OsErrors.hpp"

#include <fl/i18n.hpp>

#include <cerrno>
#include <cstring>

namespace providers::file::detail {

sp::ErrorCode errorCodeFor(int err) noexcept {
  using sp::ErrorCode;
  switch (err) {
    case ENOENT:
    case ENOTDIR:
    case EISDIR:
      return ErrorCode::DoesNotExist;
    case EEXIST:
      return ErrorCode::AlreadyExists;
    case ENOTEMPTY:
      return ErrorCode::FolderNotEmpty;
    case EACCES:
    case EPERM:
    case EROFS:
      return ErrorCode::NotWritable;
    case ENAMETOOLONG:
    case EINVAL:
    case EILSEQ:
    case ELOOP:
      return ErrorCode::InvalidName;
    case EBUSY:
    case ETXTBSY:
      return ErrorCode::InUse;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return ErrorCode::QuotaExceeded;
    case ENOTSUP:
      return ErrorCode::NotSupported;
    default:
      return ErrorCode::TransientFailure;
  }
}

sp::ErrorCode streamErrorCodeFor(int err) noexcept {
  return (err == EACCES || err == EPERM || err == EROFS) ? sp::ErrorCode::NotWritable : sp::ErrorCode::TransientFailure;
}

std::string errorText(int err) {
  char buffer[256];
  // The GNU strerror_r returns a pointer that may or may not be `buffer`.
  char const* text = strerror_r(err, buffer, sizeof buffer);
  return text ? std::string(text) : "error " + std::to_string(err);
}

sp::Exception osFailure(int err, sp::StorageIRI const& iri, std::string_view action) {
  return osFailure(errorCodeFor(err), err, iri, action);
}

sp::Exception osFailure(sp::ErrorCode code, int err, sp::StorageIRI const& iri, std::string_view action) {
  return sp::Exception(code, iri, std::string(action) + ": " + errorText(err));
}

std::string nativePath(sp::StorageIRI const& iri) {
  std::string path;
  try {
    path = fl::i18n::to_string(iri.getResolvedIRI().getPath());
  } catch (std::exception const& e) {
    throw sp::Exception(sp::ErrorCode::InvalidName, iri, e.what());
  }
  if (path.find('\0') != std::string::npos) {
    throw sp::Exception(sp::ErrorCode::InvalidName, iri, "the path holds a NUL character");
  }
  return path;
}

sp::StorageIRI parentIri(sp::StorageIRI const& iri) {
  auto resolved = iri.getResolvedIRI();
  return resolved.hasParent() ? resolved.getParent() : resolved;
}

}  // namespace providers::file::detail
