// Boost 1.74's JSON parser still includes <boost/bind.hpp>, which otherwise prints a
// deprecation note.

#include "foundation/log/basic_diagnostic_logger.hpp"

#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <sstream>

namespace foundation::log {

namespace bl = boost::log;

template <class CharT>
struct basic_diagnostic_logger<CharT>::Impl {
  explicit Impl(std::string const& channel) : source(bl::keywords::channel = channel) {}

  // The _mt source locks internally, so a const logger can share it between threads.
  mutable bl::sources::severity_channel_logger_mt<unsigned, std::string> source;
};

template <class CharT>
basic_diagnostic_logger<CharT>::basic_diagnostic_logger(std::string channel)
    : channel_(std::move(channel)), impl_(std::make_unique<Impl>(channel_)) {
  detail::ensureConfigured();
}

template <class CharT>
basic_diagnostic_logger<CharT>::~basic_diagnostic_logger() = default;

template <class CharT>
void basic_diagnostic_logger<CharT>::log(unsigned severity, string_type const& message) const {
  if (!isEnabled(severity)) return;
  try {
    if (auto rec = impl_->source.open_record(bl::keywords::severity = severity)) {
      bl::basic_record_ostream<CharT> stream(rec);
      stream << message;
      stream.flush();
      impl_->source.push_record(std::move(rec));
    }
  } catch (...) {
    // Logging never fails the caller.
  }
}

template <class CharT>
void basic_diagnostic_logger<CharT>::logJson(unsigned severity,
                                             boost::property_tree::ptree const& tree) const {
  if (!isEnabled(severity)) return;
  std::string text;
  try {
    std::ostringstream out;
    boost::property_tree::write_json(out, tree, false);
    text = out.str();
    if (!text.empty() && text.back() == '\n') text.pop_back();
  } catch (std::exception const& e) {
    text = std::string("Cannot write log record as JSON: ") + e.what();
  }
  log(severity, text);
}

template class basic_diagnostic_logger<char>;

}  // namespace foundation::log
