#include "transport/tcp_channel.h"
#include "transport/tcp_framing.h"

#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_answering.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_spirit/json_spirit_writer.h"
#include "tessel/spin_wait.h"
#include "tessel/utils.h"

#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_fcntl.h>
#include <ace/OS_NS_sys_time.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <climits>
#include <cstdio>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <linux/futex.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <system_error>

namespace
{
  const size_t read_chunk = 64 * 1024;
  const size_t write_chunk = 64 * 1024;
  // A buffer that grew for a large message is given back after it.
  const size_t keep_capacity = 1024 * 1024;
  // After bad input the peer's remaining bytes are read and dropped for a
  // while, so that closing doesn't reset the connection before the error
  // response has reached the peer.
  const std::chrono::milliseconds linger_limit(2000);
  const size_t linger_bytes = 1024 * 1024;

  std::chrono::steady_clock::duration to_duration(const ACE_Time_Value& t)
  {
    return std::chrono::seconds(t.sec()) + std::chrono::microseconds(t.usec());
  }

  // How long the read thread stands aside for callers at most.
  const long park_limit_ns = 1000 * 1000;

  long long now_ns()
  {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
  }

  // The channel that a thread reads, while it reads one: the handlers it
  // runs meanwhile must not start reading another one.
  thread_local const TCP_Channel* reading = nullptr;

  struct Reading_Mark
  {
    explicit Reading_Mark(const TCP_Channel* channel) : before_(reading) { reading = channel; }
    ~Reading_Mark() { reading = before_; }
    const TCP_Channel* before_;
  };

  long futex(std::atomic<int>* word, int op, int value, const struct timespec* limit)
  {
    return ::syscall(SYS_futex, word, op, value, limit, nullptr, 0);
  }

  bool is_response(const JSON_RPC_Object& object)
  {
    return object.type == JSON_RPC_Object::TYPE_RESPONSE || object.type == JSON_RPC_Object::TYPE_RESPONSE_ERROR;
  }

  void nothing_to_dispatch(const std::string& peer)
  {
    ACE_DEBUG((LM_WARNING, "TCP %C: message with nothing to dispatch ignored.\n", peer.c_str()));
  }

  // Milliseconds left until deadline, rounded up; 0 when it has passed.
  int ms_until(std::chrono::steady_clock::time_point deadline)
  {
    auto left = deadline - std::chrono::steady_clock::now();
    if (left <= left.zero())
      return 0;
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(left + std::chrono::microseconds(999)).count();
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
  }

  // The request written again under another id, straight from the object.
  class Forward_Generator : public JSON_RPC_Object_Generator
  {
  public:
    Forward_Generator(const JSON_RPC_Request& request, int forward_id)
      : request_(request), forward_id_(forward_id)
    {
    }

    bool generate_i(YAJL_Gen& gen) override
    {
      gen << YAJL_Gen::Str("id", 2) << forward_id_ << YAJL_Gen::Str("method", 6) << YAJL_Gen::Str(request_.method);
      if (!request_.params.is_null())
      {
        gen << YAJL_Gen::Str("params", 6);
        if (yajl_gen_value(gen.get(), request_.params) != 0)
          return false;
      }
      return gen.ok();
    }

  private:
    const JSON_RPC_Request& request_;
    int forward_id_;
  };
}

// One thread looks after all read threads that stand aside, and calls a
// read thread back when nobody has read its channel for park_limit. Each
// waking itself on a timer instead costs a context switch per connection
// every park_limit, which adds up with many busy connections.
class Aside_Watch
{
public:
  static Aside_Watch& instance()
  {
    // Never destroyed: read threads may still stand aside while the
    // process exits.
    static Aside_Watch* watch = new Aside_Watch;
    return *watch;
  }

