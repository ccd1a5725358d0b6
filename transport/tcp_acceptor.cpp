// The listener: accepts connections on one address and starts a channel on each.
#include "transport/tcp_acceptor.h"
#include "transport/tcp_channel.h"

#include "tessel/utils.h"

#include <ace/Log_Msg.h>
#include <ace/SOCK_Acceptor.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <future>
#include <mutex>
#include <new>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

// What the acceptor shares with the close hooks of its connections, which
// may run after the acceptor has let them go.
struct TCP_Acceptor::Shared : std::enable_shared_from_this<TCP_Acceptor::Shared>
{
  Shared() : detached(false), loop(nullptr), acceptor(nullptr) {}

  // On the I/O thread of a connection that has ended.
  void ended(TCP_Channel& channel)
  {
    std::lock_guard<std::mutex> guard(mutex);
    if (detached)
      return;
    auto i = std::find_if(live.begin(), live.end(),
                          [&](const JSON_RPC_Channel_Strong_Ptr& p) { return p.get() == &channel; });
    if (i == live.end())
      return;
    // Let go of on the loop: this may be the last owner, and the channel
    // is still in use here.
    JSON_RPC_Channel_Strong_Ptr gone = *i;
    live.erase(i);
    std::shared_ptr<Shared> self = shared_from_this();
    loop->post([gone, self]() {
      // A descriptor is free again: accepting may go on. The acceptor
      // leaves (on this thread) before it goes.
      TCP_Acceptor* owner;
      {
        std::lock_guard<std::mutex> guard(self->mutex);
        owner = self->acceptor;
      }
      if (owner && owner->paused_)
        owner->handle_tick(std::chrono::steady_clock::now());
    });
  }

  mutable std::mutex mutex;
  bool detached;
  TCP_Reactor::Loop* loop;
  TCP_Acceptor* acceptor; // null once it stops accepting
  std::vector<JSON_RPC_Channel_Strong_Ptr> live;
};

TCP_Acceptor::TCP_Acceptor() : listen_fd_(-1), own_reactor_(false), loop_(nullptr), cut_(false), paused_(false), out_of_descriptors_(false) {}

TCP_Acceptor::~TCP_Acceptor() { close(true); }

int TCP_Acceptor::open(const ACE_INET_Addr& addr, const TCP_Options& options)
{
  if (shared_)
  {
    errno = EISCONN;
    return -1;
  }
  ACE_SOCK_Acceptor listener;
  if (listener.open(addr, 1, addr.get_type(), backlog(options)) == -1)
  {
    int error = errno;
    ACE_ERROR((LM_ERROR, "TCP: failed to listen on %C, errno=%d, %m.\n", ACE_Addr_String(addr).c_str(), error));
    errno = error;
    return -1;
  }
  listener.get_local_addr(local_addr_);
  int fd = listener.get_handle();
  listener.set_handle(ACE_INVALID_HANDLE);
  return watch(fd, options);
}

int TCP_Acceptor::open_unix(const std::string& path, const TCP_Options& options)
{
  if (shared_)
  {
    errno = EISCONN;
    return -1;
  }
  sockaddr_un addr;
  int fd = unix_stream_socket(path, addr);
  int error = fd == -1 ? errno : 0;
  if (fd != -1)
  {
    // A socket file that nobody listens on any more is left by a process
    // that ended without removing it: it goes. Anything else stays.
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0)
    {
      int probe = S_ISSOCK(st.st_mode) ? ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0) : -1;
      if (!S_ISSOCK(st.st_mode))
        error = EEXIST;
      else if (probe != -1 && ::connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
        error = EADDRINUSE;
      else if (errno == ECONNREFUSED)
        ::unlink(path.c_str());
      if (probe != -1)
        ::close(probe);
    }
    if (!error && (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == -1 ||
                   ::chmod(path.c_str(), options.unix_mode) == -1 || ::listen(fd, backlog(options)) == -1))
      error = errno;
  }
  if (error)
  {
    ACE_ERROR((LM_ERROR, "TCP: failed to listen on unix:%C, errno=%d, %m.\n", path.c_str(), error));
    if (fd != -1)
    {
      ::close(fd);
      if (error != EADDRINUSE && error != EEXIST)
        ::unlink(path.c_str());
    }
    errno = error;
    return -1;
  }
  unix_path_ = path;
  if (watch(fd, options) == -1)
  {
    error = errno;
    ::unlink(path.c_str());
    unix_path_.clear();
    errno = error;
    return -1;
  }
  return 0;
}

