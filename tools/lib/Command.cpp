#include <ovl/Command.hpp>

#include <ovl/Format.hpp>
#ifdef OVL_WITH_MOUNT
#include <ovl/MountCommands.hpp>
#endif

#include <fl/i18n.hpp>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <filesystem>

namespace ovl {

using fsp::StorageIRI;
using fsp::StorageItem;

Session::Session(fsp::ProviderRegistry& registry, std::ostream& out, std::ostream& err, bool errIsTerminal,
                 std::optional<providers::throttle::Options> throttle, OverlayHost* overlay)
    : registry_(registry),
      out_(out),
      err_(err),
      errIsTerminal_(errIsTerminal),
      throttle_(std::move(throttle)),
      overlay_(overlay) {}

namespace {

// Whether `path` is `folder` or lies below it.
bool pathWithin(std::u16string const& path, std::u16string const& folder) {
  if (folder == u"/" || path == folder) return true;
  return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == u'/';
}

// `path` relative to `folder`, which it lies within: "/" for the folder itself.
std::u16string pathBelow(std::u16string const& path, std::u16string const& folder) {
  if (folder == u"/") return path;
  auto relative = path.substr(std::min(path.size(), folder.size()));
  return relative.empty() ? u"/" : relative;
}

}  // namespace

StorageItem Session::resolve(std::string const& text, Reach reach) {
  StorageItem item;
  try {
    item = registry_.resolve(text);
    // Resolved before anything is checked against a root: "a/../../b" names "/b".
    item = StorageItem(item.getProvider(), item.getLocation().getResolvedIRI());
  } catch (std::exception const& e) {
    if (!wrapsOverlayIRI(text)) throw CommandError(text, e.what());
  }
  std::optional<StorageIRI> folder;
  if (!wrapsOverlayIRI(text) && overlay_) folder = overlayRootFor(item, text, reach == Reach::WithinOverlayRoot);
  if (wrapsOverlayIRI(text)) {
    item = overlayItemFor(text);
  } else if (!folder) {
    // Directly on the store: no overlay, or a source outside its root that is only read.
    if (throttle_) item = throttled(item, item.getLocation().withPath(u"/"));
  } else {
    // The throttle (if any) is rooted at the overlay's folder: the overlay then lies over
    // the throttle's root, and overlay, throttle and store IRIs map onto each other path
    // for path.
    if (throttle_) item = throttled(item, *folder);
    auto const innerRoot = throttle_ ? item.getLocation().withPath(u"/") : *folder;
    try {
      item = overlay_->over(item, innerRoot);
    } catch (CommandError const&) {
      throw;
    } catch (std::exception const& e) {
      throw CommandError(text, std::string("cannot lay the overlay over it: ") + e.what());
    }
  }
  names_.emplace_back(item.getLocation(), text);
  return item;
}

bool Session::wrapsOverlayIRI(std::string const& text) {
  return text.rfind(std::string("overlay:<"), 0) == 0;
}

StorageItem Session::overlayItemFor(std::string const& text) {
  if (!host_) throw CommandError(text, "the overlay's IRIs need the overlay bundle, which this run did not load");
  StorageIRI iri;
  try {
    iri = StorageIRI(fl::i18n::to_ustring(text)).getResolvedIRI();
  } catch (std::exception const& e) {
    throw CommandError(text, e.what());
  }
  auto const innerRootIRI = iri.getInnerIRI().getResolvedIRI();
  StorageItem innerRoot;
  try {
    innerRoot = registry_.resolve(innerRootIRI);
  } catch (std::exception const& e) {
    throw CommandError(text, e.what());
  }
  StorageItem inner(innerRoot.getProvider(), StorageIRI(innerRootIRI, iri.getPath()));
  StorageIRI root = innerRootIRI;
  if (throttle_) {
    inner = throttled(inner, innerRootIRI);
    root = inner.getLocation().withPath(u"/");
  }
  try {
    return host_->over(inner, root);
  } catch (CommandError const&) {
    throw;
  } catch (std::exception const& e) {
    throw CommandError(text, std::string("cannot lay the overlay over it: ") + e.what());
  }
}

std::optional<StorageIRI> Session::overlayRootFor(StorageItem const& item, std::string const& text, bool required) {
  auto const location = item.getLocation();
  StorageIRI root;
  std::string rootName;
  if (overlayRootText_) {
    try {
      root = registry_.resolve(*overlayRootText_).getLocation();
    } catch (std::exception const& e) {
      throw CommandError(*overlayRootText_, e.what());
    }
    rootName = "the overlay's root " + *overlayRootText_;
  } else if (location.getScheme() != u"file") {
    return location.withPath(u"/");
  } else {
    // The store's root would be the whole disk, which the overlay would read in full.
    auto const here = std::filesystem::current_path().string();
    root = registry_.resolve(here).getLocation();
    rootName = "the current folder " + here + ", over which --overlay lays the overlay (choose another with --overlay-root)";
  }
  if (root.withPath(u"/") != location.withPath(u"/") || !pathWithin(location.getPath(), root.getPath())) {
    if (!required) return std::nullopt;
    throw CommandError(text, "lies outside " + rootName);
  }
  return root;
}

StorageItem Session::child(StorageItem const& folder, std::u16string const& name) {
  StorageItem item(folder.getProvider(), StorageIRI(folder.getLocation(), name));
  auto parentName = nameOf(folder);
  if (!parentName.empty() && parentName.back() == '/') parentName.pop_back();
  names_.emplace_back(item.getLocation(), parentName + "/" + displayText(name));
  return item;
}

StorageItem Session::throttled(StorageItem const& item, StorageIRI const& folder) {
  auto const root = StorageIRI(folder, u"/");
  auto& throttle = throttles_[root.toString()];
  if (!throttle) {
    throttle = std::make_shared<providers::throttle::ThrottleProvider>(StorageItem(item.getProvider(), root), *throttle_);
  }
  return StorageItem(throttle, StorageIRI(providers::throttle::kScheme, root,
                                          pathBelow(item.getLocation().getPath(), folder.getPath())));
}

std::vector<std::optional<std::string>> Session::deliver(std::vector<StorageItem> const& items) {
  std::vector<std::optional<std::string>> causes(items.size());
  if (!host_ || items.empty()) return causes;
  host_->flush();
  std::map<std::string, std::size_t> indexOf;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (items[i].getLocation().getScheme() == kOverlayScheme) indexOf.emplace(plainIRI(items[i].getLocation()), i);
  }
  // Every failure of these items is answered here (a scratch file the store never made
  // also fails its time stamp: that is no news beyond the first failure). The time stamp
  // alone is not the content: a store that keeps no times still took the bytes.
  auto const failed =
      host_->takeUndelivered([&](auto const& change) { return indexOf.count(plainIRI(change.location)) != 0; });
  for (auto const& change : failed) {
    auto& cause = causes[indexOf.at(plainIRI(change.location))];
    if (cause || change.change == "setLastModified") continue;  // the first failure of an item is its cause
    cause = causeText(change.code, change.cause);
  }
  return causes;
}

