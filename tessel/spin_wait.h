#ifndef TESSEL_SPIN_WAIT_H
#define TESSEL_SPIN_WAIT_H

#include "tessel/tessel_export.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include <sys/socket.h>

/// A short busy wait ahead of a sleep, for an answer that usually comes
/// back within one round trip to a thread on another core. Waking a
/// sleeping thread on an idle core costs tens of microseconds on virtual
/// machines; a core that stays busy takes the wake-up at once. The spin is
/// bounded (spin_time), and it does not yield: a yield gives the core to
/// any thread that wants it for the rest of that thread's time slice,
/// milliseconds that the waiter would lose while its answer is there.
///
/// Only a thread that waits alone spins: with others waiting too the cores
/// have other work to do.
class TESSEL_EXPORT Spin_Wait
{
public:
  static constexpr std::chrono::microseconds spin_time{50};

  /// Counts the calling thread, until destroyed, among all the threads of
  /// the process that wait for an answer from a peer, however they wait:
  /// calls over channels and HTTP alike.
  Spin_Wait() : waiters_(callers()), alone_(waiters_.fetch_add(1) == 0) {}
  ~Spin_Wait() { waiters_.fetch_sub(1); }
  Spin_Wait(const Spin_Wait&) = delete;
  Spin_Wait& operator=(const Spin_Wait&) = delete;

  /// How many threads of the process wait for an answer right now.
  static int waiting() { return callers().load(std::memory_order_relaxed); }

  /// One pause of a busy wait: kinder to the sibling hyperthread and the
  /// memory bus than a bare loop.
  static void pause()
  {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
  }

  /// Polls ready() until it gives true (then true), for spin_time at most
  /// and never past limit from now (then false); false at once when other
  /// threads wait as well. pauses is the number of pauses between two polls:
  /// many for a look at memory, a few for a system call.
  template <class Ready>
  bool spin(Ready ready, std::chrono::steady_clock::duration limit = spin_time, unsigned int pauses = 1)
  {
    if (!alone_ || limit <= limit.zero())
      return false;
    return poll(ready, std::chrono::steady_clock::now() + std::min<std::chrono::steady_clock::duration>(limit, spin_time),
                pauses, false);
  }

  /// Takes from a socket what is there or comes within the spin, without
  /// blocking: true with n set to what recv gave (data, the end or a
  /// failure), false when nothing came and the caller is to block.
  bool recv(int fd, void* buffer, size_t length, ssize_t& n,
            std::chrono::steady_clock::duration limit = spin_time)
  {
    // A system call is slow next to a look at memory: a few pauses apart.
    return spin(
      [&] {
        n = ::recv(fd, buffer, length, MSG_DONTWAIT);
        return n >= 0 || !(errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
      },
      limit, 64);
  }

  /// The loop of a spin: ready() until it gives true or end has passed.
  /// With yield, the core is offered to other threads now and then, so that
  /// one that waits for it gets it.
  template <class Ready>
  static bool poll(Ready ready, std::chrono::steady_clock::time_point end, unsigned int pauses, bool yield)
  {
    for (unsigned int i = 1;; ++i)
    {
      if (ready())
        return true;
      for (unsigned int p = 0; p < pauses; ++p)
        pause();
      if (i * pauses % 64 < pauses)
      {
        if (std::chrono::steady_clock::now() >= end)
          return false;
        if (yield)
          std::this_thread::yield();
      }
    }
  }

private:
  static std::atomic<int>& callers();

  std::atomic<int>& waiters_;
  bool alone_;
};

#endif
