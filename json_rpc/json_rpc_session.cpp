#include "json_rpc/json_rpc_session.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_handler.h"
#include "tessel/spin_wait.h"
#include "tessel/utils.h"

#include <ace/Future.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_errno.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_time.h>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <new>

namespace
{
  long futex(std::atomic<int>* word, int op, int value, const struct timespec* at)
  {
    return ::syscall(SYS_futex, word, op, value, at, nullptr, FUTEX_BITSET_MATCH_ANY);
  }

  /// The waiter behind one pending call. ACE_Future::get reads a value that
  /// is already set without its lock, which orders nothing between the two
  /// threads; so they meet on a flag of their own first. The waiter sleeps
  /// on the flag itself (a futex): neither side takes a lock, and the
  /// dispatching thread makes a system call only when the waiter sleeps.
  class JSON_RPC_Future_Handler : public JSON_RPC_Handler, public JSON_RPC_Response_Wait
  {
  public:
    JSON_RPC_Future_Handler() : state_(PENDING), error_(0) {}

    int handle_object(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr object) override
    {
      bool response = object.get() && (object->type == JSON_RPC_Object::TYPE_RESPONSE ||
                                       object->type == JSON_RPC_Object::TYPE_RESPONSE_ERROR);
      int result = future.set(response ? object : JSON_RPC_Object_Ptr());
      // The caller of handle_object holds this handler through the wake.
      if (state_.exchange(SET) == SLEEPING)
        futex(&state_, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
      return response && result == 0 ? 0 : -1;
    }

    int get(JSON_RPC_Channel& channel, JSON_RPC_Object_Ptr& out, const ACE_Time_Value* deadline)
    {
      if (!channel.wait_response(*this, deadline))
        return -1;
      return future.get(out, const_cast<ACE_Time_Value*>(deadline));
    }

    bool done() const override { return state_.load() == SET; }
    bool wait(const ACE_Time_Value* deadline) override { return wait_set(deadline); }

    void fail(int error) override
    {
      error_.store(error);
      int state = state_.load();
      while (state != SET && state != FAILED && !state_.compare_exchange_weak(state, FAILED))
        ;
      if (state == SLEEPING)
        futex(&state_, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
    }

    ACE_Future<JSON_RPC_Object_Ptr> future;

  private:
    enum
    {
      PENDING,
      SLEEPING,
      SET,
      FAILED
    };

    // False with errno ETIME once deadline (absolute, null: none) passed.
    bool wait_set(const ACE_Time_Value* deadline)
    {
      Spin_Wait spin;
      std::chrono::steady_clock::duration limit = Spin_Wait::spin_time;
      if (deadline)
      {
        ACE_Time_Value left = *deadline - ACE_OS::gettimeofday();
        limit = std::chrono::microseconds(left < ACE_Time_Value::zero ? 0 : left.sec() * 1000000 + left.usec());
      }
      if (spin.spin([this] { return state_.load() >= SET; }, limit))
        return settled();
      struct timespec at;
      if (deadline)
      {
        at.tv_sec = deadline->sec();
        at.tv_nsec = deadline->usec() * 1000;
      }
      for (;;)
      {
        int state = state_.load();
        if (state >= SET)
          return settled();
        if (state == PENDING && !state_.compare_exchange_strong(state, SLEEPING))
          continue;
        // Woken, interrupted or the flag moved on: look again.
        if (futex(&state_, FUTEX_WAIT_BITSET_PRIVATE | FUTEX_CLOCK_REALTIME, SLEEPING, deadline ? &at : nullptr) ==
              -1 &&
            errno == ETIMEDOUT && state_.load() < SET)
        {
          errno = ETIME;
          return false;
        }
      }
    }

    // True once set; false with the errno of fail() once failed.
    bool settled()
    {
      if (state_.load() == SET)
        return true;
      errno = error_.load();
      return false;
    }

    std::atomic<int> state_;
    std::atomic<int> error_;
  };

  // Removes the pending entry on every way out of a call; id outlives it.
  struct Entry_Guard
  {
    explicit Entry_Guard(const json_spirit::Value& id) : id_(id) {}
    ~Entry_Guard()
    {
      // The map's lock may leave its own errno (EBUSY): the call's stays.
      int error = errno;
      JSON_RPC_Response_Map::instance()->remove(id_);
      errno = error;
    }
    const json_spirit::Value& id_;
  };

  bool wait(JSON_RPC_Channel& channel, JSON_RPC_Future_Handler* handler, JSON_RPC_Object_Ptr& response,
            const ACE_Time_Value* deadline)
  {
    if (handler->get(channel, response, deadline) != 0)
    {
      // The caller learns from errno whether the connection is gone.
      int error = ACE_OS::last_error();
      ACE_ERROR((LM_ERROR, "Failed to get response, errno=%d, %m.\n", error));
      errno = error;
      return false;
    }
    return true;
  }

  bool has_channel(const JSON_RPC_Channel_Strong_Ptr& channel)
  {
    if (!channel.null())
      return true;
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, channel_.get() is NULL:\n%?\n"));
    return false;
  }

  // The waiter of one call, owned by handler; null (errno 12) without memory.
  JSON_RPC_Future_Handler* new_waiter(JSON_RPC_Handler_Ptr& handler)
  {
    JSON_RPC_Future_Handler* waiter = new (std::nothrow) JSON_RPC_Future_Handler;
    if (!waiter)
      errno = ENOMEM;
    handler.reset(waiter);
    return waiter;
  }

  bool enter(const json_spirit::Value& id, const JSON_RPC_Handler_Ptr& handler)
  {
    if (JSON_RPC_Response_Map::instance()->insert(id, handler) == 0)
      return true;
    ACE_ERROR((LM_ERROR, "Failed to insert response handler to map.\n"));
    return false;
  }

  bool sent(int result)
  {
    if (result != -1)
      return true;
    int error = ACE_OS::last_error();
    ACE_ERROR((LM_ERROR, "Failed to send request to channel, errno=%d, %m.\n", error));
    errno = error;
    return false;
  }

  // What both call forms do once the waiter exists: enter it under id, send,
  // and wait until the deadline that deadline(at) sets after the send (false:
  // no limit). The entry leaves the map on every way out.
  template <class Send, class Deadline>
  bool send_and_wait(JSON_RPC_Channel& channel, JSON_RPC_Future_Handler* waiter, const JSON_RPC_Handler_Ptr& handler,
                     const json_spirit::Value& id, JSON_RPC_Object_Ptr& response, Send send, Deadline deadline)
  {
    if (!enter(id, handler))
      return false;
    Entry_Guard entry(id);
    if (!sent(send()))
      return false;
    ACE_Time_Value at;
    return wait(channel, waiter, response, deadline(at) ? &at : nullptr);
  }
}

JSON_RPC_Session::JSON_RPC_Session() {}
JSON_RPC_Session::JSON_RPC_Session(JSON_RPC_Channel_Weak_Ptr channel) : channel_(channel) {}
JSON_RPC_Session::~JSON_RPC_Session() {}

void JSON_RPC_Session::reset(JSON_RPC_Channel_Strong_Ptr channel) { channel_ = channel; }

bool JSON_RPC_Session::request(JSON_RPC_Object_Ptr request, JSON_RPC_Object_Ptr& response, long long timeout)
{
  if (!has_channel(channel_))
    return false;
  if (timeout == 0)
    get_timeout_env(timeout);
  JSON_RPC_Handler_Ptr handler;
  JSON_RPC_Future_Handler* waiter = new_waiter(handler);
  if (!waiter)
    return false;
  JSON_RPC_Id_Generator::gen(*request);
  return send_and_wait(
    *channel_, waiter, handler, request->id, response, [&] { return channel_->send_object(request); },
    [&](ACE_Time_Value& at) {
      if (timeout > 600 || timeout < 0)
        timeout = 600;
      at = ACE_Time_Value(static_cast<time_t>(timeout), 0).to_absolute_time();
      return true;
    });
}

bool JSON_RPC_Session::request(const char* method, JSON_Generator* params, JSON_RPC_Object_Ptr& response,
                               long long timeout)
{
  if (!has_channel(channel_))
    return false;
  if (!method || !*method)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, method is NULL or \"\":\n%?\n"));
    return false;
  }
  if (timeout == 0)
    get_timeout_env(timeout);
  JSON_RPC_Handler_Ptr handler;
  JSON_RPC_Future_Handler* waiter = new_waiter(handler);
  if (!waiter)
    return false;
  JSON_RPC_Request_Generator generator(method, params);
  return send_and_wait(
    *channel_, waiter, handler, json_spirit::Value(generator.id()), response,
    [&] { return channel_->send_generator(generator); },
    [&](ACE_Time_Value& at) {
      if (timeout < 0)
        return false;
      at = ACE_Time_Value(ACE_OS::time(0) + static_cast<time_t>(timeout), 0);
      return true;
    });
}

