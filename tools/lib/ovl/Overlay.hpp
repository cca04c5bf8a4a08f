// OverlayHost: brings the overlay bundle into a registry and lays overlays over stores.
//
// The overlay is not linked into ovl: it is the loadable module the platform's bundle
// runtime loads, as any host program would load it. The module is found, in this order,
// at the path given with --bundle, at $OVL_BUNDLE, and at the path the build wrote into
// the program (the module built beside it).
//
// One OverlayHost serves one run of a command. For each store root it is asked about it
// makes (through the registry) one overlay provider, configures it once with the
// configuration tree of the run, and remembers it; `finish` flushes every overlay so
// that the store holds everything the command was told was done, then shuts them down
// and unloads the bundle.
#pragma once

#include <foundation/storage/provider/BundleRuntime.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <boost/property_tree/ptree.hpp>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ovl {

namespace fsp = foundation::storage::provider;

// The scheme the overlay bundle serves.
inline constexpr char16_t const* kOverlayScheme = u"overlay";

// What the tools that lay one overlay over a slow store (demo, bench, the mount) switch
// on unless told otherwise: 8 transfers at once and three refinements of how the store's
// change events are handled: the echoes of the overlay's own folder changes made less
// than 5 s before dropped, a change made elsewhere dropping only the listings it
// concerns, and events held back by the overlay's own changes only, not by reads.
inline constexpr int kDefaultToolTransfers = 8;
inline constexpr long kDefaultToolEchoWindowMs = 5000;

struct Arguments;

// The settings above as one run uses them.
struct ToolSettings {
  long transfers = kDefaultToolTransfers;          // "overlay.transfers"
  long echoWindowMs = kDefaultToolEchoWindowMs;  // "overlay.echoWindow"
  bool narrowInvalidation = true;                // "overlay.narrowInvalidation"
  bool holdEventsForChangesOnly = true;          // "overlay.holdEventsForChangesOnly"
  // "8 transfers at once; events: echoes of its own folder changes ignored for 5 s,
  // narrow invalidation, held back by its own changes only", or "...; events handled as
  // the plug-in's defaults say".
  std::string describe() const;
  // Puts the four keys into `config`.
  void applyTo(boost::property_tree::ptree& config) const;
};

// `config` with the four keys set, each to the value of its flag when given
// (--transfers: a whole number from 1 to 256; --echo-window-ms: a whole number from 0 to
// 600000, else UsageError; --plain-events: the three event refinements off, the window
// 0 unless --echo-window-ms gives one), else left as the configuration (--config/--set)
// gives it, else the tools' default. The values in effect go into `used`.
boost::property_tree::ptree withToolSettings(boost::property_tree::ptree config, Arguments const& args,
                                             ToolSettings& used);

// The help lines of the two flags, for a command's flag table.
inline constexpr char const* kTransfersHelp = "changes the overlay sends to the store at once (default 8)";
inline constexpr char const* kEchoWindowHelp =
    "a store event that says what one of the overlay's own folder creations, removals or "
    "moves made less than N ms before is taken as its echo (default 5000; 0: every event counts)";
inline constexpr char const* kPlainEventsHelp =
    "handle the store's change events as the overlay does by default: no echo window, a "
    "change made elsewhere drops the whole tree of the folder above it, reads hold events back";

class OverlayHost {
 public:
  // Where the bundle module is: `flag` when given, else $OVL_BUNDLE when set and not
  // empty, else the module built with this program.
  static std::filesystem::path modulePath(std::optional<std::string> const& flag);

  // Loads the bundle from `module` into `registry` unless the registry already serves the
  // overlay scheme (then that factory is used and nothing is loaded). Throws CommandError
  // naming the module when it cannot be loaded. `config` is handed to every overlay
  // provider before its first use.
  OverlayHost(fsp::ProviderRegistry& registry, std::filesystem::path const& module,
              boost::property_tree::ptree config);
  // Shuts down what `finish` did not, swallowing errors; unloads the bundle if it loaded it.
  ~OverlayHost();
  OverlayHost(OverlayHost const&) = delete;
  OverlayHost& operator=(OverlayHost const&) = delete;

  // The overlay item for `inner`, which lies at or below the folder `innerRoot` of the
  // same store: the overlay laid over that folder, at inner's path relative to it. The
  // first call for a folder makes and configures that overlay (its root is the folder;
  // the overlay reads the whole tree below it into its metadata cache at first use).
  fsp::StorageItem over(fsp::StorageItem const& inner, fsp::StorageIRI const& innerRoot);

  // The overlay roots made so far (each an item at path "/").
  std::vector<fsp::StorageItem> roots() const;

  // What the overlays could not deliver to their stores, taken after their flushes.
  struct Delivery {
    std::vector<fsp::extensions::UndeliveredChange> undelivered;
    std::vector<fsp::extensions::LocalCacheFailure> cacheFailures;
    std::vector<fsp::extensions::UnlistedFolder> unlisted;
  };

  // Flushes every overlay (its queue drains into the store) and adds what each could not
  // deliver to `delivered()`. Throws what a flush throws, after trying the others.
  void flush();

  // Flushes every overlay (see flush()), then shuts each down and unloads the bundle if
  // this host loaded it. Throws what a flush throws, after trying the others; calling it
  // again does nothing.
  void finish();

  // What flush() and finish() collected so far.
  Delivery const& delivered() const { return delivery_; }
  // Takes the undelivered changes for which `matches` is true out of delivered().
  std::vector<fsp::extensions::UndeliveredChange> takeUndelivered(
      std::function<bool(fsp::extensions::UndeliveredChange const&)> const& matches);

  // The queue figures of the first overlay made, if any (the demo has one).
  std::optional<fsp::extensions::QueueFigures> queueFigures() const;

  // For an overlay IRI, the IRI it wraps joined with its path: one level of the
  // overlay's own scheme is unwrapped, and the rest (inner schemes, hosts) stays, so that
  // the result names the store as the user wrote it. Not getInnerMostURL, which goes
  // down to the store's own IRI and drops hosts. Other IRIs are returned as they are.
  static fsp::StorageIRI unwrapOverlayIRI(fsp::StorageIRI const& iri);

 private:
  fsp::ProviderRegistry& registry_;
  boost::property_tree::ptree const config_;
  std::unique_ptr<fsp::BundleRuntime> runtime_;  // set when this host loaded the bundle
  std::map<std::u16string, fsp::StorageItem> roots_;  // overlay root by inner folder text
  bool finished_ = false;
  Delivery delivery_;
};

}  // namespace ovl
