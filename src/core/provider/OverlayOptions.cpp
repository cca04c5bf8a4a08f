#include <core/provider/OverlayOptions.hpp>

#include <fl/i18n.hpp>

#include <boost/property_tree/ptree.hpp>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace storage::overlayprovider {

namespace {

// The values a key can work with. A payload size of 0 or less makes every read return
// nothing and every write store nothing; a weight that is not a finite number >= 0
// breaks the queue's bound.
enum class Range {
  Any,          // every text that converts
  Weight,       // a finite number >= 0
  MaxWeight,    // as Weight; a negative one is refused by doConfigure with its own error
  PayloadSize,  // a whole number above 0
  Count,        // a whole number >= 1
  Duration,     // a whole number >= 0 (milliseconds)
};

struct KeyDescriptor {
  OverlayOptionKey key;
  Range range;
  // The conversion: stores the value of `text` in `options`; throws when it does not convert.
  void (*read)(OverlayOptions& options, std::string const& text);
  // The number stored by `read`, for keys of a range other than Any.
  double (*number)(OverlayOptions const& options);
};

struct VariableDescriptor {
  char const* name;
  // Stores the value of the variable's text in `options`; called only when it is set.
  void (*read)(OverlayOptions& options, char const* text);
};

// Stream extraction with boolalpha: only the text "true" reads as true.
bool readsTrue(std::string const& text) {
  std::istringstream in(text);
  bool value = false;
  in >> std::boolalpha >> value;
  return !in.fail() && value;
}

std::int64_t wholeNumber(std::string const& text) { return std::stol(text, nullptr, 10); }

// The conversion of a key that only switches `field` on: a true value (boolalpha) sets it,
// any other text leaves it.
template <bool OverlayOptions::*field>
void switchOn(OverlayOptions& options, std::string const& text) {
  if (readsTrue(text)) options.*field = true;
}

KeyDescriptor const kKeys[] = {
    {{"overlay.cacheRoot", "overlay.configuration.cacheRoot"}, Range::Any,
     [](OverlayOptions& o, std::string const& t) {
       o.cacheRoot = std::filesystem::path(fl::i18n::to_string(fl::i18n::to_ustring(t)));
     },
     nullptr},
    {{"overlay.maxQueueWeight", "overlay.configuration.maxQueueWeight"}, Range::MaxWeight,
     [](OverlayOptions& o, std::string const& t) { o.maxQueueWeight = std::stod(t); },
     [](OverlayOptions const& o) { return o.maxQueueWeight; }},
    {{"overlay.minQueueItemWeight", "overlay.configuration.minQueueItemWeight"}, Range::Weight,
     [](OverlayOptions& o, std::string const& t) { o.minQueueItemWeight = std::stod(t); },
     [](OverlayOptions const& o) { return o.minQueueItemWeight; }},
    {{"overlay.persistContentCache", nullptr}, Range::Any,
     [](OverlayOptions& o, std::string const& t) {
       if (t == "true" || t == "1") o.persistContentCache = true;
     },
     nullptr},
    {{"overlay.maxReadPayloadSize", "overlay.configuration.maxReadPayloadSize"}, Range::PayloadSize,
     [](OverlayOptions& o, std::string const& t) { o.maxReadPayloadSize = wholeNumber(t); },
     [](OverlayOptions const& o) { return static_cast<double>(o.maxReadPayloadSize); }},
    {{"overlay.maxWritePayloadSize", "overlay.configuration.maxWritePayloadSize"}, Range::PayloadSize,
     [](OverlayOptions& o, std::string const& t) { o.maxWritePayloadSize = wholeNumber(t); },
     [](OverlayOptions const& o) { return static_cast<double>(o.maxWritePayloadSize); }},
    {{"overlay.transfers", "overlay.configuration.transfers"}, Range::Count,
     [](OverlayOptions& o, std::string const& t) { o.transfers = wholeNumber(t); },
     [](OverlayOptions const& o) { return static_cast<double>(o.transfers); }},
    {{"overlay.echoWindow", "overlay.configuration.echoWindow"}, Range::Duration,
     [](OverlayOptions& o, std::string const& t) { o.echoWindowMs = wholeNumber(t); },
     [](OverlayOptions const& o) { return static_cast<double>(o.echoWindowMs); }},
    {{"overlay.narrowInvalidation", nullptr}, Range::Any,
     switchOn<&OverlayOptions::narrowInvalidation>,
     nullptr},
    {{"overlay.holdEventsForChangesOnly", nullptr}, Range::Any,
     switchOn<&OverlayOptions::holdEventsForChangesOnly>,
     nullptr},
    {{"overlay.synchronous", nullptr}, Range::Any,
     switchOn<&OverlayOptions::synchronous>,
     nullptr},
    {{"overlay.disableContentCache", nullptr}, Range::Any,
     switchOn<&OverlayOptions::disableContentCache>,
     nullptr},
    {{"overlay.backslashToForwardSlash", nullptr}, Range::Any,
     switchOn<&OverlayOptions::backslashToForwardSlash>,
     nullptr},
};

VariableDescriptor const kVariables[] = {
    {"QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT",
     [](OverlayOptions& o, char const* t) { o.eventRobustnessTimeout = std::chrono::milliseconds(std::atol(t)); }},
    {"QV_OVERLAY_WAIT_FOR_ZERO_PERIOD",
     [](OverlayOptions& o, char const* t) { o.waitForZeroPeriod = std::chrono::milliseconds(std::atol(t)); }},
    {"QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE",
     [](OverlayOptions& o, char const* t) { o.captureQueueMetrics = std::strcmp(t, "true") != 0; }},
};

KeyDescriptor const* find(std::string const& key) {
  for (auto const& descriptor : kKeys) {
    if (key == descriptor.key.name) return &descriptor;
  }
  return nullptr;
}

[[noreturn]] void refuse(std::string const& key, std::string const& text, Range range) {
  char const* wanted = range == Range::PayloadSize ? "a whole number of bytes above 0"
                       : range == Range::Count     ? "a whole number >= 1"
                       : range == Range::Duration  ? "a whole number of milliseconds >= 0"
                                                   : "a number >= 0";
  throw std::invalid_argument(key + ": '" + text + "' is not " + wanted);
}

}  // namespace

