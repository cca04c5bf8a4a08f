#include <core/Logger.hpp>

namespace storage::overlayprovider {

foundation::log::basic_diagnostic_logger<char>& getLogger() {
  static foundation::log::basic_diagnostic_logger<char> logger("storage::overlayprovider");
  return logger;
}

}  // namespace storage::overlayprovider