std::string Session::nameOf(StorageIRI const& iri) const {
  for (auto it = names_.rbegin(); it != names_.rend(); ++it) {
    if (it->first == iri) return it->second;
  }
  return plainIRI(iri);
}

std::string Session::plainIRI(StorageIRI const& given) const {
  auto const iri = OverlayHost::unwrapOverlayIRI(given);
  if (iri.hasInnerIRI() && iri.getScheme() == providers::throttle::kScheme) {
    if (auto it = throttles_.find(iri.getInnerIRI().toString()); it != throttles_.end()) {
      return it->second->toInner(iri).toUtf8();
    }
  }
  return iri.toUtf8();
}

std::string Command::usage() const {
  std::string text = "ovl " + name;
  for (auto const& flag : flags) {
    text += " [" + (flag.alias.empty() ? flag.name : flag.alias) + (flag.value.empty() ? "" : " " + flag.value) + "]";
  }
  for (std::size_t i = 0; i < operands.size(); ++i) {
    bool const optional = i >= operands.size() - optionalOperands;
    text += optional ? " [" + operands[i] + "]" : " " + operands[i];
  }
  return text;
}

Arguments Command::parse(std::vector<std::string> const& args) const {
  Arguments parsed;
  auto findFlag = [&](std::string const& text) -> Flag const* {
    for (auto const& flag : flags) {
      if (text == flag.name || (!flag.alias.empty() && text == flag.alias)) return &flag;
    }
    return nullptr;
  };
  bool flagsEnded = false;
  for (std::size_t i = 0; i < args.size(); ++i) {
    auto const& arg = args[i];
    auto const equals = arg.find('=');
    Flag const* valued = nullptr;
    if (!flagsEnded && arg.rfind("--", 0) == 0 && equals != std::string::npos) {
      valued = findFlag(arg.substr(0, equals));
      if (!valued || valued->value.empty()) throw UsageError("unknown flag '" + arg + "'");
    }
    if (valued) {
      parsed.flags.insert(valued->name);
      parsed.values[valued->name] = arg.substr(equals + 1);
    } else if (flagsEnded || arg.size() < 2 || arg[0] != '-') {
      parsed.operands.push_back(arg);
    } else if (arg == "--") {
      flagsEnded = true;
    } else if (arg == "--help" || arg == "-h") {
      parsed.flags.insert("--help");
    } else if (auto const* flag = findFlag(arg)) {
      parsed.flags.insert(flag->name);
      if (!flag->value.empty()) {
        if (i + 1 >= args.size()) throw UsageError(flag->name + " needs a value (" + flag->value + ")");
        parsed.values[flag->name] = args[++i];
      }
    } else if (arg[1] != '-') {
      // Single-letter flags given together: "-lR".
      std::vector<std::string> names;
      for (std::size_t i = 1; i < arg.size(); ++i) {
        auto const* letter = findFlag(std::string("-") + arg[i]);
        if (!letter) throw UsageError("unknown flag '" + arg + "'");
        names.push_back(letter->name);
      }
      parsed.flags.insert(names.begin(), names.end());
    } else {
      throw UsageError("unknown flag '" + arg + "'");
    }
  }
  if (parsed.has("--help")) return parsed;
  auto const required = operands.size() - optionalOperands;
  if (parsed.operands.size() < required) throw UsageError("missing " + operands[parsed.operands.size()]);
  if (parsed.operands.size() > operands.size()) {
    throw UsageError("unexpected argument '" + parsed.operands[operands.size()] + "'");
  }
  return parsed;
}

double Arguments::number(std::string const& flag, double fallback, double min, double max) const {
  auto it = values.find(flag);
  if (it == values.end()) return fallback;
  char* end = nullptr;
  double const value = std::strtod(it->second.c_str(), &end);
  if (it->second.empty() || end != it->second.c_str() + it->second.size() || !(value >= min && value <= max)) {
    std::ostringstream range;
    range << min << " to " << max;
    throw UsageError(flag + ": '" + it->second + "' is not a number from " + range.str());
  }
  return value;
}

std::vector<Command> const& commands() {
  // File commands first, then the program's own; each group is a list of rows.
  static std::vector<Command> const table = [] {
    std::vector<Command> all = fileCommands();
    all.push_back(demoCommand());
    all.push_back(benchCommand());
#ifdef OVL_WITH_MOUNT
    for (auto& command : mountCommands()) all.push_back(std::move(command));
#endif
    for (auto& command : programCommands()) all.push_back(std::move(command));
    return all;
  }();
  return table;
}

Command const* findCommand(std::string const& name) {
  auto const& table = commands();
  auto it = std::find_if(table.begin(), table.end(), [&](Command const& c) { return c.name == name; });
  return it == table.end() ? nullptr : &*it;
}

}  // namespace ovl
