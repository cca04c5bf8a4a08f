#include <core/exec/SwitchableExecutor.hpp>

namespace storage::overlayprovider {

void SwitchableExecutor::set(std::shared_ptr<IExecutor> executor) {
  std::lock_guard lock(mutex_);
  current_ = std::move(executor);
}

void SwitchableExecutor::recordOwnChanges(std::shared_ptr<OwnChanges> ownChanges) {
  std::lock_guard lock(mutex_);
  ownChanges_ = std::move(ownChanges);
}

std::shared_ptr<IExecutor> SwitchableExecutor::current() const {
  std::lock_guard lock(mutex_);
  return current_;
}

namespace {

// Counts one change in flight for as long as a copy of its task exists, and reports it
// to the record of own changes (if any) as taken and then settled.
class InFlight {
 public:
  InFlight(std::shared_ptr<std::atomic<long>> count, std::shared_ptr<OwnChanges> ownChanges,
           ObservableTransactionType type, Touches touches)
      : count_(std::move(count)), ownChanges_(std::move(ownChanges)), type_(type), touches_(std::move(touches)) {
    count_->fetch_add(1, std::memory_order_acq_rel);
    if (ownChanges_) ownChanges_->taken(type_, touches_);
  }
  ~InFlight() {
    if (ownChanges_) ownChanges_->settled(type_, touches_);
    count_->fetch_sub(1, std::memory_order_acq_rel);
  }
  InFlight(InFlight const&) = delete;
  InFlight& operator=(InFlight const&) = delete;

 private:
  std::shared_ptr<std::atomic<long>> const count_;
  std::shared_ptr<OwnChanges> const ownChanges_;
  ObservableTransactionType const type_;
  Touches const touches_;
};

bool isChange(ObservableTransactionType type) {
  switch (type) {
    case ObservableTransactionType::FILE_OPEN_READONLY:
    case ObservableTransactionType::WAKEUP_FLUSH:
    case ObservableTransactionType::EXTERNAL_EVENT:
      return false;
    default:
      return true;
  }
}

}  // namespace

void SwitchableExecutor::execute(Task task, ObservableTransactionType type, double weight) {
  executeTouching(std::move(task), type, weight, Touches());
}

void SwitchableExecutor::executeTouching(Task task, ObservableTransactionType type, double weight,
                                         Touches const& touches) {
  if (isChange(type)) {
    std::shared_ptr<OwnChanges> ownChanges;
    {
      std::lock_guard lock(mutex_);
      ownChanges = ownChanges_;
    }
    task = [inFlight = std::make_shared<InFlight>(inFlight_, std::move(ownChanges), type, touches), task = std::move(task)] {
      task();
    };
  }
  if (auto executor = current()) executor->executeTouching(std::move(task), type, weight, touches);
}

bool SwitchableExecutor::tryRunHere(Task const& task, Touches const& touches) {
  auto executor = current();
  return executor && executor->tryRunHere(task, touches);
}

void SwitchableExecutor::shutdown(bool cancelOutstanding) {
  if (auto executor = current()) executor->shutdown(cancelOutstanding);
}

void SwitchableExecutor::join() {
  if (auto executor = current()) executor->join();
}

bool SwitchableExecutor::isShutdown() const {
  auto executor = current();
  return !executor || executor->isShutdown();
}

std::chrono::steady_clock::time_point SwitchableExecutor::getLastActivityTime() const {
  auto executor = current();
  return executor ? executor->getLastActivityTime() : std::chrono::steady_clock::time_point{};
}

bool SwitchableExecutor::isQueueEmpty() const {
  auto executor = current();
  return !executor || executor->isQueueEmpty();
}

void SwitchableExecutor::waitForPendingToFinish() {
  if (auto executor = current()) executor->waitForPendingToFinish();
}

void SwitchableExecutor::setMaxQueueWeight(double weight) {
  if (auto executor = current()) executor->setMaxQueueWeight(weight);
}

void SwitchableExecutor::logQueueStatistics() {
  if (auto executor = current()) executor->logQueueStatistics();
}

foundation::storage::provider::extensions::QueueFigures SwitchableExecutor::queueFigures() const {
  if (auto executor = current()) return executor->queueFigures();
  return {};
}

}  // namespace storage::overlayprovider
