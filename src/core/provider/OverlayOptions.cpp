#include <core/provider/OverlayOptions.hpp>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <stdexcept>

namespace storage::overlayprovider {

namespace {

[[noreturn]] void refuse(std::string const& key, std::string const& text, char const* wanted) {
  throw std::invalid_argument(key + ": '" + text + "' is not " + wanted);
}

}  // namespace

std::vector<std::string> const& overlayOptionKeys() {
  static std::vector<std::string> const keys = {
      "overlay.cacheRoot",          "overlay.maxQueueWeight",      "overlay.minQueueItemWeight",
      "overlay.persistContentCache", "overlay.maxReadPayloadSize", "overlay.maxWritePayloadSize",
      "overlay.synchronous",        "overlay.disableContentCache", "overlay.backslashToForwardSlash",
  };
  return keys;
}

void checkOverlayOption(std::string const& key, std::string const& text) {
  if (key == "overlay.maxQueueWeight" || key == "overlay.minQueueItemWeight") {
    char* end = nullptr;
    double const value = std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(value) || value < 0) {
      refuse(key, text, "a number >= 0");
    }
  } else if (key == "overlay.maxReadPayloadSize" || key == "overlay.maxWritePayloadSize") {
    char* end = nullptr;
    errno = 0;
    long const value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE || value <= 0) {
      refuse(key, text, "a whole number of bytes above 0");
    }
  }
}

}  // namespace storage::overlayprovider
