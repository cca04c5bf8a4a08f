// The overlay's one logger.
//
// Every class of the plug-in logs through `getLogger()`, whose channel is
// "storage::overlayprovider". Severities are the numeric values of
// foundation::log::Severity (2 trace, 4 debug, 8 informational, 16 exception details,
// 512 failures); which of them are written is decided by the installed sinks.
#pragma once

#include <foundation/log/basic_diagnostic_logger.hpp>

#include <string>

namespace storage::overlayprovider {

// The module's logger, channel "storage::overlayprovider". Created on the first call
// (thread-safe static initialisation) and destroyed when the module is unloaded.
// Thread-safe; never throws once created.
foundation::log::basic_diagnostic_logger<char>& getLogger();

// The text that "Exception caught: " records carry for the exception being handled: its
// what(), or "unknown exception" for one that is not a std::exception. Call only inside
// a catch block.
std::string describeCurrentException();

}  // namespace storage::overlayprovider
