// Attributes of a folder as providers report them.
#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

namespace foundation::storage::provider {

class FolderAttributes {
 public:
  // `lastModified` is UTC.
  FolderAttributes(boost::posix_time::ptime lastModified, bool writable)
      : lastModified_(lastModified), writable_(writable) {}

  boost::posix_time::ptime const& getLastModified() const { return lastModified_; }
  bool isWritable() const { return writable_; }

  bool operator==(FolderAttributes const&) const = default;

 private:
  boost::posix_time::ptime lastModified_;
  bool writable_;
};

}  // namespace foundation::storage::provider
