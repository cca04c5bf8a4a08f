// runOvl: global flags, dispatch through the command table, help, and the one place
// where failures become error lines and exit statuses.
#include <ovl/Ovl.hpp>

#include <ovl/CacheRoot.hpp>
#include <ovl/Command.hpp>
#include <ovl/Config.hpp>
#include <ovl/Format.hpp>
#include <ovl/Interrupt.hpp>

#include <providers/file/FileProviderFactory.hpp>
#include <providers/mem/MemoryProviderFactory.hpp>
#include <providers/s3/S3ProviderFactory.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <foundation/log/Configuration.hpp>
#include <foundation/log/basic_diagnostic_logger.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <memory>
#include <optional>
#include <sstream>

#ifndef OVL_VERSION
#define OVL_VERSION "unknown"
#endif

namespace ovl {

namespace {

// `text` broken at spaces into lines of at most 89 characters, each ended by a newline.
std::string wrapped(std::string const& text) {
  std::string out, line;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    if (!line.empty() && line.size() + 1 + word.size() > 89) {
      out += line + '\n';
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  return out + line + '\n';
}

// "a, b, c"
std::string listed(std::vector<std::string> const& names) {
  std::string out;
  for (auto const& name : names) out += (out.empty() ? "" : ", ") + name;
  return out;
}

constexpr char const* kGlobalUsage =
    "usage: ovl [--overlay] [--overlay-root IRI] [--config FILE] [--set KEY=VALUE] [--bundle FILE] [--log FILE] [--log-level N]\n"
    "           [--throttle-ms N] [--throttle-mbps N] COMMAND [ARGS...]";

struct GlobalFlags {
  bool overlay = false;
  std::optional<std::string> overlayRoot;
  std::optional<std::string> config;
  std::vector<std::string> settings;  // "KEY=VALUE", in the order given
  std::optional<std::string> bundle;
  std::optional<std::string> log;
  std::optional<unsigned> logLevel;
  std::optional<double> throttleMs;
  std::optional<double> throttleMBps;
};

struct GlobalFlag {
  char const* name;
  char const* value;  // null for a switch
  char const* help;
};

GlobalFlag const kGlobalFlags[] = {
    {"--overlay", nullptr, "go through the overlay: the store behind it sees the changes when\n"
                           "                      the command ends (the overlay is flushed before ovl exits); what\n"
                           "                      the overlay could not do meanwhile is reported in one line"},
    {"--overlay-root", "IRI", "the folder the overlay is laid over (implies --overlay); default:\n"
                              "                      the store's root, for local files the current folder"},
    {"--config", "FILE", "overlay configuration: a JSON file with \"overlay.*\" keys"},
    {"--set", "KEY=VALUE", "one configuration key, after those of --config (repeatable)"},
    {"--bundle", "FILE", "the overlay bundle module (default: $OVL_BUNDLE, else the one built\n"
                         "                      with ovl)"},
    {"--log", "FILE", "write log records to FILE (appended), or to standard error for \"stderr\""},
    {"--log-level", "N", "lowest severity written: 2 trace, 4 debug, 8 info, 16 exception details,\n"
                         "                      512 failures only (the default)"},
    {"--throttle-ms", "N", "make every store call wait N milliseconds first, as a remote store would"},
    {"--throttle-mbps", "N", "limit file content to N megabytes (10^6 bytes) per second; 0 = no limit"},
};

void generalHelp(std::ostream& out) {
  out << kGlobalUsage << "\n\n"
      << "Works with the files and folders of the platform's storage providers. Arguments are\n"
         "IRIs (file:///tmp/a.txt, mem://s1/docs) or local paths, which become file IRIs.\n\n"
         "Commands:\n";
  for (auto const& command : commands()) {
    out << "  " << std::left << std::setw(8) << command.name << command.summary << '\n';
  }
  out << "\nGlobal flags (before or after the command):\n";
  for (auto const& flag : kGlobalFlags) {
    auto const shown = flag.value ? std::string(flag.name) + " " + flag.value : std::string(flag.name);
    out << "  " << std::left << std::setw(20) << shown << flag.help << '\n';
  }
  out << "  " << std::left << std::setw(20) << "--version" << "show ovl's version\n";
  out << "  " << std::left << std::setw(20) << "-h, --help"
      << "show this help (a command's own: ovl help COMMAND, or ovl COMMAND --help)\n\n"
      << "The throttle flags wrap every store in a throttle (latency alone with --throttle-ms,\n"
         "bandwidth alone with --throttle-mbps); --overlay lays the overlay over that.\n\n"
      << wrapped("Configuration keys (--config, --set): " + listed(overlayKeys()) +
                 ". Environment: OVL_BUNDLE, OVERLAY_LOG, OVERLAY_LOG_LEVEL, " + listed(overlayVariables()) +
                 " (see the README).")
      << "\n"
         "Exit status: 0 on success; 1 when the command failed (one line on standard error:\n"
         "\"ovl COMMAND: IRI: cause\"), also when the overlay could not make a change in the\n"
         "store; 2 on bad usage and bad configuration; 128 + the signal when Ctrl-C (130) or\n"
         "SIGTERM (143) stopped it (the overlay first writes what it acknowledged).\n";
}

void commandHelp(std::ostream& out, Command const& command) {
  out << "usage: " << command.usage() << "\n\n" << command.summary << ".\n\n" << command.description << '\n';
  out << "\nFlags:\n";
  for (auto const& flag : command.flags) {
    auto names = flag.alias.empty() ? "    " + flag.name : flag.alias + ", " + flag.name;
    if (!flag.value.empty()) names += " " + flag.value;
    out << "  " << std::left << std::setw(22) << names << flag.help << '\n';
  }
  out << "  " << std::left << std::setw(22) << "-h, --help" << "show this help\n"
      << "\nGlobal flags are listed by 'ovl --help'.\n";
}

int runHelp(Session& session, Arguments const& args) {
  if (args.operands.empty()) {
    generalHelp(session.out());
    return 0;
  }
  auto const* command = findCommand(args.operands[0]);
  if (!command) throw UsageError("unknown command '" + args.operands[0] + "'");
  commandHelp(session.out(), *command);
  return 0;
}

// A number from 0 to `max` (an hour of latency, a terabyte per second: beyond them a
// value is a typing error, and would overflow the conversions that follow).
double nonNegativeNumber(std::string const& flag, std::string const& text, double max) {
  char* end = nullptr;
  double const value = std::strtod(text.c_str(), &end);
  if (text.empty() || end != text.c_str() + text.size() || !std::isfinite(value) || value < 0 || value > max) {
    std::ostringstream range;
    range << max;
    throw UsageError(flag + ": '" + text + "' is not a number from 0 to " + range.str());
  }
  return value;
}

unsigned severityNumber(std::string const& flag, std::string const& text) {
  char* end = nullptr;
  unsigned long const value = std::strtoul(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || end != text.c_str() + text.size() || value > 0xFFFFFFFFul) {
    throw UsageError(flag + ": '" + text + "' is not a severity number");
  }
  return static_cast<unsigned>(value);
}

// Takes the global flags out of `args` (up to a "--"); returns what is left.
std::vector<std::string> takeGlobalFlags(std::vector<std::string> const& args, GlobalFlags& flags) {
  std::vector<std::string> rest;
  for (std::size_t i = 0; i < args.size(); ++i) {
    auto const& arg = args[i];
    if (arg == "--") {
      rest.insert(rest.end(), args.begin() + static_cast<long>(i), args.end());
      break;
    }
    GlobalFlag const* matched = nullptr;
    std::optional<std::string> value;
    for (auto const& flag : kGlobalFlags) {
      std::string const name = flag.name;
      if (arg == name) {
        matched = &flag;
        if (!flag.value) break;
        if (i + 1 >= args.size()) throw UsageError(name + " needs a value (" + flag.value + ")");
        value = args[++i];
      } else if (flag.value && arg.compare(0, name.size() + 1, name + "=") == 0) {
        matched = &flag;
        value = arg.substr(name.size() + 1);
      }
      if (matched) break;
    }
    if (!matched) {
      rest.push_back(arg);
      continue;
    }
    std::string const name = matched->name;
    if (name == "--overlay") {
      flags.overlay = true;
    } else if (name == "--overlay-root") {
      if (value->empty()) throw UsageError("--overlay-root needs a folder");
      flags.overlay = true;
      flags.overlayRoot = *value;
    } else if (name == "--config") {
      if (value->empty()) throw UsageError("--config needs a file name");
      flags.config = *value;
    } else if (name == "--set") {
      if (value->find('=') == std::string::npos || value->front() == '=') {
        throw UsageError("--set: '" + *value + "' is not KEY=VALUE");
      }
      flags.settings.push_back(*value);
    } else if (name == "--bundle") {
      if (value->empty()) throw UsageError("--bundle needs a file name");
      flags.bundle = *value;
    } else if (name == "--log") {
      if (value->empty()) throw UsageError("--log needs a file name");
      flags.log = *value;
    } else if (name == "--log-level") {
      flags.logLevel = severityNumber(name, *value);
    } else if (name == "--throttle-ms") {
      flags.throttleMs = nonNegativeNumber(name, *value, 3.6e6);
    } else {
      flags.throttleMBps = nonNegativeNumber(name, *value, 1e6);
    }
  }
  return rest;
}

// Points the log where the flags say; what they leave open comes from the environment.
void configureLog(GlobalFlags const& flags) {
  if (!flags.log && !flags.logLevel) return;
  std::string target = "stderr";
  if (flags.log) {
    target = *flags.log;
  } else if (char const* env = std::getenv("OVERLAY_LOG"); env && *env) {
    target = env;
  }
  unsigned threshold = foundation::log::kDefaultThreshold;
  if (flags.logLevel) {
    threshold = *flags.logLevel;
  } else if (char const* env = std::getenv("OVERLAY_LOG_LEVEL"); env && *env) {
    char* end = nullptr;
    auto const value = std::strtoul(env, &end, 10);
    if (*end == '\0') threshold = static_cast<unsigned>(value);
  }
  try {
    foundation::log::configure(target, threshold);
  } catch (std::exception const& e) {
    throw CommandError(target, std::string("cannot write the log there: ") + e.what());
  }
}

std::optional<providers::throttle::Options> throttleOptions(GlobalFlags const& flags) {
  if (!flags.throttleMs && !flags.throttleMBps) return std::nullopt;
  providers::throttle::Options options;
  options.latency = std::chrono::microseconds(std::llround(flags.throttleMs.value_or(0) * 1000));
  options.bytesPerSecond = flags.throttleMBps.value_or(0) * 1e6;
  return options;
}

// "IRI: cause" for one change the overlay could not deliver.
std::string deliveryText(Session const& session, fsp::extensions::UndeliveredChange const& change) {
  return session.plainIRI(change.location) + ": " + causeText(change.code, change.cause) + " (" + change.change + ")";
}

// Reports, after the overlay was flushed, what it could not deliver while the command ran,
// in one line; returns the exit status that calls for: 1 when a change did not reach the
// store, 0 when only the local cache failed (reported as a warning).
int reportDelivery(OverlayHost::Delivery const& delivery, Session const& session, std::string const& command,
                   std::ostream& err, bool warnings) {
  auto more = [](std::size_t count) { return count <= 1 ? std::string() : "; " + std::to_string(count - 1) + " more"; };
  if (!delivery.undelivered.empty()) {
    err << "ovl " << command << ": " << printable(deliveryText(session, delivery.undelivered.front()))
        << more(delivery.undelivered.size())
        << " (the overlay could not make this change in the store; --log FILE shows every failure)\n";
    return 1;
  }
  if (warnings && !delivery.unlisted.empty()) {
    auto const& first = delivery.unlisted.front();
    err << "ovl " << command << ": warning: the overlay could not list " << printable(session.plainIRI(first.location))
        << ": " << printable(causeText(first.code, first.cause)) << more(delivery.unlisted.size())
        << " (it lists folders as they are asked for instead; --log FILE shows more)\n";
  }
  if (warnings && !delivery.cacheFailures.empty()) {
    auto const& first = delivery.cacheFailures.front();
    err << "ovl " << command << ": warning: the overlay's local cache failed; the store has every change: "
        << session.plainIRI(first.location) << ": " << first.what << " (" << first.cause << ")"
        << more(delivery.cacheFailures.size()) << " (--log FILE shows them all)\n";
  }
  return 0;
}

std::string joined(std::vector<std::string> const& args) {
  std::string text;
  for (auto const& arg : args) text += (text.empty() ? "" : " ") + arg;
  return text;
}

}  // namespace

std::vector<Command> programCommands() {
  return {
      {"help",
       {"COMMAND"},
       1,
       "Show help for ovl or for one command",
       "Without a command, lists the commands and the global flags.",
       {},
       runHelp},
  };
}

int runOvl(std::vector<std::string> args, std::ostream& out, std::ostream& err, RunOptions const& options) {
  GlobalFlags flags;
  std::vector<std::string> rest;
  try {
    rest = takeGlobalFlags(args, flags);
  } catch (UsageError const& e) {
    err << "ovl: " << e.what() << '\n' << kGlobalUsage << '\n';
    return 2;
  }
  if (rest.empty()) {
    err << "ovl: missing command\n" << kGlobalUsage << "\nRun 'ovl --help' for the list of commands.\n";
    return 2;
  }
  if (rest[0] == "--help" || rest[0] == "-h") {
    generalHelp(out);
    return 0;
  }
  if (rest[0] == "--version") {
    out << "ovl " << OVL_VERSION << " (overlay cache format V1.0)\n";
    return 0;
  }
  auto const* command = findCommand(rest[0]);
  if (!command) {
    err << "ovl: " << (rest[0].size() > 1 && rest[0][0] == '-' ? "unknown flag '" : "unknown command '") << rest[0]
        << "'\n"
        << kGlobalUsage << "\nRun 'ovl --help' for the list of commands.\n";
    return 2;
  }
  Arguments parsed;
  try {
    parsed = command->parse(std::vector<std::string>(rest.begin() + 1, rest.end()));
  } catch (UsageError const& e) {
    err << "ovl " << command->name << ": " << e.what() << "\nusage: " << command->usage() << '\n';
    return 2;
  }
  if (parsed.has("--help")) {
    commandHelp(out, *command);
    return 0;
  }

  std::unique_ptr<foundation::storage::provider::ProviderRegistry> ownRegistry;
  auto* registry = options.registry;
  if (!registry) {
    ownRegistry = std::make_unique<foundation::storage::provider::ProviderRegistry>();
    providers::file::registerWith(*ownRegistry);
    providers::mem::registerWith(*ownRegistry);
    providers::throttle::registerWith(*ownRegistry);
    providers::s3::registerWith(*ownRegistry);
    registry = ownRegistry.get();
  }
  Session session(*registry, out, err, options.errIsTerminal, throttleOptions(flags));

  int status = 1;
  std::string failure;
  InterruptScope const interruptible;
  // The cache folder ovl makes for the overlay when the configuration names none; it goes
  // after the overlay (declared before it).
  std::optional<CacheRoot> cacheRoot;
  // Declared after the registry: the bundle runtime must go before the registry does.
  std::unique_ptr<OverlayHost> overlay;
  try {
    configureLog(flags);
    foundation::log::diagnostic_logger log("ovl");
    log.log(foundation::log::Debug, "ovl " + joined(args));
    auto config = loadConfig(flags.config, flags.settings);
    if (ownRegistry) {
      // s3:// stores take their "s3.*" settings from the configuration, before the
      // environment and ~/.aws.
      ownRegistry->registerFactory(providers::s3::kScheme,
                                   std::make_shared<providers::s3::S3ProviderFactory>(providers::s3::S3Settings::fromConfig(
                                       config, providers::s3::S3Settings::fromEnvironment())));
    }
    checkCacheRoot(config);
    bool const overlayOperands = std::any_of(parsed.operands.begin(), parsed.operands.end(), Session::wrapsOverlayIRI);
    bool const usesOverlay = flags.overlay || overlayOperands || command->name == "demo" || command->name == "bench" ||
                             command->name == "mount";
    if (usesOverlay && !config.get_optional<std::string>("overlay.cacheRoot")) {
      auto const persist = config.get<std::string>("overlay.persistContentCache", "false");
      if (persist == "true" || persist == "1") {
        throw UsageError("overlay.persistContentCache needs overlay.cacheRoot: without one every run would keep "
                         "its cache in a fresh folder that no later run could use");
      }
      try {
        cacheRoot.emplace();
      } catch (std::exception const& e) {
        throw CommandError("the temporary directory", std::string("cannot make the overlay's cache folder: ") + e.what());
      }
      config.put("overlay.cacheRoot", cacheRoot->path().string());
    }
    session.setOverlaySettings(OverlayHost::modulePath(flags.bundle), config);
    if (flags.overlay || overlayOperands) {
      // The overlay's failures are reported in one line at the end; unless a log was
      // asked for, its own log lines stay off the terminal.
      if (!flags.log && !flags.logLevel && !std::getenv("OVERLAY_LOG") && !std::getenv("OVERLAY_LOG_LEVEL")) {
        foundation::log::setThreshold(foundation::log::Error + 1);
      }
      overlay = std::make_unique<OverlayHost>(*registry, session.bundlePath(), std::move(config));
      if (flags.overlay) {
        session.setOverlay(overlay.get(), flags.overlayRoot);
      } else {
        session.setOverlayHost(overlay.get());
      }
    }
    status = command->run(session, parsed);
    if (overlay) overlay->finish();
  } catch (UsageError const& e) {
    err << "ovl " << command->name << ": " << printable(e.what()) << "\nusage: " << command->usage() << '\n';
    status = 2;
  } catch (Interrupted const& e) {
    out.flush();
    err << "ovl " << command->name << ": interrupted"
        << (overlay ? "; the overlay now writes what it acknowledged to the store" : "") << '\n';
    status = 128 + e.signal();
  } catch (CommandError const& e) {
    failure = e.subject() + ": " + e.cause();
  } catch (foundation::storage::provider::Exception const& e) {
    failure = session.nameOf(e.getIRI()) + ": " + causeOf(e);
  } catch (std::exception const& e) {
    failure = (parsed.operands.empty() ? std::string() : parsed.operands[0] + ": ") + e.what();
  }
  if (!failure.empty()) {
    out.flush();
    err << "ovl " << command->name << ": " << printable(failure) << '\n';
    foundation::log::diagnostic_logger("ovl").log(foundation::log::Diagnostic,
                                                  "ovl " + command->name + " failed: " + failure);
    status = 1;
  }
  if (overlay) {
    // After a failure the overlay still gets the chance to write what it acknowledged.
    try {
      overlay->finish();
    } catch (std::exception const& e) {
      err << "ovl " << command->name << ": flushing the overlay failed: " << e.what() << '\n';
      status = 1;
    }
    // After a failure of its own the command has said what went wrong; a warning about
    // the cache would only be noise then.
    if (status != 2) {
      int const delivery = reportDelivery(overlay->delivered(), session, command->name, err, status == 0);
      if (status < 128) status = std::max(status, delivery);
    }
  }
  if (ownRegistry) {
    try {
      ownRegistry->shutdownAll();
    } catch (std::exception const& e) {
      err << "ovl: shutting the stores down failed: " << e.what() << '\n';
      if (status == 0) status = 1;
    }
  }
  return status;
}

}  // namespace ovl
