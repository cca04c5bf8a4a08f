#include <core/content/DeliveryReport.hpp>

#include <foundation/storage/provider/Exception.hpp>

#include <utility>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

std::string describe(std::exception_ptr const& error) {
  if (!error) return "unknown error";
  try {
    std::rethrow_exception(error);
  } catch (fsp::Exception const& e) {
    return e.getDetail();
  } catch (std::exception const& e) {
    return e.what();
  } catch (...) {
    return "unknown error";
  }
}

namespace {

std::optional<fsp::ErrorCode> codeOf(std::exception_ptr const& error) {
  if (!error) return std::nullopt;
  try {
    std::rethrow_exception(error);
  } catch (fsp::Exception const& e) {
    return e.getErrorCode();
  } catch (...) {
    return std::nullopt;
  }
}

}  // namespace

void DeliveryReport::undelivered(fsp::StorageIRI const& location, std::string change, std::exception_ptr error) noexcept {
  try {
    fsp::extensions::UndeliveredChange record{location, std::move(change), codeOf(error), describe(error)};
    std::lock_guard lock(mutex_);
    if (undelivered_.size() < kLimit) undelivered_.push_back(std::move(record));
  } catch (...) {
    // Out of memory: the failure is still in the log.
  }
}

void DeliveryReport::localCacheFailed(fsp::StorageIRI const& location, std::string what, std::exception_ptr error) noexcept {
  try {
    fsp::extensions::LocalCacheFailure record{location, std::move(what), describe(error)};
    std::lock_guard lock(mutex_);
    if (cacheFailures_.size() < kLimit) cacheFailures_.push_back(std::move(record));
  } catch (...) {
  }
}

void DeliveryReport::unlisted(fsp::StorageIRI const& folder, std::exception_ptr error) noexcept {
  try {
    fsp::extensions::UnlistedFolder record{folder, codeOf(error), describe(error)};
    std::lock_guard lock(mutex_);
    if (unlisted_.size() < kLimit) unlisted_.push_back(std::move(record));
  } catch (...) {
  }
}

std::vector<fsp::extensions::UnlistedFolder> DeliveryReport::takeUnlisted() {
  std::lock_guard lock(mutex_);
  return std::exchange(unlisted_, {});
}

std::vector<fsp::extensions::UndeliveredChange> DeliveryReport::takeUndelivered() {
  std::lock_guard lock(mutex_);
  return std::exchange(undelivered_, {});
}

std::vector<fsp::extensions::LocalCacheFailure> DeliveryReport::takeLocalCacheFailures() {
  std::lock_guard lock(mutex_);
  return std::exchange(cacheFailures_, {});
}

}  // namespace storage::overlayprovider
