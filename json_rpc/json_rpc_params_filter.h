#ifndef JSON_RPC_PARAMS_FILTER_H
#define JSON_RPC_PARAMS_FILTER_H

#include "json_rpc/json_rpc_export.h"
#include "json_rpc/json_rpc_object.h"
#include "tessel/dll_object_manager_t.h"
#include "tessel/yajl_handler.h"

#include <ace/Null_Mutex.h>

/// Makes, for each call of its method, a filter that sees the events of
/// params as they arrive. create may run on several threads at once.
class JSON_RPC_EXPORT JSON_RPC_Params_Handler_Creator
{
public:
  virtual ~JSON_RPC_Params_Handler_Creator();
  virtual int init(int argc, char** argv);
  virtual int fini();
  /// A new filter on the heap (the reader deletes it), or null to refuse the call.
  virtual YAJL_Handler* create(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) = 0;
};

/// The counterpart for results; nothing installs such creators yet.
class JSON_RPC_EXPORT JSON_RPC_Result_Handler_Creator
{
public:
  virtual ~JSON_RPC_Result_Handler_Creator();
  virtual YAJL_Handler* create(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) = 0;
};

/// Method name to params filter creator.
class JSON_RPC_EXPORT JSON_RPC_Params_Handler_Map
  : public DLL_Object_Manager_T<JSON_RPC_Params_Handler_Creator, void (*)(void*), ACE_Null_Mutex,
                                DLL_Object_Manager_Default_Tag>
{
public:
  JSON_RPC_Params_Handler_Map();
  ~JSON_RPC_Params_Handler_Map() override;
  static JSON_RPC_Params_Handler_Map* instance();
  static void close_instance();
};

#endif
