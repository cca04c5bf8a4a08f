// Problems: failures seen on worker threads, reported by the test's own thread.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace support {

// Keeps the first 20 texts and counts them all; any thread may add.
class Problems {
 public:
  void add(std::string text) {
    std::lock_guard lock(mutex_);
    if (texts_.size() < 20) texts_.push_back(std::move(text));
    ++count_;
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return count_;
  }
  // The texts kept, oldest first: empty exactly when nothing was added.
  std::vector<std::string> texts() const {
    std::lock_guard lock(mutex_);
    return texts_;
  }
  // The texts kept, one a line, and how many more there were.
  std::string describe() const {
    std::lock_guard lock(mutex_);
    std::string text;
    for (auto const& line : texts_) text += "\n  " + line;
    if (count_ > texts_.size()) text += "\n  ... and " + std::to_string(count_ - texts_.size()) + " more";
    return text;
  }

 private:
  mutable std::mutex mutex_;  // guards texts_ and count_
  std::vector<std::string> texts_;
  std::size_t count_ = 0;
};

}  // namespace support
