#ifndef TESTS_SERVICE_SERVICE_SUPPORT_H
#define TESTS_SERVICE_SERVICE_SUPPORT_H

// Running the service object on a line of options, writing configuration
// files, and calling a method as a transport would.

#include "fake_channel.h"

#include "json_rpc/json_rpc_dispatcher.h"
#include "json_rpc/json_rpc_service.h"
#include "json_spirit/json_spirit_writer.h"

#include <ace/ARGV.h>
#include <ace/Service_Config.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

/// A fresh directory for the files of one test, removed with it.
class Temp_Dir
{
public:
  Temp_Dir()
  {
    std::string pattern = (std::filesystem::temp_directory_path() / "service_test.XXXXXX").string();
    if (char* made = mkdtemp(&pattern[0]))
      path_ = made;
  }
  ~Temp_Dir()
  {
    std::error_code ignored;
    if (!path_.empty())
      std::filesystem::remove_all(path_, ignored);
  }
  std::string path(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::string& text) const
  {
    std::ofstream(path(name)) << text;
    return path(name);
  }

private:
  std::string path_;
};

inline std::string read_file(const std::string& path)
{
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::string replace_all(std::string text, const std::string& from, const std::string& to)
{
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

/// One record of a handler configuration file.
inline std::string record(const std::string& key, const std::string& init, const std::string& params,
                          const std::string& dll, const char* key_member = "method")
{
  return std::string("{\"") + key_member + "\": \"" + key + "\", \"dll\": \"" + dll + "\", \"init\": \"" + init +
         "\", \"params\": \"" + params + "\"}";
}

/// A service object through init and fini, as ACE's configurator runs it.
class Service_Run
{
public:
  explicit Service_Run(const std::string& options)
  {
    ACE_ARGV args(options.c_str(), false);
    result = service.init(args.argc(), args.argc() ? args.argv() : nullptr);
  }
  ~Service_Run() { service.fini(); }

  JSON_RPC_Service service;
  int result;
};

/// What a direct handler answered to one request: its result as JSON
/// text, "error CODE", or "no answer".
inline std::string call(const std::string& method, const json_spirit::Value& params = json_spirit::Value())
{
  JSON_RPC_Channel_Strong_Ptr channel(new Fake_Channel);
  JSON_RPC_Request* request = new JSON_RPC_Request;
  request->type = JSON_RPC_Object::TYPE_REQUEST;
  request->version = "2.0";
  request->method = method;
  request->id = 1;
  request->params = params;
  JSON_RPC_Dispatcher::instance()->dispatch(JSON_RPC_Channel_Weak_Ptr(channel), JSON_RPC_Object_Ptr(request));
  auto sent = static_cast<Fake_Channel&>(*channel).sent();
  if (sent.empty())
    return "no answer";
  if (sent.back()->type == JSON_RPC_Object::TYPE_RESPONSE_ERROR)
    return "error " + std::to_string(static_cast<JSON_RPC_Response_Error&>(*sent.back()).code);
  return json_spirit::write_string(static_cast<JSON_RPC_Response&>(*sent.back()).result);
}

/// ACE's service configurator, opened once for the process, without the
/// default svc.conf and static services.
inline void open_configurator()
{
  static std::once_flag once;
  std::call_once(once, [] {
    ACE_Service_Config::open(ACE_TEXT("service_tests"), ACE_DEFAULT_LOGGER_KEY, true, true, false);
  });
}

#endif
