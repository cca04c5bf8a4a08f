// The command table of `ovl`, and the session a command runs in.
//
// A command is one row of the table: its name, operands, flags, help text and the
// function that runs it. runOvl parses the global flags and the command's own flags
// against the row, then calls `run` with a Session. Adding a command (demo, bench, ...) is
// adding a row: see `commands()`.
#pragma once

#include <ovl/Overlay.hpp>

#include <providers/throttle/ThrottleProvider.hpp>

#include <foundation/storage/provider/ProviderRegistry.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace ovl {

namespace fsp = foundation::storage::provider;

// A failure that a command reports as "ovl <cmd>: <subject>: <cause>" (exit status 1).
class CommandError : public std::runtime_error {
 public:
  CommandError(std::string subject, std::string cause)
      : std::runtime_error(subject + ": " + cause), subject_(std::move(subject)), cause_(std::move(cause)) {}
  std::string const& subject() const { return subject_; }
  std::string const& cause() const { return cause_; }

 private:
  std::string subject_;
  std::string cause_;
};

// Bad usage: reported with the command's usage line (exit status 2).
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What one run of a command works with: the output streams, the registry, and the items
// it resolved (so that errors name them as the user wrote them).
class Session {
 public:
  // `throttle`, when set, wraps every store the session resolves in a ThrottleProvider
  // with those options (one per store root, shared by the session's items). `overlay`,
  // when not null, then lays the overlay over it: the session's items are overlay items.
  Session(fsp::ProviderRegistry& registry, std::ostream& out, std::ostream& err, bool errIsTerminal,
          std::optional<providers::throttle::Options> throttle, OverlayHost* overlay = nullptr);

  std::ostream& out() { return out_; }
  std::ostream& err() { return err_; }
  bool errIsTerminal() const { return errIsTerminal_; }

  // Where an operand may lie when the session goes through the overlay.
  enum class Reach {
    WithinOverlayRoot,  // inside the overlay's root, else a CommandError
    AnywhereForReading  // outside the root it is read directly from its store
  };
  // The item for `text`: an IRI, or a local path that becomes a file IRI. Throws
  // CommandError naming `text` when it is neither, or names a scheme no store serves.
  fsp::StorageItem resolve(std::string const& text, Reach reach = Reach::WithinOverlayRoot);
  // The item `name` inside the folder `folder`, on the same provider; messages name it as
  // the folder's name, "/", `name`.
  fsp::StorageItem child(fsp::StorageItem const& folder, std::u16string const& name);

  // How messages name `iri`: as the user wrote it when it is one of the session's items,
  // otherwise as its IRI text (without the overlay and throttle layers the session added).
  std::string nameOf(fsp::StorageIRI const& iri) const;
  std::string nameOf(fsp::StorageItem const& item) const { return nameOf(item.getLocation()); }
  // The IRI text of `iri` without the overlay and throttle layers the session added.
  std::string plainIRI(fsp::StorageIRI const& iri) const;
  // Whether the session's items go through the overlay.
  bool throughOverlay() const { return overlay_ != nullptr; }
  // Flushes the overlay (once), so that the store has everything acknowledged so far, and
  // tells for each of `items` whether its content reached the store: nothing when it did
  // (and for items not in the overlay), otherwise the cause (what the store said). The
  // failures found for them are taken out of the run's report.
  std::vector<std::optional<std::string>> deliver(std::vector<fsp::StorageItem> const& items);
  // From here on, resolve() lays `overlay` over what it resolves (null: no longer). The
  // overlay is laid over the folder `root` names (an IRI or a local path) when given;
  // otherwise over the store's root, or for local files (where that would be the whole
  // disk) over the current folder. An item outside that folder is a CommandError.
  void setOverlay(OverlayHost* overlay, std::optional<std::string> root = std::nullopt) {
    overlay_ = overlay;
    host_ = overlay;
    overlayRootText_ = std::move(root);
  }
  // The overlay host that serves operands written in the overlay's own scheme
  // ("overlay:<file:///srv/data/>/docs"), when the session's items do not all go through
  // the overlay. Such an operand is never wrapped again.
  void setOverlayHost(OverlayHost* host) { host_ = host; }
  // Whether `text` is written in the overlay's own scheme.
  static bool wrapsOverlayIRI(std::string const& text);

