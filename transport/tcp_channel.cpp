// A JSON-RPC channel over one TCP connection, served by a reactor's I/O
// thread: its life, its reading side and its requests in flight.
#include "transport/tcp_channel.h"
#include "transport/tcp_framing.h"

#include "json_rpc/json_rpc_answering.h"
#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "tessel/utils.h"

#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>
#include <cstring>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{
  typedef std::chrono::steady_clock Clock;

  // After bad input the peer's remaining bytes are read and dropped for a
  // while, so that closing doesn't reset the connection before the error
  // response has reached the peer.
  const std::chrono::milliseconds linger_limit(2000);
  const size_t linger_bytes = 1024 * 1024;

  Clock::duration to_duration(const ACE_Time_Value& t)
  {
    return std::chrono::seconds(t.sec()) + std::chrono::microseconds(t.usec());
  }

  // True for a Unix domain socket, with path set to the socket file's (the
  // peer's, or else the one bound here: a listener's connections have only
  // that).
  bool unix_socket(int fd, std::string& path)
  {
    sockaddr_un a = {};
    socklen_t length = sizeof a;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length) != 0 || a.sun_family != AF_UNIX)
      return false;
    sockaddr_un peer = {};
    socklen_t peer_length = sizeof peer;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_length) == 0 && peer.sun_path[0])
      a = peer;
    path.assign(a.sun_path, ::strnlen(a.sun_path, sizeof a.sun_path));
    return true;
  }

  void nothing_to_dispatch(const std::string& peer)
  {
    ACE_DEBUG((LM_WARNING, "TCP %C: message with nothing to dispatch ignored.\n", peer.c_str()));
  }
}

// The connection whose input this thread feeds to its reader right now,
// and whether a forwarded response it streams has filled its requester's
// queue meanwhile.
thread_local TCP_Channel* TCP_Channel::feeding_ = nullptr;
thread_local bool TCP_Channel::pressed_ = false;

// ---------------------------------------------------------------- life

TCP_Channel::TCP_Channel(ACE_SOCK_Stream& stream, const TCP_Options& options)
  : options_(options), fd_(stream.get_handle()), closing_(false), closed_here_(false), registered_(false),
    own_reactor_(false), loop_(nullptr), input_end_(INPUT_OPEN), framing_failed_(false), dispatching_(0), reading_on_(false), finished_(false), lingered_(0),
    over_since_(), interest_(0), watched_(false), paused_in_flight_(false), paused_forward_(false),
    stopped_reading_(false), shut_when_sent_(false), ended_(false), io_adapter_(io_lock_), output_failed_(false),
    streaming_(false), io_state_(IO_STATE_OK), output_(*this), forward_map_(new (std::nothrow) JSON_RPC_Forward_Map)
{
  std::string path;
  if (unix_socket(fd_, path))
  {
    // A Unix domain peer is on this machine: its addresses read as the
    // loopback one, port 0. It is named by the socket's path and a number,
    // as the registers need a name of its own for each connection.
    static std::atomic<unsigned long> count(0);
    remote_addr_.set(static_cast<unsigned short>(0), INADDR_LOOPBACK);
    local_addr_ = remote_addr_;
    peer_ = "unix:" + path + "#" + std::to_string(++count);
  }
  else
  {
    stream.get_remote_addr(remote_addr_);
    stream.get_local_addr(local_addr_);
    peer_ = ACE_Addr_String(remote_addr_).c_str();
  }
  stream.set_handle(ACE_INVALID_HANDLE);
  ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
  ::fcntl(fd_, F_SETFD, FD_CLOEXEC);
  // Messages go out whole; waiting for more to fill a segment only delays.
  int one = 1;
  ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

TCP_Channel::~TCP_Channel()
{
  if (fd_ != -1)
    ::close(fd_);
  // Only a channel that never started can still have forwards pending.
  if (forward_map_)
    forward_map_->clear();
}

TCP_Channel* TCP_Channel::cast(const JSON_RPC_Channel_Strong_Ptr& channel)
{
  return dynamic_cast<TCP_Channel*>(channel.get());
}

int TCP_Channel::start(JSON_RPC_Channel_Strong_Ptr self, const std::shared_ptr<TCP_Reactor>& reactor, bool own)
{
  TCP_Channel* channel = cast(self);
  if (!channel || !reactor)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, no TCP channel or no reactor:\n%?\n"));
    errno = EINVAL;
    return -1;
  }
  return channel->start_i(self, reactor, own);
}

