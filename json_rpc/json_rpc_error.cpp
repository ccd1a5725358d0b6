// The error that a method's code throws to answer with an error response.
#include "json_rpc/json_rpc_error.h"
#include "json_rpc/json_rpc_object.h"

#include <utility>

namespace
{
  std::string message_of(int code, const std::string& message)
  {
    if (!message.empty())
      return message;
    const char* standard = json_rpc_error_message(code);
    return standard ? standard : "";
  }
}

JSON_RPC_Error::JSON_RPC_Error(int code, const std::string& message, json_spirit::Value data)
  : std::runtime_error(message_of(code, message)), code_(code), data_(std::move(data))
{
}

JSON_RPC_Error::~JSON_RPC_Error() {}
