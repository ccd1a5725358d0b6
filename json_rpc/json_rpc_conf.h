#ifndef JSON_RPC_CONF_H
#define JSON_RPC_CONF_H

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_params_filter.h"
#include "tessel/json_conf_t.h"

/// Method handlers (-j).
struct JSON_RPC_EXPORT JSON_RPC_Conf_Traits
{
  typedef JSON_RPC_Request_Map Map;
  typedef JSON_RPC_Handler Object;
  static const char* key() { return "method"; }
  static const char* label() { return "JSON-RPC"; }
};

/// Params filter creators (-f).
struct JSON_RPC_EXPORT JSON_RPC_Params_Conf_Traits
{
  typedef JSON_RPC_Params_Handler_Map Map;
  typedef JSON_RPC_Params_Handler_Creator Object;
  static const char* key() { return "method"; }
  static const char* label() { return "JSON-RPC Params"; }
};

/// REST handler creators (-r), keyed by URI.
struct JSON_RPC_EXPORT JSON_RESTful_Conf_Traits
{
  typedef JSON_RESTful_Handler_Creator_Map Map;
  typedef Object_Creator_T<JSON_RESTful_Handler> Object;
  static const char* key() { return URI_Base_Conf_Traits::key; }
  static const char* label() { return "JSON RESTful"; }
};

extern template class JSON_RPC_EXPORT JSON_Conf_T<JSON_RPC_Conf_Traits>;
extern template class JSON_RPC_EXPORT JSON_Conf_T<JSON_RPC_Params_Conf_Traits>;
extern template class JSON_RPC_EXPORT JSON_Conf_T<JSON_RESTful_Conf_Traits>;

#endif
