#ifndef JSON_RPC_SESSION_H
#define JSON_RPC_SESSION_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "json_spirit/json_spirit_value.h"

#include <string>

class JSON_Generator;

/// A blocking call over a channel: the response comes back through the
/// dispatcher on the thread that reads the channel. A transport that
/// keeps a JSON_RPC_Wait_List (the TCP one does) fails the call at once
/// when its connection ends: request() is false with errno ECONNRESET (the
/// peer ended it) or ECONNABORTED (our side closed it).
class JSON_RPC_EXPORT JSON_RPC_Session
{
public:
  JSON_RPC_Session();
  explicit JSON_RPC_Session(JSON_RPC_Channel_Weak_Ptr channel);
  ~JSON_RPC_Session();

  void reset(JSON_RPC_Channel_Strong_Ptr channel);

  /// request must be a JSON_RPC_Request; it gets a fresh id for each call.
  /// timeout in seconds: 0 asks JSON_RPC_REQUEST_TIMEOUT (60 if unset),
  /// negative or above 600 waits 600.
  bool request(JSON_RPC_Object_Ptr request, JSON_RPC_Object_Ptr& response, long long timeout);
  /// params are generated while sent (may be null). timeout: 0 asks the
  /// environment, negative waits without limit, no upper limit.
  bool request(const char* method, JSON_Generator* params, JSON_RPC_Object_Ptr& response, long long timeout);
  bool notify(JSON_RPC_Object_Ptr object);
  void get_timeout_env(long long& timeout);

  static bool make_rpc_request(const char* method, const json_spirit::Value& params, JSON_RPC_Object_Ptr& request);
  static JSON_RPC_Object_Ptr make_rpc_request(std::string method, json_spirit::Value&& params);
  /// *params points at the new request's params, to be filled in place.
  static JSON_RPC_Object_Ptr make_rpc_request(std::string method, json_spirit::Value** params);

private:
  JSON_RPC_Channel_Strong_Ptr channel_;
};

#endif
