#include <core/quota/QuotaAccountant.hpp>

#include <core/util/Logger.hpp>

#include <foundation/log/ScopedTrace.hpp>
#include <foundation/log/Severity.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <system_error>

namespace storage::overlayprovider {

namespace {

using foundation::log::Severity;
namespace fsp = foundation::storage::provider;

constexpr char const* kSourceFile = "src/core/quota/QuotaAccountant.cpp";

#define QUOTA_TRACE() foundation::log::ScopedTrace quotaTrace_(getLogger(), __PRETTY_FUNCTION__, kSourceFile, __LINE__)

void logCaught(char const* what) { getLogger().log(Severity::Diagnostic, std::string("Exception caught: ") + what); }

}  // namespace

QuotaAccountant::QuotaAccountant(fsp::StorageItem const& inner, std::chrono::milliseconds pollPeriod,
                                 MetadataCache const& metadataCache, std::shared_ptr<IExecutor> executor)
    : inner_(inner), pollPeriod_(pollPeriod), metadataCache_(metadataCache), executor_(std::move(executor)) {
  QUOTA_TRACE();
  queryBackendForSpaceAvailable();
  createAndStartPollThread();
}

QuotaAccountant::~QuotaAccountant() {
  try {
    shutdown();
  } catch (...) {
  }
}

void QuotaAccountant::createAndStartPollThread() {
  QUOTA_TRACE();
  try {
    pollThread_ = std::thread([this] { poll(); });
  } catch (std::system_error const& e) {
    throw std::system_error(e.code(), "thread constructor failed");
  }
}

void QuotaAccountant::poll() {
  std::unique_lock lock(mutex_);
  for (;;) {
    auto const deadline = std::chrono::steady_clock::now() + pollPeriod_;
    wakeUp_.wait_until(lock, deadline, [this] { return stop_; });
    if (stop_) return;
    if (executor_ && executor_->isQueueEmpty()) queryBackendForSpaceAvailable();
  }
}

void QuotaAccountant::queryBackendForSpaceAvailable() {
  QUOTA_TRACE();
  try {
    auto const info = inner_.getProviderStorageInfo();
    totalCapacity_ = info.getStorageCapacity();
    spaceAvailable_ = info.getStorageCapacity();
    removeFromSpaceAvailable(info.getSpaceOccupied());
  } catch (fsp::Exception const& e) {
    getLogger().log(Severity::Info, "Problem getting quota info. Shutting down poll.");
    logCaught(e.what());
    stop_ = true;
  } catch (std::exception const& e) {
    getLogger().log(Severity::Error, "Unexpected exception.");
    logCaught(e.what());
    getLogger().log(Severity::Info, "Problem getting quota info. Shutting down poll.");
    stop_ = true;
  } catch (...) {
    getLogger().log(Severity::Error, "Unexpected exception.");
    logCaught("unknown exception");
    getLogger().log(Severity::Info, "Problem getting quota info. Shutting down poll.");
    stop_ = true;
  }
}

void QuotaAccountant::removeFromSpaceAvailable(std::uint64_t n) {
  if (!spaceAvailable_) return;
  spaceAvailable_ = *spaceAvailable_ < n ? 0 : *spaceAvailable_ - n;
}

void QuotaAccountant::addToSpaceAvailable(std::uint64_t n) {
  // Deliberately unguarded against wrapping and against unknown figures: callers check
  // that the free space is known; an unknown capacity reads as 0.
  spaceAvailable_ = std::min(spaceAvailable_.value_or(0) + n, totalCapacity_.value_or(0));
}

std::optional<std::uint64_t> QuotaAccountant::getSpaceAvailable() const {
  QUOTA_TRACE();
  std::lock_guard lock(mutex_);
  return spaceAvailable_;
}

std::optional<std::uint64_t> QuotaAccountant::getTotalCapacity() const {
  QUOTA_TRACE();
  std::lock_guard lock(mutex_);
  return totalCapacity_;
}

void QuotaAccountant::shutdown() {
  QUOTA_TRACE();
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wakeUp_.notify_one();
  if (pollThread_.joinable()) pollThread_.join();
}

template <class Amount, class Apply>
void QuotaAccountant::adjust(Amount&& amountOf, Apply&& apply) {
  try {
    std::uint64_t const amount = amountOf();
    std::lock_guard lock(mutex_);
    apply(amount);
  } catch (std::exception const& e) {
    logCaught(e.what());
  } catch (...) {
    logCaught("unknown exception");
  }
}

void QuotaAccountant::removeFile(fsp::StorageIRI const& location) {
  QUOTA_TRACE();
  adjust([&] { return metadataCache_.getSpaceOccupiedByFile(location); },
         [this](std::uint64_t amount) {
           if (spaceAvailable_) addToSpaceAvailable(amount);
         });
}

void QuotaAccountant::removeFolderTree(fsp::StorageIRI const& location) {
  QUOTA_TRACE();
  adjust([&] { return metadataCache_.getSpaceOccupiedByFolder(location); },
         [this](std::uint64_t amount) {
           if (spaceAvailable_) addToSpaceAvailable(amount);
         });
}

void QuotaAccountant::addFolderTree(fsp::StorageIRI const& location) {
  QUOTA_TRACE();
  adjust([&] { return metadataCache_.getSpaceOccupiedByFolder(location); },
         [this](std::uint64_t amount) {
           if (spaceAvailable_) removeFromSpaceAvailable(amount);
         });
}

void QuotaAccountant::addBytesWritten(std::size_t bytes) {
  QUOTA_TRACE();
  std::lock_guard lock(mutex_);
  removeFromSpaceAvailable(bytes);
}

}  // namespace storage::overlayprovider
