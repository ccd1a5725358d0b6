#ifndef JSON_RPC_H
#define JSON_RPC_H
// Every public header of the library.
#include "json_rpc/json_rpc_object.h"
#include "json_rpc/json_rpc_parser.h"
#include "json_rpc/json_rpc_reader.h"
#include "json_rpc/json_rpc_generator.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_notify_manager.h"
#include "json_rpc/json_rpc_channel_map.h"
#include "json_rpc/json_rpc_forward_map.h"
#include "json_rpc/json_rpc_session.h"
#include "json_rpc/json_rpc_utils.h"
#include "json_rpc/json_rpc_thread_handler.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "json_rpc/json_rpc_thread_pool_handler_impl.h"
#include "json_rpc/json_rpc_params_filter.h"
#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_conf.h"
#include "json_rpc/json_rpc_service.h"
#endif
