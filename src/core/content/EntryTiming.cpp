#include <core/content/EntryTiming.hpp>

#include <thread>

namespace storage::overlayprovider {

void EntryTiming::realSleep(std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }

void EntryTiming::realWaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, TimePoint deadline) {
  cv.wait_until(lock, deadline);
}

}  // namespace storage::overlayprovider
