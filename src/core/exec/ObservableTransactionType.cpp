#include <core/exec/ObservableTransactionType.hpp>

#include <ostream>

namespace storage::overlayprovider {

namespace {

struct Names {
  std::string_view printed;
  std::string_view keyWord;
};

// Indexed by the enum's integer value.
constexpr std::array<Names, kObservableTransactionTypeCount> kNames{{
    {"FILE_OPEN_READONLY", "openReadOnly"},
    {"FILE_OPEN_READWRITE", "openReadWrite"},
    {"FILE_WRITE", "write"},
    {"FILE_CLOSE", "close"},
    {"FILE_CREATION", "createFile"},
    {"FILE_REMOVAL", "removeFile"},
    {"FILE_MOVE", "moveFile"},
    {"FILE_COPY", "copyFile"},
    {"FOLDER_CREATION", "createFolder"},
    {"FOLDER_CREATION_RECURSIVE", "createFolderRecursive"},
    {"FOLDER_REMOVAL", "removeFolder"},
    {"FOLDER_REMOVAL_RECURSIVE", "removeFolderRecursive"},
    {"FOLDER_MOVE", "moveFolder"},
    {"SET_LAST_MODIFIED", "setLastModified"},
    {"SET_WRITABLE", "setWritable"},
    {"WAKEUP_FLUSH", "wakeupFlush"},
    {"EXTERNAL_EVENT", "externalEvent"},
}};

Names const* lookUp(ObservableTransactionType type) noexcept {
  auto const index = static_cast<int>(type);
  if (index < 0 || index >= kObservableTransactionTypeCount) return nullptr;
  return &kNames[static_cast<std::size_t>(index)];
}

}  // namespace

using T = ObservableTransactionType;

std::array<ObservableTransactionType, kObservableTransactionTypeCount> const kStatisticsReportOrder{
    T::FILE_OPEN_READONLY, T::FILE_OPEN_READWRITE, T::FILE_CREATION,
    T::FILE_WRITE,         T::FILE_CLOSE,          T::FILE_REMOVAL,
    T::FILE_MOVE,          T::FILE_COPY,           T::FOLDER_CREATION,
    T::FOLDER_CREATION_RECURSIVE, T::FOLDER_REMOVAL, T::FOLDER_REMOVAL_RECURSIVE,
    T::FOLDER_MOVE,        T::SET_LAST_MODIFIED,   T::SET_WRITABLE,
    T::WAKEUP_FLUSH,       T::EXTERNAL_EVENT,
};

std::string_view transactionTypeName(ObservableTransactionType type) noexcept {
  auto const* names = lookUp(type);
  return names ? names->printed : std::string_view();
}

std::string_view statisticsKeyWord(ObservableTransactionType type) noexcept {
  auto const* names = lookUp(type);
  return names ? names->keyWord : std::string_view();
}

std::ostream& operator<<(std::ostream& out, ObservableTransactionType type) {
  return out << transactionTypeName(type);
}

}  // namespace storage::overlayprovider
