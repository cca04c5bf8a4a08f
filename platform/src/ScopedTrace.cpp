#include "foundation/log/ScopedTrace.hpp"

#include <exception>

namespace foundation::log {

ScopedTrace::ScopedTrace(basic_diagnostic_logger<char> const& logger, std::string signature,
                         char const* file, int line, std::string detail)
    : logger_(logger.isEnabled(Trace) ? &logger : nullptr) {
  if (logger_ == nullptr) return;
  signature_ = std::move(signature);
  uncaughtAtEntry_ = std::uncaught_exceptions();
  std::string entry = signature_;
  entry += ' ';
  entry += file ? file : "";
  entry += ':';
  entry += std::to_string(line);
  if (!detail.empty()) {
    entry += ' ';
    entry += detail;
  }
  logger_->log(Trace, entry);
}

ScopedTrace::~ScopedTrace() {
  if (logger_ == nullptr) return;
  try {
    if (std::uncaught_exceptions() > uncaughtAtEntry_) {
      logger_->log(Trace, signature_ + " [throw]");
    } else {
      logger_->log(Trace, signature_);
    }
  } catch (...) {
    // Building the text can fail only for lack of memory; a destructor must not throw.
  }
}

}  // namespace foundation::log
