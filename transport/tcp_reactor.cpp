// I/O threads, each watching its share of many sockets with epoll.
#include "transport/tcp_reactor.h"

#include "tessel/spin_wait.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <pthread.h>
#include <stdint.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace
{
  thread_local TCP_Reactor::Loop* running_loop = nullptr;
  std::atomic<int> spinning(0);
  // Descriptors of a loop (a listener among them) up to which it spins.
  const size_t few_peers = 3;
  const std::chrono::milliseconds tick_period(500);
  const int max_events = 256;
}

class TCP_Reactor_Loop_Access
{
public:
  static size_t& slot(TCP_Reactor_Handler& handler) { return handler.tick_slot_; }
};

struct TCP_Reactor::Loop::Posts
{
  std::mutex lock;
  std::vector<std::function<void()>> work;
  bool ended = false; // the thread has left its loop
  std::thread thread;
};

TCP_Reactor::Loop::Loop() : epoll_fd_(-1), wake_fd_(-1), stop_(false), posts_(new Posts) {}

TCP_Reactor::Loop::~Loop()
{
  if (epoll_fd_ != -1)
    ::close(epoll_fd_);
  if (wake_fd_ != -1)
    ::close(wake_fd_);
}

int TCP_Reactor::Loop::open()
{
  buffer_.reset(new (std::nothrow) char[buffer_size]);
  if (!buffer_)
  {
    errno = ENOMEM;
    return -1;
  }
  epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
  wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll_fd_ == -1 || wake_fd_ == -1)
    return -1;
  struct epoll_event ev = {};
  ev.events = EPOLLIN;
  ev.data.ptr = nullptr; // the wake descriptor
  return ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &ev);
}

int TCP_Reactor::Loop::add(int fd, uint32_t events, TCP_Reactor_Handler* handler)
{
  struct epoll_event ev = {};
  ev.events = events;
  ev.data.ptr = handler;
  if (::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) == -1)
    return -1;
  size_t& slot = TCP_Reactor_Loop_Access::slot(*handler);
  if (!free_slots_.empty())
  {
    slot = free_slots_.back();
    free_slots_.pop_back();
    handlers_[slot] = handler;
  }
  else
  {
    slot = handlers_.size();
    handlers_.push_back(handler);
  }
  return 0;
}

int TCP_Reactor::Loop::modify(int fd, uint32_t events, TCP_Reactor_Handler* handler)
{
  struct epoll_event ev = {};
  ev.events = events;
  ev.data.ptr = handler;
  return ::epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &ev);
}

void TCP_Reactor::Loop::remove(int fd, TCP_Reactor_Handler* handler)
{
  struct epoll_event ev = {};
  ::epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, &ev);
  size_t& slot = TCP_Reactor_Loop_Access::slot(*handler);
  if (slot < handlers_.size() && handlers_[slot] == handler)
  {
    handlers_[slot] = nullptr;
    free_slots_.push_back(slot);
  }
  slot = static_cast<size_t>(-1);
}

void TCP_Reactor::Loop::post(std::function<void()> work)
{
  bool first;
  {
    std::lock_guard<std::mutex> guard(posts_->lock);
    // Work for a loop that has ended is dropped here: kept, what it holds
    // (a connection, which holds the reactor) would never go.
    if (posts_->ended)
      first = false;
    else
    {
      first = posts_->work.empty();
      posts_->work.push_back(std::move(work));
    }
  }
  if (first)
  {
    uint64_t one = 1;
    if (::write(wake_fd_, &one, sizeof one) < 0 && errno != EAGAIN)
      ACE_ERROR((LM_ERROR, "TCP: failed to wake an I/O thread, errno=%d, %m.\n", errno));
  }
}

void TCP_Reactor::Loop::run_posted()
{
  uint64_t count;
  if (::read(wake_fd_, &count, sizeof count) < 0 && errno != EAGAIN)
    ACE_ERROR((LM_ERROR, "TCP: failed to read an event descriptor, errno=%d, %m.\n", errno));
  std::vector<std::function<void()>> work;
  {
    std::lock_guard<std::mutex> guard(posts_->lock);
    work.swap(posts_->work);
  }
  for (std::function<void()>& w : work)
    w();
}

void TCP_Reactor::Loop::tick(std::chrono::steady_clock::time_point now)
{
  // A handler may leave (and free its slot) during its own tick, but no
  // other one; handlers that come meanwhile wait for the next tick.
  size_t n = handlers_.size();
  for (size_t i = 0; i < n; ++i)
    if (TCP_Reactor_Handler* h = handlers_[i])
      h->handle_tick(now);
}

