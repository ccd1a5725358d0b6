// Methods written as functions of their params, and their registration.
#include "json_rpc/json_rpc_function_handler.h"
#include "json_rpc/json_rpc_answering.h"
#include "json_rpc/json_rpc_channel.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <new>
#include <utility>

namespace
{
  // The answer to a request whose function returned; nothing for a
  // notification.
  int answer_result(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Request& request,
                    json_spirit::Value&& result)
  {
    if (request.type != JSON_RPC_Object::TYPE_REQUEST)
      return 0;
    JSON_RPC_Channel_Strong_Ptr peer(channel);
    if (peer.null())
    {
      ACE_DEBUG((LM_DEBUG, "JSON-RPC '%C' answered; the requester is gone.\n", request.method.c_str()));
      return -1;
    }
    JSON_RPC_Response* response = new (std::nothrow) JSON_RPC_Response(&request);
    if (!response)
    {
      errno = ENOMEM;
      return -1;
    }
    response->result = std::move(result);
    return peer->send_object(JSON_RPC_Object_Ptr(response)) == -1 ? -1 : 0;
  }
}

JSON_RPC_Function_Handler::JSON_RPC_Function_Handler(Function function) : function_(with_caller(std::move(function)))
{
}

JSON_RPC_Function_Handler::JSON_RPC_Function_Handler(Caller_Function function) : function_(std::move(function)) {}

JSON_RPC_Function_Handler::~JSON_RPC_Function_Handler() {}

int JSON_RPC_Function_Handler::handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  return call(function_, channel, object);
}

int JSON_RPC_Function_Handler::call(const Caller_Function& function, const JSON_RPC_Channel_Weak_Ptr& channel,
                                    const JSON_RPC_Object_Ptr& object)
{
  JSON_RPC_Object* o = object.get();
  if (!o || (o->type != JSON_RPC_Object::TYPE_REQUEST && o->type != JSON_RPC_Object::TYPE_NOTIFICATION))
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, the object is no request:\n%?\n"));
    errno = EINVAL;
    return -1;
  }
  JSON_RPC_Request& request = static_cast<JSON_RPC_Request&>(*o);
  // Exceptions are answered here, whatever thread this is and whoever
  // called the handler.
  return run_answering(channel, object, [&] {
    return answer_result(channel, request, function(channel, std::move(request.params)));
  });
}

JSON_RPC_Function_Handler::Caller_Function JSON_RPC_Function_Handler::with_caller(Function function)
{
  if (!function)
    return Caller_Function();
  return [f = std::move(function)](JSON_RPC_Channel_Weak_Ptr, json_spirit::Value params) {
    return f(std::move(params));
  };
}

JSON_RPC_Pool_Function_Handler::JSON_RPC_Pool_Function_Handler(JSON_RPC_Function_Handler::Caller_Function function)
  : function_(std::move(function))
{
}

JSON_RPC_Pool_Function_Handler::~JSON_RPC_Pool_Function_Handler() {}

int JSON_RPC_Pool_Function_Handler::handle_object_i(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  return JSON_RPC_Function_Handler::call(function_, channel, object);
}

JSON_RPC_Thread_Function_Handler::JSON_RPC_Thread_Function_Handler(
  JSON_RPC_Function_Handler::Caller_Function function)
  : function_(std::move(function))
{
}

JSON_RPC_Thread_Function_Handler::~JSON_RPC_Thread_Function_Handler() {}

int JSON_RPC_Thread_Function_Handler::handle_object_i(JSON_RPC_Channel_Strong_Ptr channel,
                                                       JSON_RPC_Object_Ptr object)
{
  return JSON_RPC_Function_Handler::call(function_, JSON_RPC_Channel_Weak_Ptr(channel), object);
}

int add_json_rpc_method(const std::string& method, JSON_RPC_Function_Handler::Function function,
                        JSON_RPC_Function_Handler::Thread where)
{
  return add_json_rpc_method(method, JSON_RPC_Function_Handler::with_caller(std::move(function)), where);
}

int add_json_rpc_method(const std::string& method, JSON_RPC_Function_Handler::Caller_Function function,
                        JSON_RPC_Function_Handler::Thread where)
{
  if (method.empty() || !function)
  {
    ACE_ERROR((LM_ERROR, "JSON-RPC method '%C' not added: %C.\n", method.c_str(),
               method.empty() ? "no method name" : "no function"));
    errno = EINVAL;
    return -1;
  }
  JSON_RPC_Handler* handler = nullptr;
  switch (where)
  {
  case JSON_RPC_Function_Handler::THREAD_POOL:
    handler = new (std::nothrow) JSON_RPC_Pool_Function_Handler(std::move(function));
    break;
  case JSON_RPC_Function_Handler::THREAD_OWN:
    handler = new (std::nothrow) JSON_RPC_Thread_Function_Handler(std::move(function));
    break;
  default: handler = new (std::nothrow) JSON_RPC_Function_Handler(std::move(function)); break;
  }
  if (!handler)
  {
    errno = ENOMEM;
    return -1;
  }
  if (JSON_RPC_Request_Map::instance()->insert(method, "", handler, nullptr) == -1)
  {
    ACE_ERROR((LM_ERROR, "JSON-RPC method '%C' not added: it has a handler already.\n", method.c_str()));
    delete handler;
    errno = EEXIST;
    return -1;
  }
  ACE_DEBUG((LM_INFO, "JSON-RPC method '%C' added.\n", method.c_str()));
  return 0;
}
