#ifndef JSON_RPC_THREAD_POOL_HANDLER_H
#define JSON_RPC_THREAD_POOL_HANDLER_H

#include "json_rpc/json_rpc_handler.h"

#include <memory>

class Thread_Pool_Helper;

/// A method that runs on the process-wide pool of workers. handle_object
/// only queues the call; a full queue refuses it at once (-1), so the
/// transport's thread is never held up. An exception that the call throws
/// on its worker is answered as run_answering says, and the worker goes on.
class JSON_RPC_EXPORT JSON_RPC_Thread_Pool_Handler : public JSON_RPC_Handler
{
public:
  ~JSON_RPC_Thread_Pool_Handler() override;

  /// Starts the pool: threads workers, a queue of high_water_mark calls.
  static int activate(const char* name, size_t threads, size_t high_water_mark, size_t low_water_mark);
  /// Stops the workers and drops the calls still queued.
  static int deactivate();

  int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override;
  /// The call, on a worker; the channel may have died while it was queued.
  virtual int handle_object_i(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) = 0;

  /// True if a call was refused on this thread since the last look; for
  /// the dispatching code that answers refused requests.
  static bool take_refusal();

  static std::unique_ptr<Thread_Pool_Helper> thread_pool_;
};

#endif
