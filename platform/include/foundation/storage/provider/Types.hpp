// Small enumerations of the provider contract.
#pragma once

#include <functional>
#include <string>

namespace foundation::storage::provider {

// Whether a move or copy may replace what is at the destination.
enum class ReplacementPolicy : int {
  Never = 0,         // an existing destination is an error (AlreadyExists)
  Always = 1,        // an existing destination is replaced
  KeepExisting = 4,  // folder moves: files already at the destination are kept
};

// Optional provider capabilities, compared by number; values not listed are reserved.
enum class ExtendedFeature : int {
  ExtendedAttributes = 0,
  RecursiveListing = 1,
  RemoveOpenFiles = 6,
  RemoveFilesOpenForReading = 7,
  MoveOpenFiles = 8,
};

enum class FilenameSensitivity : int { CaseSensitive = 0, CaseInsensitive = 1 };

// What an interruptible copy's callback answers between chunks.
enum class InterruptSignal : int { Continue = 0, Interrupt = 1 };

// Answer of doExistsExtended.
enum class ExistenceKind : int { None = 0, File = 1, Folder = 2 };

// Three-way comparison of two names (negative, zero, positive) as the provider matches them.
using PathComparator = std::function<int(std::u16string const&, std::u16string const&)>;

}  // namespace foundation::storage::provider