int TCP_Channel::start_i(JSON_RPC_Channel_Strong_Ptr self, const std::shared_ptr<TCP_Reactor>& reactor, bool own)
{
  self_ = JSON_RPC_Channel_Weak_Ptr(self);
  id(peer_);
  if (options_.on_connect && options_.on_connect(*this) == -1)
  {
    ACE_DEBUG((LM_INFO, "TCP %C: connection refused.\n", peer_.c_str()));
    closing_ = true;
    ::shutdown(fd_, SHUT_RDWR);
    errno = ECONNREFUSED;
    return -1;
  }
  frames_.reset(new (std::nothrow) TCP_Frame_Reader(options_, self_));
  if (!frames_)
  {
    closing_ = true;
    errno = ENOMEM;
    return -1;
  }
  if (options_.register_channel)
  {
    if (JSON_RPC_Channel_Map::instance()->insert(self) == -1)
      ACE_ERROR((LM_ERROR, "TCP %C: failed to register the channel.\n", peer_.c_str()));
    else
      registered_ = true;
  }
  if (options_.use_pool)
    JSON_RPC_Channel_Pool::instance()->insert(self_);
  reactor_ = reactor;
  own_reactor_ = own;
  loop_ = reactor->next_loop();
  keep_ = self;
  loop_->post([this]() {
    int error = 0;
    {
      std::lock_guard<std::mutex> guard(state_lock_);
      interest_ = EPOLLIN | (queue_.empty() ? 0u : static_cast<uint32_t>(EPOLLOUT));
      if (fd_ == -1 || loop_->add(fd_, interest_, this) == -1)
        error = fd_ == -1 ? EBADF : errno;
      else
        watched_ = true;
    }
    if (error)
    {
      errno = error;
      ACE_ERROR((LM_ERROR, "TCP %C: failed to watch the connection, errno=%d, %m.\n", peer_.c_str(), error));
      input_end_ = INPUT_CLOSED;
    }
    settle();
  });
  return 0;
}

void TCP_Channel::close()
{
  closed_here_ = true;
  closing_ = true;
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    if (fd_ != -1)
      ::shutdown(fd_, SHUT_RDWR);
  }
  if (!loop_)
    return;
  JSON_RPC_Channel_Strong_Ptr self(self_);
  if (!self.null())
    loop_->post([self, this]() { settle(); });
  if (TCP_Reactor::current() == loop_)
    return;
  {
    std::unique_lock<std::mutex> lock(state_lock_);
    ended_changed_.wait(lock, [this]() { return ended_; });
  }
  // Nothing of the connection runs any more when this returns.
  if (own_reactor_)
    reactor_->stop();
}

void TCP_Channel::settle()
{
  if (finished_ || dispatching_ > 0)
    return;
  if (!closing_ && input_end_ != INPUT_CLOSED)
    return;
  finished_ = true;
  closing_ = true;
  // Nothing answers the calls that still wait: they fail now.
  waits_.end(end_errno());
  // A forward in progress holds another channel's lock: it goes first.
  frames_->close();
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    // What the peer can still take goes out; the rest is lost with it.
    if (!queue_.empty())
      queue_.drain(fd_);
    if (watched_)
      loop_->remove(fd_, this);
    watched_ = false;
    ::shutdown(fd_, SHUT_RDWR);
  }
  deregister();
  if (options_.on_close)
    options_.on_close(*this);
  std::vector<JSON_RPC_Channel_Weak_Ptr> forwarders;
  {
    // Writers check for the handle under io_lock_, so none can use it once closed.
    ACE_Guard<ACE_Thread_Mutex> io_guard(io_lock_);
    settle_stream();
    std::lock_guard<std::mutex> guard(state_lock_);
    ::close(fd_);
    fd_ = -1;
    queue_.clear();
    in_flight_.clear();
    forwarders.swap(forwarders_);
  }
  wake(forwarders);
  frames_.reset();
  pending_.clear();
  std::string().swap(rest_);
  ACE_DEBUG((LM_DEBUG, "TCP %C: connection closed.\n", peer_.c_str()));
  // The last owner may be this; it goes once the loop is done with it.
  JSON_RPC_Channel_Strong_Ptr last = keep_;
  keep_ = JSON_RPC_Channel_Strong_Ptr();
  loop_->post([last]() {});
  // Last: a closer that waits for it may take everything down at once.
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    ended_ = true;
  }
  ended_changed_.notify_all();
}

