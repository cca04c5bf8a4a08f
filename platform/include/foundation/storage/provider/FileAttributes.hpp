// Attributes of a file as providers report them.
#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

#include <optional>

namespace foundation::storage::provider {

class FileAttributes {
 public:
  // `size` is empty when the provider cannot tell; `lastModified` is UTC.
  FileAttributes(std::optional<unsigned long> size, boost::posix_time::ptime lastModified, bool writable)
      : size_(size), lastModified_(lastModified), writable_(writable) {}

  std::optional<unsigned long> const& getSize() const { return size_; }
  boost::posix_time::ptime const& getLastModified() const { return lastModified_; }
  bool isWritable() const { return writable_; }

  bool operator==(FileAttributes const&) const = default;

 private:
  std::optional<unsigned long> size_;
  boost::posix_time::ptime lastModified_;
  bool writable_;
};

}  // namespace foundation::storage::provider
