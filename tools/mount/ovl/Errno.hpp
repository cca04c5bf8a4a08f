// How the mount turns a failure of the overlay into the errno a program sees.
#pragma once

#include <foundation/storage/provider/ErrorCode.hpp>

#include <exception>

namespace ovl::mount {

namespace fsp = foundation::storage::provider;

// The errno for a store error code: does not exist -> ENOENT, exists -> EEXIST, folder not
// empty -> ENOTEMPTY, not writable -> EACCES, quota -> EDQUOT, no cache space -> ENOSPC,
// in use -> EBUSY, invalid name -> EINVAL, not supported -> ENOTSUP, transient -> EIO.
int errnoOf(fsp::ErrorCode code);

// The errno for the exception `failure` holds: the host's Exception and the stream
// failures by their code, std::bad_alloc as ENOMEM, a filesystem error by its own errno,
// anything else as EIO. Never throws.
int errnoOf(std::exception_ptr const& failure) noexcept;

}  // namespace ovl::mount
