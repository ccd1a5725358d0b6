#ifndef JSON_RPC_THREAD_POOL_HANDLER_IMPL_H
#define JSON_RPC_THREAD_POOL_HANDLER_IMPL_H

#include "json_rpc/json_rpc_thread_pool_handler.h"

class JSON_RPC_Channel;

/// A pool method with one callback per kind of message. A callback gets a
/// null channel if the peer went while the call was queued: test it before
/// answering. The base callbacks do nothing and return 0.
class JSON_RPC_EXPORT JSON_RPC_Thread_Pool_Handler_Impl : public JSON_RPC_Thread_Pool_Handler
{
public:
  JSON_RPC_Thread_Pool_Handler_Impl();
  ~JSON_RPC_Thread_Pool_Handler_Impl() override;

  int handle_object_i(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override;

  virtual int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request);
  virtual int handle_notify(JSON_RPC_Channel* channel, JSON_RPC_Request& request);
  virtual int handle_response(JSON_RPC_Channel* channel, JSON_RPC_Response& response);
  virtual int handle_response_error(JSON_RPC_Channel* channel, JSON_RPC_Response_Error& error);
};

#endif