void TCP_Channel::deregister()
{
  if (registered_)
    JSON_RPC_Channel_Map::instance()->remove(keep_);
  JSON_RPC_Notify_Manager::instance()->unsubscribe(self_);
  if (options_.use_pool)
    JSON_RPC_Channel_Pool::instance()->remove(self_);
  std::unique_ptr<JSON_RPC_Forward_Map> forwards;
  {
    ACE_Guard<ACE_Thread_Mutex> guard(forward_lock_);
    forwards.swap(forward_map_);
  }
  // Sends to the requesters, so no lock of this channel is held.
  if (forwards)
    forwards->clear();
}

// ---------------------------------------------------------------- events

void TCP_Channel::handle_events(uint32_t events)
{
  if (finished_)
    return;
  if (events & (EPOLLOUT | EPOLLERR | EPOLLHUP))
    drain_output();
  if (events & (EPOLLIN | EPOLLERR | EPOLLHUP))
    read_input(events);
  settle();
}

void TCP_Channel::handle_tick(Clock::time_point now)
{
  if (finished_)
    return;
  if (input_end_ == INPUT_BROKEN)
  {
    if (now >= linger_until_)
      input_end_ = INPUT_CLOSED;
  }
  else if (input_end_ == INPUT_OPEN && frames_->in_message() && now - frames_->started() >= to_duration(options_.read_limit))
  {
    ACE_ERROR((LM_ERROR, "TCP %C: message not complete within %d ms; closing the connection.\n", peer_.c_str(),
               static_cast<int>(options_.read_limit.msec())));
    input_end_ = INPUT_CLOSED;
  }
  size_t stuck = 0;
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    if (over_since_ != Clock::time_point() && now - over_since_ >= to_duration(options_.send_limit))
      stuck = queue_.bytes();
  }
  if (stuck && !closing_)
  {
    ACE_ERROR((LM_ERROR, "TCP %C: the peer left %B bytes unread for more than %d ms; closing the connection.\n",
               peer_.c_str(), static_cast<ACE_UINT64>(stuck), static_cast<int>(options_.send_limit.msec())));
    closing_ = true;
  }
  settle();
}

void TCP_Channel::read_input(uint32_t events)
{
  // Stopped for a drain: only the end of the connection is taken.
  if (reading_stopped())
  {
    if (events & (EPOLLHUP | EPOLLERR))
      input_ended(0, 0);
    return;
  }
  if (!rest_.empty())
  {
    feed_rest();
    after_input();
    if (!rest_.empty())
      return;
  }
  if (input_end_ == INPUT_CLOSED || closing_ || (framing_failed_ && input_end_ == INPUT_OPEN))
    return;
  ssize_t n = receive();
  if (n == nothing_yet)
    return;
  if (input_end_ == INPUT_BROKEN)
  {
    // Lingering after bad input: what comes is dropped.
    lingered_ += n > 0 ? static_cast<size_t>(n) : 0;
    if (n <= 0 || lingered_ >= linger_bytes)
      input_end_ = INPUT_CLOSED;
    return;
  }
  if (n <= 0)
  {
    input_ended(n, errno);
    return;
  }
  feed(loop_->buffer(), static_cast<size_t>(n));
  after_input();
}

ssize_t TCP_Channel::receive()
{
  ssize_t n = ::recv(fd_, loop_->buffer(), TCP_Reactor::Loop::buffer_size, MSG_DONTWAIT);
  return n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) ? nothing_yet : n;
}

void TCP_Channel::input_ended(ssize_t n, int error)
{
  if (n < 0 && error != ECONNRESET && !closing_)
  {
    errno = error;
    ACE_ERROR((LM_ERROR, "TCP %C: failed to read, errno=%d, %m; closing the connection.\n", peer_.c_str(), error));
  }
  else if (n == 0 && frames_->in_message() && !closing_)
    ACE_DEBUG((LM_WARNING, "TCP %C: connection closed in the middle of a message.\n", peer_.c_str()));
  input_end_ = INPUT_CLOSED;
}

bool TCP_Channel::feed(const char* data, size_t length)
{
  TCP_Channel* outer = feeding_;
  feeding_ = this;
  pressed_ = false;
  size_t taken = length;
  int f = frames_->feed(data, length, [this](JSON_RPC_Reader& reader) { return take(reader); }, &taken);
  feeding_ = outer;
  if (f == 1 && !closing_ && taken < length)
    rest_.append(data + taken, length - taken);
  if (f == -1)
    framing_failed_ = true;
  if (pressed_)
  {
    // A requester's queue is full of what this connection forwards: it
    // reads no more until that queue has drained (wake()).
    pressed_ = false;
    std::lock_guard<std::mutex> guard(state_lock_);
    paused_forward_ = true;
    update_interest();
  }
  return input_end_ == INPUT_OPEN && !framing_failed_;
}

