#ifndef TESTS_SERVICE_SYNC_H
#define TESTS_SERVICE_SYNC_H

// Holding worker threads at a known point without sleeping. Every wait is
// bounded, so a fault shows as a failed check and not as a hung test.

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Holds the threads that wait on it until it is opened.
class Gate
{
public:
  void open()
  {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  bool wait(int seconds = 20)
  {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(seconds), [this] { return open_; });
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

/// Counts events; a waiter wakes when the count reaches its number.
class Counter
{
public:
  void add()
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ++value_;
    changed_.notify_all();
  }
  int value() const
  {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }
  bool wait_for(int n, int seconds = 20) const
  {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(seconds), [&] { return value_ >= n; });
  }

private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  int value_ = 0;
};

#endif
