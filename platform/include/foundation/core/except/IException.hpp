// Root of the host's own exception types.
#pragma once

#include <exception>

namespace foundation::core::except {

class IException : public std::exception {
 public:
  ~IException() override = default;
};

}  // namespace foundation::core::except
