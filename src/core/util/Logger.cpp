#include <core/util/Logger.hpp>

#include <exception>

namespace storage::overlayprovider {

foundation::log::basic_diagnostic_logger<char>& getLogger() {
  static foundation::log::basic_diagnostic_logger<char> logger("storage::overlayprovider");
  return logger;
}

std::string describeCurrentException() {
  try {
    throw;
  } catch (std::exception const& e) {
    return e.what();
  } catch (...) {
    return "unknown exception";
  }
}

}  // namespace storage::overlayprovider