OverlayOptions OverlayOptions::fromEnvironment() {
  OverlayOptions options;
  for (auto const& variable : kVariables) {
    if (char const* text = std::getenv(variable.name)) variable.read(options, text);
  }
  return options;
}

void OverlayOptions::readConfiguration(
    boost::property_tree::ptree const& config,
    std::function<void(OverlayOptionKey const&, std::string const& text)> const& applied) {
  for (auto const& descriptor : kKeys) {
    if (auto const text = config.get_optional<std::string>(descriptor.key.name)) {
      descriptor.read(*this, *text);
      if (applied) applied(descriptor.key, *text);
    }
  }
}

std::vector<std::string> const& overlayOptionKeys() {
  static std::vector<std::string> const keys = [] {
    std::vector<std::string> names;
    for (auto const& descriptor : kKeys) names.emplace_back(descriptor.key.name);
    return names;
  }();
  return keys;
}

std::vector<std::string> const& overlayEnvironmentVariables() {
  static std::vector<std::string> const variables = [] {
    std::vector<std::string> names;
    for (auto const& variable : kVariables) names.emplace_back(variable.name);
    return names;
  }();
  return variables;
}

void checkOverlayOption(std::string const& key, std::string const& text) {
  auto const* descriptor = find(key);
  if (descriptor == nullptr) return;
  char* end = nullptr;
  switch (descriptor->range) {
    case Range::Any:
      return;
    case Range::Weight:
    case Range::MaxWeight: {
      double const value = std::strtod(text.c_str(), &end);
      if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(value) || value < 0) {
        refuse(key, text, descriptor->range);
      }
      return;
    }
    case Range::PayloadSize:
    case Range::Count:
    case Range::Duration: {
      errno = 0;
      long const value = std::strtol(text.c_str(), &end, 10);
      long const least = descriptor->range == Range::Duration ? 0 : 1;
      if (text.empty() || end != text.c_str() + text.size() || errno == ERANGE || value < least) {
        refuse(key, text, descriptor->range);
      }
      return;
    }
  }
}

void refuseUnworkableOverlayOptions(boost::property_tree::ptree const& config) {
  for (auto const& descriptor : kKeys) {
    if (descriptor.range == Range::Any) continue;
    auto const text = config.get_optional<std::string>(descriptor.key.name);
    if (!text) continue;
    // Converted as readConfiguration converts it.
    OverlayOptions converted;
    try {
      descriptor.read(converted, *text);
    } catch (std::exception const&) {
      continue;
    }
    double const value = descriptor.number(converted);
    bool const workable = descriptor.range == Range::PayloadSize || descriptor.range == Range::Count ? value > 0
                          : descriptor.range == Range::MaxWeight ? value < 0 || std::isfinite(value)
                                                                 : std::isfinite(value) && value >= 0;
    if (!workable) refuse(descriptor.key.name, *text, descriptor.range);
  }
}

}  // namespace storage::overlayprovider
