#ifndef TESSEL_THREAD_HELPER_H
#define TESSEL_THREAD_HELPER_H

#include "json_rpc/json_rpc_export.h"

#include <ace/Message_Queue_T.h>
#include <ace/Synch_Traits.h>
#include <ace/Task_Ex_T.h>
#include <ace/Time_Policy.h>

#include <cstdint>
#include <functional>
#include <string>

/// A pool of worker threads over a bounded queue of callables. Enqueues
/// never block past enqueue_timeout (an absolute time; a past one makes a
/// full queue refuse at once).
class JSON_RPC_EXPORT Thread_Pool_Helper
  : public ACE_Task_Ex<ACE_MT_SYNCH, std::function<void()>, ACE_System_Time_Policy>
{
public:
  typedef std::function<void()> Task;

  Thread_Pool_Helper(size_t threads, const char* name, long flags, long priority, ACE_Time_Value* enqueue_timeout);
  /// Stops the workers (a running call finishes first), then drops what is
  /// still queued without running it.
  ~Thread_Pool_Helper() override;

  int start();
  /// Entries in the queue after this one (1 or more), or below 1 on failure.
  int schedule(const Task& task, bool at_front);
  /// Runs what is queued, then stops the workers; discard drops it instead.
  int stop(bool discard);
  int svc() override;

  Task stop_task;
  std::string name;
  uint64_t threads;
  long flags;
  long priority;
  ACE_Time_Value* enqueue_timeout;

private:
  void drain();
};

#endif
