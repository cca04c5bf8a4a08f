// How the file store turns operating-system failures into the storage layer's errors,
// and IRIs into native paths.
//
// `errorCodeFor` is the one place where errno values become ErrorCodes; every operation
// that has no more specific knowledge of a failure goes through it.
#pragma once

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/Exception.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <string>
#include <string_view>

namespace providers::file::detail {

namespace sp = foundation::storage::provider;

// The error code for an errno value:
//   ENOENT, ENOTDIR, EISDIR          -> DoesNotExist  (no item of the expected kind there)
//   EEXIST                           -> AlreadyExists
//   ENOTEMPTY                        -> FolderNotEmpty
//   EACCES, EPERM, EROFS             -> NotWritable   (permission bits, immutable flag,
//                                                      read-only mount)
//   ENAMETOOLONG, EINVAL, EILSEQ,
//   ELOOP                            -> InvalidName   (the name or path cannot be used;
//                                                      EINVAL is also rename's answer to
//                                                      moving a folder into itself)
//   EBUSY, ETXTBSY                   -> InUse
//   ENOSPC, EDQUOT, EFBIG            -> QuotaExceeded
//   ENOTSUP (EOPNOTSUPP)             -> NotSupported
//   anything else (EIO, EMFILE, ENFILE, ENOMEM, EAGAIN, EXDEV, ...) -> TransientFailure
sp::ErrorCode errorCodeFor(int err) noexcept;

// The code a byte stream failure carries: NotWritable for EACCES, EPERM and EROFS,
// TransientFailure for every other errno value.
sp::ErrorCode streamErrorCodeFor(int err) noexcept;

// The system's text for `err` ("No such file or directory").
std::string errorText(int err);

// Exception(errorCodeFor(err), iri, "<action>: <errorText(err)>").
sp::Exception osFailure(int err, sp::StorageIRI const& iri, std::string_view action);

// Exception(code, iri, "<action>: <errorText(err)>") for callers that know better than the
// generic mapping (for example "the parent folder is missing").
sp::Exception osFailure(sp::ErrorCode code, int err, sp::StorageIRI const& iri, std::string_view action);

// The native (UTF-8) path of the IRI's resolved path ("." and ".." segments and repeated
// or trailing slashes removed). Throws Exception(InvalidName) naming the IRI when the path
// holds an unpaired surrogate or a NUL character.
std::string nativePath(sp::StorageIRI const& iri);

// The IRI of the parent folder of the resolved `iri` (the root for the root).
sp::StorageIRI parentIri(sp::StorageIRI const& iri);

}  // namespace providers::file::detail
