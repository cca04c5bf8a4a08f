// The two ways a working file entry and its parts log a failure they handle. Call them
// only from a catch block: both describe the exception being handled. Neither throws.
#pragma once

#include <core/util/Logger.hpp>

#include <foundation/log/Severity.hpp>

#include <string>

namespace storage::overlayprovider::entrylog {

// Logs `message` as a failure and the exception being handled as its detail.
inline void failure(char const* message) noexcept {
  try {
    std::string const description = describeCurrentException();
    getLogger().log(foundation::log::Severity::Error, message);
    getLogger().log(foundation::log::Severity::Diagnostic, "Exception caught: " + description);
  } catch (...) {
  }
}

// Logs only the detail of the exception being handled.
inline void caught() noexcept {
  try {
    getLogger().log(foundation::log::Severity::Diagnostic, "Exception caught: " + describeCurrentException());
  } catch (...) {
  }
}

}  // namespace storage::overlayprovider::entrylog
