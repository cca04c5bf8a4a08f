#include "S3Poller.hpp"

#include <foundation/log/basic_diagnostic_logger.hpp>

#include <fl/i18n.hpp>

#include <algorithm>

namespace providers::s3::detail {

namespace {

foundation::log::diagnostic_logger& logger() {
  static foundation::log::diagnostic_logger instance("providers::s3");
  return instance;
}

}  // namespace

S3Poller::S3Poller(std::function<S3Objects()> objects, std::chrono::milliseconds interval)
    : objects_(std::move(objects)), interval_(interval) {}

S3Poller::~S3Poller() { stop(); }

S3Poller::Snapshot S3Poller::take(Subscription const& subscription, S3Objects const& objects) const {
  Snapshot snapshot;
  auto const listing = objects.list(subscription.prefix, subscription.recursive ? "" : "/", subscription.iri);
  auto add = [&](std::string rel, Entry entry) {
    if (rel.empty()) return;
    if (subscription.onlyName && rel != *subscription.onlyName) return;
    // Folders implied by deeper keys are folders too.
    for (auto slash = rel.find('/'); slash != std::string::npos && slash + 1 < rel.size(); slash = rel.find('/', slash + 1)) {
      if (!subscription.onlyName) snapshot.emplace(rel.substr(0, slash), Entry{true, {}});
    }
    if (rel.back() == '/') {
      rel.pop_back();
      entry.folder = true;
      if (rel.empty()) return;
    }
    snapshot[rel] = entry;
  };
  for (auto const& object : listing.objects) {
    add(object.key.substr(subscription.prefix.size()), Entry{false, object.etag + "/" + std::to_string(object.size)});
  }
  for (auto const& prefix : listing.prefixes) add(prefix.substr(subscription.prefix.size()), Entry{true, {}});
  return snapshot;
}

void S3Poller::subscribe(sp::StorageIRI const& iri, sp::StorageIRI const& base, std::string const& prefix, bool recursive,
                         std::vector<se::Kind> kinds, se::Callback callback, std::optional<std::string> onlyName) {
  auto subscription = std::make_shared<Subscription>();
  subscription->iri = iri;
  subscription->base = base;
  subscription->prefix = prefix;
  subscription->recursive = recursive;
  subscription->kinds = std::move(kinds);
  subscription->callback = std::move(callback);
  subscription->onlyName = std::move(onlyName);
  subscription->snapshot = take(*subscription, objects_());
  std::lock_guard lock(mutex_);
  if (stopping_) throw sp::Exception(sp::ErrorCode::NotSupported, iri, "the store has been shut down");
  subscriptions_.push_back(std::move(subscription));
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
}

void S3Poller::unsubscribe(sp::StorageIRI const& iri) {
  auto const resolved = iri.getResolvedIRI();
  {
    std::lock_guard lock(mutex_);
    std::erase_if(subscriptions_, [&](auto const& s) { return s->iri.getResolvedIRI() == resolved; });
  }
  // Wait for a round in progress, which may still deliver to the removed subscription.
  if (roundThread_ != std::this_thread::get_id()) std::lock_guard wait(roundMutex_);
}

void S3Poller::setInterval(std::chrono::milliseconds interval) {
  std::lock_guard lock(mutex_);
  interval_ = interval;
  wake_.notify_all();
}

void S3Poller::pollNow() {
  std::unique_lock lock(mutex_);
  if (!thread_.joinable()) {
    lock.unlock();
    round();
    return;
  }
  auto const ticket = ++requested_;
  wake_.notify_all();
  wake_.wait(lock, [&] { return done_ >= ticket || stopping_; });
}

void S3Poller::stop() {
  std::thread thread;
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    subscriptions_.clear();
    wake_.notify_all();
    thread = std::move(thread_);
  }
  if (thread.joinable()) {
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }
}

void S3Poller::run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    auto const seen = requested_;
    wake_.wait_for(lock, interval_, [&] { return stopping_ || requested_ != seen; });
    if (stopping_) break;
    auto const answering = requested_;
    lock.unlock();
    round();
    lock.lock();
    done_ = answering;
    wake_.notify_all();
  }
}

void S3Poller::round() {
  std::lock_guard roundLock(roundMutex_);
  roundThread_ = std::this_thread::get_id();
  std::vector<std::shared_ptr<Subscription>> current;
  {
    std::lock_guard lock(mutex_);
    current = subscriptions_;
  }
  auto const objects = objects_();
  for (auto const& subscription : current) {
    Snapshot now;
    try {
      now = take(*subscription, objects);
    } catch (std::exception const& e) {
      logger().log(foundation::log::Warning,
                   "Changes below " + subscription->iri.toUtf8() + " are not seen this round: " + e.what());
      continue;
    }
    auto publish = [&](se::Kind kind, std::string const& rel, Entry const& entry) {
      auto const& kinds = subscription->kinds;
      if (!kinds.empty() && std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) return;
      {
        // Still subscribed? unsubscribe() may have run since the round began.
        std::lock_guard lock(mutex_);
        if (std::find(subscriptions_.begin(), subscriptions_.end(), subscription) == subscriptions_.end()) return;
      }
      try {
        sp::StorageIRI const changed(subscription->base, fl::i18n::to_ustring(rel));
        subscription->callback(kind, subscription->iri, changed, entry.folder ? se::EntryType::Folder : se::EntryType::File,
                               {});
      } catch (std::exception const& e) {
        logger().log(foundation::log::Warning,
                     "A change event below " + subscription->iri.toUtf8() + " (" + rel + ") was not delivered: " + e.what());
      }
    };
    auto const& before = subscription->snapshot;
    for (auto const& [rel, entry] : before) {
      auto const it = now.find(rel);
      if (it == now.end() || it->second.folder != entry.folder) publish(se::Kind::Removed, rel, entry);
    }
    for (auto const& [rel, entry] : now) {
      auto const it = before.find(rel);
      if (it == before.end() || it->second.folder != entry.folder) {
        publish(se::Kind::Added, rel, entry);
      } else if (it->second.signature != entry.signature) {
        publish(se::Kind::Modified, rel, entry);
      }
    }
    subscription->snapshot = std::move(now);
  }
  roundThread_ = std::thread::id();
}

}  // namespace providers::s3::detail
