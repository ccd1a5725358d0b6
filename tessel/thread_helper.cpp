#include "tessel/thread_helper.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_errno.h>
#include <ace/Thread.h>

#include <cerrno>
#include <new>
#include <pthread.h>

namespace
{
  void name_thread(const std::string& name)
  {
    // Linux limits thread names to 15 characters.
    if (!name.empty())
      pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
  }
}

Thread_Pool_Helper::Thread_Pool_Helper(size_t n, const char* thread_name, long f, long p, ACE_Time_Value* timeout)
  : name(thread_name ? thread_name : ""), threads(n), flags(f), priority(p), enqueue_timeout(timeout)
{
}

Thread_Pool_Helper::~Thread_Pool_Helper()
{
  msg_queue()->deactivate();
  wait();
  msg_queue()->activate();
  drain();
}

void Thread_Pool_Helper::drain()
{
  ACE_Time_Value now = ACE_OS::gettimeofday();
  Task* task = nullptr;
  while (!msg_queue()->is_empty() && getq(task, &now) >= 0)
  {
    if (task != &stop_task)
      delete task;
    task = nullptr;
  }
}

int Thread_Pool_Helper::start()
{
  return activate(flags, static_cast<int>(threads), 0, priority, -1);
}

int Thread_Pool_Helper::schedule(const Task& task, bool at_front)
{
  if (thr_count() == 0)
  {
    ACE_ERROR((LM_ERROR, "No active worker thread!\n"));
    return -1;
  }
  Task* copy = new (std::nothrow) Task(task);
  if (!copy)
  {
    errno = ENOMEM;
    return -1;
  }
  int result = at_front ? ungetq(copy, enqueue_timeout) : putq(copy, enqueue_timeout);
  if (result < 1)
  {
    ACE_ERROR((LM_ERROR, "Failed to schedule task, errno=%d, %m\n", ACE_OS::last_error()));
    delete copy;
  }
  return result;
}

int Thread_Pool_Helper::stop(bool discard)
{
  if (discard)
    drain();
  if (thr_count() == 0)
    return 0;
  int result = putq(&stop_task) == -1 ? -1 : wait();
  drain();
  return result;
}

int Thread_Pool_Helper::svc()
{
  name_thread(name);
  for (;;)
  {
    Task* task = nullptr;
    if (getq(task) < 0 || !task)
      return 0;
    if (task == &stop_task)
    {
      // Put the marker back for the next worker.
      ungetq(task);
      return 0;
    }
    (*task)();
    delete task;
  }
}
