#include "transport/tcp_acceptor.h"
#include "transport/tcp_channel.h"

#include "tessel/utils.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_fcntl.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <mutex>
#include <new>
#include <poll.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

// What the acceptor shares with the close hooks of its connections, which
// may run after the acceptor has let them go.
struct TCP_Acceptor::Shared
{
  explicit Shared(int fd) : wake_fd(fd), detached(false) {}

  void wake()
  {
    uint64_t one = 1;
    if (::write(wake_fd, &one, sizeof one) < 0 && errno != EAGAIN)
      ACE_ERROR((LM_ERROR, "TCP: failed to wake the acceptor, errno=%d, %m.\n", errno));
  }

  // On the read thread of a connection that has ended.
  void ended(TCP_Channel& channel)
  {
    std::lock_guard<std::mutex> guard(mutex);
    if (detached)
      return;
    auto i = std::find_if(live.begin(), live.end(),
                          [&](const JSON_RPC_Channel_Strong_Ptr& p) { return p.get() == &channel; });
    if (i == live.end())
      return;
    finished.push_back(*i);
    live.erase(i);
    wake();
  }

  std::mutex mutex;
  int wake_fd;
  bool detached;
  std::vector<JSON_RPC_Channel_Strong_Ptr> live;
  std::vector<JSON_RPC_Channel_Strong_Ptr> finished;
};

TCP_Acceptor::TCP_Acceptor() : stop_(false), out_of_descriptors_(false) {}

TCP_Acceptor::~TCP_Acceptor() { close(true); }

int TCP_Acceptor::open(const ACE_INET_Addr& addr, const TCP_Options& options)
{
  if (shared_)
  {
    errno = EISCONN;
    return -1;
  }
  // The kernel caps a larger backlog at net.core.somaxconn.
  int backlog = options.listen_backlog > 0 ? options.listen_backlog : INT_MAX;
  if (listener_.open(addr, 1, addr.get_type(), backlog) == -1)
  {
    int error = errno;
    ACE_ERROR((LM_ERROR, "TCP: failed to listen on %C, errno=%d, %m.\n", ACE_Addr_String(addr).c_str(), error));
    errno = error;
    return -1;
  }
  ACE_OS::fcntl(listener_.get_handle(), F_SETFD, FD_CLOEXEC);
  listener_.enable(ACE_NONBLOCK);
  listener_.get_local_addr(local_addr_);
  int wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd == -1)
  {
    int error = errno;
    ACE_ERROR((LM_ERROR, "TCP: failed to make an event descriptor, errno=%d, %m.\n", error));
    listener_.close();
    errno = error;
    return -1;
  }
  shared_.reset(new Shared(wake_fd));

  // Each connection tells the acceptor when it has ended, after the hook
  // of the embedding process.
  options_ = options;
  std::shared_ptr<Shared> shared = shared_;
  std::function<void(TCP_Channel&)> user_hook = options.on_close;
  options_.on_close = [shared, user_hook](TCP_Channel& channel) {
    if (user_hook)
      user_hook(channel);
    shared->ended(channel);
  };

  stop_ = false;
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  try
  {
    thread_ = std::thread(&TCP_Acceptor::run, this, log->priority_mask(ACE_Log_Msg::THREAD), log->msg_callback());
  }
  catch (const std::system_error& e)
  {
    ACE_ERROR((LM_ERROR, "TCP: failed to start the accept thread, errno=%d.\n", e.code().value()));
    ::close(wake_fd);
    shared_.reset();
    listener_.close();
    errno = e.code().value();
    return -1;
  }
  return 0;
}

