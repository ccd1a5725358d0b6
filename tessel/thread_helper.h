#ifndef TESSEL_THREAD_HELPER_H
#define TESSEL_THREAD_HELPER_H

#include "json_rpc/json_rpc_export.h"

#include <ace/Message_Queue_T.h>
#include <ace/Synch_Traits.h>
#include <ace/Task_Ex_T.h>
#include <ace/Time_Policy.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

/// A pool of worker threads over a bounded queue of callables. Enqueues
/// never block past enqueue_timeout (an absolute time; a past one makes a
/// full queue refuse at once).
///
/// An idle worker spins for a few microseconds before it sleeps, and only
/// one at a time does: a call that follows closely on another is taken
/// without a wake-up, which costs far more than the call itself.
class JSON_RPC_EXPORT Thread_Pool_Helper
  : public ACE_Task_Ex<ACE_MT_SYNCH, std::function<void()>, ACE_System_Time_Policy>
{
public:
  typedef std::function<void()> Task;

  Thread_Pool_Helper(size_t threads, const char* name, long flags, long priority, ACE_Time_Value* enqueue_timeout);
  /// Stops the workers (a running call finishes first), then drops what is
  /// still queued without running it.
  ~Thread_Pool_Helper() override;

  /// -1 (EINVAL) for more threads than ACE can start in one go.
  int start();
  /// Entries in the queue after this one (1 or more), or below 1 on failure.
  int schedule(const Task& task, bool at_front);
  int schedule(Task&& task, bool at_front);
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
  typedef ACE_Message_Queue_Ex<Task, ACE_MT_SYNCH, ACE_System_Time_Policy> Queue_Base;
  // Wakes the sleeping workers when it is deactivated, whoever does it.
  class Queue : public Queue_Base
  {
  public:
    explicit Queue(Thread_Pool_Helper& pool) : pool_(pool) {}
    int deactivate() override;
    int activate() override;

  private:
    Thread_Pool_Helper& pool_;
  };

  int schedule_i(Task* copy, bool at_front);
  int enqueue(Task* task, bool at_front, ACE_Time_Value* timeout);
  int dequeue(Task*& task, ACE_Time_Value* timeout);
  // The next entry for a worker; false once the queue is deactivated.
  bool take(Task*& task);
  bool spin();
  void sleep();
  void wake(bool all);
  void drain();

  Queue queue_;
  // Entries in the queue; workers watch it instead of the queue's lock.
  std::atomic<long> queued_;
  std::atomic<int> spinning_;
  std::atomic<int> sleeping_;
  // The queue's own flag is read without its lock.
  std::atomic<bool> shut_;
  std::mutex sleep_mutex_;
  std::condition_variable sleep_;
};

#endif
