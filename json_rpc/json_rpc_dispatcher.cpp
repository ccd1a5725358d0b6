#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "tessel/peer_addr_string_t.h"

#include <ace/Log_Msg.h>
#include "tessel/singleton.h"

typedef Peer_Addr_String_T<JSON_RPC_Channel> Peer_Addr_String;

JSON_RPC_Dispatcher::JSON_RPC_Dispatcher() {}
JSON_RPC_Dispatcher::~JSON_RPC_Dispatcher() {}

TESSEL_DEFINE_SINGLETON(JSON_RPC_Dispatcher)

int JSON_RPC_Dispatcher::dispatch(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  if (!object.get())
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, obj is NULL:\n%?\n"));
    return -1;
  }
  switch (object->type)
  {
  case JSON_RPC_Object::TYPE_NOTIFICATION:
  case JSON_RPC_Object::TYPE_REQUEST: return dispatch_request(channel, object);
  case JSON_RPC_Object::TYPE_RESPONSE:
  case JSON_RPC_Object::TYPE_RESPONSE_ERROR: return dispatch_response(channel, object);
  default: return -1;
  }
}

int JSON_RPC_Dispatcher::dispatch_request(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  JSON_RPC_Request* request = static_cast<JSON_RPC_Request*>(object.get());
  if (!request)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, req is NULL:\n%?\n"));
    return -1;
  }
  if (JSON_RPC_Handler* handler = JSON_RPC_Request_Map::instance()->find(request->method))
  {
    int result = handler->handle_object(channel, object);
    if (!handler->silent() && ACE_LOG_MSG->log_priority_enabled(LM_DEBUG))
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      if (peer.null())
        ACE_DEBUG((LM_DEBUG, "JSON-RPC '%C' is called.\n", request->method.c_str()));
      else
      {
        std::string id = peer->id();
        Peer_Addr_String addr(*peer);
        if (id.empty())
          ACE_DEBUG((LM_DEBUG, "%C called JSON-RPC '%C'.\n", addr.c_str(), request->method.c_str()));
        else
          ACE_DEBUG((LM_DEBUG, "Channel(type: %d) %C(%C) called JSON-RPC '%C'.\n", peer->type(), id.c_str(),
                     addr.c_str(), request->method.c_str()));
      }
    }
    return result;
  }
  if (request->type == JSON_RPC_Object::TYPE_NOTIFICATION)
  {
    JSON_RPC_Notify_Manager::instance()->notify(request->method, object);
    return -1;
  }
  JSON_RPC_Channel_Strong_Ptr peer(channel);
  if (peer.null())
  {
    ACE_ERROR((LM_ERROR, "JSON-RPC requester is gone.\n"));
    return -1;
  }
  ACE_ERROR((LM_ERROR, "JSON-RPC '%C' by %C is not found.\n", request->method.c_str(), Peer_Addr_String(*peer).c_str()));
  return peer->send_error(-32601, request->id, nullptr, json_spirit::Value::null);
}

int JSON_RPC_Dispatcher::dispatch_response(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  JSON_RPC_Handler_Ptr handler = JSON_RPC_Response_Map::instance()->find(object->id);
  if (!handler.get())
    return -1;
  return handler->handle_object(channel, object);
}
