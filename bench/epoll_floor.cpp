// The floor of the server benchmark: one thread, epoll and non-blocking
// sockets; each Content-Length framed message is answered with a fixed
// framed answer (the benchmark's params) carrying the request's id, with no
// JSON work. Listens on 127.0.0.1 at a free port and prints
// "listening on 127.0.0.1:PORT"; runs until killed.
#include "floor_socket.h"

#include <sys/epoll.h>

#include <memory>
#include <vector>

namespace
{
  struct Peer : floor_socket::Floor_Peer
  {
    bool watching_out = false;
  };

  class Floor
  {
  public:
    bool open()
    {
      epoll_ = epoll_create1(EPOLL_CLOEXEC);
      return epoll_ >= 0 && (listener_ = floor_socket::listen_loopback()) >= 0 &&
             watch(listener_, EPOLL_CTL_ADD, EPOLLIN);
    }

    void run()
    {
      epoll_event events[256];
      for (;;)
      {
        // Out of descriptors, the listener rests for 100 ms rather than
        // wake the loop for ever.
        int n = epoll_wait(epoll_, events, 256, resting_ ? 100 : -1);
        if (n == 0 && resting_)
          resting_ = !watch(listener_, EPOLL_CTL_ADD, EPOLLIN);
        for (int i = 0; i < n; ++i)
        {
          int fd = events[i].data.fd;
          if (fd == listener_)
            accept_all();
          else if (events[i].events & (EPOLLERR | EPOLLHUP))
            drop(fd);
          else if (events[i].events & EPOLLOUT)
            write(fd);
          else
            read(fd);
        }
      }
    }

  private:
    bool watch(int fd, int op, unsigned events)
    {
      epoll_event e = {};
      e.events = events;
      e.data.fd = fd;
      return epoll_ctl(epoll_, op, fd, &e) == 0;
    }

    void accept_all()
    {
      bool exhausted = false;
      int fd;
      while ((fd = floor_socket::accept_one(listener_, exhausted)) >= 0)
      {
        if (static_cast<size_t>(fd) >= peers_.size())
          peers_.resize(static_cast<size_t>(fd) + 1);
        peers_[static_cast<size_t>(fd)].reset(new Peer);
        if (!watch(fd, EPOLL_CTL_ADD, EPOLLIN))
          drop(fd);
      }
      if (exhausted)
      {
        std::perror("epoll_floor: accept");
        resting_ = epoll_ctl(epoll_, EPOLL_CTL_DEL, listener_, nullptr) == 0;
      }
    }

    void drop(int fd)
    {
      ::close(fd);
      peers_[static_cast<size_t>(fd)].reset();
    }

    void read(int fd)
    {
      if (!peers_[static_cast<size_t>(fd)]->read(fd))
        return drop(fd);
      write(fd);
    }

    void write(int fd)
    {
      Peer& p = *peers_[static_cast<size_t>(fd)];
      if (!p.write(fd))
        return drop(fd);
      bool writing = p.writing();
      if (writing != p.watching_out && watch(fd, EPOLL_CTL_MOD, writing ? EPOLLIN | EPOLLOUT : EPOLLIN))
        p.watching_out = writing;
    }

    int listener_ = -1, epoll_ = -1;
    bool resting_ = false;
    std::vector<std::unique_ptr<Peer>> peers_;
  };
}

int main()
{
  Floor floor;
  if (!floor.open())
  {
    std::perror("epoll_floor: listen");
    return 1;
  }
  floor.run();
}
