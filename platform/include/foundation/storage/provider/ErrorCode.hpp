// The numeric error categories of the storage layer. Callers and plug-ins depend on
// these exact numbers.
#pragma once

#include <string>

namespace foundation::storage::provider {

enum class ErrorCode : int {
  FolderNotEmpty = 0,
  InvalidName = 1,
  NotWritable = 2,
  AlreadyExists = 3,
  DoesNotExist = 4,
  NoCacheSpace = 5,
  InUse = 6,
  NotSupported = 7,
  QuotaExceeded = 8,
  TransientFailure = 9,
};

// "FolderNotEmpty", "DoesNotExist", ...; "ErrorCode(<n>)" for a value without a name.
std::string toString(ErrorCode code);

}  // namespace foundation::storage::provider