void TCP_Reactor::Loop::run(unsigned long log_mask, void* log_callback)
{
  pthread_setname_np(pthread_self(), "tcp-io");
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  log->msg_callback(static_cast<ACE_Log_Msg_Callback*>(log_callback));
  log->priority_mask(log_mask, ACE_Log_Msg::THREAD);
  running_loop = this;
  struct epoll_event events[max_events];
  bool busy = false;
  auto next_tick = std::chrono::steady_clock::now() + tick_period;
  for (;;)
  {
    {
      std::lock_guard<std::mutex> guard(posts_->lock);
      if (stop_ && posts_->work.empty())
      {
        posts_->ended = true;
        break;
      }
    }
    auto now = std::chrono::steady_clock::now();
    int wait = now >= next_tick ? 0 : static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(next_tick - now).count()) + 1;
    int n = -1;
    // A loop of a few peers that just had work looks again for a moment
    // before it sleeps: waking a sleeping thread costs tens of microseconds
    // on virtual CPUs, about a round trip's time, and such a loop waits for
    // each call's round trip. Loops with more peers have their next event
    // soon anyway, and a spin would take a CPU from the peers' work; so
    // would one while several callers of the process wait. One loop of the
    // process spins at a time.
    bool few = handlers_.size() - free_slots_.size() <= few_peers && Spin_Wait::waiting() <= 1;
    if (busy && few && wait > 0)
    {
      if (spinning.fetch_add(1) == 0)
        Spin_Wait::poll([&] { return (n = ::epoll_wait(epoll_fd_, events, max_events, 0)) != 0; },
                        now + Spin_Wait::spin_time, 64, false);
      spinning.fetch_sub(1);
    }
    if (n <= 0)
      n = ::epoll_wait(epoll_fd_, events, max_events, wait);
    busy = n > 0;
    if (n < 0 && errno != EINTR)
    {
      ACE_ERROR((LM_ERROR, "TCP: failed to wait for events, errno=%d, %m.\n", errno));
      std::this_thread::sleep_for(tick_period);
    }
    bool posted = false;
    for (int i = 0; i < n; ++i)
    {
      if (!events[i].data.ptr)
        posted = true;
      else
        static_cast<TCP_Reactor_Handler*>(events[i].data.ptr)->handle_events(events[i].events);
    }
    // Work posted by the handlers above runs now, after them.
    if (posted)
      run_posted();
    now = std::chrono::steady_clock::now();
    if (now >= next_tick)
    {
      tick(now);
      next_tick = now + tick_period;
    }
  }
  running_loop = nullptr;
  log->msg_callback(nullptr);
}

std::shared_ptr<TCP_Reactor> TCP_Reactor::make(size_t threads)
{
  if (threads == 0)
    threads = std::max(1u, std::thread::hardware_concurrency());
  std::shared_ptr<TCP_Reactor> reactor(new (std::nothrow) TCP_Reactor);
  if (!reactor)
  {
    errno = ENOMEM;
    return reactor;
  }
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  unsigned long mask = log->priority_mask(ACE_Log_Msg::THREAD);
  void* callback = log->msg_callback();
  for (size_t i = 0; i < threads; ++i)
  {
    std::shared_ptr<Loop> loop(new (std::nothrow) Loop);
    if (!loop || loop->open() == -1)
    {
      int error = loop ? errno : ENOMEM;
      ACE_ERROR((LM_ERROR, "TCP: failed to make an I/O loop, errno=%d, %m.\n", error));
      errno = error;
      return std::shared_ptr<TCP_Reactor>();
    }
    try
    {
      // The thread owns its loop too: it may outlive the reactor (below).
      loop->posts_->thread = std::thread([loop, mask, callback]() { loop->run(mask, callback); });
    }
    catch (const std::system_error& e)
    {
      ACE_ERROR((LM_ERROR, "TCP: failed to start an I/O thread, errno=%d.\n", e.code().value()));
      errno = e.code().value();
      return std::shared_ptr<TCP_Reactor>();
    }
    reactor->loops_.push_back(loop);
  }
  return reactor;
}

TCP_Reactor::~TCP_Reactor() { stop(); }

void TCP_Reactor::stop()
{
  std::lock_guard<std::mutex> once(stop_lock_);
  if (stopped_)
    return;
  stopped_ = true;
  for (const std::shared_ptr<Loop>& loop : loops_)
  {
    {
      std::lock_guard<std::mutex> guard(loop->posts_->lock);
      loop->stop_ = true;
    }
    uint64_t one = 1;
    if (::write(loop->wake_fd_, &one, sizeof one) < 0 && errno != EAGAIN)
      ACE_ERROR((LM_ERROR, "TCP: failed to wake an I/O thread, errno=%d, %m.\n", errno));
  }
  for (const std::shared_ptr<Loop>& loop : loops_)
  {
    std::thread& thread = loop->posts_->thread;
    if (!thread.joinable())
      continue;
    // The last owner can be a connection that ends on one of these threads.
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();
    else
      thread.join();
  }
}

TCP_Reactor::Loop* TCP_Reactor::next_loop()
{
  // Several acceptors and connectors may share a reactor.
  static std::mutex lock;
  std::lock_guard<std::mutex> guard(lock);
  Loop* loop = loops_[next_ % loops_.size()].get();
  ++next_;
  return loop;
}

TCP_Reactor::Loop* TCP_Reactor::current() { return running_loop; }
