// A provider that can push everything it holds back to where it belongs.
#pragma once

namespace foundation::storage::provider::extensions {

class IFlushableFilesystem {
 public:
  virtual ~IFlushableFilesystem() = default;
  // Returns when every change accepted so far has reached the underlying store.
  /* 55 */ virtual void doFlushFilesystem() = 0;
};

}  // namespace foundation::storage::provider::extensions
