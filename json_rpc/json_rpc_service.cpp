#include "json_rpc/json_rpc_service.h"
#include "json_rpc/json_rpc_conf.h"
#include "json_rpc/json_rpc_scope.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"

#include <ace/Get_Opt.h>
#include <ace/Log_Msg.h>

#include <cerrno>
#include <cstdint>

template class JSON_Conf_T<JSON_RPC_Conf_Traits>;
template class JSON_Conf_T<JSON_RPC_Params_Conf_Traits>;
template class JSON_Conf_T<JSON_RESTful_Conf_Traits>;

namespace
{
  // Unsigned decimal: one optional '+', digits up to the first other byte;
  // a '-' or no digit gives 0 (EINVAL), overflow the largest value (ERANGE).
  uint64_t to_number(const char* text)
  {
    errno = EINVAL;
    if (!text || !*text || *text == '-')
      return 0;
    if (*text == '+')
      ++text;
    if (*text < '0' || *text > '9')
      return 0;
    uint64_t value = 0;
    for (; *text >= '0' && *text <= '9'; ++text)
    {
      unsigned int d = *text - '0';
      if (value > (UINT64_MAX - d) / 10)
      {
        errno = ERANGE;
        return UINT64_MAX;
      }
      value = value * 10 + d;
    }
    errno = 0;
    return value;
  }

  // The value is used whatever happened, but a text that is no number is
  // worth a line: "-n x" silently means no pool.
  uint64_t number_option(const ACE_TCHAR* text, int option)
  {
    uint64_t value = to_number(text);
    if (errno != 0)
      ACE_DEBUG((LM_WARNING, "Bad number '%s' for JSON_RPC_Service option -%c, %B is used.\n", text ? text : "",
                 option, value));
    return value;
  }

  void destroy_service(void* service) { delete static_cast<ACE_Service_Object*>(service); }
}

JSON_RPC_Service::JSON_RPC_Service() : ACE_Service_Object(nullptr), thread_number(0), queue_hwm(1024), queue_lwm(512)
{
}

JSON_RPC_Service::~JSON_RPC_Service() {}

int JSON_RPC_Service::init(int argc, ACE_TCHAR* argv[])
{
  // Before the first configuration file is read and a handler library loaded.
  JSON_RPC_Scope::open_singletons();

  parse_args(argc, argv);

  if (thread_number == 0)
    return 0;
  if (JSON_RPC_Thread_Pool_Handler::activate("JSONRPC", thread_number, queue_hwm, queue_lwm) == -1)
  {
    ACE_ERROR((LM_ERROR, "Failed to activate JSON-RPC thread pool(number: %B, low/high water mark: %B/%B).\n",
               thread_number, queue_lwm, queue_hwm));
    return -1;
  }
  ACE_DEBUG((LM_INFO, "JSON-RPC thread pool(number: %B, low/high water mark: %B/%B) is activated.\n", thread_number,
             queue_lwm, queue_hwm));
  return 0;
}

int JSON_RPC_Service::parse_args(int argc, ACE_TCHAR* argv[])
{
  ACE_Get_Opt opt(argc, argv, ACE_TEXT("j:f:h:l:n:r:"), 0, 0, ACE_Get_Opt::PERMUTE_ARGS, 0);
  opt.long_option(ACE_TEXT("jsonrpc"), 'j', ACE_Get_Opt::ARG_REQUIRED);
  opt.long_option(ACE_TEXT("jsonrpc-params-filter"), 'f', ACE_Get_Opt::ARG_REQUIRED);
  opt.long_option(ACE_TEXT("restful"), 'r', ACE_Get_Opt::ARG_REQUIRED);
  opt.long_option(ACE_TEXT("jsonrpc-thread-number"), 'n', ACE_Get_Opt::ARG_REQUIRED);
  opt.long_option(ACE_TEXT("jsonrpc-thread-queue-hwm"), 'h', ACE_Get_Opt::ARG_REQUIRED);
  opt.long_option(ACE_TEXT("jsonrpc-thread-queue-lwm"), 'l', ACE_Get_Opt::ARG_REQUIRED);
  int c;
  while ((c = opt()) != -1)
  {
    switch (c)
    {
    case 'j': load_json_config(opt.opt_arg(), JSON_Conf_T<JSON_RPC_Conf_Traits>()); break;
    case 'f': load_json_config(opt.opt_arg(), JSON_Conf_T<JSON_RPC_Params_Conf_Traits>()); break;
    case 'r': load_json_config(opt.opt_arg(), JSON_Conf_T<JSON_RESTful_Conf_Traits>()); break;
    case 'n': thread_number = number_option(opt.opt_arg(), c); break;
    case 'h': queue_hwm = number_option(opt.opt_arg(), c); break;
    case 'l': queue_lwm = number_option(opt.opt_arg(), c); break;
    default: ACE_ERROR((LM_ERROR, "Unknown JSON_RPC_Service option %s\n", opt.last_option())); break;
    }
  }
  return 0;
}

int JSON_RPC_Service::fini()
{
  if (thread_number != 0)
    JSON_RPC_Thread_Pool_Handler::deactivate();
  JSON_RPC_Scope::close_singletons();
  return 0;
}

ACE_Service_Object* _make_JSON_RPC_Service(void (**gobbler)(void*))
{
  if (gobbler)
    *gobbler = &destroy_service;
  return new JSON_RPC_Service;
}
