#include <ovl/CacheRoot.hpp>

#include <unistd.h>

#include <chrono>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

namespace ovl {

namespace fs = std::filesystem;

namespace {

constexpr char const* kPrefix = "ovl-cache-";

// The start time of process `pid` in clock ticks since boot (field 22 of its stat file);
// 0 when there is no such process.
unsigned long long startTimeOf(long pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(in, text)) return 0;
  // The command name (field 2) may hold spaces and parentheses: count from its end.
  auto const close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  for (int i = 3; i < 22 && fields >> field; ++i) {
  }
  unsigned long long start = 0;
  fields >> start;
  return start;
}

bool ownerAlive(fs::path const& folder) {
  std::ifstream in(folder / "owner");
  long pid = 0;
  unsigned long long start = 0;
  if (!(in >> pid >> start)) {
    // No owner yet: a run may be making the folder right now; only an old one is a
    // leftover.
    std::error_code error;
    auto const written = fs::last_write_time(folder, error);
    return error || fs::file_time_type::clock::now() - written < std::chrono::minutes(1);
  }
  return startTimeOf(pid) == start;
}

}  // namespace

std::size_t CacheRoot::sweep(fs::path const& folder) {
  std::size_t removed = 0;
  std::error_code error;
  for (auto const& entry : fs::directory_iterator(folder, error)) {
    auto const name = entry.path().filename().string();
    std::error_code ignored;
    if (name.rfind(kPrefix, 0) != 0 || !entry.is_directory(ignored) || ownerAlive(entry.path())) continue;
    if (fs::remove_all(entry.path(), ignored) > 0 && !ignored) ++removed;
  }
  return removed;
}

CacheRoot::CacheRoot() {
  auto const temp = fs::temp_directory_path();
  sweep(temp);
  std::random_device random;
  path_ = temp / (kPrefix + std::to_string(::getpid()) + "-" + std::to_string(random()));
  fs::create_directories(path_);
  std::ofstream(path_ / "owner") << ::getpid() << ' ' << startTimeOf(::getpid()) << '\n';
}

CacheRoot::~CacheRoot() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

}  // namespace ovl
