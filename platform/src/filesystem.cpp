#include "fl/filesystem.hpp"

#include "fl/i18n.hpp"

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <system_error>

namespace fl::filesystem {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(char const* what, path const& p, std::error_code ec) {
  throw fs::filesystem_error(what, p, ec);
}

boost::posix_time::ptime toPtime(struct timespec const& ts) {
  static boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
  return epoch + boost::posix_time::seconds(ts.tv_sec) +
         boost::posix_time::microseconds(ts.tv_nsec / 1000);
}

}  // namespace

path temp_directory_name() { return fs::temp_directory_path(); }

bool exists(path const& p) { return fs::exists(p); }

file_status status(path const& p) {
  struct stat st;
  if (::stat(p.c_str(), &st) != 0) {
    int const err = errno;
    if (err == ENOENT || err == ENOTDIR) return {};
    fail("fl::filesystem::status", p, std::error_code(err, std::generic_category()));
  }
  file_status result;
  if (S_ISREG(st.st_mode)) {
    result.type = file_type::file;
    result.size = static_cast<std::uintmax_t>(st.st_size);
  } else if (S_ISDIR(st.st_mode)) {
    result.type = file_type::directory;
  } else {
    result.type = file_type::other;
  }
  result.last_write_time = toPtime(st.st_mtim);
  return result;
}

bool remove(path const& p) { return fs::remove(p); }

void rename(path const& from, path const& to) { fs::rename(from, to); }

void copy_file(path const& from, path const& to, bool overwrite) {
  fs::copy_file(from, to,
                overwrite ? fs::copy_options::overwrite_existing : fs::copy_options::none);
}

bool create_directories(path const& p) { return fs::create_directories(p); }

path to_path(std::u16string const& text) { return path(fl::i18n::to_string(text)); }

std::u16string to_ustring(path const& p) { return fl::i18n::to_ustring(p.string()); }

}  // namespace fl::filesystem
