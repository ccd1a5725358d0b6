#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "json_rpc/json_rpc_answering.h"
#include "tessel/thread_helper.h"

#include <ace/Log_Msg.h>
#include <boost/lexical_cast.hpp>

#include <cerrno>
#include <cstdint>
#include <new>

std::unique_ptr<Thread_Pool_Helper> JSON_RPC_Thread_Pool_Handler::thread_pool_;

namespace
{
  thread_local bool refused = false;

  // Zero: an absolute time in the past, so a full queue refuses at once.
  ACE_Time_Value no_wait;

  // The queue counts each entry as 32 bytes; a mark beyond what that can
  // express is no limit, rather than a small one after wrapping.
  size_t queue_bytes(size_t calls) { return calls > SIZE_MAX / 32 ? SIZE_MAX : calls * 32; }

  // "(value)" unless the value's text is the operand's own name.
  std::string decorate(const char* operand, size_t value)
  {
    std::string text = boost::lexical_cast<std::string>(value);
    return text == operand ? std::string() : "(" + text + ")";
  }
}

JSON_RPC_Thread_Pool_Handler::~JSON_RPC_Thread_Pool_Handler() {}

int JSON_RPC_Thread_Pool_Handler::activate(const char* name, size_t threads, size_t high_water_mark,
                                           size_t low_water_mark)
{
  if (threads == 0)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, threads%C <= 0%C:\n%?\n", decorate("threads", threads).c_str(),
               decorate("0", 0).c_str()));
    return -1;
  }
  if (low_water_mark == 0)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, low_water_mark%C <= 0%C:\n%?\n",
               decorate("low_water_mark", low_water_mark).c_str(), decorate("0", 0).c_str()));
    return -1;
  }
  if (high_water_mark < low_water_mark)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, high_water_mark%C < low_water_mark%C:\n%?\n",
               decorate("high_water_mark", high_water_mark).c_str(),
               decorate("low_water_mark", low_water_mark).c_str()));
    return -1;
  }
  Thread_Pool_Helper* pool = new (std::nothrow) Thread_Pool_Helper(threads, name, 0, 0, &no_wait);
  if (!pool)
  {
    errno = ENOMEM;
    return -1;
  }
  thread_pool_.reset(pool);
  pool->msg_queue()->high_water_mark(queue_bytes(high_water_mark));
  pool->msg_queue()->low_water_mark(queue_bytes(low_water_mark));
  return pool->start();
}

int JSON_RPC_Thread_Pool_Handler::deactivate()
{
  thread_pool_.reset();
  return 0;
}

int JSON_RPC_Thread_Pool_Handler::handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  Thread_Pool_Helper* pool = thread_pool_.get();
  if (!pool)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, thread_pool_.get() is NULL:\n%?\n"));
    refused = true;
    return -1;
  }
  auto call = [this, channel, object] {
    run_answering(channel, object, [&] { return handle_object_i(channel, object); });
  };
  if (pool->schedule(call, false) >= 1)
    return 0;
  refused = true;
  return -1;
}

bool JSON_RPC_Thread_Pool_Handler::take_refusal()
{
  bool was = refused;
  refused = false;
  return was;
}
