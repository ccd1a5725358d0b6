#ifndef TESTS_SERVICE_SERVICE_SUPPORT_H
#define TESTS_SERVICE_SERVICE_SUPPORT_H

// Running the service object on a line of options and writing handler
// configuration files; call() (fake_channel.h) calls a method as a
// transport would.

#include "fake_channel.h"
#include "log_capture.h"
#include "test_util.h"

#include "json_rpc/json_rpc_service.h"

#include <ace/ARGV.h>

/// One record of a handler configuration file.
inline std::string record(const std::string& key, const std::string& init, const std::string& params,
                          const std::string& dll = TEST_HANDLERS_DLL, const char* key_member = "method")
{
  return std::string("{\"") + key_member + "\": \"" + key + "\", \"dll\": \"" + dll + "\", \"init\": \"" + init +
         "\", \"params\": \"" + params + "\"}";
}

/// A service object through init and fini, as ACE's configurator runs it.
struct Service_Run
{
  explicit Service_Run(const std::string& options)
  {
    ACE_ARGV args(options.c_str(), false);
    result = service.init(args.argc(), args.argc() ? args.argv() : nullptr);
  }
  ~Service_Run() { service.fini(); }

  JSON_RPC_Service service;
  int result;
};

#endif
