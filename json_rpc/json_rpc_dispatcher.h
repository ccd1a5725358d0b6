#ifndef JSON_RPC_DISPATCHER_H
#define JSON_RPC_DISPATCHER_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"

/// Routes finished messages: calls to the handler of their method (or, for
/// a notification without one, to subscribers), responses to their waiter.
/// Runs the handler on the calling thread; stateless.
class JSON_RPC_EXPORT JSON_RPC_Dispatcher
{
public:
  JSON_RPC_Dispatcher();
  ~JSON_RPC_Dispatcher();
  static JSON_RPC_Dispatcher* instance();
  static void close_instance();

  int dispatch(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object);
  int dispatch_request(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object);
  int dispatch_response(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object);
};

#endif
