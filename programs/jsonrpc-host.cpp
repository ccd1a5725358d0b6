// jsonrpc-host: serves, over TCP, the handler libraries that a service
// configuration file boots.
//
//   jsonrpc-host --listen HOST:PORT --svc-conf FILE
//                [--framing content-length|ndjson] [--max-message-size BYTES]
//                [--debug]
//
// The service configuration file is read by ACE's service configurator;
// the JSON-RPC service is its `dynamic` line naming _make_JSON_RPC_Service
// in the libjson_rpc that this program runs with. Once it listens, the
// program prints "listening on ADDRESS:PORT" on standard output (port 0
// picks a free one). It serves until SIGINT or SIGTERM, then stops in this
// order: no more connections, every connection closed and its thread ended,
// the services finalized (the JSON-RPC service stops its pool, then closes
// its tables, which destroys the handlers and unloads their libraries).
//
// A directive that fails, such as a service whose pool can't start, is
// logged, and the program serves what did start. Exit status: 0 after a
// stop by signal, 1 if it can't start (unreadable file, address in use),
// 2 for bad usage.
#include "program_util.h"

#include "json_rpc/json_rpc_service.h"
#include "json_rpc/json_rpc_thread_pool_handler.h"
#include "transport/tcp_acceptor.h"

#include <ace/Log_Msg.h>
#include <ace/Service_Config.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace
{
  const char usage[] =
    "usage: jsonrpc-host --listen HOST:PORT --svc-conf FILE [--framing content-length|ndjson]\n"
    "                    [--max-message-size BYTES] [--debug]\n";

  struct Options
  {
    const char* listen = nullptr;
    const char* svc_conf = nullptr;
    TCP_Options tcp;
    bool debug = false;
  };

  bool parse(int argc, char** argv, Options& o)
  {
    for (int i = 1; i < argc; ++i)
    {
      std::string a = argv[i];
      bool has_value = i + 1 < argc;
      if (a == "--listen" && has_value)
        o.listen = argv[++i];
      else if (a == "--svc-conf" && has_value)
        o.svc_conf = argv[++i];
      else if (a == "--framing" && has_value)
      {
        if (!program::parse_framing(argv[++i], o.tcp.framing))
          return false;
      }
      else if (a == "--max-message-size" && has_value)
      {
        char* end = nullptr;
        o.tcp.max_message_size = std::strtoull(argv[++i], &end, 10);
        if (*end || argv[i][0] == '-')
          return false;
      }
      else if (a == "--debug")
        o.debug = true;
      else
        return false;
    }
    return o.listen && o.svc_conf;
  }
}

int main(int argc, char** argv)
{
  Options options;
  if (argc == 2 && std::string(argv[1]) == "--help")
  {
    std::fputs(usage, stdout);
    return 0;
  }
  if (!parse(argc, argv, options))
  {
    std::fputs(usage, stderr);
    return 2;
  }
  ACE_INET_Addr addr;
  if (!program::parse_address(options.listen, addr))
  {
    std::fprintf(stderr, "jsonrpc-host: bad address '%s'\n%s", options.listen, usage);
    return 2;
  }
  // Before any thread starts, so that only the waiter sees the signals.
  program::Waiter waiter;
  if (!waiter.ok())
  {
    std::perror("jsonrpc-host: signals");
    return 1;
  }
  unsigned long mask = LM_SHUTDOWN | LM_TRACE | LM_DEBUG | LM_INFO | LM_NOTICE | LM_WARNING | LM_STARTUP | LM_ERROR |
                       LM_CRITICAL | LM_ALERT | LM_EMERGENCY;
  if (!options.debug)
    mask &= ~(LM_TRACE | LM_DEBUG);
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);

  if (access(options.svc_conf, R_OK) != 0)
  {
    ACE_ERROR((LM_ERROR, "Can't read service configuration file '%s': %m\n", options.svc_conf));
    return 1;
  }
  ACE_Service_Config::open(argv[0], ACE_DEFAULT_LOGGER_KEY, true, true, false);
  int failed = ACE_Service_Config::process_file(options.svc_conf);
  if (failed != 0)
    ACE_ERROR((LM_ERROR, "%d directive(s) of '%s' failed; serving what started.\n", failed, options.svc_conf));

  // The transport's threads need the library's singletons. The service has
  // made them unless it failed; this makes what is missing, and takes down
  // at the end whatever no service has.
  JSON_RPC_Service leftovers;
  leftovers.init(0, nullptr);

  TCP_Acceptor acceptor;
  int status = 0;
  if (acceptor.open(addr, options.tcp) == -1)
  {
    ACE_ERROR((LM_ERROR, "Can't listen on %s: %m\n", options.listen));
    status = 1;
  }
  else
  {
    char host[96] = {0};
    acceptor.local_addr().get_host_addr(host, sizeof host);
    // In the form --listen and jsonrpc-call take.
    bool v6 = acceptor.local_addr().get_type() == AF_INET6;
    std::printf("listening on %s%s%s:%u\n", v6 ? "[" : "", host, v6 ? "]" : "", static_cast<unsigned>(acceptor.port()));
    std::fflush(stdout);
    ACE_DEBUG((LM_INFO, "Listening on %C:%u (%C framing).\n", host, static_cast<unsigned>(acceptor.port()),
               options.tcp.framing == TCP_Options::FRAMING_NDJSON ? "NDJSON" : "Content-Length"));
    int signal = waiter.wait();
    ACE_DEBUG((LM_INFO, "Stopping on signal %d.\n", signal));
  }

  // Transports first: the tables give plain pointers to handlers.
  acceptor.close(true);
  ACE_Service_Config::close();
  JSON_RPC_Thread_Pool_Handler::deactivate();
  leftovers.fini();
  if (status == 0)
    ACE_DEBUG((LM_INFO, "Stopped.\n"));
  return status;
}
