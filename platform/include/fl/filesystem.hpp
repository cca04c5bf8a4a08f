// The host's file-system helpers: a path type and the few operations the cache layer
// needs on local disk.
//
// Every function is thread-safe in the sense of the operating system: it makes its
// system calls and keeps no state. Failures throw std::filesystem::filesystem_error
// carrying the path(s) involved and the system error code.
#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <filesystem>
#include <string>

namespace fl::filesystem {

using path = std::filesystem::path;

enum class file_type {
  none,       // nothing exists at the path (a dangling symbolic link counts as nothing)
  file,       // a regular file
  directory,  // a directory
  other,      // anything else: device, socket, FIFO
};

struct file_status {
  file_type type = file_type::none;
  // Size in bytes for a regular file; 0 for every other type.
  std::uintmax_t size = 0;
  // Last modification time in UTC, microsecond resolution; not_a_date_time for `none`.
  boost::posix_time::ptime last_write_time;
};

// The process's directory for temporary files: $TMPDIR when set (then TMP, TEMP,
// TEMPDIR), otherwise /tmp. Throws if that path is not an existing directory.
path temp_directory_name();

// True if something exists at `p` (symbolic links followed). A missing path or a
// missing parent is `false`; other failures (e.g. permission denied) throw.
bool exists(path const& p);

// Type, size and last write time of what `p` names (symbolic links followed). A missing
// path is not an error: the result has type `none`. Other failures throw.
file_status status(path const& p);

// Removes the file or empty directory at `p`. Returns true if something was removed,
// false if nothing existed. Throws for a non-empty directory and on other failures.
bool remove(path const& p);

// Renames `from` to `to`, atomically replacing a file at `to` (POSIX rename). Throws on
// failure, e.g. when `from` does not exist or the two are on different file systems.
void rename(path const& from, path const& to);

// Copies the regular file `from` to `to`. With `overwrite` false an existing `to` is a
// failure (errc::file_exists); with `overwrite` true its content is replaced. Throws on
// failure.
void copy_file(path const& from, path const& to, bool overwrite);

// Creates `p` and every missing parent. Returns true if a directory was created, false
// if `p` already was a directory. Throws if something in the way is not a directory, or
// on any other failure.
bool create_directories(path const& p);

// UTF-16 <-> path. Paths are held as UTF-8 bytes. `to_path` throws
// fl::i18n::internal_runtime_error on an unpaired surrogate; `to_ustring` throws
// fl::i18n::conversion_error for a path whose bytes are not valid UTF-8.
path to_path(std::u16string const& text);
std::u16string to_ustring(path const& p);

}  // namespace fl::filesystem
