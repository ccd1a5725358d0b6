#include "json_rpc/json_rpc_params_filter.h"

#include "tessel/singleton.h"

JSON_RPC_Params_Handler_Creator::~JSON_RPC_Params_Handler_Creator() {}
int JSON_RPC_Params_Handler_Creator::init(int, char**) { return 0; }
int JSON_RPC_Params_Handler_Creator::fini() { return 0; }

JSON_RPC_Result_Handler_Creator::~JSON_RPC_Result_Handler_Creator() {}

JSON_RPC_Params_Handler_Map::JSON_RPC_Params_Handler_Map() {}
JSON_RPC_Params_Handler_Map::~JSON_RPC_Params_Handler_Map() {}

TESSEL_DEFINE_SINGLETON(JSON_RPC_Params_Handler_Map)
