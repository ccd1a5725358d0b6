#ifndef PROGRAMS_PROGRAM_UTIL_H
#define PROGRAMS_PROGRAM_UTIL_H

// What jsonrpc-host and jsonrpc-call share: reading an address and a
// framing, waiting for SIGINT or SIGTERM (or another wake-up), and writing a
// message as one line of JSON.

#include "json_rpc/json_rpc_generator.h"
#include "transport/tcp_options.h"
#include "tessel/yajl_gen.h"

#include <ace/INET_Addr.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

namespace program
{
  inline bool parse_framing(const char* text, TCP_Options::Framing& framing)
  {
    if (text && !std::strcmp(text, "content-length"))
      framing = TCP_Options::FRAMING_CONTENT_LENGTH;
    else if (text && !std::strcmp(text, "ndjson"))
      framing = TCP_Options::FRAMING_NDJSON;
    else
      return false;
    return true;
  }

  /// The message as compact JSON text.
  inline std::string to_json(const JSON_RPC_Object& object)
  {
    std::string text;
    YAJL_String_Printer printer(&text);
    JSON_RPC_Writer().write(object, printer);
    return text;
  }

  /// SIGINT and SIGTERM as a descriptor to wait on, and a pipe that any
  /// thread can use to wake the waiter. Make it before any thread starts:
  /// the signals are blocked in the threads that inherit the mask.
  class Waiter
  {
  public:
    Waiter() : signals_(-1)
    {
      sigset_t stop;
      sigemptyset(&stop);
      sigaddset(&stop, SIGINT);
      sigaddset(&stop, SIGTERM);
      pthread_sigmask(SIG_BLOCK, &stop, nullptr);
      signals_ = signalfd(-1, &stop, SFD_CLOEXEC);
      if (pipe(wake_) != 0)
        wake_[0] = wake_[1] = -1;
    }
    ~Waiter()
    {
      for (int fd : {signals_, wake_[0], wake_[1]})
        if (fd >= 0)
          close(fd);
    }
    bool ok() const { return signals_ >= 0 && wake_[0] >= 0; }

    /// From any thread, also from a signal-free context such as a callback.
    void wake(char why)
    {
      ssize_t ignored = write(wake_[1], &why, 1);
      (void)ignored;
    }

    /// The signal number that came, or the character given to wake(); 0
    /// when timeout_ms (if not negative) passed first.
    int wait(long long timeout_ms = -1)
    {
      struct pollfd fds[2] = {{signals_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
      struct timespec start;
      clock_gettime(CLOCK_MONOTONIC, &start);
      for (;;)
      {
        int wait_ms = -1;
        if (timeout_ms >= 0)
        {
          struct timespec now;
          clock_gettime(CLOCK_MONOTONIC, &now);
          long long spent = (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
          if (spent >= timeout_ms)
            return 0;
          wait_ms = static_cast<int>(std::min<long long>(timeout_ms - spent, 1 << 30));
        }
        int n = poll(fds, 2, wait_ms);
        if (n <= 0)
          continue;
        if (fds[0].revents)
        {
          struct signalfd_siginfo info;
          if (read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
            return static_cast<int>(info.ssi_signo);
        }
        if (fds[1].revents)
        {
          char why = 0;
          if (read(wake_[0], &why, 1) == 1)
            return why;
        }
      }
    }

  private:
    int signals_;
    int wake_[2];
  };
}

#endif
