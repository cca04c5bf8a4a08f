// Reading back the records a MemorySink captured.
#pragma once

#include <foundation/log/MemorySink.hpp>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

namespace support {

// The captured messages, oldest first, that contain `needle` (all of them for "").
inline std::vector<std::string> messagesContaining(foundation::log::MemorySink const& sink,
                                                   std::string const& needle = {}) {
  std::vector<std::string> found;
  for (auto const& record : sink.records()) {
    if (record.message.find(needle) != std::string::npos) found.push_back(record.message);
  }
  return found;
}

// The captured messages, oldest first, of the given severities.
inline std::vector<std::string> messagesAt(foundation::log::MemorySink const& sink,
                                           std::vector<unsigned> const& severities) {
  std::vector<std::string> found;
  for (auto const& record : sink.records()) {
    if (std::count(severities.begin(), severities.end(), record.severity) > 0) found.push_back(record.message);
  }
  return found;
}

// How many captured records have exactly this message and severity.
inline std::size_t countRecords(foundation::log::MemorySink const& sink, std::string const& message,
                                unsigned severity) {
  auto const records = sink.records();
  return static_cast<std::size_t>(std::count_if(records.begin(), records.end(), [&](auto const& record) {
    return record.message == message && record.severity == severity;
  }));
}

}  // namespace support