void TCP_Acceptor::close(bool close_connections)
{
  if (!shared_)
    return;
  stop_ = true;
  shared_->wake();
  if (thread_.joinable())
    thread_.join();
  listener_.close();

  std::vector<JSON_RPC_Channel_Strong_Ptr> live, finished;
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    shared_->detached = true;
    live.swap(shared_->live);
    finished.swap(shared_->finished);
    ::close(shared_->wake_fd);
    shared_->wake_fd = -1;
  }
  for (const JSON_RPC_Channel_Strong_Ptr& channel : finished)
    TCP_Channel::cast(channel)->close();
  if (close_connections)
    for (const JSON_RPC_Channel_Strong_Ptr& channel : live)
      TCP_Channel::cast(channel)->close();
  // Connections left open keep themselves alive through their read threads.
  shared_.reset();
}

size_t TCP_Acceptor::open_connections() const
{
  std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->live.size();
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

void TCP_Acceptor::run(unsigned long log_mask, ACE_Log_Msg_Callback* log_callback)
{
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  log->msg_callback(log_callback);
  log->priority_mask(log_mask, ACE_Log_Msg::THREAD);
  bool paused = false;
  while (!stop_)
  {
    struct pollfd fds[2] = {{shared_->wake_fd, POLLIN, 0}, {listener_.get_handle(), POLLIN, 0}};
    // After a failed accept (out of descriptors, say) the listener rests
    // for a moment instead of spinning.
    int r = ::poll(fds, paused ? 1 : 2, paused ? 100 : -1);
    if (r < 0)
    {
      if (errno != EINTR)
      {
        ACE_ERROR((LM_ERROR, "TCP: failed to wait for connections, errno=%d, %m.\n", errno));
        paused = true;
      }
      continue;
    }
    if (r == 0)
    {
      paused = false;
      continue;
    }
    if (fds[0].revents)
    {
      uint64_t count;
      if (::read(shared_->wake_fd, &count, sizeof count) < 0 && errno != EAGAIN)
        ACE_ERROR((LM_ERROR, "TCP: failed to read the event descriptor, errno=%d, %m.\n", errno));
      reap();
    }
    if (!stop_ && !paused && (fds[1].revents & POLLIN))
      paused = !accept_all();
  }
  log->msg_callback(nullptr);
}

bool TCP_Acceptor::accept_all()
{
  for (;;)
  {
    ACE_SOCK_Stream stream;
    if (listener_.accept(stream) == -1)
    {
      if (errno == EWOULDBLOCK || errno == EAGAIN)
        return true;
      if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO)
        continue;
      // Out of descriptors, accepting pauses until connections end: one
      // line for the spell, not one for each try.
      bool descriptors = errno == EMFILE || errno == ENFILE;
      if (!descriptors || !out_of_descriptors_)
        ACE_ERROR((LM_ERROR, "TCP: failed to accept on %C, errno=%d, %m%C.\n", ACE_Addr_String(local_addr_).c_str(),
                   errno, descriptors ? "; accepting pauses until connections end" : ""));
      out_of_descriptors_ = descriptors;
      return false;
    }
    out_of_descriptors_ = false;
    if (options_.max_connections && open_connections() >= options_.max_connections)
    {
      ACE_INET_Addr peer;
      stream.get_remote_addr(peer);
      ACE_ERROR((LM_WARNING, "TCP: connection from %C refused: %B open, the most allowed.\n",
                 ACE_Addr_String(peer).c_str(), static_cast<ACE_UINT64>(options_.max_connections)));
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
    if (TCP_Channel::start(channel) == -1)
    {
      std::lock_guard<std::mutex> guard(shared_->mutex);
      shared_->live.erase(std::remove(shared_->live.begin(), shared_->live.end(), channel), shared_->live.end());
    }
  }
}

void TCP_Acceptor::reap()
{
  std::vector<JSON_RPC_Channel_Strong_Ptr> finished;
  {
    std::lock_guard<std::mutex> guard(shared_->mutex);
    finished.swap(shared_->finished);
  }
  for (const JSON_RPC_Channel_Strong_Ptr& channel : finished)
    TCP_Channel::cast(channel)->close();
}
