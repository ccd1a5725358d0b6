// The epoll floor of the server benchmark on ACE's reactor instead of a
// loop of its own: ACE_Reactor over ACE_Dev_Poll_Reactor (epoll), one
// ACE_Event_Handler per socket, the same reads, answers and writes
// (floor_socket.h), so that what it costs beyond epoll_floor is the
// reactor's. Usage: ace_floor [THREADS] (default 1): that many threads run
// the one reactor's event loop. Listens on 127.0.0.1 at a free port and
// prints "listening on 127.0.0.1:PORT"; runs until killed.
#include "floor_socket.h"

#include <ace/ACE.h>
#include <ace/Dev_Poll_Reactor.h>
#include <ace/Event_Handler.h>
#include <ace/Reactor.h>
#include <ace/Time_Value.h>

#include <cstdlib>
#include <thread>
#include <vector>

namespace
{
  /// One connection. The reactor dispatches a handle to one thread at a
  /// time (epoll's one-shot events), so it needs no lock of its own.
  class Peer_Handler : public ACE_Event_Handler
  {
  public:
    Peer_Handler(ACE_Reactor* reactor, int fd) : ACE_Event_Handler(reactor), fd_(fd) {}

    ACE_HANDLE get_handle() const override { return fd_; }

    int handle_input(ACE_HANDLE) override { return peer_.read(fd_) ? send() : -1; }

    int handle_output(ACE_HANDLE) override { return send(); }

    /// Called once the reactor has let go of one of its masks: the
    /// connection is over, whatever masks are left.
    int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override
    {
      reactor()->remove_handler(this, ALL_EVENTS_MASK | DONT_CALL);
      ::close(fd_);
      delete this;
      return 0;
    }

  private:
    int send()
    {
      if (!peer_.write(fd_))
        return -1;
      bool writing = peer_.writing();
      if (writing != watching_out_ &&
          reactor()->mask_ops(this, WRITE_MASK, writing ? ACE_Reactor::ADD_MASK : ACE_Reactor::CLR_MASK) != -1)
        watching_out_ = writing;
      return 0;
    }

    int fd_;
    floor_socket::Floor_Peer peer_;
    bool watching_out_ = false;
  };

  class Listener : public ACE_Event_Handler
  {
  public:
    Listener(ACE_Reactor* reactor, int fd) : ACE_Event_Handler(reactor), fd_(fd) {}

    ACE_HANDLE get_handle() const override { return fd_; }

    int handle_input(ACE_HANDLE) override
    {
      bool exhausted = false;
      int fd;
      while ((fd = floor_socket::accept_one(fd_, exhausted)) >= 0)
      {
        Peer_Handler* peer = new Peer_Handler(reactor(), fd);
        if (reactor()->register_handler(peer, READ_MASK) == -1)
        {
          ::close(fd);
          delete peer;
        }
      }
      if (!exhausted)
        return 0;
      std::perror("ace_floor: accept");
      return -1;
    }

    /// Out of descriptors, the listener rests for 100 ms rather than wake
    /// the loop for ever.
    int handle_close(ACE_HANDLE, ACE_Reactor_Mask) override
    {
      return reactor()->schedule_timer(this, nullptr, ACE_Time_Value(0, 100000)) == -1 ? -1 : 0;
    }

    int handle_timeout(const ACE_Time_Value&, const void*) override
    {
      return reactor()->register_handler(this, READ_MASK);
    }

  private:
    int fd_;
  };
}

int main(int argc, char** argv)
{
  int threads = argc > 1 ? std::atoi(argv[1]) : 1;
  if (argc > 2 || threads < 1 || threads > 64)
  {
    std::fprintf(stderr, "usage: ace_floor [THREADS (1 to 64)]\n");
    return 2;
  }
  // A handle indexes the reactor's table, so it is as large as the
  // descriptor limit; an interrupted epoll_wait is restarted rather than
  // ending a thread's loop.
  ACE_Dev_Poll_Reactor dev_poll(ACE::max_handles(), true);
  ACE_Reactor reactor(&dev_poll);
  int fd = floor_socket::listen_loopback();
  Listener listener(&reactor, fd);
  if (fd < 0 || reactor.register_handler(&listener, ACE_Event_Handler::READ_MASK) == -1)
  {
    std::perror("ace_floor: listen");
    return 1;
  }
  std::vector<std::thread> others;
  for (int i = 1; i < threads; ++i)
    others.emplace_back([&reactor] { reactor.run_reactor_event_loop(); });
  reactor.run_reactor_event_loop();
  std::perror("ace_floor: the event loop ended");
  // The other threads still run the reactor: no destructors.
  std::_Exit(1);
}
