// How ovl writes values for people: times, sizes, error causes, attribute values, and
// the progress bar of long copies.
#pragma once

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/any.hpp>
#include <boost/date_time/posix_time/ptime.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

namespace ovl {

// "2024-05-01T12:00:00Z" (UTC, whole seconds); "-" for a time that is not a date.
std::string isoTime(boost::posix_time::ptime const& time);

// "does not exist", "already exists", ...: the cause part of an error line.
std::string describe(foundation::storage::provider::ErrorCode code);
// The cause part for the store's error `e`: its code described, then its detail in
// parentheses. A store says "not writable" for any denied access; a denied read reads
// "cannot be read".
std::string causeOf(foundation::storage::provider::Exception const& e);
// The same for an error known by its code (if it had one) and its detail; without a code
// the detail is the whole cause.
std::string causeText(std::optional<foundation::storage::provider::ErrorCode> code, std::string const& detail);

// Text as UTF-8 for display; unpaired surrogates become U+FFFD instead of failing.
std::string displayText(std::u16string const& text);

// `text` with its control characters as \xNN, so that a message naming a file whose name
// holds a line break stays one line.
std::string printable(std::string const& text);

// An extended attribute's value: text as is (control bytes as \xNN), numbers and
// booleans in decimal, anything else as "<value of type T>".
std::string attributeText(boost::any const& value);

// "12.3 MiB", "512 B".
std::string humanSize(std::uint64_t bytes);

// A one-line progress bar redrawn in place ("\r") on `out`, at most every 100 ms.
class ProgressBar {
 public:
  // What is counted: bytes (shown as sizes and a rate) or steps (shown as counts).
  enum class Unit { Bytes, Steps };
  // Draws nothing when `enabled` is false.
  ProgressBar(std::ostream& out, std::uint64_t total, bool enabled, Unit unit = Unit::Bytes);
  // Records that `done` of `total` are through.
  void update(std::uint64_t done);
  // Text shown after the bar: what is being done now.
  void setLabel(std::string label) { label_ = std::move(label); }
  // Draws the final state and ends the line; later calls do nothing.
  void finish();

 private:
  void draw();

  std::ostream& out_;
  std::uint64_t const total_;
  bool const enabled_;
  Unit const unit_;
  std::string label_;
  bool finished_ = false;
  std::uint64_t done_ = 0;
  std::chrono::steady_clock::time_point const start_;
  std::chrono::steady_clock::time_point lastDraw_{};
};

}  // namespace ovl