void TCP_Channel::after_input()
{
  dispatch_pending();
  // What came before the bad bytes is answered first.
  if (framing_failed_ && input_end_ == INPUT_OPEN && dispatching_ == 0)
    broken_input();
}

void TCP_Channel::feed_rest()
{
  std::string data;
  data.swap(rest_);
  feed(data.data(), data.size());
}

bool TCP_Channel::take(JSON_RPC_Reader& reader)
{
  JSON_RPC_Object_Ptr object = reader.object();
  if (!object.get())
  {
    if (reader.state() != JSON_RPC_Reader::STATE_FORWARDING)
      nothing_to_dispatch(peer_);
    return !closing_;
  }
  if (is_response(*object))
  {
    // Passed back at once: the next message may start a forward that
    // holds the same requester's lock.
    if (options_.forward_responses && pass_back_response(*this, object))
      return !closing_;
    // A handler reading on for its call: the response is its answer.
    if (reading_on_)
    {
      dispatch_answering(self_, object);
      return !closing_;
    }
  }
  pending_.push_back(object);
  if (object->type == JSON_RPC_Object::TYPE_REQUEST)
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    in_flight_.push_back(object->id);
    if (options_.max_requests_in_flight && in_flight_.size() >= options_.max_requests_in_flight)
    {
      paused_in_flight_ = true;
      update_interest();
      return false;
    }
  }
  return !closing_;
}

void TCP_Channel::dispatch_pending()
{
  if (dispatching_ > 0)
    return;
  ++dispatching_;
  // Handlers may add to pending_ while they run (read_on), so the objects
  // are taken out first.
  std::vector<JSON_RPC_Object_Ptr> batch;
  while (!pending_.empty() && !closing_)
  {
    batch.swap(pending_);
    for (const JSON_RPC_Object_Ptr& object : batch)
      if (!closing_)
        dispatch_answering(self_, object);
    batch.clear();
  }
  --dispatching_;
}

void TCP_Channel::broken_input()
{
  ACE_ERROR((LM_ERROR, "TCP %C: %C; closing the connection.\n", peer_.c_str(), frames_->error().c_str()));
  frames_->close();
  input_end_ = INPUT_BROKEN;
  if (closing_)
  {
    input_end_ = INPUT_CLOSED;
    return;
  }
  send_error(-32700, json_spirit::Value::null, nullptr, json_spirit::Value::null);
  {
    ACE_Guard<ACE_Thread_Mutex> guard(io_lock_);
    output_failed_ = true;
  }
  std::lock_guard<std::mutex> guard(state_lock_);
  if (queue_.empty())
    ::shutdown(fd_, SHUT_WR);
  else
    shut_when_sent_ = true;
  linger_until_ = Clock::now() + std::min<Clock::duration>(linger_limit, to_duration(options_.read_limit));
  lingered_ = 0;
}

void TCP_Channel::resume_input()
{
  if (finished_ || reading_stopped())
    return;
  feed_rest();
  after_input();
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    update_interest();
  }
  settle();
}

bool TCP_Channel::wait_response(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline)
{
  if (!waits_.enter(wait))
    return false;
  bool done;
  if (!wait.done() && loop_ && TCP_Reactor::current() == loop_)
    done = read_on(wait, deadline);
  else
    done = wait.wait(deadline);
  int error = errno;
  waits_.leave(wait);
  errno = error;
  return done;
}