  /// False when no watching thread could be started: the read thread
  /// then wakes on its own timer.
  bool enter(TCP_Channel* channel)
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (!started_)
    {
      try
      {
        std::thread(&Aside_Watch::run, this).detach();
      }
      catch (const std::system_error&)
      {
        return false;
      }
      started_ = true;
    }
    aside_.push_back(channel);
    if (aside_.size() == 1)
      wake_.notify_one();
    return true;
  }

  void leave(TCP_Channel* channel)
  {
    std::lock_guard<std::mutex> guard(lock_);
    aside_.erase(std::find(aside_.begin(), aside_.end(), channel));
  }

private:
  Aside_Watch() : started_(false) {}

  void run()
  {
    pthread_setname_np(pthread_self(), "tcp-aside");
    std::unique_lock<std::mutex> lock(lock_);
    for (;;)
    {
      if (aside_.empty())
      {
        wake_.wait(lock);
        continue;
      }
      wake_.wait_for(lock, std::chrono::nanoseconds(park_limit_ns));
      long long now = now_ns();
      for (TCP_Channel* channel : aside_)
        channel->look_aside(now);
    }
  }

  std::mutex lock_;
  std::condition_variable wake_;
  std::vector<TCP_Channel*> aside_;
  bool started_;
};

// ---------------------------------------------------------------- output

TCP_Channel::Output::Output(TCP_Channel& channel) : channel_(channel), sent_(0), error_(0), discard_(false) {}

void TCP_Channel::Output::begin(bool discard)
{
  buffer_.clear();
  sent_ = 0;
  error_ = 0;
  discard_ = discard;
}

void TCP_Channel::Output::print(char const* data, unsigned long long length)
{
  if (discard_ || error_)
    return;
  if (channel_.options_.framing == TCP_Options::FRAMING_NDJSON && buffer_.size() + length > write_chunk)
  {
    if (!flush())
      return;
    if (length >= write_chunk)
    {
      write(data, static_cast<size_t>(length));
      return;
    }
  }
  buffer_.append(data, static_cast<size_t>(length));
}

int TCP_Channel::Output::write(char const* data, size_t length)
{
  struct iovec iov = {const_cast<char*>(data), length};
  error_ = channel_.write_all(&iov, 1);
  if (!error_)
    sent_ += length;
  return error_;
}

bool TCP_Channel::Output::flush()
{
  if (!buffer_.empty() && !write(buffer_.data(), buffer_.size()))
    buffer_.clear();
  return !error_;
}

int TCP_Channel::Output::end()
{
  if (discard_)
    return EPIPE;
  if (!error_)
  {
    if (channel_.options_.framing == TCP_Options::FRAMING_NDJSON)
    {
      buffer_.push_back('\n');
      flush();
    }
    else
    {
      char head[48] = "Content-Length: ";
      char* end = std::to_chars(head + 16, head + sizeof head - 4, buffer_.size()).ptr;
      std::memcpy(end, "\r\n\r\n", 4);
      size_t n = static_cast<size_t>(end + 4 - head);
      struct iovec iov[2] = {{head, n}, {&buffer_[0], buffer_.size()}};
      error_ = channel_.write_all(iov, 2);
      if (!error_)
        sent_ += n + buffer_.size();
    }
  }
  drop();
  return error_;
}

void TCP_Channel::Output::drop()
{
  buffer_.clear();
  if (buffer_.capacity() > keep_capacity)
    std::string().swap(buffer_);
}

// ---------------------------------------------------------------- life

