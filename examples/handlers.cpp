// Example method handlers, one of each kind:
//   echo         direct: answers on the transport's thread with its params
//   slow.sleep   a thread per call: sleeps params milliseconds, then answers
//   pool.sum     on the shared pool: answers the sum of an array of numbers
//   pool.sleep   on the shared pool: sleeps params milliseconds, then answers
//   subscribe    subscribes the calling channel to the subjects in params
//   unsubscribe  takes them back (all of the channel's, without params)
//   sum.stream   answers the sum that the filter of libexample_filters left
//                in params, or sums an array itself when no filter is loaded
#include "example_util.h"

#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_thread_handler.h"
#include "json_rpc/json_rpc_thread_pool_handler_impl.h"

#include <ace/OS_NS_unistd.h>
#include <ace/Time_Value.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{
  using json_spirit::Value;

  const JSON_RPC_Request& as_request(const JSON_RPC_Object_Ptr& object)
  {
    return static_cast<const JSON_RPC_Request&>(*object);
  }

  // Milliseconds from params: a number or an array with one, 0 to limit.
  bool sleep_time(const Value& params, long long limit, long long& ms, std::string& reason)
  {
    const Value& v = params.type() == json_spirit::array_type && params.get_array().size() == 1
                       ? params.get_array()[0]
                       : params;
    // Beyond 63 bits get_int64() is negative too.
    if (v.type() != json_spirit::int_type || v.get_int64() < 0 || v.get_int64() > limit)
    {
      reason = "params must be a whole number of milliseconds from 0 to " + std::to_string(limit);
      return false;
    }
    ms = v.get_int64();
    return true;
  }

  void sleep_ms(long long ms)
  {
    ACE_Time_Value wait;
    wait.msec(static_cast<long>(ms));
    ACE_OS::sleep(wait);
  }

  // "--max-ms N" in a record's params; -1 if the text is bad.
  long long max_ms_option(int argc, char** argv, long long fallback)
  {
    long long limit = fallback;
    for (int i = 0; i + 1 < argc; ++i)
      if (std::strcmp(argv[i], "--max-ms") == 0)
      {
        char* end = nullptr;
        errno = 0;
        limit = std::strtoll(argv[i + 1], &end, 10);
        if (errno || !end || *end || limit < 0)
          return -1;
      }
    return limit;
  }

  bool sum_array(const Value& params, Value& sum, std::string& reason)
  {
    if (params.type() != json_spirit::array_type)
    {
      reason = "params must be an array of numbers";
      return false;
    }
    example::Number_Sum total;
    size_t index = 0;
    for (const Value& v : params.get_array())
    {
      if (!total.add(v))
      {
        reason = "element " + std::to_string(index) + " is not a number";
        return false;
      }
      ++index;
    }
    sum = total.value();
    return true;
  }

  class Echo : public JSON_RPC_Handler
  {
  public:
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      return example::reply(peer.get(), as_request(object), as_request(object).params);
    }
  };

  class Slow_Sleep : public JSON_RPC_Thread_Handler
  {
  public:
    Slow_Sleep() : limit_(10000) {}

    int init(int argc, char** argv) override
    {
      limit_ = max_ms_option(argc, argv, limit_);
      return limit_ < 0 ? -1 : 0;
    }

    int handle_object_i(JSON_RPC_Channel_Strong_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      const JSON_RPC_Request& request = as_request(object);
      long long ms = 0;
      std::string reason;
      if (!sleep_time(request.params, limit_, ms, reason))
        return example::reply_invalid(channel.get(), request, reason);
      sleep_ms(ms);
      return example::reply(channel.get(), request, Value(ms));
    }

  private:
    long long limit_;
  };

  // On the pool; its record's params choose the work: "sum" or "sleep"
  // (with "--max-ms N").
  class Pool_Work : public JSON_RPC_Thread_Pool_Handler_Impl
  {
  public:
    Pool_Work() : sleep_(false), limit_(10000) {}

    int init(int argc, char** argv) override
    {
      if (argc < 1 || (std::strcmp(argv[0], "sum") != 0 && std::strcmp(argv[0], "sleep") != 0))
      {
        errno = EINVAL;
        return -1;
      }
      sleep_ = std::strcmp(argv[0], "sleep") == 0;
      limit_ = max_ms_option(argc, argv, limit_);
      return limit_ < 0 ? -1 : 0;
    }

    int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override
    {
      // The peer may have gone while the call waited in the queue.
      if (!channel)
        return -1;
      std::string reason;
      if (sleep_)
      {
        long long ms = 0;
        if (!sleep_time(request.params, limit_, ms, reason))
          return example::reply_invalid(channel, request, reason);
        sleep_ms(ms);
        return example::reply(channel, request, Value(ms));
      }
      Value sum;
      if (!sum_array(request.params, sum, reason))
        return example::reply_invalid(channel, request, reason);
      return example::reply(channel, request, sum);
    }

  private:
    bool sleep_;
    long long limit_;
  };

  // Subjects from params: one text or an array of texts.
  bool subjects_of(const Value& params, std::vector<std::string>& subjects)
  {
    if (params.type() == json_spirit::str_type)
    {
      subjects.push_back(params.get_str());
      return true;
    }
    if (params.type() != json_spirit::array_type || params.get_array().empty())
      return false;
    for (const Value& v : params.get_array())
    {
      if (v.type() != json_spirit::str_type)
        return false;
      subjects.push_back(v.get_str());
    }
    return true;
  }

  const char* const subjects_reason = "params must be a subject or an array of subjects";

  // subscribe and unsubscribe: the calling channel's subjects in the
  // notification manager.
  class Subscription : public JSON_RPC_Handler
  {
  public:
    explicit Subscription(bool subscribe) : subscribe_(subscribe) {}

    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      if (peer.null())
        return -1;
      const JSON_RPC_Request& request = as_request(object);
      std::vector<std::string> subjects;
      // unsubscribe without params: every subject of the channel.
      bool all = !subscribe_ && request.params.is_null();
      if (!all && !subjects_of(request.params, subjects))
        return example::reply_invalid(peer.get(), request, subjects_reason);
      JSON_RPC_Notify_Manager* manager = JSON_RPC_Notify_Manager::instance();
      // Out first, so that subscribing again does not double what arrives.
      int result = all ? manager->unsubscribe(channel) : manager->unsubscribe(channel, subjects);
      if (result != -1 && subscribe_)
        result = manager->subscribe(channel, subjects);
      if (result == -1)
        return peer->send_error(-32603, request.id, nullptr, Value::null);
      if (!subscribe_)
        return example::reply(peer.get(), request, Value(true));
      return example::reply(peer.get(), request, Value(json_spirit::Array(subjects.begin(), subjects.end())));
    }

  private:
    bool subscribe_;
  };

  struct Subscribe : Subscription
  {
    Subscribe() : Subscription(true) {}
  };

  struct Unsubscribe : Subscription
  {
    Unsubscribe() : Subscription(false) {}
  };

  // The filter replaces params by the sum, or by a text that says why it
  // could not sum them.
  class Sum_Stream : public JSON_RPC_Handler
  {
  public:
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      const JSON_RPC_Request& request = as_request(object);
      const Value& params = request.params;
      if (params.type() == json_spirit::int_type || params.type() == json_spirit::real_type)
        return example::reply(peer.get(), request, params);
      if (params.type() == json_spirit::str_type)
        return example::reply_invalid(peer.get(), request, params.get_str());
      Value sum;
      std::string reason;
      if (!sum_array(params, sum, reason))
        return example::reply_invalid(peer.get(), request, reason);
      return example::reply(peer.get(), request, sum);
    }
  };
}

// The factories that handlers.json names.
#define HANDLER_FACTORY(name, type)                                                                              \
  EXAMPLE_FACTORY JSON_RPC_Handler* name(void (**destroy)(void*)) { return example::make<type, JSON_RPC_Handler>(destroy); }

HANDLER_FACTORY(make_echo, Echo)
HANDLER_FACTORY(make_slow_sleep, Slow_Sleep)
HANDLER_FACTORY(make_pool_work, Pool_Work)
HANDLER_FACTORY(make_subscribe, Subscribe)
HANDLER_FACTORY(make_unsubscribe, Unsubscribe)
HANDLER_FACTORY(make_sum_stream, Sum_Stream)
