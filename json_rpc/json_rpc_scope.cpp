// Opens the library's singletons in order for a program, and closes them in order.
#include "json_rpc/json_rpc_scope.h"
#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_params_filter.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "json_rpc/json_restful.h"
#include "tessel/http_uri_map.h"

#include <ace/Log_Msg.h>

#include <atomic>

namespace
{
  std::atomic<bool> scope_open(false);
}

JSON_RPC_Scope::JSON_RPC_Scope(size_t pool_threads, size_t queue_hwm, size_t queue_lwm)
  : owner_(false), ok_(false), pool_(false)
{
  if (scope_open.exchange(true))
  {
    ACE_ERROR((LM_ERROR, "JSON_RPC_Scope: the library is open in another scope already; this one does nothing.\n"));
    return;
  }
  owner_ = true;
  open_singletons();
  if (pool_threads > 0)
  {
    if (JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", pool_threads, queue_hwm, queue_lwm) == -1)
    {
      ACE_ERROR((LM_ERROR, "Failed to activate JSON-RPC thread pool(number: %B, low/high water mark: %B/%B).\n",
                 static_cast<ACE_UINT64>(pool_threads), static_cast<ACE_UINT64>(queue_lwm),
                 static_cast<ACE_UINT64>(queue_hwm)));
      return;
    }
    pool_ = true;
  }
  ok_ = true;
}

JSON_RPC_Scope::~JSON_RPC_Scope() { close(); }

void JSON_RPC_Scope::close()
{
  if (!owner_)
    return;
  owner_ = false;
  ok_ = false;
  // The workers go before anything that they use.
  if (pool_)
    JSON_RPC_Thread_Pool_Handler::deactivate();
  pool_ = false;
  Global_JSON_RPC_Channel::instance(JSON_RPC_Channel_Weak_Ptr());
  close_singletons();
  scope_open = false;
}

bool JSON_RPC_Scope::is_open() { return scope_open; }

void JSON_RPC_Scope::open_singletons()
{
  JSON_RESTful_Request_Map::instance();
  JSON_RPC_Params_Handler_Map::instance();
  JSON_RPC_Request_Map::instance();
  JSON_RPC_Response_Map::instance();
  JSON_RPC_Channel_Map::instance();
  JSON_RPC_Channel_Pool::instance();
  JSON_RPC_Dispatcher::instance();
  JSON_RPC_Notify_Manager::instance();
  HTTP_File_URI_Map::instance();
  HTTP_Redirect_URI_Map::instance();
}

void JSON_RPC_Scope::close_singletons()
{
  JSON_RPC_Notify_Manager::close_instance();
  JSON_RPC_Dispatcher::close_instance();
  JSON_RPC_Channel_Pool::close_instance();
  JSON_RPC_Channel_Map::close_instance();
  JSON_RPC_Response_Map::close_instance();
  JSON_RPC_Request_Map::close_instance();
  JSON_RPC_Params_Handler_Map::close_instance();
  JSON_RESTful_Request_Map::close_instance();
  HTTP_File_URI_Map::close_instance();
  HTTP_Redirect_URI_Map::close_instance();
}
