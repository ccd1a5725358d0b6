// Methods written as functions of their params, and their registration.
#ifndef JSON_RPC_FUNCTION_HANDLER_H
#define JSON_RPC_FUNCTION_HANDLER_H

#include "json_rpc/json_rpc_error.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_thread_handler.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"

#include <functional>
#include <string>

/// A method written as a function: it takes the params and returns the
/// result, and the handler answers the request with it. To fail, the
/// function throws JSON_RPC_Error (code, message, data), which becomes the
/// error response; any other exception becomes -32603 "Internal error"
/// with the exception's text as data, logged at error priority. A
/// notification of the method runs the function too, and its result or
/// error goes nowhere.
///
/// The function may run on several threads at once. It gets the params
/// moved out of the request (null when the request had none), and, in its
/// second form, the caller's channel, to subscribe it to notifications or
/// to call it back (never on the thread that runs the function, which a
/// blocking call would wait for: see JSON_RPC_Session).
///
/// Where it runs is chosen at registration (add_json_rpc_method):
/// THREAD_TRANSPORT calls it on the transport's thread, like any direct
/// handler: the cheapest, and right for short work, but the connection
/// (with TCP, every connection of its I/O thread) reads nothing else
/// meanwhile. THREAD_POOL queues the call on
/// the shared pool (JSON_RPC_Thread_Pool_Handler; the pool must run, e.g.
/// JSON_RPC_Scope with pool threads): a full queue answers -32000 "Server
/// busy" at once; the scope's close waits for the calls that run. THREAD_OWN
/// starts a detached thread for each call (JSON_RPC_Thread_Handler), for
/// long work without a limit; nothing waits for those threads, so they must
/// have ended before the scope closes and destroys the method.
class JSON_RPC_EXPORT JSON_RPC_Function_Handler : public JSON_RPC_Handler
{
public:
  enum Thread
  {
    THREAD_TRANSPORT,
    THREAD_POOL,
    THREAD_OWN
  };

  typedef std::function<json_spirit::Value(json_spirit::Value params)> Function;
  typedef std::function<json_spirit::Value(JSON_RPC_Channel_Weak_Ptr caller, json_spirit::Value params)>
    Caller_Function;

  explicit JSON_RPC_Function_Handler(Function function);
  explicit JSON_RPC_Function_Handler(Caller_Function function);
  ~JSON_RPC_Function_Handler() override;

  /// Calls the function on this thread and answers: 0 when answered (or a
  /// notification handled), -1 when the function threw, the caller's
  /// channel is gone or the answer could not be sent.
  int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override;

  /// One call of function for object (a request or notification), answered
  /// as above; what each kind of function handler runs on its thread.
  static int call(const Caller_Function& function, const JSON_RPC_Channel_Weak_Ptr& channel,
                  const JSON_RPC_Object_Ptr& object);
  /// The function of the first form, as one of the second.
  static Caller_Function with_caller(Function function);

private:
  Caller_Function function_;
};

/// A function method on the shared pool of workers (THREAD_POOL).
class JSON_RPC_EXPORT JSON_RPC_Pool_Function_Handler : public JSON_RPC_Thread_Pool_Handler
{
public:
  explicit JSON_RPC_Pool_Function_Handler(JSON_RPC_Function_Handler::Caller_Function function);
  ~JSON_RPC_Pool_Function_Handler() override;
  int handle_object_i(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override;

private:
  JSON_RPC_Function_Handler::Caller_Function function_;
};

/// A function method on a thread of its own for each call (THREAD_OWN).
class JSON_RPC_EXPORT JSON_RPC_Thread_Function_Handler : public JSON_RPC_Thread_Handler
{
public:
  explicit JSON_RPC_Thread_Function_Handler(JSON_RPC_Function_Handler::Caller_Function function);
  ~JSON_RPC_Thread_Function_Handler() override;
  int handle_object_i(JSON_RPC_Channel_Strong_Ptr channel, JSON_RPC_Object_Ptr object) override;

private:
  JSON_RPC_Function_Handler::Caller_Function function_;
};

/// Enters a function method in JSON_RPC_Request_Map under method, run on
/// the thread that where says. Do it before the first transport starts
/// (the request map has no lock: it is read while messages flow, and
/// written only while none do). The map owns the handler and destroys it
/// when it is closed (JSON_RPC_Scope, or JSON_RPC_Service::fini).
/// 0, or -1 with errno: EEXIST when the method has a handler already (the
/// first one stays), EINVAL for an empty method name or function, ENOMEM.
JSON_RPC_EXPORT int add_json_rpc_method(const std::string& method, JSON_RPC_Function_Handler::Function function,
                                        JSON_RPC_Function_Handler::Thread where =
                                          JSON_RPC_Function_Handler::THREAD_TRANSPORT);
JSON_RPC_EXPORT int add_json_rpc_method(const std::string& method,
                                        JSON_RPC_Function_Handler::Caller_Function function,
                                        JSON_RPC_Function_Handler::Thread where =
                                          JSON_RPC_Function_Handler::THREAD_TRANSPORT);

#endif
