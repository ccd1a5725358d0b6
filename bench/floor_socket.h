// What the floor servers (epoll_floor, ace_floor) do with their sockets,
// written once so that they differ only in how they wait for events: the
// loopback listener, and a peer's reads, answers and writes.
#ifndef BENCH_FLOOR_SOCKET_H
#define BENCH_FLOOR_SOCKET_H

#include "echo_wire.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

namespace floor_socket
{
  /// A non-blocking listener on 127.0.0.1 at a free port, with the
  /// system's largest backlog, announced as "listening on 127.0.0.1:PORT";
  /// -1 on failure.
  inline int listen_loopback()
  {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof a;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, SOMAXCONN) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) != 0)
    {
      if (fd >= 0)
        ::close(fd);
      return -1;
    }
    std::printf("listening on 127.0.0.1:%u\n", static_cast<unsigned>(ntohs(a.sin_port)));
    std::fflush(stdout);
    return fd;
  }

  /// The next connection, non-blocking and with TCP_NODELAY; -1 when there
  /// is none now. `exhausted` tells a failure for want of descriptors or
  /// memory, after which the caller should rest its listener a while.
  inline int accept_one(int listener, bool& exhausted)
  {
    int fd = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    exhausted = fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM);
    if (fd >= 0)
    {
      int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    return fd;
  }

  /// A connection's bytes: what came in and is not yet a whole message,
  /// and the answers not yet sent.
  struct Floor_Peer
  {
    /// Appends the framed answer to a body to out; false refuses it. Null:
    /// the fixed answer, found with no parse.
    typedef bool (*Answer)(const char* body, size_t size, std::string& out);

    std::string in, out;
    size_t sent = 0;
    Answer answer = nullptr;

    /// Reads until the socket is drained and queues an answer to each
    /// whole message; false when the peer closed, failed or sent a message
    /// that is refused.
    bool read(int fd)
    {
      char buffer[16384];
      for (;;)
      {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n > 0)
        {
          in.append(buffer, static_cast<size_t>(n));
          continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
          return false;
        if (errno == EAGAIN)
          break;
      }
      size_t at = 0, body_at = 0, body_size = 0;
      int whole;
      while ((whole = echo_wire::next_message(in.data() + at, in.size() - at, body_at, body_size)) == 1)
      {
        const char* body = in.data() + at + body_at;
        if (!answer)
        {
          std::string id = echo_wire::id_text(body, body_size);
          out += echo_wire::frame("{\"jsonrpc\":\"2.0\",\"id\":" + (id.empty() ? "null" : id) +
                                  ",\"result\":" + echo_wire::params + "}");
        }
        else if (!answer(body, body_size, out))
          return false;
        at += body_at + body_size;
      }
      in.erase(0, at);
      return whole >= 0;
    }

    /// Sends what the socket takes of the queued answers; false on an
    /// error.
    bool write(int fd)
    {
      while (sent < out.size())
      {
        ssize_t n = ::send(fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
          continue;
        if (n < 0 && errno == EAGAIN)
          break;
        if (n <= 0)
          return false;
        sent += static_cast<size_t>(n);
      }
      if (sent == out.size())
      {
        out.clear();
        sent = 0;
      }
      return true;
    }

    /// True while answers wait for room in the socket.
    bool writing() const { return !out.empty(); }
  };
}

#endif