bool TCP_Channel::read_on(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline)
{
  // Nobody else reads this connection while its thread is here: this
  // thread reads for the caller, dispatching the responses it meets.
  bool outer = reading_on_;
  reading_on_ = true;
  if (!rest_.empty())
    feed_rest();
  while (!wait.done() && rest_.empty() && input_end_ == INPUT_OPEN && !framing_failed_ && !closing_)
  {
    int wait_ms = -1;
    if (deadline)
    {
      ACE_Time_Value left = *deadline - ACE_OS::gettimeofday();
      if (left <= ACE_Time_Value::zero)
        break;
      wait_ms = static_cast<int>(std::min<long long>(left.sec() * 1000LL + (left.usec() + 999) / 1000, INT_MAX));
    }
    struct pollfd p = {fd_, POLLIN, 0};
    int r = ::poll(&p, 1, wait_ms);
    if (r <= 0)
      continue;
    ssize_t n = receive();
    if (n == nothing_yet)
      continue;
    if (n <= 0)
      input_ended(n, errno);
    else
      feed(loop_->buffer(), static_cast<size_t>(n));
  }
  reading_on_ = outer;
  // What came for this connection's handlers waits until the loop has it
  // (at once if one of them is on the stack here).
  if (dispatching_ == 0 && (!pending_.empty() || input_end_ != INPUT_OPEN || framing_failed_))
  {
    JSON_RPC_Channel_Strong_Ptr self(keep_);
    loop_->post([self, this]() {
      after_input();
      settle();
    });
  }
  if (wait.done())
    return wait.wait(deadline);
  if (input_end_ != INPUT_OPEN || framing_failed_ || closing_)
    errno = end_errno();
  else
    errno = ETIME;
  return false;
}

// ---------------------------------------------------------------- in flight

bool TCP_Channel::answerable(const json_spirit::Value& id) const
{
  std::lock_guard<std::mutex> guard(state_lock_);
  return !stopped_reading_ || std::find(in_flight_.begin(), in_flight_.end(), id) != in_flight_.end();
}

void TCP_Channel::forwarding(const json_spirit::Value& id)
{
  std::lock_guard<std::mutex> guard(state_lock_);
  forwarded_.push_back(id);
}

void TCP_Channel::answered(const json_spirit::Value& id, bool whole)
{
  bool resume = false;
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    // A forwarded response passed back whole leaves its forward's place.
    if (whole)
    {
      auto f = std::find(forwarded_.begin(), forwarded_.end(), id);
      if (f != forwarded_.end())
        forwarded_.erase(f);
    }
    auto i = std::find(in_flight_.begin(), in_flight_.end(), id);
    if (i == in_flight_.end())
      return;
    in_flight_.erase(i);
    if (paused_in_flight_ && in_flight_.size() < options_.max_requests_in_flight && fd_ != -1)
    {
      paused_in_flight_ = false;
      resume = true;
    }
  }
  if (!resume)
    return;
  JSON_RPC_Channel_Strong_Ptr self(self_);
  if (!self.null())
    loop_->post([self, this]() { resume_input(); });
}

void TCP_Channel::stream_answered()
{
  json_spirit::Value id;
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    if (forwarded_.empty())
      return;
    // Streams go out one at a time, in the order their forwards were found.
    id = forwarded_.front();
    forwarded_.erase(forwarded_.begin());
  }
  answered(id, false);
}

size_t TCP_Channel::requests_in_flight() const
{
  std::lock_guard<std::mutex> guard(state_lock_);
  return in_flight_.size();
}

void TCP_Channel::answer_in_flight(int code, const char* message)
{
  std::vector<json_spirit::Value> ids;
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    // Taken out first: an answer that comes later is not sent as well.
    ids.swap(in_flight_);
  }
  for (const json_spirit::Value& id : ids)
  {
    JSON_RPC_Response_Error* error = new (std::nothrow) JSON_RPC_Response_Error;
    if (!error)
      return;
    error->code = code;
    error->message = message;
    error->id = id;
    JSON_RPC_Object_Ptr object(error);
    write_object(*object);
  }
}

bool TCP_Channel::reading_stopped() const
{
  std::lock_guard<std::mutex> guard(state_lock_);
  return stopped_reading_;
}

void TCP_Channel::stop_reading()
{
  std::lock_guard<std::mutex> guard(state_lock_);
  stopped_reading_ = true;
  update_interest();
}

size_t TCP_Channel::queued_bytes() const
{
  std::lock_guard<std::mutex> guard(state_lock_);
  return queue_.bytes();
}
// ---------------------------------------------------------------- addresses

namespace
{
  int copy_addr(const ACE_INET_Addr& from, ACE_Addr& to)
  {
    ACE_INET_Addr* inet = dynamic_cast<ACE_INET_Addr*>(&to);
    if (!inet)
    {
      errno = EAFNOSUPPORT;
      return -1;
    }
    *inet = from;
    return 0;
  }
}

int TCP_Channel::get_local_addr(ACE_Addr& addr) const { return copy_addr(local_addr_, addr); }
int TCP_Channel::get_remote_addr(ACE_Addr& addr) const { return copy_addr(remote_addr_, addr); }
int TCP_Channel::get_original_addr(ACE_Addr& addr) const { return copy_addr(remote_addr_, addr); }
