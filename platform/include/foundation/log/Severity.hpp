// Severities of log records. They are bit values, ordered by number: a sink writes every
// record whose severity is at least its threshold.
#pragma once

#include <string>

namespace foundation::log {

enum Severity : unsigned {
  Trace = 2,        // entry into and exit from operations
  Debug = 4,
  Info = 8,         // initialisation, statistics
  Diagnostic = 16,  // details of a caught exception ("Exception caught: ...")
  Notice = 32,      // not one of the host's classic levels: unusual but handled events
  Warning = 64,     // not one of the host's classic levels
  Error = 512,      // failures
};

// The word written for `severity` in log lines ("trace", "debug", "info", "diagnostic",
// "notice", "warning", "error"); any other value is written as its decimal number.
std::string severityName(unsigned severity);

}  // namespace foundation::log
