#include "tessel/thread_helper.h"
#include "tessel/spin_wait.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_errno.h>
#include <ace/Thread.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <new>
#include <pthread.h>

namespace
{
  // About what waking a sleeping thread costs; spinning longer only burns
  // the core.
  const std::chrono::microseconds spin_time(50);

  void name_thread(const std::string& name)
  {
    // Linux limits thread names to 15 characters.
    if (!name.empty())
      pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
  }
}

Thread_Pool_Helper::Thread_Pool_Helper(size_t n, const char* thread_name, long f, long p, ACE_Time_Value* timeout)
  : ACE_Task_Ex<ACE_MT_SYNCH, Task, ACE_System_Time_Policy>(nullptr, &queue_),
    name(thread_name ? thread_name : ""), threads(n), flags(f), priority(p), enqueue_timeout(timeout), queue_(*this),
    queued_(0), spinning_(0), sleeping_(0), shut_(false)
{
}

Thread_Pool_Helper::~Thread_Pool_Helper()
{
  msg_queue()->deactivate();
  wait();
  msg_queue()->activate();
  drain();
}

int Thread_Pool_Helper::Queue::deactivate()
{
  int result = Queue_Base::deactivate();
  pool_.shut_.store(true);
  pool_.wake(true);
  return result;
}

int Thread_Pool_Helper::Queue::activate()
{
  int result = Queue_Base::activate();
  pool_.shut_.store(false);
  return result;
}

int Thread_Pool_Helper::enqueue(Task* task, bool at_front, ACE_Time_Value* timeout)
{
  int result = at_front ? ungetq(task, timeout) : putq(task, timeout);
  if (result >= 0)
  {
    queued_.fetch_add(1);
    // A spinning worker takes it without help.
    if (spinning_.load() == 0 && sleeping_.load() > 0)
      wake(false);
  }
  return result;
}

int Thread_Pool_Helper::dequeue(Task*& task, ACE_Time_Value* timeout)
{
  int result = getq(task, timeout);
  if (result >= 0)
    queued_.fetch_sub(1);
  return result;
}

void Thread_Pool_Helper::drain()
{
  ACE_Time_Value past;
  Task* task = nullptr;
  while (!msg_queue()->is_empty() && dequeue(task, &past) >= 0)
  {
    if (task != &stop_task)
      delete task;
    task = nullptr;
  }
}

int Thread_Pool_Helper::start()
{
  if (threads > INT_MAX)
  {
    errno = EINVAL;
    return -1;
  }
  return activate(flags, static_cast<int>(threads), 0, priority, -1);
}

int Thread_Pool_Helper::schedule(const Task& task, bool at_front) { return schedule(Task(task), at_front); }

int Thread_Pool_Helper::schedule(Task&& task, bool at_front)
{
  if (thr_count() == 0)
  {
    ACE_ERROR((LM_ERROR, "No active worker thread!\n"));
    return -1;
  }
  Task* copy = new (std::nothrow) Task(std::move(task));
  if (!copy)
  {
    errno = ENOMEM;
    return -1;
  }
  int result = enqueue(copy, at_front, enqueue_timeout);
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
  int result = enqueue(&stop_task, false, nullptr) == -1 ? -1 : wait();
  drain();
  return result;
}

void Thread_Pool_Helper::wake(bool all)
{
  std::lock_guard<std::mutex> lock(sleep_mutex_);
  if (all)
    sleep_.notify_all();
  else
    sleep_.notify_one();
}

bool Thread_Pool_Helper::spin()
{
  int idle = 0;
  if (!spinning_.compare_exchange_strong(idle, 1))
    return false;
  // A dispatching thread that waits for this core gets it.
  bool found =
    Spin_Wait::poll([this] { return queued_.load() > 0; }, std::chrono::steady_clock::now() + spin_time, 1, true);
  spinning_.store(0);
  return found;
}

void Thread_Pool_Helper::sleep()
{
  std::unique_lock<std::mutex> lock(sleep_mutex_);
  // Counted before the look at the queue, so an enqueue either sees the
  // sleeper or is seen by it.
  sleeping_.fetch_add(1);
  while (queued_.load() <= 0 && !shut_.load())
    sleep_.wait(lock);
  sleeping_.fetch_sub(1);
}

bool Thread_Pool_Helper::take(Task*& task)
{
  for (;;)
  {
    if (queued_.load() > 0)
    {
      ACE_Time_Value past;
      if (dequeue(task, &past) >= 0)
      {
        // Left over work goes to another worker while this one is busy.
        if (queued_.load() > 0 && spinning_.load() == 0 && sleeping_.load() > 0)
          wake(false);
        return true;
      }
      if (errno == ESHUTDOWN)
        return false;
      // Another worker was first.
      Spin_Wait::pause();
      continue;
    }
    if (shut_.load())
      return false;
    if (!spin())
      sleep();
  }
}

int Thread_Pool_Helper::svc()
{
  name_thread(name);
  for (;;)
  {
    Task* task = nullptr;
    if (!take(task) || !task)
      return 0;
    if (task == &stop_task)
    {
      // Put the marker back for the next worker.
      enqueue(task, true, nullptr);
      return 0;
    }
    (*task)();
    delete task;
  }
}
