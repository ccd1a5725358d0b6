#include "json_rpc/json_rpc_object.h"
#include "tessel/utils.h"

#include <ace/OS_NS_stdio.h>

JSON_RPC_Object::JSON_RPC_Object(Type t) : type(t), version("2.0") {}
JSON_RPC_Object::~JSON_RPC_Object() {}

JSON_RPC_Request::JSON_RPC_Request() : JSON_RPC_Object(TYPE_REQUEST) {}
JSON_RPC_Request::~JSON_RPC_Request() {}

JSON_RPC_Response::JSON_RPC_Response(JSON_RPC_Request const* request) : JSON_RPC_Object(TYPE_RESPONSE)
{
  if (request)
  {
    version = request->version;
    id = request->id;
  }
}
JSON_RPC_Response::~JSON_RPC_Response() {}

JSON_RPC_Response_Error::JSON_RPC_Response_Error() : JSON_RPC_Object(TYPE_RESPONSE_ERROR), code(-32603) {}
JSON_RPC_Response_Error::~JSON_RPC_Response_Error() {}

namespace
{
  struct Error_Entry
  {
    char const* message;
    int code;
  };

  const Error_Entry error_table[] = {
    {"Parse error", -32700},
    {"Invalid Request", -32600},
    {"Method not found", -32601},
    {"Invalid params", -32602},
    {"Internal error", -32603},
    {nullptr, 0},
  };
}

char const* json_rpc_error_message(int code)
{
  for (const Error_Entry* e = error_table; e->message; ++e)
    if (e->code == code)
      return e->message;
  return nullptr;
}

JSON_RPC_Id::JSON_RPC_Id(json_spirit::Value const& id)
{
  char buffer[32];
  switch (id.type())
  {
  case json_spirit::str_type: text_ = id.get_str(); return;
  case json_spirit::int_type:
    if (id.is_uint64())
      ACE_OS::snprintf(buffer, sizeof buffer, "%lld", id.get_int64());
    else
      ACE_OS::snprintf(buffer, sizeof buffer, "%d", id.get_int());
    break;
  case json_spirit::real_type: ACE_OS::snprintf(buffer, sizeof buffer, "%f", id.get_real()); break;
  case json_spirit::null_type: text_ = "<null type>"; return;
  default: text_ = "<invalid type>"; return;
  }
  text_ = buffer;
}

JSON_RPC_Id::~JSON_RPC_Id() {}

JSON_RPC_Request_Dump::JSON_RPC_Request_Dump(JSON_RPC_Request const& request)
{
  text_ = "JSON-RPC request (version='";
  text_ += request.version;
  text_ += "', method='";
  text_ += request.method;
  text_ += "', id='";
  text_ += JSON_RPC_Id(request.id).c_str();
  text_ += "')";
}

JSON_RPC_Request_Dump::~JSON_RPC_Request_Dump() {}

JSON_RPC_Id_Generator::JSON_RPC_Id_Generator() {}
JSON_RPC_Id_Generator::~JSON_RPC_Id_Generator() {}

std::string JSON_RPC_Id_Generator::get()
{
  std::string id;
  uuid_string(id, false);
  return id;
}

void JSON_RPC_Id_Generator::gen(JSON_RPC_Object& object) { object.id = json_spirit::Value(get()); }
