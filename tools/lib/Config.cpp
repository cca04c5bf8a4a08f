#include <ovl/Config.hpp>

#include <ovl/Command.hpp>

#include <core/provider/OverlayOptions.hpp>

#include <boost/property_tree/json_parser.hpp>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace ovl {

namespace pt = boost::property_tree;

namespace {

bool knownOverlayKey(std::string const& key) {
  auto const& keys = overlayKeys();
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

bool isOverlayKey(std::string const& key) { return key.rfind("overlay.", 0) == 0 || key == "overlay"; }

// Copies every leaf of `tree` into `out` under its full dotted key. A JSON array (its
// items have no names) is refused as a value of the wrong type, naming `file` and the key.
void flatten(pt::ptree const& tree, std::string const& prefix, std::vector<std::pair<std::string, std::string>>& out,
             std::string const& file) {
  for (auto const& [name, child] : tree) {
    if (name.empty() && !prefix.empty()) {
      throw UsageError(file + ": \"" + prefix + "\" is a list; its value must be a text or a number");
    }
    auto const key = prefix.empty() ? name : prefix + "." + name;
    if (child.empty()) {
      out.emplace_back(key, child.data());
    } else {
      flatten(child, key, out, file);
    }
  }
}

}  // namespace

std::vector<std::string> const& overlayKeys() { return storage::overlayprovider::overlayOptionKeys(); }

std::vector<std::string> const& overlayVariables() { return storage::overlayprovider::overlayEnvironmentVariables(); }

pt::ptree loadConfig(std::optional<std::string> const& file, std::vector<std::string> const& settings) {
  pt::ptree config;
  if (file) {
    std::error_code error;
    if (std::filesystem::is_directory(*file, error)) {
      throw UsageError("--config " + *file + ": is a folder, not a configuration file");
    }
    std::ifstream in(*file);
    if (!in) throw UsageError("--config " + *file + ": cannot read the configuration file (" + std::strerror(errno) + ")");
    pt::ptree parsed;
    try {
      pt::read_json(in, parsed);
    } catch (pt::json_parser_error const& e) {
      throw UsageError(*file + ": not a JSON configuration: line " + std::to_string(e.line()) + ": " + e.message());
    }
    std::vector<std::pair<std::string, std::string>> leaves;
    flatten(parsed, {}, leaves, *file);
    for (auto const& [key, value] : leaves) {
      if (key.empty() || key.find("..") != std::string::npos) {
        throw UsageError(*file + ": the configuration must be a JSON object of keys and values");
      }
      if (isOverlayKey(key) && !knownOverlayKey(key)) {
        throw UsageError(*file + ": unknown configuration key \"" + key + "\" (ovl --help lists them)");
      }
      try {
        storage::overlayprovider::checkOverlayOption(key, value);
      } catch (std::invalid_argument const& e) {
        throw UsageError(*file + ": " + e.what());
      }
      config.put(pt::ptree::path_type(key, '.'), value);
    }
  }
  for (auto const& setting : settings) {
    auto const equals = setting.find('=');
    auto const key = setting.substr(0, equals);
    if (isOverlayKey(key) && !knownOverlayKey(key)) {
      throw UsageError("--set: unknown configuration key \"" + key + "\" (ovl --help lists them)");
    }
    try {
      storage::overlayprovider::checkOverlayOption(key, setting.substr(equals + 1));
    } catch (std::invalid_argument const& e) {
      throw UsageError(std::string("--set: ") + e.what());
    }
    config.put(pt::ptree::path_type(key, '.'), setting.substr(equals + 1));
  }
  return config;
}

void checkCacheRoot(pt::ptree const& config) {
  auto const root = config.get_optional<std::string>("overlay.cacheRoot");
  if (!root) return;
  namespace fs = std::filesystem;
  std::error_code error;
  fs::create_directories(*root, error);
  if (error) throw CommandError(*root, "cannot be used as the overlay's cache root: " + error.message());
  if (!fs::is_directory(*root, error)) throw CommandError(*root, "cannot be used as the overlay's cache root: not a folder");
  // Permission bits alone do not tell (root may write anywhere, a read-only mount stops
  // everyone): try what the cache will do.
  auto const probe = fs::path(*root) / (".ovl-probe-" + std::to_string(::getpid()));
  {
    std::ofstream out(probe);
    if (!out || !(out << "probe") || !out.flush()) {
      throw CommandError(*root, std::string("cannot be used as the overlay's cache root: cannot write in it (") +
                                    std::strerror(errno) + ")");
    }
  }
  fs::remove(probe, error);
}

}  // namespace ovl
