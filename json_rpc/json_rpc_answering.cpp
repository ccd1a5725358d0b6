// Answers in place of handlers that could give none.
#include "json_rpc/json_rpc_answering.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "tessel/peer_addr_string_t.h"

#include <ace/Log_Msg.h>

#include <string>

const char* const json_rpc_server_busy_message = "Server busy";

namespace
{
  typedef Peer_Addr_String_T<JSON_RPC_Channel> Peer_Addr_String;

  const std::string& method_of(const JSON_RPC_Object& object)
  {
    static const std::string none;
    bool call = object.type == JSON_RPC_Object::TYPE_REQUEST || object.type == JSON_RPC_Object::TYPE_NOTIFICATION;
    return call ? static_cast<const JSON_RPC_Request&>(object).method : none;
  }

  // Logs what happened to the call at priority, naming its method and peer
  // (and adding unanswered for a notification whose peer is there), and
  // sends the error if the call is a request and the peer is still there.
  void answer(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object, ACE_Log_Priority priority,
              const std::string& what, const char* unanswered, int code, const char* message,
              const json_spirit::Value& data)
  {
    JSON_RPC_Channel_Strong_Ptr peer(channel);
    const JSON_RPC_Object* o = object.get();
    std::string method = o ? method_of(*o) : std::string();
    bool request = o && o->type == JSON_RPC_Object::TYPE_REQUEST;
    if (peer.null())
      ACE_ERROR((priority, "JSON-RPC '%C' %C; the requester is gone.\n", method.c_str(), what.c_str()));
    else
      ACE_ERROR((priority, "JSON-RPC '%C' by %C %C%C.\n", method.c_str(), Peer_Addr_String(*peer).c_str(),
                 what.c_str(), request ? "" : unanswered));
    if (!peer.null() && request)
      peer->send_error(code, o->id, message, data);
  }
}

void answer_exception(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object, const char* what)
{
  std::string text = what ? what : "unknown exception";
  answer(channel, object, LM_ERROR, "threw: " + text, "", -32603, nullptr, json_spirit::Value(text));
}

void answer_error(const JSON_RPC_Channel_Weak_Ptr& channel, const JSON_RPC_Object_Ptr& object,
                  const JSON_RPC_Error& error)
{
  answer(channel, object, LM_DEBUG,
         "failed with error " + std::to_string(error.code()) + " (" + error.what() + ")", ", a notification: no answer",
         error.code(), error.what(), error.data());
}

int dispatch_answering(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object)
{
  JSON_RPC_Thread_Pool_Handler::take_refusal();
  int result =
    run_answering(channel, object, [&] { return JSON_RPC_Dispatcher::instance()->dispatch(channel, object); });
  if (result == -1 && JSON_RPC_Thread_Pool_Handler::take_refusal())
    answer(channel, object, LM_ERROR, "refused: the thread pool is full or has no worker", "", JSON_RPC_SERVER_BUSY,
           json_rpc_server_busy_message, json_spirit::Value::null);
  return result;
}
