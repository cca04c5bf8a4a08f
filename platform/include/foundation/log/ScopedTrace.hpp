// RAII trace of a scope: one Trace record on entry, one on exit.
//
//   void OverlayProvider::doCreateFile(StorageIRI const& iri) {
//     foundation::log::ScopedTrace trace(getLogger(), __PRETTY_FUNCTION__, __FILE__, __LINE__);
//     ...
//
// Entry record: "<signature> <file>:<line>", plus " <detail>" if `detail` is not empty.
// Exit record:  "<signature>", or "<signature> [throw]" when the scope is left by an
// exception (more uncaught exceptions at exit than at construction).
//
// Whether Trace is enabled is decided once, at construction, with one atomic load; when
// it is not, neither record is written and nothing else is done. The logger must outlive
// the trace. Not copyable; use on one thread.
#pragma once

#include "foundation/log/basic_diagnostic_logger.hpp"

#include <string>

namespace foundation::log {

class ScopedTrace {
 public:
  ScopedTrace(basic_diagnostic_logger<char> const& logger, std::string signature,
              char const* file, int line, std::string detail = {});
  ~ScopedTrace();
  ScopedTrace(ScopedTrace const&) = delete;
  ScopedTrace& operator=(ScopedTrace const&) = delete;

 private:
  basic_diagnostic_logger<char> const* logger_;  // null when Trace was disabled
  std::string signature_;
  int uncaughtAtEntry_ = 0;
};

}  // namespace foundation::log