int TCP_Acceptor::backlog(const TCP_Options& options)
{
  // The kernel caps a larger backlog at net.core.somaxconn.
  return options.listen_backlog > 0 ? options.listen_backlog : INT_MAX;
}

std::string TCP_Acceptor::address() const
{
  if (!unix_path_.empty())
    return "unix:" + unix_path_;
  char host[96] = {0};
  if (local_addr_.get_host_addr(host, sizeof host) == nullptr)
    return std::string();
  bool v6 = local_addr_.get_type() == AF_INET6;
  return (v6 ? "[" + std::string(host) + "]" : std::string(host)) + ":" + std::to_string(port());
}

int TCP_Acceptor::watch(int fd, const TCP_Options& options)
{
  listen_fd_ = fd;
  ::fcntl(listen_fd_, F_SETFD, FD_CLOEXEC);
  ::fcntl(listen_fd_, F_SETFL, ::fcntl(listen_fd_, F_GETFL) | O_NONBLOCK);

  own_reactor_ = !options.reactor;
  reactor_ = options.reactor ? options.reactor : TCP_Reactor::make(options.io_threads);
  if (!reactor_)
  {
    int error = errno;
    ::close(listen_fd_);
    listen_fd_ = -1;
    errno = error;
    return -1;
  }
  loop_ = reactor_->next_loop();
  shared_.reset(new Shared);
  shared_->loop = loop_;
  shared_->acceptor = this;

  // Each connection tells the acceptor when it has ended, after the hook
  // of the embedding process.
  options_ = options;
  options_.reactor = reactor_;
  std::shared_ptr<Shared> shared = shared_;
  std::function<void(TCP_Channel&)> user_hook = options.on_close;
  options_.on_close = [shared, user_hook](TCP_Channel& channel) {
    if (user_hook)
      user_hook(channel);
    shared->ended(channel);
  };

  std::promise<int> added;
  loop_->post([this, &added]() {
    int r = loop_->add(listen_fd_, EPOLLIN, this);
    added.set_value(r == -1 ? errno : 0);
  });
  int error = added.get_future().get();
  if (error)
  {
    ACE_ERROR((LM_ERROR, "TCP: failed to watch the listener, errno=%d.\n", error));
    ::close(listen_fd_);
    listen_fd_ = -1;
    shared_.reset();
    reactor_.reset();
    errno = error;
    return -1;
  }
  return 0;
}

void TCP_Acceptor::stop_accepting()
{
  if (listen_fd_ == -1)
    return;
  auto remove = [this]() {
    loop_->remove(listen_fd_, this);
    std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->acceptor = nullptr;
  };
  if (TCP_Reactor::current() == loop_)
    remove();
  else
  {
    std::promise<void> removed;
    loop_->post([&]() {
      remove();
      removed.set_value();
    });
    removed.get_future().wait();
  }
  ::close(listen_fd_);
  listen_fd_ = -1;
  if (!unix_path_.empty())
  {
    ::unlink(unix_path_.c_str());
    unix_path_.clear();
  }
}

void TCP_Acceptor::close(bool close_connections)
{
  if (!shared_)
    return;
  stop_accepting();
  std::vector<JSON_RPC_Channel_Strong_Ptr> live;
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->detached = true;
    live.swap(shared_->live);
  }
  if (close_connections)
  {
    for (const JSON_RPC_Channel_Strong_Ptr& channel : live)
      TCP_Channel::cast(channel)->close();
    // Nothing of the connections runs any more when this returns.
    if (own_reactor_)
      reactor_->stop();
  }
  // Connections left open hold the reactor until they end.
  live.clear();
  shared_.reset();
  reactor_.reset();
  options_ = TCP_Options();
}

