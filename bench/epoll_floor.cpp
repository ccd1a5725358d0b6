// The floor of the server benchmark: one thread, epoll and non-blocking
// sockets; each Content-Length framed message is answered with a fixed
// framed answer (the benchmark's params) carrying the request's id, with no
// JSON work. Listens on 127.0.0.1 at a free port and prints
// "listening on 127.0.0.1:PORT"; runs until killed.
#include "echo_wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace
{
  struct Peer
  {
    std::string in, out;
    size_t sent = 0;
    bool writing = false;
  };

  class Floor
  {
  public:
    bool open()
    {
      listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      sockaddr_in a = {};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t n = sizeof a;
      epoll_ = epoll_create1(EPOLL_CLOEXEC);
      if (listener_ < 0 || epoll_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
          ::listen(listener_, SOMAXCONN) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&a), &n) != 0 ||
          !watch(listener_, EPOLL_CTL_ADD, EPOLLIN))
        return false;
      std::printf("listening on 127.0.0.1:%u\n", static_cast<unsigned>(ntohs(a.sin_port)));
      std::fflush(stdout);
      return true;
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
      for (;;)
      {
        int fd = ::accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
        {
          if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM)
          {
            std::perror("epoll_floor: accept");
            resting_ = epoll_ctl(epoll_, EPOLL_CTL_DEL, listener_, nullptr) == 0;
          }
          return;
        }
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (static_cast<size_t>(fd) >= peers_.size())
          peers_.resize(static_cast<size_t>(fd) + 1);
        peers_[static_cast<size_t>(fd)].reset(new Peer);
        if (!watch(fd, EPOLL_CTL_ADD, EPOLLIN))
          drop(fd);
      }
    }

    void drop(int fd)
    {
      ::close(fd);
      peers_[static_cast<size_t>(fd)].reset();
    }

    void read(int fd)
    {
      Peer& p = *peers_[static_cast<size_t>(fd)];
      char buffer[16384];
      for (;;)
      {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n > 0)
        {
          p.in.append(buffer, static_cast<size_t>(n));
          continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
          return drop(fd);
        if (errno == EAGAIN)
          break;
      }
      size_t at = 0, body_at = 0, body_size = 0;
      int whole;
      while ((whole = echo_wire::next_message(p.in.data() + at, p.in.size() - at, body_at, body_size)) == 1)
      {
        const char* body = p.in.data() + at + body_at;
        std::string id = echo_wire::id_text(body, body_size);
        p.out += echo_wire::frame("{\"jsonrpc\":\"2.0\",\"id\":" + (id.empty() ? "null" : id) +
                                  ",\"result\":" + echo_wire::params + "}");
        at += body_at + body_size;
      }
      if (whole < 0)
        return drop(fd);
      p.in.erase(0, at);
      write(fd);
    }

    void write(int fd)
    {
      Peer& p = *peers_[static_cast<size_t>(fd)];
      while (p.sent < p.out.size())
      {
        ssize_t n = ::send(fd, p.out.data() + p.sent, p.out.size() - p.sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
          continue;
        if (n < 0 && errno == EAGAIN)
          break;
        if (n <= 0)
          return drop(fd);
        p.sent += static_cast<size_t>(n);
      }
      if (p.sent == p.out.size())
      {
        p.out.clear();
        p.sent = 0;
      }
      bool writing = !p.out.empty();
      if (writing != p.writing && watch(fd, EPOLL_CTL_MOD, writing ? EPOLLIN | EPOLLOUT : EPOLLIN))
        p.writing = writing;
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
