#include "json_rpc/json_rpc_thread_handler.h"
#include "json_rpc/json_rpc_answering.h"
#include "json_rpc/json_rpc_channel.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_errno.h>
#include <ace/Thread_Manager.h>

#include <cerrno>
#include <memory>
#include <new>
#include <pthread.h>

namespace
{
  struct Call_Record
  {
    JSON_RPC_Thread_Handler* handler;
    JSON_RPC_Channel_Strong_Ptr channel;
    JSON_RPC_Object_Ptr object;
  };
}

JSON_RPC_Thread_Handler::~JSON_RPC_Thread_Handler() {}

int JSON_RPC_Thread_Handler::handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  std::unique_ptr<Call_Record> record(new (std::nothrow) Call_Record{this, JSON_RPC_Channel_Strong_Ptr(channel), object});
  if (!record)
  {
    errno = ENOMEM;
    return -1;
  }
  if (record->channel.null())
  {
    ACE_ERROR((LM_ERROR, "Abort handling JRON-RPC request, requester has gone.\n"));
    return -1;
  }
  if (ACE_Thread_Manager::instance()->spawn(run, record.get(), THR_DETACHED) == -1)
  {
    ACE_ERROR((LM_ERROR, "Abort handling JRON-RPC request, failed to spawn thread, errno=%d, %m.\n",
               ACE_OS::last_error()));
    return -1;
  }
  record.release();
  return 0;
}

ACE_THR_FUNC_RETURN JSON_RPC_Thread_Handler::run(void* arg)
{
  pthread_setname_np(pthread_self(), "JSONRPCSolo");
  std::unique_ptr<Call_Record> record(static_cast<Call_Record*>(arg));
  JSON_RPC_Channel_Weak_Ptr channel(record->channel);
  run_answering(channel, record->object, [&] { return record->handler->handle_object_i(record->channel, record->object); });
  return 0;
}