void TCP_Acceptor::drain(const ACE_Time_Value& limit)
{
  if (!shared_)
    return;
  stop_accepting();
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(limit.sec()) +
               std::chrono::microseconds(limit.usec());
  std::vector<JSON_RPC_Channel_Strong_Ptr> live = connections();
  for (const JSON_RPC_Channel_Strong_Ptr& channel : live)
    TCP_Channel::cast(channel)->stop_reading();
  // Polled: a drain happens once, and its limit is seconds.
  auto all = [&](size_t (TCP_Channel::*count)() const) {
    for (;;)
    {
      size_t left = 0;
      for (const JSON_RPC_Channel_Strong_Ptr& channel : live)
        if (!TCP_Channel::cast(channel)->closed())
          left += (TCP_Channel::cast(channel)->*count)();
      if (left == 0 || cut_ || std::chrono::steady_clock::now() >= until)
        return left;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  };
  size_t unanswered = all(&TCP_Channel::requests_in_flight);
  if (unanswered && !cut_)
  {
    ACE_ERROR((LM_WARNING, "TCP: %B request(s) not answered within the drain time; answering them with an error.\n",
               static_cast<ACE_UINT64>(unanswered)));
    for (const JSON_RPC_Channel_Strong_Ptr& channel : live)
      TCP_Channel::cast(channel)->answer_in_flight(-32001, "Server shutting down");
  }
  until = std::max(until, std::chrono::steady_clock::now() + std::chrono::seconds(1));
  all(&TCP_Channel::queued_bytes);
  close(true);
  cut_ = false;
}

std::vector<JSON_RPC_Channel_Strong_Ptr> TCP_Acceptor::connections() const
{
  std::vector<JSON_RPC_Channel_Strong_Ptr> up;
  if (!shared_)
    return up;
  std::lock_guard<std::mutex> guard(shared_->mutex);
  for (const JSON_RPC_Channel_Strong_Ptr& channel : shared_->live)
    if (!TCP_Channel::cast(channel)->closed())
      up.push_back(channel);
  return up;
}

void TCP_Acceptor::handle_events(uint32_t) { accept_all(); }

void TCP_Acceptor::handle_tick(std::chrono::steady_clock::time_point)
{
  // After a failed accept (out of descriptors, say) the listener rests
  // until a tick or a connection's end instead of spinning.
  if (paused_ && listen_fd_ != -1)
  {
    paused_ = false;
    loop_->modify(listen_fd_, EPOLLIN, this);
    accept_all();
  }
}

void TCP_Acceptor::accept_all()
{
  // A burst is taken in turns with the connections of this thread.
  for (int i = 0; i < 256 && !paused_; ++i)
  {
    int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1)
    {
      if (errno == EWOULDBLOCK || errno == EAGAIN)
        return;
      if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO)
        continue;
      // Out of descriptors, accepting pauses until connections end: one
      // line for the spell, not one for each try.
      bool descriptors = errno == EMFILE || errno == ENFILE;
      if (!descriptors || !out_of_descriptors_)
        ACE_ERROR((LM_ERROR, "TCP: failed to accept on %C, errno=%d, %m%C.\n", ACE_Addr_String(local_addr_).c_str(),
                   errno, descriptors ? "; accepting pauses until connections end" : ""));
      out_of_descriptors_ = descriptors;
      paused_ = true;
      loop_->modify(listen_fd_, 0, this);
      return;
    }
    out_of_descriptors_ = false;
    ACE_SOCK_Stream stream(fd);
    size_t open;
    {
      std::lock_guard<std::mutex> guard(shared_->mutex);
      open = shared_->live.size();
    }
    if (options_.max_connections && open >= options_.max_connections)
    {
      ACE_INET_Addr peer;
      std::string from = unix_path_.empty() ? (stream.get_remote_addr(peer), ACE_Addr_String(peer).c_str())
                                            : "unix:" + unix_path_;
      ACE_ERROR((LM_WARNING, "TCP: connection from %C refused: %B open, the most allowed.\n", from.c_str(),
                 static_cast<ACE_UINT64>(options_.max_connections)));
      stream.close();
      continue;
    }
    TCP_Channel* tcp = new (std::nothrow) TCP_Channel(stream, options_);
    if (!tcp)
    {
      ACE_ERROR((LM_ERROR, "TCP: no memory for a connection.\n"));
      stream.close();
      continue;
    }
    JSON_RPC_Channel_Strong_Ptr channel(tcp);
    {
      // Entered first, so that a connection that ends at once is found.
      std::lock_guard<std::mutex> guard(shared_->mutex);
      shared_->live.push_back(channel);
    }
    if (TCP_Channel::start(channel, reactor_) == -1)
    {
      std::lock_guard<std::mutex> guard(shared_->mutex);
      shared_->live.erase(std::remove(shared_->live.begin(), shared_->live.end(), channel), shared_->live.end());
    }
  }
}
