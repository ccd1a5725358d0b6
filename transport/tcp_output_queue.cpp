// A connection's queue of bytes on their way to its socket.
#include "transport/tcp_output_queue.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/uio.h>

namespace
{
  const int max_iov = 64;

  // Bytes written, or -1 with errno; EAGAIN counts as none.
  ssize_t send_some(int fd, struct iovec* iov, int count)
  {
    struct msghdr msg = {};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    for (;;)
    {
      ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n >= 0)
        return n;
      if (errno == EINTR)
        continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK)
        return 0;
      return -1;
    }
  }
}

void TCP_Output_Queue::keep(const char* data, size_t length)
{
  if (length == 0)
    return;
  pieces_.emplace_back(data, length);
  bytes_ += length;
}

int TCP_Output_Queue::push(int fd, const char* head, size_t head_length, std::string& body)
{
  size_t written = 0;
  if (bytes_ == 0)
  {
    struct iovec iov[2] = {{const_cast<char*>(head), head_length}, {&body[0], body.size()}};
    ssize_t n = send_some(fd, head_length ? iov : iov + 1, head_length ? 2 : 1);
    if (n < 0)
      return errno;
    written = static_cast<size_t>(n);
  }
  if (written < head_length)
  {
    keep(head + written, head_length - written);
    written = head_length;
  }
  size_t from = written - head_length;
  if (from == 0 && !body.empty())
  {
    bytes_ += body.size();
    pieces_.emplace_back(std::move(body));
    body.clear();
  }
  else if (from < body.size())
    keep(body.data() + from, body.size() - from);
  return 0;
}

int TCP_Output_Queue::drain(int fd)
{
  while (bytes_ > 0)
  {
    struct iovec iov[max_iov];
    int count = 0;
    for (size_t i = first_; i < pieces_.size() && count < max_iov; ++i, ++count)
    {
      size_t skip = count == 0 ? offset_ : 0;
      iov[count].iov_base = &pieces_[i][skip];
      iov[count].iov_len = pieces_[i].size() - skip;
    }
    ssize_t n = send_some(fd, iov, count);
    if (n < 0)
      return errno;
    if (n == 0)
      return 0;
    size_t done = static_cast<size_t>(n);
    bytes_ -= done;
    while (done > 0)
    {
      size_t left = pieces_[first_].size() - offset_;
      if (done < left)
      {
        offset_ += done;
        break;
      }
      done -= left;
      std::string().swap(pieces_[first_++]);
      offset_ = 0;
    }
    if (bytes_ == 0)
      clear();
    else if (first_ > 64 && first_ * 2 > pieces_.size())
    {
      // A peer that never quite catches up: the written pieces go.
      pieces_.erase(pieces_.begin(), pieces_.begin() + static_cast<std::ptrdiff_t>(first_));
      first_ = 0;
    }
  }
  return 0;
}

void TCP_Output_Queue::clear()
{
  std::vector<std::string>().swap(pieces_);
  first_ = 0;
  bytes_ = 0;
  offset_ = 0;
}
