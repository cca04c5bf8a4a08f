#include "foundation/log/MemorySink.hpp"

#include "LogCore.hpp"
#include "foundation/log/detail/Enabled.hpp"

#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions/message.hpp>
#include <boost/log/sinks/basic_sink_backend.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/make_shared.hpp>

#include <algorithm>
#include <mutex>

namespace foundation::log {

namespace bl = boost::log;

namespace {

// Holds the captured records. Boost.Log serialises consume() through the synchronous
// front end; the mutex also serialises it with the readers on the test's threads.
class MemoryBackend : public bl::sinks::basic_sink_backend<bl::sinks::synchronized_feeding> {
 public:
  void consume(bl::record_view const& rec) {
    MemorySink::Record record;
    if (auto channel = bl::extract<std::string>("Channel", rec)) record.channel = *channel;
    if (auto severity = bl::extract<unsigned>("Severity", rec)) record.severity = *severity;
    if (auto message = rec[bl::expressions::smessage]) record.message = *message;
    std::lock_guard<std::mutex> lock(mutex);
    records.push_back(std::move(record));
  }

  mutable std::mutex mutex;  // guards records
  std::vector<MemorySink::Record> records;
};

using MemoryFrontend = bl::sinks::synchronous_sink<MemoryBackend>;

}  // namespace

struct MemorySink::Impl {
  unsigned threshold = 0;
  boost::shared_ptr<MemoryBackend> backend;
  boost::shared_ptr<MemoryFrontend> frontend;
};

MemorySink::MemorySink(unsigned threshold) : impl_(std::make_unique<Impl>()) {
  detail::ensureConfigured();
  impl_->threshold = threshold;
  impl_->backend = boost::make_shared<MemoryBackend>();
  impl_->frontend = boost::make_shared<MemoryFrontend>(impl_->backend);
  impl_->frontend->set_filter([threshold](bl::attribute_value_set const& values) {
    auto severity = bl::extract<unsigned>("Severity", values);
    return severity && *severity >= threshold;
  });
  bl::core::get()->add_sink(impl_->frontend);
  // Only now may loggers start producing records for this sink's lower severities.
  detail::addMemoryThreshold(threshold);
}

MemorySink::~MemorySink() {
  detail::removeMemoryThreshold(impl_->threshold);
  bl::core::get()->remove_sink(impl_->frontend);
}

std::vector<MemorySink::Record> MemorySink::records() const {
  std::lock_guard<std::mutex> lock(impl_->backend->mutex);
  return impl_->backend->records;
}

void MemorySink::clear() {
  std::lock_guard<std::mutex> lock(impl_->backend->mutex);
  impl_->backend->records.clear();
}

bool MemorySink::contains(std::string const& substring) const {
  std::lock_guard<std::mutex> lock(impl_->backend->mutex);
  return std::any_of(impl_->backend->records.begin(), impl_->backend->records.end(),
                     [&](Record const& r) { return r.message.find(substring) != std::string::npos; });
}

std::size_t MemorySink::count(unsigned severity) const {
  std::lock_guard<std::mutex> lock(impl_->backend->mutex);
  return static_cast<std::size_t>(
      std::count_if(impl_->backend->records.begin(), impl_->backend->records.end(),
                    [severity](Record const& r) { return r.severity == severity; }));
}

}  // namespace foundation::log
