// Answers in place of handlers that could give none: a request the thread
// pool refused, a request whose handler threw.
#ifndef JSON_RPC_ANSWERING_H
#define JSON_RPC_ANSWERING_H

#include "json_rpc/json_rpc_error.h"
#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"

#include <cxxabi.h>
#include <exception>

/// The error code and message of a request that the thread pool refused
/// (its queue at the high-water mark, or no worker running). The caller
/// may try again later.
const int JSON_RPC_SERVER_BUSY = -32000;
JSON_RPC_EXPORT extern const char* const json_rpc_server_busy_message; // "Server busy"

/// Logs, once and at error priority, that the handler of object threw
/// (what: the exception's text, null for one that is no std::exception),
/// and answers a request with -32603 "Internal error" and the text as data.
JSON_RPC_EXPORT void answer_exception(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object,
                                      const char* what);

/// Answers a request with the error that its handler threw (its code,
/// message and data), with a line at debug priority; a notification gets
/// only the line.
JSON_RPC_EXPORT void answer_error(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object,
                                  const JSON_RPC_Error& error);

/// Runs step, a handler's entry for object, so that an exception it throws
/// is answered and the thread goes on, with -1 as the result: a
/// JSON_RPC_Error by answer_error, any other by answer_exception.
template <class Step>
int run_answering(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object, Step&& step)
{
  try
  {
    return step();
  }
  catch (abi::__forced_unwind&)
  {
    throw; // a cancelled thread must unwind
  }
  catch (const JSON_RPC_Error& e)
  {
    answer_error(channel, object, e);
  }
  catch (const std::exception& e)
  {
    answer_exception(channel, object, e.what());
  }
  catch (...)
  {
    answer_exception(channel, object, nullptr);
  }
  return -1;
}

/// What a transport calls for each message it has read, in place of
/// JSON_RPC_Dispatcher::dispatch: dispatches, and answers where the
/// handler could not: a request that the thread pool refused gets
/// JSON_RPC_SERVER_BUSY with a log line that names the method and the
/// peer (a refused notification is only logged), and an exception thrown
/// on the calling thread is answered as run_answering says. Returns what
/// dispatch gave, -1 after an exception.
JSON_RPC_EXPORT int dispatch_answering(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object);

#endif
