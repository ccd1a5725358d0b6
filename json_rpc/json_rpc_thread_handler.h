#ifndef JSON_RPC_THREAD_HANDLER_H
#define JSON_RPC_THREAD_HANDLER_H

#include "json_rpc/json_rpc_handler.h"

#include <ace/Thread.h>

/// A method that runs each call on a detached thread of its own
/// ("JSONRPCSolo"). The handler must outlive every thread it starts.
class JSON_RPC_EXPORT JSON_RPC_Thread_Handler : public JSON_RPC_Handler
{
public:
  ~JSON_RPC_Thread_Handler() override;
  /// 0 once the thread runs; -1 if the channel is gone or no thread starts.
  int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override;
  /// The method's work, on the new thread; channel is never null.
  virtual int handle_object_i(JSON_RPC_Channel_Strong_Ptr channel, JSON_RPC_Object_Ptr object) = 0;

  static ACE_THR_FUNC_RETURN run(void* record);
};

#endif
