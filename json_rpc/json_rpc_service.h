#ifndef JSON_RPC_SERVICE_H
#define JSON_RPC_SERVICE_H

#include "json_rpc/json_rpc_export.h"

#include <ace/Service_Object.h>

#include <cstdint>

/// Boots the library from a service configuration line:
///   -j/--jsonrpc FILE                   method handlers
///   -f/--jsonrpc-params-filter FILE     params filter creators
///   -r/--restful FILE                   REST handler creators
///   -n/--jsonrpc-thread-number N        pool workers (0: no pool)
///   -h/--jsonrpc-thread-queue-hwm N     pool queue high water mark, in calls
///   -l/--jsonrpc-thread-queue-lwm N     pool queue low water mark, in calls
/// Bad options and files leave the service running with less, in the log.
class JSON_RPC_EXPORT JSON_RPC_Service : public ACE_Service_Object
{
public:
  JSON_RPC_Service();
  ~JSON_RPC_Service() override;

  int init(int argc, ACE_TCHAR* argv[]) override;
  int fini() override;

  uint64_t thread_number;
  uint64_t queue_hwm;
  uint64_t queue_lwm;

private:
  int parse_args(int argc, ACE_TCHAR* argv[]);
};

extern "C" JSON_RPC_EXPORT ACE_Service_Object* _make_JSON_RPC_Service(void (**gobbler)(void*));

#endif