bool JSON_RPC_Session::notify(JSON_RPC_Object_Ptr object)
{
  if (!has_channel(channel_))
    return false;
  if (channel_->send_object(object) == -1)
  {
    ACE_ERROR((LM_ERROR, "Failed to send notify to channel, errno=%d, %m.\n", ACE_OS::last_error()));
    return false;
  }
  return true;
}

void JSON_RPC_Session::get_timeout_env(long long& timeout)
{
  std::string text = get_env_r("JSON_RPC_REQUEST_TIMEOUT");
  if (text.empty())
  {
    timeout = 60;
    return;
  }
  // Optional sign, then digits up to the first other character; no white space.
  size_t i = 0;
  bool negative = false;
  if (text[0] == '+' || text[0] == '-')
  {
    negative = text[0] == '-';
    ++i;
  }
  unsigned long long magnitude = 0;
  bool digits = false, overflow = false;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
  {
    digits = true;
    unsigned int d = text[i] - '0';
    if (magnitude > (static_cast<unsigned long long>(LLONG_MAX) - d) / 10)
      overflow = true;
    else
      magnitude = magnitude * 10 + d;
  }
  if (!digits)
  {
    timeout = 0;
    errno = EINVAL;
  }
  else if (overflow)
  {
    timeout = LLONG_MAX;
    errno = ERANGE;
  }
  else
  {
    timeout = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    errno = 0;
  }
}

bool JSON_RPC_Session::make_rpc_request(const char* method, const json_spirit::Value& params,
                                        JSON_RPC_Object_Ptr& request)
{
  JSON_RPC_Request* r = new (std::nothrow) JSON_RPC_Request;
  if (!r)
  {
    errno = ENOMEM;
    return false;
  }
  r->params = params;
  if (method)
    r->method = method;
  request.reset(r);
  return true;
}

JSON_RPC_Object_Ptr JSON_RPC_Session::make_rpc_request(std::string method, json_spirit::Value&& params)
{
  JSON_RPC_Request* r = new (std::nothrow) JSON_RPC_Request;
  if (!r)
  {
    errno = ENOMEM;
    return JSON_RPC_Object_Ptr();
  }
  r->method = std::move(method);
  r->params = std::move(params);
  return JSON_RPC_Object_Ptr(r);
}

JSON_RPC_Object_Ptr JSON_RPC_Session::make_rpc_request(std::string method, json_spirit::Value** params)
{
  JSON_RPC_Object_Ptr object = make_rpc_request(std::move(method), json_spirit::Value());
  if (object.get() && params)
    *params = &static_cast<JSON_RPC_Request*>(object.get())->params;
  return object;
}
