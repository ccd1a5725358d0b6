#ifndef JSON_RPC_UTILS_H
#define JSON_RPC_UTILS_H

#include "json_rpc/json_rpc_export.h"
#include "json_spirit/json_spirit_value.h"

/// Calls method on the global channel, repeating failed attempts with
/// back-off. True when a result came (of JSON type `type` unless that is
/// null_type), then moved into *result if result is not null.
JSON_RPC_EXPORT bool global_json_rpc(const char* method, const json_spirit::Value& params, int retry_timeout,
                                     json_spirit::Value* result, json_spirit::Value_type type, int retries);

/// The same over the agent channel (type 1) whose id is agent_uuid.
JSON_RPC_EXPORT bool send_rpc_to_agent(const char* agent_uuid, const char* method, const json_spirit::Value& params,
                                       json_spirit::Value* result, json_spirit::Value_type type, int retry_timeout,
                                       int retries);

#endif
