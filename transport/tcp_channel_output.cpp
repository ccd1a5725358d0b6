// A TCP channel's writing side: messages generated into its output queue,
// the queue's drain, and forwarding.
#include "transport/tcp_channel.h"

#include "json_spirit/json_spirit_writer.h"

#include <ace/Guard_T.h>
#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace
{
  const size_t write_chunk = 64 * 1024;
  // A buffer that grew for a large message is given back after it: idle
  // connections hold little.
  const size_t keep_capacity = 4096;

  // Whole messages are written by a writer of the writing thread: a writer
  // holds a generator and a 4 KiB batch, too much to keep for every idle
  // connection. A generator that sends while it generates gets one of its
  // own.
  template <class Write>
  bool with_writer(Write write)
  {
    thread_local JSON_RPC_Writer writer;
    thread_local bool busy = false;
    if (busy)
    {
      JSON_RPC_Writer nested;
      return write(nested);
    }
    busy = true;
    bool ok = write(writer);
    busy = false;
    return ok;
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

// ---------------------------------------------------------------- output

void TCP_Channel::Output::begin(bool discard)
{
  buffer_.clear();
  sent_ = false;
  error_ = 0;
  discard_ = discard;
}

void TCP_Channel::Output::print(char const* data, unsigned long long length)
{
  if (discard_ || error_)
    return;
  buffer_.append(data, static_cast<size_t>(length));
  if (channel_.options_.framing == TCP_Options::FRAMING_NDJSON && buffer_.size() >= write_chunk)
    flush();
}

void TCP_Channel::Output::flush()
{
  error_ = channel_.queue_bytes(nullptr, 0, buffer_);
  sent_ = true;
  buffer_.clear();
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
      error_ = channel_.queue_bytes(head, static_cast<size_t>(end + 4 - head), buffer_);
      sent_ = true;
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
// ---------------------------------------------------------------- output queue

void TCP_Channel::update_interest()
{
  if (!watched_ || fd_ == -1)
    return;
  uint32_t want = queue_.empty() ? 0u : static_cast<uint32_t>(EPOLLOUT);
  if (!paused_in_flight_ && !paused_forward_ && !stopped_reading_)
    want |= EPOLLIN;
  if (want != interest_ && loop_->modify(fd_, want, this) == 0)
    interest_ = want;
}

int TCP_Channel::queue_bytes(const char* head, size_t head_length, std::string& body)
{
  std::lock_guard<std::mutex> guard(state_lock_);
  if (fd_ == -1)
    return EPIPE;
  int error = queue_.push(fd_, head, head_length, body);
  if (error)
    return error;
  bool over = queue_.bytes() > options_.max_send_queue;
  if (!over)
    over_since_ = Clock::time_point();
  else if (over_since_ == Clock::time_point())
    over_since_ = Clock::now();
  if (over && streaming_ && feeding_ && feeding_ != this)
  {
    JSON_RPC_Channel_Weak_Ptr forwarder = feeding_->weak();
    if (std::find(forwarders_.begin(), forwarders_.end(), forwarder) == forwarders_.end())
      forwarders_.push_back(forwarder);
    pressed_ = true;
  }
  update_interest();
  return 0;
}

void TCP_Channel::drain_output()
{
  std::vector<JSON_RPC_Channel_Weak_Ptr> forwarders;
  int error;
  {
    std::lock_guard<std::mutex> guard(state_lock_);
    if (fd_ == -1)
      return;
    error = queue_.drain(fd_);
    if (queue_.bytes() <= options_.max_send_queue)
      over_since_ = Clock::time_point();
    // Forwarders read on once half the room is free again.
    if (queue_.bytes() <= options_.max_send_queue / 2)
      forwarders.swap(forwarders_);
    if (queue_.empty() && shut_when_sent_)
      ::shutdown(fd_, SHUT_WR);
    update_interest();
  }
  wake(forwarders);
  if (error)
  {
    ACE_Guard<ACE_Thread_Mutex> guard(io_lock_);
    fail_output(error);
  }
}

void TCP_Channel::wake(const std::vector<JSON_RPC_Channel_Weak_Ptr>& forwarders)
{
  for (const JSON_RPC_Channel_Weak_Ptr& weak : forwarders)
  {
    JSON_RPC_Channel_Strong_Ptr strong(weak);
    TCP_Channel* forwarder = cast(strong);
    if (!forwarder)
      continue;
    forwarder->loop_->post([strong, forwarder]() {
      std::lock_guard<std::mutex> guard(forwarder->state_lock_);
      forwarder->paused_forward_ = false;
      forwarder->update_interest();
    });
  }
}

// ---------------------------------------------------------------- writing

bool TCP_Channel::writable() const { return !closing_ && !output_failed_; }

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
  // The I/O thread sees the end and deregisters the channel: a send may
  // run with the registers' locks held.
  std::lock_guard<std::mutex> guard(state_lock_);
  if (fd_ != -1)
    ::shutdown(fd_, SHUT_RDWR);
}

void TCP_Channel::settle_stream()
{
  if (!streaming_)
    return;
  streaming_ = false;
  stream_writer_->close();
  stream_answered();
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

int TCP_Channel::write_object(const JSON_RPC_Object& object)
{
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, io_lock_, -1);
  return write_message(
    [&](Output& out) { return with_writer([&](JSON_RPC_Writer& writer) { return writer.write(object, out); }); });
}

int TCP_Channel::send_object(JSON_RPC_Object_Ptr object)
{
  if (!object.get())
  {
    errno = EINVAL;
    return -1;
  }
  bool response = is_response(*object);
  if (response && !answerable(object->id))
  {
    // Answered already, by the end of a drain.
    errno = EPIPE;
    return -1;
  }
  int result = write_object(*object);
  // Counted out once queued: a drain that sees none in flight finds the
  // answers in the queue.
  if (response)
  {
    int error = errno;
    answered(object->id, true);
    errno = error;
  }
  return result;
}

int TCP_Channel::send_generator(JSON_Generator& generator)
{
  ACE_GUARD_RETURN(ACE_Thread_Mutex, guard, io_lock_, -1);
  return write_message(
    [&](Output& out) { return with_writer([&](JSON_RPC_Writer& writer) { return writer.write(generator, out); }); });
}

yajl_gen_t* TCP_Channel::send_begin()
{
  settle_stream();
  output_.begin(!writable());
  // Only connections that forwards stream to keep a writer of their own.
  if (!stream_writer_)
    stream_writer_.reset(new (std::nothrow) JSON_RPC_Writer);
  yajl_gen_t* gen = stream_writer_ ? stream_writer_->open(output_) : nullptr;
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
  stream_writer_->close();
  bool discarded = output_.discarding();
  int error = output_.end();
  streaming_ = false;
  stream_answered();
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
  // The response on its way answers the requester's request once it is out.
  JSON_RPC_Channel_Strong_Ptr to(requester);
  if (TCP_Channel* tcp = cast(to))
    tcp->forwarding(id);
  return 0;
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
