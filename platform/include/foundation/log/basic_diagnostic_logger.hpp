// A named logging channel over Boost.Log.
//
//   foundation::log::diagnostic_logger logger("storage::overlayprovider");
//   logger.log(foundation::log::Error, "Content caching failure.");
//
// Each record carries the channel ("Channel" attribute, std::string), the severity
// ("Severity" attribute, unsigned) and the message. Records go to every installed sink
// whose threshold they reach (see Configuration.hpp and MemorySink.hpp).
//
// Thread-safe: one logger may be used from any number of threads. Constructing the
// first logger of the process sets up the sinks from the environment.
#pragma once

#include "foundation/log/Severity.hpp"
#include "foundation/log/detail/Enabled.hpp"

#include <boost/property_tree/ptree_fwd.hpp>

#include <memory>
#include <string>

namespace foundation::log {

// Instantiated for `char` only.
template <class CharT>
class basic_diagnostic_logger {
 public:
  using string_type = std::basic_string<CharT>;

  explicit basic_diagnostic_logger(std::string channel);
  ~basic_diagnostic_logger();
  basic_diagnostic_logger(basic_diagnostic_logger const&) = delete;
  basic_diagnostic_logger& operator=(basic_diagnostic_logger const&) = delete;

  // True if some installed sink would write a record of `severity`. One relaxed atomic
  // load; use it to skip building expensive messages.
  bool isEnabled(unsigned severity) const {
    return severity >= detail::g_enabledFrom.load(std::memory_order_relaxed);
  }

  // Writes `message` as one record. Does nothing if !isEnabled(severity). Never throws:
  // a failing sink loses the record.
  void log(unsigned severity, string_type const& message) const;

  // Writes `tree` as compact one-line JSON (Boost's JSON writer, no pretty printing, no
  // trailing newline) as the message of one record. The tree is serialised only if
  // isEnabled(severity). A tree the writer rejects is logged as a record naming the
  // writer's error instead. Never throws.
  void logJson(unsigned severity, boost::property_tree::ptree const& tree) const;

  std::string const& channel() const { return channel_; }

 private:
  struct Impl;

  std::string const channel_;
  std::unique_ptr<Impl> const impl_;  // the Boost.Log source; thread-safe itself
};

extern template class basic_diagnostic_logger<char>;

using diagnostic_logger = basic_diagnostic_logger<char>;

}  // namespace foundation::log
