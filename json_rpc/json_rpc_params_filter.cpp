#include "json_rpc/json_rpc_params_filter.h"

#include <ace/Singleton.h>

JSON_RPC_Params_Handler_Creator::~JSON_RPC_Params_Handler_Creator() {}
int JSON_RPC_Params_Handler_Creator::init(int, char**) { return 0; }
int JSON_RPC_Params_Handler_Creator::fini() { return 0; }

JSON_RPC_Result_Handler_Creator::~JSON_RPC_Result_Handler_Creator() {}

JSON_RPC_Params_Handler_Map::JSON_RPC_Params_Handler_Map() {}
JSON_RPC_Params_Handler_Map::~JSON_RPC_Params_Handler_Map() {}

JSON_RPC_Params_Handler_Map* JSON_RPC_Params_Handler_Map::instance()
{
  return ACE_Unmanaged_Singleton<JSON_RPC_Params_Handler_Map, ACE_Null_Mutex>::instance();
}

void JSON_RPC_Params_Handler_Map::close_instance()
{
  ACE_Unmanaged_Singleton<JSON_RPC_Params_Handler_Map, ACE_Null_Mutex>::close();
}
