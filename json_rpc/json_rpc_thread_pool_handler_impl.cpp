#include "json_rpc/json_rpc_thread_pool_handler_impl.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_spirit/json_spirit_writer.h"

#include <ace/Log_Msg.h>

JSON_RPC_Thread_Pool_Handler_Impl::JSON_RPC_Thread_Pool_Handler_Impl() {}
JSON_RPC_Thread_Pool_Handler_Impl::~JSON_RPC_Thread_Pool_Handler_Impl() {}

namespace
{
  template <class T>
  bool cast_ok(T* p)
  {
    if (p)
      return true;
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, p is NULL:\n%?\n"));
    return false;
  }
}

int JSON_RPC_Thread_Pool_Handler_Impl::handle_object_i(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  // Held until the callback returns, so the channel can't die under it.
  JSON_RPC_Channel_Strong_Ptr peer(channel);
  JSON_RPC_Object* o = object.get();
  switch (o->type)
  {
  case JSON_RPC_Object::TYPE_REQUEST:
  {
    JSON_RPC_Request* p = dynamic_cast<JSON_RPC_Request*>(o);
    return cast_ok(p) ? handle_request(peer.get(), *p) : -1;
  }
  case JSON_RPC_Object::TYPE_NOTIFICATION:
  {
    JSON_RPC_Request* p = dynamic_cast<JSON_RPC_Request*>(o);
    return cast_ok(p) ? handle_notify(peer.get(), *p) : -1;
  }
  case JSON_RPC_Object::TYPE_RESPONSE:
  {
    JSON_RPC_Response* p = dynamic_cast<JSON_RPC_Response*>(o);
    return cast_ok(p) ? handle_response(peer.get(), *p) : -1;
  }
  case JSON_RPC_Object::TYPE_RESPONSE_ERROR:
  {
    JSON_RPC_Response_Error* p = dynamic_cast<JSON_RPC_Response_Error*>(o);
    return cast_ok(p) ? handle_response_error(peer.get(), *p) : -1;
  }
  }
  ACE_ERROR((LM_ERROR, "An unknown type(%d) of JSON-RPC object(id: %C) is receivced.\n", o->type,
             JSON_Dump(o->id, false).c_str()));
  return -1;
}

int JSON_RPC_Thread_Pool_Handler_Impl::handle_request(JSON_RPC_Channel*, JSON_RPC_Request&) { return 0; }
int JSON_RPC_Thread_Pool_Handler_Impl::handle_notify(JSON_RPC_Channel*, JSON_RPC_Request&) { return 0; }
int JSON_RPC_Thread_Pool_Handler_Impl::handle_response(JSON_RPC_Channel*, JSON_RPC_Response&) { return 0; }
int JSON_RPC_Thread_Pool_Handler_Impl::handle_response_error(JSON_RPC_Channel*, JSON_RPC_Response_Error&) { return 0; }