TCP_Channel::TCP_Channel(ACE_SOCK_Stream& stream, const TCP_Options& options)
  : options_(options), closing_(false), closed_here_(false), registered_(false), io_adapter_(io_lock_),
    output_failed_(false), streaming_(false), io_state_(IO_STATE_OK), output_(*this), forward_map_(new (std::nothrow) JSON_RPC_Forward_Map),
    token_(true), call_(0), lent_at_(0), frames_(nullptr), lent_end_(LENT_READING), lent_n_(0), lent_errno_(0)
{
  stream_.set_handle(stream.get_handle());
  stream.set_handle(ACE_INVALID_HANDLE);
  stream_.get_remote_addr(remote_addr_);
  stream_.get_local_addr(local_addr_);
  peer_ = ACE_Addr_String(remote_addr_).c_str();
  // Reads block (with SO_RCVTIMEO for the read limit); writes never do
  // (MSG_DONTWAIT) and wait in poll for the send limit.
  stream_.disable(ACE_NONBLOCK);
  ACE_OS::fcntl(stream_.get_handle(), F_SETFD, FD_CLOEXEC);
  // Messages go out whole; waiting for more to fill a segment only delays.
  int one = 1;
  stream_.set_option(IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

TCP_Channel::~TCP_Channel()
{
  {
    std::lock_guard<std::mutex> guard(thread_mutex_);
    if (thread_.joinable())
    {
      // The read thread let go of its pointer last; it returns right after.
      if (thread_.get_id() == std::this_thread::get_id())
        thread_.detach();
      else
        thread_.join();
    }
  }
  stream_.close();
  // Only a channel that never started can still have forwards pending.
  if (forward_map_)
    forward_map_->clear();
}

TCP_Channel* TCP_Channel::cast(const JSON_RPC_Channel_Strong_Ptr& channel)
{
  return dynamic_cast<TCP_Channel*>(channel.get());
}

int TCP_Channel::start(JSON_RPC_Channel_Strong_Ptr self)
{
  TCP_Channel* channel = cast(self);
  if (!channel)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, channel is not a TCP channel:\n%?\n"));
    errno = EINVAL;
    return -1;
  }
  return channel->start_i(self);
}

int TCP_Channel::start_i(JSON_RPC_Channel_Strong_Ptr self)
{
  self_ = JSON_RPC_Channel_Weak_Ptr(self);
  id(peer_);
  if (options_.on_connect && options_.on_connect(*this) == -1)
  {
    ACE_DEBUG((LM_INFO, "TCP %C: connection refused.\n", peer_.c_str()));
    closing_ = true;
    shutdown(SHUT_RDWR);
    errno = ECONNREFUSED;
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

  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  // Handed over as a pointer, so that run() can drop the reference itself.
  std::unique_ptr<JSON_RPC_Channel_Strong_Ptr> keep(new JSON_RPC_Channel_Strong_Ptr(self));
  std::lock_guard<std::mutex> guard(start_mutex_);
  try
  {
    thread_ = std::thread(&TCP_Channel::run, this, keep.get(), log->msg_callback(),
                          log->priority_mask(ACE_Log_Msg::THREAD));
    keep.release();
  }
  catch (const std::system_error& e)
  {
    errno = e.code().value();
    ACE_ERROR((LM_ERROR, "TCP %C: failed to start the read thread, errno=%d, %m.\n", peer_.c_str(), errno));
    closing_ = true;
    shutdown(SHUT_RDWR);
    deregister(self);
    errno = e.code().value();
    return -1;
  }
  return 0;
}

void TCP_Channel::close()
{
  closed_here_ = true;
  closing_ = true;
  shutdown(SHUT_RDWR);
  call_reader();
  {
    // thread_ is set once start() has let go of this.
    std::lock_guard<std::mutex> started(start_mutex_);
  }
  std::lock_guard<std::mutex> guard(thread_mutex_);
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id())
    thread_.join();
}

void TCP_Channel::shutdown(int how)
{
  std::lock_guard<std::mutex> guard(handle_lock_);
  if (stream_.get_handle() != ACE_INVALID_HANDLE)
    ::shutdown(stream_.get_handle(), how);
}

void TCP_Channel::run(JSON_RPC_Channel_Strong_Ptr* keep, ACE_Log_Msg_Callback* log_callback, unsigned long log_mask)
{
  {
    std::lock_guard<std::mutex> started(start_mutex_);
  }
  std::unique_ptr<JSON_RPC_Channel_Strong_Ptr> self(keep);
  ACE_Log_Msg* log = ACE_Log_Msg::instance();
  log->msg_callback(log_callback);
  log->priority_mask(log_mask, ACE_Log_Msg::THREAD);
  {
    TCP_Frame_Reader frames(options_, self_);
    read_loop(frames);
    closing_ = true;
    // Nothing answers the calls that still wait: they fail now.
    waits_.end(end_errno());
    // A forward in progress holds another channel's lock: it goes first.
    frames.close();
  }
  shutdown(SHUT_RDWR);
  deregister(*self);
  if (options_.on_close)
    options_.on_close(*this);
  {
    // Writers check the handle under io_lock_, so none can use it once closed.
    ACE_Guard<ACE_Thread_Mutex> guard(io_lock_);
    settle_stream();
    std::lock_guard<std::mutex> handle_guard(handle_lock_);
    stream_.close();
  }
  ACE_DEBUG((LM_DEBUG, "TCP %C: connection closed.\n", peer_.c_str()));
  log->msg_callback(nullptr);
  // May be the last owner: nothing of this object is touched afterwards.
  self.reset();
}

void TCP_Channel::deregister(JSON_RPC_Channel_Strong_Ptr& self)
{
  if (registered_)
    JSON_RPC_Channel_Map::instance()->remove(self);
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

// ---------------------------------------------------------------- reading

void TCP_Channel::read_loop(TCP_Frame_Reader& frames)
{
  bool answered = false;
  // What a piece brings is dispatched once the piece is read, in order: a
  // handler that calls back over this channel then finds the reader free
  // to read on for it (wait_response).
  TCP_Frame_Reader::Handler deliver = [this, &answered](JSON_RPC_Reader& reader) {
    JSON_RPC_Object_Ptr object = reader.object();
    if (object.get())
    {
      answered = answered || is_response(*object);
      // Passed back at once: the next message may start a forward that
      // holds the same requester's lock.
      if (!options_.forward_responses || !pass_back(object))
        handed_.push_back(object);
    }
    else if (reader.state() != JSON_RPC_Reader::STATE_FORWARDING)
      nothing_to_dispatch(peer_);
    return !closing_;
  };
  read_buffer_.reset(new char[read_chunk]);
  frames_ = &frames;
  Reading_Mark mark(this);
  const bool lending = !options_.forward_responses;
  const Clock::duration limit = to_duration(options_.read_limit);
  // Reads block in recv itself, one call per piece; the read limit rides
  // on SO_RCVTIMEO while a message is incomplete (0: no limit in force).
  int timeout_ms = 0;
  // Every way out of the loop keeps the token: no caller reads any more.
  bool held = true;
  bool watched = false;
  for (;;)
  {
    if (!held)
    {
      // While callers come back to read for themselves, it stays aside.
      if (!watched)
        watched = Aside_Watch::instance().enter(this);
      if (!stand_aside(!watched) && now_ns() - lent_at_.load() < park_limit_ns)
        continue;
      if (token_.exchange(true))
        continue;
      held = true;
      if (watched)
        Aside_Watch::instance().leave(this);
      watched = false;
    }
    // What a caller read and left here, in the order it came.
    if (!dispatch_handed())
      return;
    ssize_t n;
    int error;
    if (lent_end_ == LENT_FAILED)
    {
      protocol_error(frames);
      return;
    }
    if (lent_end_ == LENT_STOPPED)
      return;
    if (lent_end_ == LENT_RECV)
    {
      n = lent_n_;
      error = lent_errno_;
      lent_end_ = LENT_READING;
    }
    else
    {
      int wait = 0;
      if (frames.in_message())
      {
        wait = ms_until(frames.started() + limit);
        if (wait == 0)
        {
          ACE_ERROR((LM_ERROR, "TCP %C: message not complete within %d ms; closing the connection.\n", peer_.c_str(),
                     static_cast<int>(options_.read_limit.msec())));
          return;
        }
      }
      if (wait != timeout_ms)
      {
        struct timeval tv = {wait / 1000, (wait % 1000) * 1000};
        if (::setsockopt(stream_.get_handle(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == -1)
        {
          ACE_ERROR((LM_ERROR, "TCP %C: failed to set the read limit, errno=%d, %m; closing the connection.\n",
                     peer_.c_str(), errno));
          return;
        }
        timeout_ms = wait;
      }
      n = ::recv(stream_.get_handle(), read_buffer_.get(), read_chunk, 0);
      error = errno;
    }
    if (n < 0 && (error == EINTR || error == EAGAIN || error == EWOULDBLOCK))
      continue;
    if (read_ended(n, error, frames))
      return;
    answered = false;
    int f = frames.feed(read_buffer_.get(), static_cast<size_t>(n), deliver);
    if (!dispatch_handed())
      return;
    if (f == -1)
    {
      protocol_error(frames);
      return;
    }
    if (f == 1 || closing_)
      return;
    // A caller that was just answered may soon wait again: it reads for
    // itself then, unless others wait already.
    if (answered && lending)
    {
      lent_at_.store(now_ns());
      token_.store(false);
      held = followers_waiting() && !token_.exchange(true);
    }
  }
}

bool TCP_Channel::dispatch_handed()
{
  // Handlers may add to handed_ while they run (wait_response), so the
  // objects are taken out first; swapping keeps both vectors' room.
  while (!handed_.empty() && !closing_)
  {
    dispatching_.swap(handed_);
    for (const JSON_RPC_Object_Ptr& object : dispatching_)
      dispatch_answering(self_, object);
    dispatching_.clear();
  }
  return !closing_;
}

bool TCP_Channel::read_ended(ssize_t n, int error, const TCP_Frame_Reader& frames)
{
  if (n < 0 && error != ECONNRESET)
  {
    if (!closing_)
    {
      errno = error;
      ACE_ERROR((LM_ERROR, "TCP %C: failed to read, errno=%d, %m; closing the connection.\n", peer_.c_str(), error));
    }
    return true;
  }
  if (n <= 0)
  {
    if (frames.in_message() && !closing_)
      ACE_DEBUG((LM_WARNING, "TCP %C: connection closed in the middle of a message.\n", peer_.c_str()));
    return true;
  }
  return false;
}

void TCP_Channel::look_aside(long long now)
{
  if (!token_.load() && now - lent_at_.load() >= park_limit_ns)
    call_reader();
}

bool TCP_Channel::stand_aside(bool timed)
{
  // Back at once when called. Untimed, the watch calls it back when nobody
  // reads any more, so that a request or notification that comes then
  // waits little; timed, it looks for itself after park_limit.
  if (call_.exchange(0) == 1)
    return true;
  struct timespec limit = {0, park_limit_ns};
  futex(&call_, FUTEX_WAIT_PRIVATE, 0, timed ? &limit : nullptr);
  return call_.exchange(0) == 1;
}

void TCP_Channel::call_reader()
{
  if (call_.exchange(1) == 0)
    futex(&call_, FUTEX_WAKE_PRIVATE, 1, nullptr);
}

bool TCP_Channel::wait_response(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline)
{
  if (!waits_.enter(wait))
    return false;
  bool done = wait_entered(wait, deadline);
  int error = errno;
  waits_.leave(wait);
  errno = error;
  return done;
}

bool TCP_Channel::wait_entered(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline)
{
  if (wait.done())
    return wait.wait(deadline);
  // A handler on this channel's own read thread, calling its peer back:
  // nobody else reads the channel, so this thread reads on for it.
  if (reading == this)
    return read_on(wait, deadline);
  if (options_.forward_responses || reading)
    return wait.wait(deadline);
  if (!token_.exchange(true))
  {
    if (lend(wait, deadline))
      return true;
    follow(&wait, true);
  }
  else
  {
    // Entered before the second look at the token, and whoever lets go of
    // it looks for followers afterwards: so nobody sleeps while nobody
    // reads.
    follow(&wait, true);
    if (!wait.done() && !token_.exchange(true))
    {
      follow(&wait, false);
      if (lend(wait, deadline))
        return true;
      follow(&wait, true);
    }
  }
  bool done = wait.wait(deadline);
  follow(&wait, false);
  return done;
}

// Reads for wait with the token, then lets go of it: true when the response
// is in. Otherwise the deadline has passed or the read thread is called.
bool TCP_Channel::lend(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline)
{
  bool hand_over = read_lent(wait, deadline);
  lent_at_.store(now_ns());
  token_.store(false);
  if (hand_over || followers_waiting())
    call_reader();
  return wait.done();
}

void TCP_Channel::follow(JSON_RPC_Response_Wait* wait, bool add)
{
  std::lock_guard<std::mutex> guard(followers_lock_);
  if (add)
    followers_.push_back(wait);
  else
    followers_.erase(std::find(followers_.begin(), followers_.end(), wait));
}

bool TCP_Channel::followers_waiting()
{
  std::lock_guard<std::mutex> guard(followers_lock_);
  return std::any_of(followers_.begin(), followers_.end(), [](JSON_RPC_Response_Wait* w) { return !w->done(); });
}

bool TCP_Channel::read_on(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline)
{
  read_lent(wait, deadline, true);
  if (wait.done())
    return wait.wait(deadline);
  if (deadline && *deadline <= ACE_OS::gettimeofday())
    errno = ETIME;
  else // the connection ends: the read loop sees to it once the handler returns
    errno = end_errno();
  return false;
}

bool TCP_Channel::read_lent(JSON_RPC_Response_Wait& wait, const ACE_Time_Value* deadline, bool nested)
{
  // What an earlier caller left for the read thread goes first: a response
  // read after it must not overtake it. The read thread itself, reading on
  // for one of those, lets its own response by.
  if ((!nested && !handed_.empty()) || lent_end_ != LENT_READING)
    return true;
  bool handing = false;
  TCP_Frame_Reader::Handler deliver = [this, &handing, nested](JSON_RPC_Reader& reader) {
    JSON_RPC_Object_Ptr object = reader.object();
    if (!object.get())
    {
      if (reader.state() != JSON_RPC_Reader::STATE_FORWARDING)
        nothing_to_dispatch(peer_);
    }
    else if ((handing && !nested) || !is_response(*object))
    {
      // Handlers of requests run on the read thread; what follows them
      // waits its turn behind them.
      handed_.push_back(object);
      handing = true;
    }
    else if (!options_.forward_responses || !pass_back(object))
      dispatch_answering(self_, object);
    return !closing_;
  };
  Reading_Mark mark(this);
  Spin_Wait spin;
  const Clock::duration limit = to_duration(options_.read_limit);
  while (!wait.done())
  {
    if (closing_)
      return true;
    int wait_ms = -1;
    if (deadline)
    {
      ACE_Time_Value left = *deadline - ACE_OS::gettimeofday();
      if (left <= ACE_Time_Value::zero)
        return false;
      wait_ms = static_cast<int>(std::min<long long>(left.sec() * 1000LL + (left.usec() + 999) / 1000, INT_MAX));
    }
    if (frames_->in_message())
    {
      // The read thread knows what to do when a peer stalls.
      int left = ms_until(frames_->started() + limit);
      if (left == 0)
        return true;
      wait_ms = wait_ms < 0 ? left : std::min(wait_ms, left);
    }
    ssize_t n;
    if (!spin.recv(stream_.get_handle(), read_buffer_.get(), read_chunk, n,
                   std::chrono::milliseconds(wait_ms < 0 ? INT_MAX : wait_ms)))
    {
      struct pollfd p = {stream_.get_handle(), POLLIN, 0};
      int r = ::poll(&p, 1, wait_ms);
      if (r <= 0)
        continue;
      n = ::recv(stream_.get_handle(), read_buffer_.get(), read_chunk, MSG_DONTWAIT);
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
      continue;
    if (n <= 0)
    {
      lent_end_ = LENT_RECV;
      lent_n_ = n;
      lent_errno_ = errno;
      return true;
    }
    int f = frames_->feed(read_buffer_.get(), static_cast<size_t>(n), deliver);
    if (f != 0)
    {
      lent_end_ = f == -1 ? LENT_FAILED : LENT_STOPPED;
      return true;
    }
    if (handing && !nested)
      return true;
  }
  return false;
}

void TCP_Channel::protocol_error(TCP_Frame_Reader& frames)
{
  ACE_ERROR((LM_ERROR, "TCP %C: %C; closing the connection.\n", peer_.c_str(), frames.error().c_str()));
  frames.close();
  if (closing_)
    return;
  send_error(-32700, json_spirit::Value::null, nullptr, json_spirit::Value::null);
  {
    ACE_Guard<ACE_Thread_Mutex> guard(io_lock_);
    output_failed_ = true;
    shutdown(SHUT_WR);
  }
  linger();
}

void TCP_Channel::linger()
{
  Clock::time_point deadline = Clock::now() + std::min<Clock::duration>(linger_limit, to_duration(options_.read_limit));
  char buffer[4096];
  size_t dropped = 0;
  while (dropped < linger_bytes && !closing_)
  {
    int wait = ms_until(deadline);
    if (wait == 0)
      return;
    struct pollfd p = {stream_.get_handle(), POLLIN, 0};
    int r = ::poll(&p, 1, wait);
    if (r < 0 && errno == EINTR)
      continue;
    if (r <= 0)
      return;
    ssize_t n = ::recv(stream_.get_handle(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK))
      continue;
    if (n <= 0)
      return;
    dropped += static_cast<size_t>(n);
  }
}

// ---------------------------------------------------------------- writing

int TCP_Channel::write_all(struct iovec* iov, int count)
{
  // The limit is on one write, not on a message: a forwarded response is
  // written while it is read, as slowly as it comes in.
  Clock::time_point deadline = Clock::now() + to_duration(options_.send_limit);
  ACE_HANDLE handle = stream_.get_handle();
  while (count > 0)
  {
    struct msghdr msg = {};
    msg.msg_iov = iov;
    msg.msg_iovlen = count;
    ssize_t n = ::sendmsg(handle, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0)
    {
      size_t done = static_cast<size_t>(n);
      while (count > 0 && done >= iov->iov_len)
      {
        done -= iov->iov_len;
        ++iov;
        --count;
      }
      if (count > 0)
      {
        iov->iov_base = static_cast<char*>(iov->iov_base) + done;
        iov->iov_len -= done;
      }
      continue;
    }
    if (errno == EINTR)
      continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK)
      return errno;
    int wait = ms_until(deadline);
    if (wait == 0)
      return ETIMEDOUT;
    struct pollfd p = {handle, POLLOUT, 0};
    if (::poll(&p, 1, wait) < 0 && errno != EINTR)
      return errno;
  }
  return 0;
}

bool TCP_Channel::writable() const
{
  return !closing_ && !output_failed_ && stream_.get_handle() != ACE_INVALID_HANDLE;
}

void TCP_Channel::fail_output(int error)
{
  if (output_failed_)
    return;
  output_failed_ = true;
  if (!closing_)
  {
    errno = error;
    ACE_ERROR((LM_ERROR, "TCP %C: failed to write a message, errno=%d, %m; closing the connection.\n", peer_.c_str(),
               error));
  }
  // The read thread sees the end and deregisters the channel.
  shutdown(SHUT_RDWR);
}

void TCP_Channel::settle_stream()
{
  if (!streaming_)
    return;
  streaming_ = false;
  writer_.close();
  if (output_.sent_some())
    fail_output(EPROTO);
  else
    output_.drop();
}

template <class Generate>
int TCP_Channel::write_message(Generate generate)
{
  settle_stream();
  if (!writable())
  {
    errno = EPIPE;
    return -1;
  }
  output_.begin(false);
  if (!generate(output_))
  {
    // Half a message on the wire can't be taken back.
    if (output_.sent_some())
      fail_output(EPROTO);
    else
      output_.drop();
    errno = EINVAL;
    return -1;
  }
  int error = output_.end();
  if (error)
  {
    fail_output(error);
    errno = error;
    return -1;
  }
  return 0;
}

int TCP_Channel::send_object(JSON_RPC_Object_Ptr object)
{
  if (!object.get())
  {
    errno = EINVAL;
    return -1;
  }
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, io_lock_, -1);
  return write_message([&](Output& out) { return writer_.write(*object, out); });
}

int TCP_Channel::send_generator(JSON_Generator& generator)
{
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, io_lock_, -1);
  return write_message([&](Output& out) { return writer_.write(generator, out); });
}

yajl_gen_t* TCP_Channel::send_begin()
{
  settle_stream();
  output_.begin(!writable());
  yajl_gen_t* gen = writer_.open(output_);
  if (gen)
    streaming_ = true;
  return gen;
}

int TCP_Channel::send_end()
{
  if (!streaming_)
  {
    io_state_ = IO_STATE_NO_MESSAGE;
    errno = EINVAL;
    return -1;
  }
  streaming_ = false;
  writer_.close();
  bool discarded = output_.discarding();
  int error = output_.end();
  if (error)
  {
    if (!discarded)
      fail_output(error);
    io_state_ = IO_STATE_CLOSED;
    errno = error;
    return -1;
  }
  io_state_ = IO_STATE_OK;
  return 0;
}

bool TCP_Channel::abandon_message()
{
  bool streaming = streaming_;
  // Settling flushes what the writer still batches, and closes the
  // connection if any of the message had gone out by then.
  settle_stream();
  return streaming && output_failed_;
}

int TCP_Channel::io_state() { return io_state_; }

// ---------------------------------------------------------------- forwarding

int TCP_Channel::put_forward_entry(JSON_RPC_Channel_Weak_Ptr requester, const json_spirit::Value& id)
{
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, forward_lock_, -1);
  if (!forward_map_)
  {
    errno = EPIPE;
    return -1;
  }
  return forward_map_->put(id, requester);
}

int TCP_Channel::get_forward_entry(int forward_id, JSON_RPC_Channel_Weak_Ptr& requester, json_spirit::Value& id)
{
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, forward_lock_, -1);
  JSON_RPC_Forward_Map::Entry entry;
  if (!forward_map_ || forward_map_->get(forward_id, entry) == -1)
    return -1;
  id = entry.first;
  requester = entry.second;
  return 0;
}

