#ifndef TESTS_SUPPORT_FAKE_CHANNEL_H
#define TESTS_SUPPORT_FAKE_CHANNEL_H

#include "test_util.h"

#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_spirit/json_spirit_writer.h"

#include <ace/INET_Addr.h>

#include <cerrno>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

inline const JSON_RPC_Request& as_request(const JSON_RPC_Object_Ptr& object)
{
  return static_cast<const JSON_RPC_Request&>(*object);
}

/// A channel that keeps what is sent to it. Thread-safe; sends can be made
/// to fail, and a hook can run on every send (to answer a call, say).
class Fake_Channel : public JSON_RPC_Channel
{
public:
  explicit Fake_Channel(int type = 0, const std::string& id = std::string(), unsigned short port = 4000)
    : addr_(port, "127.0.0.1")
  {
    JSON_RPC_Channel::type(type);
    JSON_RPC_Channel::id(id);
  }

  int send_object(JSON_RPC_Object_Ptr object) override
  {
    std::function<void(JSON_RPC_Object_Ptr)> hook;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (fail_)
        return errno = EPIPE, -1;
      sent_.push_back(object);
      hook = on_send_;
    }
    if (hook)
      hook(object);
    return 0;
  }

  int send_generator(JSON_Generator& generator) override
  {
    std::string text;
    YAJL_String_Printer printer(&text);
    if (!JSON_RPC_Writer().write(generator, printer))
      return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    if (fail_)
      return errno = EPIPE, -1;
    generated_.push_back(text);
    return 0;
  }

  yajl_gen_t* send_begin() override { return nullptr; }
  int send_end() override { return -1; }
  int get_local_addr(ACE_Addr& addr) const override { return get_remote_addr(addr); }
  int get_remote_addr(ACE_Addr& addr) const override
  {
    static_cast<ACE_INET_Addr&>(addr) = addr_;
    return 0;
  }
  int io_state() override { return 0; }

  void fail(bool f)
  {
    std::lock_guard<std::mutex> lock(mutex_);
    fail_ = f;
  }

  void on_send(std::function<void(JSON_RPC_Object_Ptr)> hook)
  {
    std::lock_guard<std::mutex> lock(mutex_);
    on_send_ = std::move(hook);
  }

  std::vector<JSON_RPC_Object_Ptr> sent() const
  {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }

  std::vector<std::string> generated() const
  {
    std::lock_guard<std::mutex> lock(mutex_);
    return generated_;
  }

  size_t count() const
  {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_.size();
  }

  /// The methods of what was sent ("" for responses).
  std::vector<std::string> methods() const
  {
    std::vector<std::string> out;
    for (const JSON_RPC_Object_Ptr& o : sent())
      out.push_back(o->type <= JSON_RPC_Object::TYPE_REQUEST ? as_request(o).method : "");
    return out;
  }

  /// The params of the notifications and requests sent for `method`.
  std::vector<json_spirit::Value> params_of(const std::string& method) const
  {
    std::vector<json_spirit::Value> out;
    for (const JSON_RPC_Object_Ptr& o : sent())
      if (o->type <= JSON_RPC_Object::TYPE_REQUEST && as_request(o).method == method)
        out.push_back(as_request(o).params);
    return out;
  }

  /// Polls (bounded) until at least n objects were sent.
  bool wait_for(size_t n, int seconds = 20) const { return eventually([&] { return count() >= n; }, seconds); }

private:
  ACE_INET_Addr addr_;
  mutable std::mutex mutex_;
  bool fail_ = false;
  std::vector<JSON_RPC_Object_Ptr> sent_;
  std::vector<std::string> generated_;
  std::function<void(JSON_RPC_Object_Ptr)> on_send_;
};

inline Fake_Channel& fake(const JSON_RPC_Channel_Strong_Ptr& p) { return static_cast<Fake_Channel&>(*p); }

inline JSON_RPC_Channel_Strong_Ptr make_channel(int type = 0, const std::string& id = "", unsigned short port = 4000)
{
  return JSON_RPC_Channel_Strong_Ptr(new Fake_Channel(type, id, port));
}

/// A pointer to a channel that has died.
inline JSON_RPC_Channel_Weak_Ptr gone_channel()
{
  JSON_RPC_Channel_Strong_Ptr c = make_channel();
  return JSON_RPC_Channel_Weak_Ptr(c);
}

/// Lets the global channel go and closes the registers and the dispatcher:
/// at the end of a test, or once every transport thread has ended.
inline void close_singletons()
{
  Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr());
  JSON_RPC_Channel_Pool::close_instance();
  JSON_RPC_Notify_Manager::close_instance();
  JSON_RPC_Channel_Map::close_instance();
  JSON_RPC_Response_Map::close_instance();
  JSON_RPC_Request_Map::close_instance();
  JSON_RPC_Dispatcher::close_instance();
}

/// A request with the given id or, with no id, a notification.
inline JSON_RPC_Object_Ptr make_message(const std::string& method, json_spirit::Value params = json_spirit::Value(),
                                        json_spirit::Value id = json_spirit::Value())
{
  JSON_RPC_Request* r = new JSON_RPC_Request;
  r->type = id.is_null() ? JSON_RPC_Object::TYPE_NOTIFICATION : JSON_RPC_Object::TYPE_REQUEST;
  r->method = method;
  r->params = std::move(params);
  r->id = std::move(id);
  return JSON_RPC_Object_Ptr(r);
}

/// Answers a request with result; a notification gets nothing.
inline int answer(JSON_RPC_Channel* channel, const JSON_RPC_Request& request, json_spirit::Value result)
{
  if (request.type != JSON_RPC_Object::TYPE_REQUEST)
    return 0;
  JSON_RPC_Response* response = new JSON_RPC_Response(&request);
  response->result = std::move(result);
  return channel->send_object(JSON_RPC_Object_Ptr(response));
}

/// The answer to a response or error object as text: the result, or
/// "error CODE" and the data if there is any.
inline std::string answer_text(const JSON_RPC_Object& answer)
{
  if (answer.type != JSON_RPC_Object::TYPE_RESPONSE_ERROR)
    return json_spirit::write_string(static_cast<const JSON_RPC_Response&>(answer).result);
  const auto& e = static_cast<const JSON_RPC_Response_Error&>(answer);
  return "error " + std::to_string(e.code) + (e.data.is_null() ? "" : " " + json_spirit::write_string(e.data));
}

/// What the dispatcher's handler answers to one request, waiting for an
/// answer from another thread: answer_text(), "refused" or "no answer".
inline std::string call(const std::string& method, const json_spirit::Value& params = json_spirit::Value())
{
  JSON_RPC_Channel_Strong_Ptr channel = make_channel();
  if (JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), make_message(method, params, 7)) == -1)
    return "refused";
  if (!fake(channel).wait_for(1, 10))
    return "no answer";
  return answer_text(*fake(channel).sent().back());
}

#endif
