#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <utility>

namespace station {

// Delivers items to all its subscriptions, on one thread. Derived classes own that thread and wait
// here while they have no subscription.
//
// Threads: any.
template <typename... Item>
class LiveSource {
 public:
  // Called for each item on the source's thread; must not subscribe or unsubscribe.
  using Consumer = std::function<void(Item...)>;

  // Items are delivered while it lives. Its destructor waits for a running call of the consumer.
  class Subscription {
   public:
    Subscription(LiveSource& source, Consumer consumer) : source_(source) {
      source_.update([&](auto& all) { place_ = all.insert(all.end(), std::move(consumer)); });
    }
    ~Subscription() {
      source_.update([this](auto& all) { all.erase(place_); });
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

   private:
    LiveSource& source_;
    typename std::list<Consumer>::iterator place_;
  };

  LiveSource(const LiveSource&) = delete;
  LiveSource& operator=(const LiveSource&) = delete;

  // Whether it has subscriptions.
  bool isRunning() const {
    const std::lock_guard lock(mutex_);
    return !consumers_.empty();
  }

 protected:
  // `onChange` is called on any thread after isRunning() may have changed.
  explicit LiveSource(std::function<void()> onChange = [] {}) : onChange_(std::move(onChange)) {}
  ~LiveSource() = default;  // after every subscription

  void deliver(Item... item) {
    const std::lock_guard lock(mutex_);
    for (const Consumer& consumer : consumers_) {
      consumer(item...);
    }
  }

  // Waits for a subscription; false after stop().
  bool waitForConsumers() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stop_ || !consumers_.empty(); });
    return !stop_;
  }

  // Waits for `interval`; false, and at once, after stop() or without subscriptions.
  bool pause(std::chrono::milliseconds interval) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, interval, [this] { return stop_ || consumers_.empty(); });
  }

  // Ends both waits.
  void stop() {
    {
      const std::lock_guard lock(mutex_);
      stop_ = true;
    }
    changed_.notify_all();
  }

  void notifyOfChange() const { onChange_(); }

 private:
  template <typename Change>
  void update(const Change& change) {
    {
      const std::lock_guard lock(mutex_);
      change(consumers_);
    }
    changed_.notify_all();
    onChange_();
  }

  const std::function<void()> onChange_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Consumer> consumers_;
  bool stop_ = false;
};

}  // namespace station