bool TCP_Channel::pass_back(const JSON_RPC_Object_Ptr& object)
{
  const json_spirit::Value& forward_id = object->id;
  if ((object->type != JSON_RPC_Object::TYPE_RESPONSE && object->type != JSON_RPC_Object::TYPE_RESPONSE_ERROR) ||
      forward_id.type() != json_spirit::int_type || forward_id.is_uint64())
    return false;
  JSON_RPC_Channel_Weak_Ptr requester;
  json_spirit::Value id;
  if (get_forward_entry(forward_id.get_int(), requester, id) == -1)
    return false;
  JSON_RPC_Channel_Strong_Ptr to(requester);
  if (to.null())
  {
    ACE_ERROR((LM_ERROR, "Abort forwarding JSON-RPC response, requester is gone.\n"));
    return true;
  }
  // The reader is done with the object, and nobody else has it.
  object->id = id;
  to->send_object(object);
  return true;
}

int TCP_Channel::forward(JSON_RPC_Channel_Weak_Ptr requester, JSON_RPC_Object_Ptr object)
{
  if (!object.get() || object->type != JSON_RPC_Object::TYPE_REQUEST)
  {
    errno = EINVAL;
    return -1;
  }
  const JSON_RPC_Request& request = static_cast<const JSON_RPC_Request&>(*object);
  int forward_id = put_forward_entry(requester, request.id);
  if (forward_id == -1)
    return -1;
  Forward_Generator generator(request, forward_id);
  if (send_generator(generator) == 0)
    return 0;
  int error = errno;
  JSON_RPC_Channel_Weak_Ptr unused_requester;
  json_spirit::Value unused_id;
  // An entry that is no longer there went with the channel's end, which
  // answers its requester: failing here too would make two answers.
  if (get_forward_entry(forward_id, unused_requester, unused_id) == -1)
    return 0;
  errno = error;
  return -1;
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
