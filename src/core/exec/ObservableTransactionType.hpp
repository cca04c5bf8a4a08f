// The kinds of backend transaction that the overlay queues on its executor.
//
// Every queued task carries one. The kind drives nothing in the queue's order; it labels
// log lines ("ObservableTransactionType: FILE_WRITE") and keys the executor's per-kind
// queue statistics ("overlay.queueStats.transaction.now.write", ...).
#pragma once

#include <array>
#include <iosfwd>
#include <string_view>

namespace storage::overlayprovider {

// The integer value of each kind is its position in this list; it is the key of the
// executor's per-kind counters.
enum class ObservableTransactionType : int {
  FILE_OPEN_READONLY = 0,
  FILE_OPEN_READWRITE = 1,
  FILE_WRITE = 2,
  FILE_CLOSE = 3,
  FILE_CREATION = 4,
  FILE_REMOVAL = 5,
  FILE_MOVE = 6,
  FILE_COPY = 7,
  FOLDER_CREATION = 8,
  FOLDER_CREATION_RECURSIVE = 9,
  FOLDER_REMOVAL = 10,
  FOLDER_REMOVAL_RECURSIVE = 11,
  FOLDER_MOVE = 12,
  SET_LAST_MODIFIED = 13,
  SET_WRITABLE = 14,
  WAKEUP_FLUSH = 15,  // also the kind of the executor's own wake-up marker records
  EXTERNAL_EVENT = 16,
};

// Number of kinds; every valid value lies in [0, kObservableTransactionTypeCount).
inline constexpr int kObservableTransactionTypeCount = 17;

// The printed name ("FILE_OPEN_READONLY", ...); empty for a value outside the range.
std::string_view transactionTypeName(ObservableTransactionType type) noexcept;

// The word that names the kind in statistics keys ("openReadOnly", ...); empty for a
// value outside the range.
std::string_view statisticsKeyWord(ObservableTransactionType type) noexcept;

// The order in which the statistics report lists the kinds. It differs from the enum's
// order: "createFile" comes before "write" and "close".
extern std::array<ObservableTransactionType, kObservableTransactionTypeCount> const kStatisticsReportOrder;

// Writes exactly the printed name; writes nothing for a value outside the range.
std::ostream& operator<<(std::ostream& out, ObservableTransactionType type);

}  // namespace storage::overlayprovider
