#include <core/util/FlushGate.hpp>

#include <algorithm>
#include <vector>

namespace storage::overlayprovider {

namespace {

// The gates this thread is inside, once per passage (a copy's nested stream openings
// enter the gate of the same provider again). Few at a time: a linear search.
thread_local std::vector<FlushGate const*> passages;

bool insideAlready(FlushGate const* gate) {
  return std::find(passages.begin(), passages.end(), gate) != passages.end();
}

}  // namespace

FlushGate::Pass::~Pass() {
  if (gate_) gate_->leave();
}

FlushGate::Closed::~Closed() { gate_->open(); }

FlushGate::Pass FlushGate::enter() {
  bool const nested = insideAlready(this);
  {
    std::unique_lock lock(mutex_);
    if (!nested && closed_) {
      ++waiting_;
      changed_.wait(lock, [&] { return !closed_; });
      --waiting_;
    }
    ++inside_;
  }
  passages.push_back(this);
  return Pass(this);
}

void FlushGate::leave() {
  auto it = std::find(passages.rbegin(), passages.rend(), this);
  if (it != passages.rend()) passages.erase(std::next(it).base());
  {
    std::lock_guard lock(mutex_);
    --inside_;
  }
  changed_.notify_all();
}

FlushGate::Closed FlushGate::close() {
  std::unique_lock lock(mutex_);
  if (closed_) {
    ++waiting_;
    changed_.wait(lock, [&] { return !closed_; });
    --waiting_;
  }
  closed_ = true;
  auto const own = static_cast<std::size_t>(std::count(passages.begin(), passages.end(), this));
  changed_.wait(lock, [&] { return inside_ == own; });
  return Closed(this);
}

void FlushGate::open() {
  {
    std::lock_guard lock(mutex_);
    closed_ = false;
  }
  changed_.notify_all();
}

std::size_t FlushGate::inside() const {
  std::lock_guard lock(mutex_);
  return inside_;
}

std::size_t FlushGate::waiting() const {
  std::lock_guard lock(mutex_);
  return waiting_;
}

bool FlushGate::isClosed() const {
  std::lock_guard lock(mutex_);
  return closed_;
}

}  // namespace storage::overlayprovider
