// TreePopulation: the metadata cache's whole-tree population, a task on a thread of its
// own, and the waits for it. Its mutex is held while a wait blocks (waits are
// serialised) and is taken with no lock of the cache held. Thread-safe.
#pragma once

#include <core/util/Mutex.hpp>

#include <atomic>
#include <functional>
#include <future>
#include <memory>

namespace storage::overlayprovider {

class TreePopulation {
 public:
  TreePopulation() = default;
  TreePopulation(TreePopulation const&) = delete;
  TreePopulation& operator=(TreePopulation const&) = delete;
  // finish().
  ~TreePopulation();

  // Starts `task` (with std::async's default policy) as the population; with `wait`,
  // waits for it and passes on its failure.
  void start(std::function<void()> task, bool wait) EXCLUDES(mutex_);
  // Waits for a started population and passes on its failure; after the first call that
  // returned normally, later calls return at once.
  void awaitFirstTime() EXCLUDES(mutex_);
  // Waits for a started population and passes on its failure, every time it is called.
  void await() EXCLUDES(mutex_);
  // Waits for a started population that runs on a thread of its own, ignoring its
  // failure. An owner whose task refers to it calls finish() before it lets go of what
  // the task uses.
  void finish() EXCLUDES(mutex_);

 private:
  Mutex mutex_;
  std::unique_ptr<std::future<void>> population_ GUARDED_BY(mutex_);  // null until a population starts
  std::atomic<bool> waited_{false};  // set (under mutex_) by the first successful awaitFirstTime
};

}  // namespace storage::overlayprovider
