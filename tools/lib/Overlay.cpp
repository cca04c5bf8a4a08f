#include <ovl/Overlay.hpp>

#include <ovl/Command.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#ifndef OVL_DEFAULT_BUNDLE
#define OVL_DEFAULT_BUNDLE "overlayprovider.so"
#endif

namespace ovl {

namespace {

// The whole number of `flag` when given, within [least, most]; else the configuration's
// value of `key`; else `fallback`.
long wholeSetting(boost::property_tree::ptree const& config, Arguments const& args, char const* flag,
                  char const* key, long fallback, double least, double most) {
  if (args.values.count(flag)) {
    double const value = args.number(flag, static_cast<double>(fallback), least, most);
    if (value != std::floor(value)) {
      throw UsageError(std::string(flag) + ": '" + args.values.at(flag) + "' is not a whole number");
    }
    return static_cast<long>(value);
  }
  if (auto const given = config.get_optional<long>(key)) return *given;
  return fallback;
}

}  // namespace

std::string ToolSettings::describe() const {
  std::string text = std::to_string(transfers) + (transfers == 1 ? " transfer" : " transfers") + " at once";
  std::vector<std::string> refinements;
  if (echoWindowMs > 0) {
    std::ostringstream seconds;
    seconds << static_cast<double>(echoWindowMs) / 1000;
    refinements.push_back("echoes of its own folder changes ignored for " + seconds.str() + " s");
  }
  if (narrowInvalidation) refinements.emplace_back("narrow invalidation");
  if (holdEventsForChangesOnly) refinements.emplace_back("held back by its own changes only");
  if (refinements.empty()) return text + "; events handled as the plug-in's defaults say";
  text += "; events: ";
  for (std::size_t i = 0; i < refinements.size(); ++i) text += (i ? ", " : "") + refinements[i];
  return text;
}

void ToolSettings::applyTo(boost::property_tree::ptree& config) const {
  config.put("overlay.transfers", transfers);
  config.put("overlay.echoWindow", echoWindowMs);
  // The overlay reads these two as switches that only turn on: off is their absence.
  for (auto const& [key, on] : {std::pair{"narrowInvalidation", narrowInvalidation},
                                std::pair{"holdEventsForChangesOnly", holdEventsForChangesOnly}}) {
    if (on) {
      config.put(std::string("overlay.") + key, "true");
    } else if (auto overlay = config.get_child_optional("overlay")) {
      overlay->erase(key);
    }
  }
}

boost::property_tree::ptree withToolSettings(boost::property_tree::ptree config, Arguments const& args,
                                             ToolSettings& used) {
  used.transfers =
      wholeSetting(config, args, "--transfers", "overlay.transfers", kDefaultToolTransfers, 1, 256);
  bool const plain = args.has("--plain-events");
  used.echoWindowMs = wholeSetting(config, args, "--echo-window-ms", "overlay.echoWindow",
                                   plain ? 0 : kDefaultToolEchoWindowMs, 0, 600000);
  auto const flag = [&](char const* key) {
    if (plain) return false;
    auto const given = config.get_optional<std::string>(key);
    return !given || *given == "true";
  };
  used.narrowInvalidation = flag("overlay.narrowInvalidation");
  used.holdEventsForChangesOnly = flag("overlay.holdEventsForChangesOnly");
  used.applyTo(config);
  return config;
}

using fsp::StorageIRI;
using fsp::StorageItem;

std::filesystem::path OverlayHost::modulePath(std::optional<std::string> const& flag) {
  if (flag) return *flag;
  if (char const* env = std::getenv("OVL_BUNDLE"); env && *env) return env;
  return OVL_DEFAULT_BUNDLE;
}

OverlayHost::OverlayHost(fsp::ProviderRegistry& registry, std::filesystem::path const& module,
                         boost::property_tree::ptree config)
    : registry_(registry), config_(std::move(config)) {
  if (registry_.hasScheme(kOverlayScheme)) return;
  auto runtime = std::make_unique<fsp::BundleRuntime>(registry_);
  try {
    runtime->load(module);
  } catch (fsp::BundleError const& e) {
    throw CommandError(module.string(), std::string("cannot load the overlay bundle: ") + e.what());
  }
  runtime_ = std::move(runtime);
}

OverlayHost::~OverlayHost() {
  try {
    finish();
  } catch (...) {
    // A failure here was reported by an earlier finish(), or there is nobody to tell.
  }
}

StorageItem OverlayHost::over(StorageItem const& inner, StorageIRI const& innerRoot) {
  auto const key = innerRoot.toString();
  auto found = roots_.find(key);
  if (found == roots_.end()) {
    // The registry makes the overlay's inner item from the inner IRI; handing it the
    // caller's provider makes sure the overlay lies on that very instance (a throttle made
    // for this run is not one the registry could make itself).
    registry_.addProvider(innerRoot, inner.getProvider());
    auto root = registry_.resolve(StorageIRI(kOverlayScheme, StorageIRI(innerRoot, u"/"), u"/"));
    root.configure(config_);
    found = roots_.emplace(key, std::move(root)).first;
  }
  auto const& path = inner.getLocation().getPath();
  auto const& rootPath = innerRoot.getPath();
  auto relative = rootPath == u"/" ? path : path.substr(std::min(path.size(), rootPath.size()));
  if (relative.empty()) relative.push_back(u'/');
  return StorageItem(found->second.getProvider(), found->second.getLocation().withPath(relative));
}

std::vector<StorageItem> OverlayHost::roots() const {
  std::vector<StorageItem> all;
  for (auto const& [key, root] : roots_) all.push_back(root);
  return all;
}

namespace {

fsp::extensions::IWriteBehindStatus* statusOf(StorageItem const& root) {
  return dynamic_cast<fsp::extensions::IWriteBehindStatus*>(root.getProvider().get());
}

}  // namespace

void OverlayHost::flush() {
  std::exception_ptr first;
  for (auto const& [key, root] : roots_) {
    try {
      root.flushFilesystem();
    } catch (...) {
      if (!first) first = std::current_exception();
    }
    if (auto* status = statusOf(root)) {
      for (auto& change : status->takeUndeliveredChanges()) delivery_.undelivered.push_back(std::move(change));
      for (auto& failure : status->takeLocalCacheFailures()) delivery_.cacheFailures.push_back(std::move(failure));
      for (auto& folder : status->takeUnlistedFolders()) delivery_.unlisted.push_back(std::move(folder));
    }
  }
  if (first) std::rethrow_exception(first);
}

std::vector<fsp::extensions::UndeliveredChange> OverlayHost::takeUndelivered(
    std::function<bool(fsp::extensions::UndeliveredChange const&)> const& matches) {
  std::vector<fsp::extensions::UndeliveredChange> taken, kept;
  for (auto& change : delivery_.undelivered) (matches(change) ? taken : kept).push_back(std::move(change));
  delivery_.undelivered = std::move(kept);
  return taken;
}

std::optional<fsp::extensions::QueueFigures> OverlayHost::queueFigures() const {
  if (roots_.empty()) return std::nullopt;
  if (auto* status = statusOf(roots_.begin()->second)) return status->getQueueFigures();
  return std::nullopt;
}

void OverlayHost::finish() {
  if (finished_) return;
  finished_ = true;
  std::exception_ptr first;
  try {
    flush();
  } catch (...) {
    first = std::current_exception();
  }
  for (auto const& [key, root] : roots_) {
    try {
      root.shutdownProvider();
    } catch (...) {
      if (!first) first = std::current_exception();
    }
  }
  roots_.clear();
  if (runtime_) {
    try {
      runtime_->unload(kOverlayScheme);
    } catch (...) {
      if (!first) first = std::current_exception();
    }
    runtime_.reset();
  }
  if (first) std::rethrow_exception(first);
}

StorageIRI OverlayHost::unwrapOverlayIRI(StorageIRI const& iri) {
  if (iri.hasInnerIRI() && iri.getScheme() == kOverlayScheme) return StorageIRI(iri.getInnerIRI(), iri.getPath());
  return iri;
}

}  // namespace ovl
