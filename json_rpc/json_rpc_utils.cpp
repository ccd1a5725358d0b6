#include "json_rpc/json_rpc_utils.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_session.h"
#include "tessel/retry.h"

#include <ace/Log_Msg.h>

namespace
{
  bool json_rpc_with_retry(JSON_RPC_Channel_Strong_Ptr chn, const char* method, const json_spirit::Value& params,
                           json_spirit::Value* result, json_spirit::Value_type type, int retry_timeout, int retries)
  {
    if (chn.null())
    {
      ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, chn.get() is NULL:\n%?\n"));
      return false;
    }
    if (!method || !*method)
    {
      ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, method is NULL or \"\":\n%?\n"));
      return false;
    }
    JSON_RPC_Object_Ptr request;
    if (!JSON_RPC_Session::make_rpc_request(method, params, request))
    {
      ACE_ERROR((LM_ERROR, "Failed to make rpc request for '%C'.\n", method));
      return false;
    }
    JSON_RPC_Session session{JSON_RPC_Channel_Weak_Ptr(chn)};
    JSON_RPC_Object_Ptr response;
    // An answered call is never repeated; only a failed request() is.
    int answered = retry_with_backoff(retries, retry_timeout,
                                      [&] { return session.request(request, response, 0) ? 1 : 0; });
    if (answered != 1)
    {
      ACE_ERROR((LM_ERROR, "JSON-RPC '%C' failed after %d retries.\n", method, retries));
      return false;
    }
    if (!response.get())
      return false;
    if (response->type == JSON_RPC_Object::TYPE_RESPONSE_ERROR)
    {
      const JSON_RPC_Response_Error* error = static_cast<const JSON_RPC_Response_Error*>(response.get());
      ACE_ERROR((LM_ERROR, "JSON-RPC '%C' response error, code: %d, msg: %C.\n", method, error->code,
                 error->message.c_str()));
      return false;
    }
    if (!result)
      return true;
    if (response->type != JSON_RPC_Object::TYPE_RESPONSE)
    {
      ACE_ERROR((LM_ERROR, "The response type '%d' of JSON-RPC '%C' is invalid", response->type, method));
      return false;
    }
    json_spirit::Value& value = static_cast<JSON_RPC_Response*>(response.get())->result;
    if (type != json_spirit::null_type && value.type() != type)
    {
      ACE_ERROR((LM_ERROR, "JSON-RPC '%C' response expected type %d, got %d\n", method, type, value.type()));
      return false;
    }
    *result = std::move(value);
    return true;
  }
}

bool global_json_rpc(const char* method, const json_spirit::Value& params, int retry_timeout,
                     json_spirit::Value* result, json_spirit::Value_type type, int retries)
{
  if (!method || !*method)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, method is NULL or \"\":\n%?\n"));
    return false;
  }
  return json_rpc_with_retry(Global_JSON_RPC_Channel::instance(), method, params, result, type, retry_timeout,
                             retries);
}

bool send_rpc_to_agent(const char* agent_uuid, const char* method, const json_spirit::Value& params,
                       json_spirit::Value* result, json_spirit::Value_type type, int retry_timeout, int retries)
{
  if (!agent_uuid || !*agent_uuid)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, agent_uuid is NULL or \"\":\n%?\n"));
    return false;
  }
  if (!method || !*method)
  {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, method is NULL or \"\":\n%?\n"));
    return false;
  }
  JSON_RPC_Channel_Strong_Ptr channel(JSON_RPC_Channel_Map::instance()->find(1, agent_uuid));
  return json_rpc_with_retry(channel, method, params, result, type, retry_timeout, retries);
}
