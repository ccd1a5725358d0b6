// I/O threads, each watching its share of many sockets with epoll.
#ifndef TRANSPORT_TCP_REACTOR_H
#define TRANSPORT_TCP_REACTOR_H

#include "transport/tcp_export.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// What a loop calls for one registered descriptor, always on the loop's
/// own thread.
class JSON_RPC_TCP_EXPORT TCP_Reactor_Handler
{
public:
  virtual ~TCP_Reactor_Handler() {}
  /// Readiness of the descriptor: EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR.
  virtual void handle_events(uint32_t events) = 0;
  /// About twice a second, for time limits.
  virtual void handle_tick(std::chrono::steady_clock::time_point now) = 0;

private:
  friend class TCP_Reactor_Loop_Access;
  // The handler's place among its loop's handlers.
  size_t tick_slot_ = static_cast<size_t>(-1);
};

/// A fixed set of I/O threads. Each runs a loop with an epoll set of its
/// own; a descriptor belongs to one loop for its life, so its handler is
/// never called on two threads at once and needs no lock against itself.
/// Handlers must not block for long: the other descriptors of their loop
/// wait meanwhile.
///
/// The threads take the log settings (message callback, priority mask) of
/// the thread that makes the reactor. It stops and joins them when the
/// last owner lets go; on one of its own threads it lets that one finish
/// by itself.
class JSON_RPC_TCP_EXPORT TCP_Reactor
{
public:
  class Loop;

  /// threads 0: as many as the machine has processors. Null with errno if
  /// a thread or an epoll set can't be made.
  static std::shared_ptr<TCP_Reactor> make(size_t threads = 0);
  /// stop().
  ~TCP_Reactor();
  TCP_Reactor(const TCP_Reactor&) = delete;
  TCP_Reactor& operator=(const TCP_Reactor&) = delete;

  /// Ends the threads once they have run the work posted so far and joins
  /// them; one of its own threads it lets finish by itself. Descriptors
  /// still watched then are no longer served: end their connections first.
  void stop();
  /// The loop that takes the next descriptor, in turn.
  Loop* next_loop();
  size_t threads() const { return loops_.size(); }
  /// The loop that runs on the calling thread; null on any other thread.
  static Loop* current();

private:
  TCP_Reactor() : next_(0), stopped_(false) {}
  std::vector<std::shared_ptr<Loop>> loops_;
  size_t next_;
  std::mutex stop_lock_;
  bool stopped_;
};

/// One I/O thread and its epoll set.
class JSON_RPC_TCP_EXPORT TCP_Reactor::Loop
{
public:
  /// Watches fd for events (EPOLLIN, EPOLLOUT, level-triggered), on the
  /// loop's thread (post the call from others). -1 with errno if epoll
  /// refuses it.
  int add(int fd, uint32_t events, TCP_Reactor_Handler* handler);
  /// Changes the events watched, from any thread.
  int modify(int fd, uint32_t events, TCP_Reactor_Handler* handler);
  /// Stops watching fd, on the loop's thread, before fd is closed.
  void remove(int fd, TCP_Reactor_Handler* handler);
  /// Runs work on the loop's thread, after the events at hand; from the
  /// loop's own thread it runs after the handler that posts it returns.
  void post(std::function<void()> work);
  /// 64 KiB for reads on the loop's thread, shared by its descriptors.
  char* buffer() { return buffer_.get(); }
  static const size_t buffer_size = 64 * 1024;

  ~Loop();

private:
  friend class TCP_Reactor;
  Loop();
  int open();
  void run(unsigned long log_mask, void* log_callback);
  void run_posted();
  void tick(std::chrono::steady_clock::time_point now);

  int epoll_fd_;
  int wake_fd_;
  bool stop_; // under lock_
  std::unique_ptr<char[]> buffer_;
  // Handlers for ticks, and the free slots among them; on the loop's thread.
  std::vector<TCP_Reactor_Handler*> handlers_;
  std::vector<size_t> free_slots_;
  struct Posts;
  std::unique_ptr<Posts> posts_;
};

#endif