  // What the run was given for overlays the commands make themselves (demo, bench): the
  // bundle module and the configuration tree.
  void setOverlaySettings(std::filesystem::path bundle, boost::property_tree::ptree config) {
    bundle_ = std::move(bundle);
    config_ = std::move(config);
  }
  std::filesystem::path const& bundlePath() const { return bundle_; }
  boost::property_tree::ptree const& config() const { return config_; }
  fsp::ProviderRegistry& registry() { return registry_; }
  std::optional<providers::throttle::Options> const& throttle() const { return throttle_; }

 private:
  // The item of an operand in the overlay's scheme, through host_.
  fsp::StorageItem overlayItemFor(std::string const& text);
  // `item` (lying within `folder`) through the throttle rooted at `folder`.
  fsp::StorageItem throttled(fsp::StorageItem const& item, fsp::StorageIRI const& folder);
  // The folder (of the unthrottled store) the overlay is laid over for `item`, which the
  // user wrote as `text`. When `item` lies outside it: a CommandError when `required`,
  // otherwise nothing.
  std::optional<fsp::StorageIRI> overlayRootFor(fsp::StorageItem const& item, std::string const& text, bool required);

  fsp::ProviderRegistry& registry_;
  std::ostream& out_;
  std::ostream& err_;
  bool const errIsTerminal_;
  std::optional<providers::throttle::Options> const throttle_;
  OverlayHost* overlay_;  // not owned; null when the session goes to the stores directly
  OverlayHost* host_ = nullptr;  // not owned; serves operands in the overlay's scheme
  std::optional<std::string> overlayRootText_;
  std::filesystem::path bundle_;
  boost::property_tree::ptree config_;
  std::map<std::u16string, std::shared_ptr<providers::throttle::ThrottleProvider>> throttles_;  // by inner root
  std::vector<std::pair<fsp::StorageIRI, std::string>> names_;  // item IRI -> text the user wrote
};

struct Flag {
  std::string name;   // "--recursive"
  std::string alias;  // "-r", or empty
  std::string help;
  std::string value = {};  // "N" for a flag that takes a value ("--files N", "--files=N")
};

// A command's arguments after parsing: the flags given (by their long names), the values
// of those that take one (the last given wins), and the operands in order.
struct Arguments {
  std::set<std::string> flags;
  std::map<std::string, std::string> values;
  std::vector<std::string> operands;
  bool has(std::string const& flag) const { return flags.count(flag) != 0; }
  // The flag's value; `fallback` when it was not given.
  std::string valueOr(std::string const& flag, std::string const& fallback) const {
    auto it = values.find(flag);
    return it == values.end() ? fallback : it->second;
  }
  // The flag's value as a number within [min, max]; `fallback` when it was not given.
  // Throws UsageError naming the flag otherwise.
  double number(std::string const& flag, double fallback, double min, double max) const;
};

struct Command {
  std::string name;
  std::vector<std::string> operands;  // names of the operands, "SRC", "DST"
  std::size_t optionalOperands = 0;   // how many of the last operands may be left out
  std::string summary;                // one line, for the command list
  std::string description;            // the body of `ovl help <name>`
  std::vector<Flag> flags;
  std::function<int(Session&, Arguments const&)> run;

  // "ovl ls [-l] [-R] IRI"
  std::string usage() const;
  // Parses the command's own arguments. Throws UsageError for an unknown flag, a missing
  // or an extra operand. Leaves "--help" / "-h" in `flags` as "--help".
  Arguments parse(std::vector<std::string> const& args) const;
};

// Every command, in the order help lists them.
std::vector<Command> const& commands();
Command const* findCommand(std::string const& name);

// The file commands: ls, stat, cat, cp, mkdir, rm, mv (FileCommands.cpp).
std::vector<Command> fileCommands();
// The program's own commands: help (Ovl.cpp).
std::vector<Command> programCommands();
// ovl demo (Demo.cpp) and ovl bench (Bench.cpp).
Command demoCommand();
Command benchCommand();

}  // namespace ovl
