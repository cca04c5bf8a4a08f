#include <ovl/Errno.hpp>

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <cerrno>
#include <filesystem>
#include <new>
#include <system_error>

namespace ovl::mount {

int errnoOf(fsp::ErrorCode code) {
  switch (code) {
    case fsp::ErrorCode::FolderNotEmpty:
      return ENOTEMPTY;
    case fsp::ErrorCode::InvalidName:
      return EINVAL;
    case fsp::ErrorCode::NotWritable:
      return EACCES;
    case fsp::ErrorCode::AlreadyExists:
      return EEXIST;
    case fsp::ErrorCode::DoesNotExist:
      return ENOENT;
    case fsp::ErrorCode::NoCacheSpace:
      return ENOSPC;
    case fsp::ErrorCode::InUse:
      return EBUSY;
    case fsp::ErrorCode::NotSupported:
      return ENOTSUP;
    case fsp::ErrorCode::QuotaExceeded:
      return EDQUOT;
    case fsp::ErrorCode::TransientFailure:
      return EIO;
  }
  return EIO;
}

int errnoOf(std::exception_ptr const& failure) noexcept {
  try {
    std::rethrow_exception(failure);
  } catch (fsp::Exception const& e) {
    return errnoOf(e.getErrorCode());
  } catch (fsp::ByteStreamFailure const& e) {
    return errnoOf(e.getErrorCode());
  } catch (std::bad_alloc const&) {
    return ENOMEM;
  } catch (std::system_error const& e) {
    return e.code().category() == std::generic_category() || e.code().category() == std::system_category()
               ? e.code().value()
               : EIO;
  } catch (...) {
    return EIO;
  }
}

}  // namespace ovl::mount
