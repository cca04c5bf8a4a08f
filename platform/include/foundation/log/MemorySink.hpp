// A sink that keeps records in memory, for tests.
//
//   foundation::log::MemorySink sink;              // captures everything from here on
//   runOperation();
//   EXPECT_TRUE(sink.contains("Content caching failure."));
//   EXPECT_EQ(1u, sink.count(foundation::log::Error));
//
// Constructing a MemorySink installs it; destroying it removes it and restores what
// loggers report as enabled. While installed, records at or above its threshold are
// captured (and loggers report those severities as enabled); the main sink and other
// memory sinks still write only what reaches their own thresholds. Several memory sinks
// may be installed at once. Thread-safe.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace foundation::log {

class MemorySink {
 public:
  struct Record {
    std::string channel;
    unsigned severity = 0;
    std::string message;
  };

  explicit MemorySink(unsigned threshold = 0);
  ~MemorySink();
  MemorySink(MemorySink const&) = delete;
  MemorySink& operator=(MemorySink const&) = delete;

  // The records captured so far, oldest first.
  std::vector<Record> records() const;
  void clear();
  // True if some captured message contains `substring`.
  bool contains(std::string const& substring) const;
  // Number of captured records with exactly this severity.
  std::size_t count(unsigned severity) const;

 private:
  struct Impl;  // the captured records and the installed Boost.Log sink

  std::unique_ptr<Impl> const impl_;
};

}  // namespace foundation::log
